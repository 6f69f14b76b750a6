#include "cache/page_plan.h"

#include <string_view>

#include "cache/schema.h"
#include "cache/statement.h"

namespace dirwell {

namespace {

// Whether both tables are as resetSchema() makes them, and nothing else is there: only of these it is known what a
// row's number and path are, and an index, or figures about the tables, would bring another order.
bool holdsOwnTables(sqlite3 *connection) {
  Statement statement(connection,
                      "SELECT count(*), sum(type = 'table' AND sql IN (@cache, @entry)) FROM sqlite_master");
  statement.bind(statement.parameter("@cache"), recorded_cache_table);
  statement.bind(statement.parameter("@entry"), recorded_entry_table);
  return statement.step() == SQLITE_ROW && statement.number(0) == 2 && statement.number(1) == 2;
}

// Whether the rows of a table are numbered 1, 2, 3 and so on. `sql` asks for the least and the greatest number of a
// table that has `rows` rows at least; so when these are 1 and `rows`, each number is taken once.
bool numberedFrom1(sqlite3 *connection, std::string_view sql, std::int64_t rows) {
  Statement statement(connection, sql);
  return rows > 0 && statement.step() == SQLITE_ROW && statement.number(0) == 1 && statement.number(1) == rows;
}

std::int64_t rowsWithUuid(sqlite3 *connection, const std::string &listing) {
  Statement statement(connection, "SELECT COUNT(*) FROM cache WHERE uuid = @uuid");
  statement.bind(statement.parameter("@uuid"), listing);
  return statement.step() == SQLITE_ROW ? statement.number(0) : 0;
}

std::int64_t entriesByRow(sqlite3 *connection, const std::string &listing) {
  Statement statement(connection, "SELECT COUNT(*) FROM cache, entry WHERE uuid = @uuid AND cache.rowid = entry.path");
  statement.bind(statement.parameter("@uuid"), listing);
  return statement.step() == SQLITE_ROW ? statement.number(0) : 0;
}

// The same where the folder rows are the first `folders` numbers, all of them of the listing: half the time. A path
// that is no whole number is no row's.
std::int64_t entriesByPath(sqlite3 *connection, std::int64_t folders) {
  Statement statement(connection, "SELECT COUNT(*) FROM entry WHERE path BETWEEN 1 AND @folders AND (path | 0) = path");
  statement.bind(statement.parameter("@folders"), folders);
  return statement.step() == SQLITE_ROW ? statement.number(0) : 0;
}

}  // namespace

PagePlan planPage(sqlite3 *connection, const std::string &listing) {
  PagePlan plan;
  plan.folders = rowsWithUuid(connection, listing);
  if (plan.folders == 0) {
    return plan;
  }
  const bool own = holdsOwnTables(connection);
  const bool alone =
      own &&
      numberedFrom1(connection, "SELECT (SELECT MIN(rowid) FROM cache), (SELECT MAX(rowid) FROM cache)", plan.folders);
  plan.total = alone ? entriesByPath(connection, plan.folders) : entriesByRow(connection, listing);
  plan.by_number =
      own &&
      numberedFrom1(connection, "SELECT (SELECT MIN(rowid) FROM entry), (SELECT MAX(rowid) FROM entry)", plan.total);
  return plan;
}

}  // namespace dirwell
