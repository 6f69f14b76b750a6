#include "cache/page_plan.h"

#include "cache/schema.h"
#include "cache/statement.h"

namespace dirwell {

namespace {

// Whether both tables are as resetSchema() makes them: only of these it is known what a row's number and path are.
bool holdsOwnTables(sqlite3 *connection) {
  Statement statement(connection,
                      "SELECT count(*), sum(type = 'table' AND sql IN (@cache, @entry)) FROM sqlite_master "
                      "WHERE name COLLATE NOCASE IN ('cache', 'entry')");
  statement.bind(statement.parameter("@cache"), recorded_cache_table);
  statement.bind(statement.parameter("@entry"), recorded_entry_table);
  return statement.step() == SQLITE_ROW && statement.number(0) == 2 && statement.number(1) == 2;
}

// How many entry rows there are if they are numbered 1, 2, 3 and so on without a gap; otherwise -1.
std::int64_t rowsWithoutGap(sqlite3 *connection) {
  Statement statement(connection,
                      "SELECT (SELECT COUNT(*) FROM entry), (SELECT MIN(rowid) FROM entry), "
                      "(SELECT MAX(rowid) FROM entry)");
  if (statement.step() != SQLITE_ROW) {
    return -1;
  }
  const std::int64_t count = statement.number(0);
  const bool gapless = count == 0 || (statement.number(1) == 1 && statement.number(2) == count);
  return gapless ? count : -1;
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

}  // namespace

PagePlan planPage(sqlite3 *connection, const std::string &listing) {
  PagePlan plan;
  plan.folders = rowsWithUuid(connection, listing);
  if (plan.folders == 0) {
    return plan;
  }
  plan.total = entriesByRow(connection, listing);
  // Each entry belongs to one folder row: where there are as many entries as rows, none of the rows is another's.
  plan.by_number = holdsOwnTables(connection) && rowsWithoutGap(connection) == plan.total;
  return plan;
}

}  // namespace dirwell
