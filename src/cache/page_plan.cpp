#include "cache/page_plan.h"

#include <string_view>

#include "cache/schema.h"
#include "cache/statement.h"

namespace dirwell {

namespace {

std::int64_t countOf(sqlite3 *connection, std::string_view sql, const std::string &listing) {
  Statement statement(connection, sql);
  statement.bind(statement.parameter("@uuid"), listing);
  return statement.step() == SQLITE_ROW ? statement.number(0) : 0;
}

// Whether both tables are as resetSchema() makes them, and nothing else is there: only of these it is known what a
// row's number and path are, and an index, or figures about the tables, would bring another order.
bool hasOwnSchema(sqlite3 *connection) {
  Statement statement(connection,
                      "SELECT count(*), sum(type = 'table' AND sql IN (@cache, @entry)) FROM sqlite_master");
  statement.bind(statement.parameter("@cache"), recorded_cache_table);
  statement.bind(statement.parameter("@entry"), recorded_entry_table);
  return statement.step() == SQLITE_ROW && statement.number(0) == 2 && statement.number(1) == 2;
}

// The greatest row number of a table whose least one is 1, otherwise 0. `sql` asks for the two.
std::int64_t numberedFrom1(sqlite3 *connection, std::string_view sql) {
  Statement statement(connection, sql);
  return statement.step() == SQLITE_ROW && statement.number(0) == 1 ? statement.number(1) : 0;
}

// Entries whose path is one of the first `folders` row numbers, and a whole number rather than a text that reads like
// one. Nearly every listing is of one folder, so has two rows (the folder and the listing's own); each row is asked
// about faster then. The plus takes the column's affinity away, which would turn such texts into numbers.
std::int64_t entriesOfFirst(sqlite3 *connection, std::int64_t folders) {
  constexpr std::string_view of_two = "SELECT COUNT(*) FROM entry WHERE +path IN (1, @folders)";
  constexpr std::string_view of_many =
      "SELECT COUNT(*) FROM entry WHERE path BETWEEN 1 AND @folders AND typeof(path) = 'integer'";
  Statement statement(connection, folders <= 2 ? of_two : of_many);
  statement.bind(statement.parameter("@folders"), folders);
  return statement.step() == SQLITE_ROW ? statement.number(0) : 0;
}

// How many entries there are when all of them belong to the listing and are numbered by their places in it, otherwise
// 0.
std::int64_t entriesInPlace(sqlite3 *connection, std::int64_t folders) {
  // A table has no more rows than its greatest number. So where as many rows are the listing's, each number is taken,
  // and no row is another's.
  if (!hasOwnSchema(connection) ||
      numberedFrom1(connection, "SELECT (SELECT MIN(rowid) FROM cache), (SELECT MAX(rowid) FROM cache)") != folders) {
    return 0;
  }
  const std::int64_t last =
      numberedFrom1(connection, "SELECT (SELECT MIN(rowid) FROM entry), (SELECT MAX(rowid) FROM entry)");
  return last != 0 && entriesOfFirst(connection, folders) == last ? last : 0;
}

}  // namespace

std::int64_t folderRows(sqlite3 *connection, const std::string &listing) {
  return countOf(connection, "SELECT COUNT(*) FROM cache WHERE uuid = @uuid", listing);
}

std::int64_t entryRows(sqlite3 *connection, const std::string &listing) {
  return countOf(connection, "SELECT COUNT(*) FROM cache, entry WHERE uuid = @uuid AND cache.rowid = entry.path",
                 listing);
}

PagePlan planPage(sqlite3 *connection, const std::string &listing) {
  PagePlan plan;
  plan.folders = folderRows(connection, listing);
  if (plan.folders == 0) {
    return plan;
  }
  plan.total = entriesInPlace(connection, plan.folders);
  plan.by_number = plan.total != 0;
  if (!plan.by_number) {
    plan.total = entryRows(connection, listing);
  }
  return plan;
}

}  // namespace dirwell
