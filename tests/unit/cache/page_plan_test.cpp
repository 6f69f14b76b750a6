#include "cache/page_plan.h"

#include <sys/stat.h>

#include <array>
#include <cstring>
#include <limits>
#include <random>
#include <utility>

#include "cache/cache_store.h"
#include "cache/statement.h"
#include "cache_support.h"

namespace dirwell {

// Shows a plan that is not the expected one.
void PrintTo(const PagePlan &plan, std::ostream *stream) {
  *stream << plan.folders << " folders, " << plan.total << " entries, by " << (plan.by_number ? "number" : "count");
}

namespace {

using test::entry;
using test::logged;
using test::OtherConnection;
using test::RememberingFormatter;
using test::rows;
using test::uuidIn;
using testing::_;
using testing::ElementsAre;
using testing::FieldsAre;
using testing::IsEmpty;

constexpr bool by_number = true;
constexpr bool by_count = false;

void run(sqlite3 *connection, const std::string &sql) {
  ASSERT_EQ(sqlite3_exec(connection, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
      << sqlite3_errmsg(connection) << ": " << sql;
}

// The entries 0, 1, 2 and so on, `each` of a folder after the other.
std::vector<ResourceEntry> listingOf(int count, int each) {
  std::vector<ResourceEntry> entries;
  for (int i = 0; i < count; ++i) {
    entries.push_back(entry("/f" + std::to_string(i / each), std::to_string(i)));
    entries.back().stat.st_ino = static_cast<ino_t>(i) + 1;
  }
  return entries;
}

class Plan : public test::CacheTest {
 protected:
  void write(CacheStore &store, const std::vector<ResourceEntry> &entries) {
    logged([&] { uuid = uuidIn(store.set(entries, error)); });
    ASSERT_EQ(error.code, 0U);
    ASSERT_NE(uuid, "");
  }

  std::string uuid;
  ErrorRecord error;
};

TEST_F(Plan, OfAWrittenStoreCountsItsFoldersAndReadsByNumber) {
  CacheStore memory;
  write(memory, listingOf(10, 4));
  EXPECT_THAT(planPage(memory.connection(), uuid), FieldsAre(4, 10, by_number));  // the placeholder is a folder too
  {
    CacheStore file(1, true);
    write(file, listingOf(10, 1));
    EXPECT_THAT(planPage(file.connection(), uuid), FieldsAre(11, 10, by_number));
  }
  const CacheStore again(1, false);
  EXPECT_THAT(planPage(again.connection(), uuid), FieldsAre(11, 10, by_number));
}

TEST_F(Plan, OfAnEmptyListingKnowsThePlaceholderAlone) {
  CacheStore store;
  write(store, {});
  EXPECT_THAT(planPage(store.connection(), uuid), FieldsAre(1, 0, by_count));
}

TEST_F(Plan, OfAnUnknownUuidHasNoFolders) {
  CacheStore store;
  write(store, listingOf(3, 3));
  for (const std::string &unknown : {std::string(), std::string("0-0"), uuid + " ", uuid.substr(1)}) {
    EXPECT_THAT(planPage(store.connection(), unknown), FieldsAre(0, 0, by_count)) << unknown;
  }
  store.clear();
  EXPECT_THAT(planPage(store.connection(), uuid), FieldsAre(0, 0, by_count));
}

TEST_F(Plan, WithoutTablesOrConnectionHasNoFolders) {
  const CacheStore store;
  EXPECT_THAT(planPage(store.connection(), "u"), FieldsAre(0, 0, by_count));
  EXPECT_THAT(planPage(nullptr, "u"), FieldsAre(0, 0, by_count));
  const CacheStore missing(1, false);
  EXPECT_THAT(planPage(missing.connection(), "u"), FieldsAre(0, 0, by_count));
}

// Whether the numbers could serve here is left open: no request leaves such a store behind.
TEST_F(Plan, CountsTheEntriesBesideAnotherUuidThatHasNone) {
  CacheStore store;
  write(store, listingOf(6, 3));
  run(store.connection(), "INSERT INTO cache VALUES ('other', '', ''), ('other', '/x', '/x')");
  EXPECT_THAT(planPage(store.connection(), uuid), FieldsAre(3, 6, _));
  EXPECT_THAT(planPage(store.connection(), "other"), FieldsAre(2, 0, by_count));
}

TEST_F(Plan, CountsTheEntriesOfEachOfTwoListings) {
  CacheStore store;
  write(store, listingOf(6, 3));
  run(store.connection(),
      "INSERT INTO cache VALUES ('other', '/x', '/x');"
      "INSERT INTO entry VALUES (4, 'x', x'', ''), (4, 'y', x'', '')");
  EXPECT_THAT(planPage(store.connection(), uuid), FieldsAre(3, 6, by_count));
  EXPECT_THAT(planPage(store.connection(), "other"), FieldsAre(1, 2, by_count));
  run(store.connection(), "UPDATE cache SET uuid = 'other' WHERE rowid = 2");
  EXPECT_THAT(planPage(store.connection(), uuid), FieldsAre(2, 3, by_count));
  EXPECT_THAT(planPage(store.connection(), "other"), FieldsAre(2, 5, by_count));
}

TEST_F(Plan, ReadsByCountWhereTheNumbersAreNotPlaces) {
  const struct {
    const char *change;
    std::int64_t total;
    bool by_number;
  } table[] = {
      {"DELETE FROM entry WHERE rowid = 3", 5, by_count},
      {"DELETE FROM entry WHERE rowid = 1", 5, by_count},
      {"DELETE FROM entry WHERE rowid = 6", 5, by_number},
      {"DELETE FROM entry", 0, by_count},
      {"UPDATE entry SET rowid = 7 WHERE rowid = 6", 6, by_count},
      {"UPDATE entry SET rowid = 0 WHERE rowid = 1", 6, by_count},
      {"UPDATE entry SET rowid = -rowid", 6, by_count},
      {"UPDATE entry SET rowid = rowid + 100", 6, by_count},
      {"UPDATE entry SET rowid = 9223372036854775807 WHERE rowid = 2", 6, by_count},
      // Two rows moved: the least number and the count are as before, the greatest is not.
      {"DELETE FROM entry WHERE rowid = 4; INSERT INTO entry (rowid, path) VALUES (9, 2)", 6, by_count},
      {"INSERT INTO entry (path, name) VALUES (2, 'more')", 7, by_number},
  };
  for (const auto &row : table) {
    SCOPED_TRACE(row.change);
    CacheStore store;
    write(store, listingOf(6, 3));
    run(store.connection(), row.change);
    EXPECT_THAT(planPage(store.connection(), uuid), FieldsAre(3, row.total, row.by_number));
  }
}

TEST_F(Plan, ReadsByCountWhereAnEntryIsNoneOfTheListing) {
  const struct {
    const char *path;
    std::int64_t total;
    bool by_number;
  } table[] = {{"99", 5, by_count},    {"0", 5, by_count},        {"-1", 5, by_count},        {"4", 5, by_count},
               {"2.5", 5, by_count},   {"1e300", 5, by_count},    {"'far'", 5, by_count},     {"''", 5, by_count},
               {"x'33'", 5, by_count}, {"zeroblob(0)", 5, false}, {"'2.0'", 6, by_number},    {"'3'", 6, by_number},
               {"2.0", 6, by_number},  {"1", 6, by_number},       {"' 2 '", 6, by_number},    {"'2x'", 5, by_count},
               {"2", 6, by_number},    {"'0x2'", 5, by_count},    {"4294967298", 5, by_count}};
  for (const bool beside : {false, true}) {
    for (const auto &row : table) {
      SCOPED_TRACE(std::string(row.path) + (beside ? " beside another listing" : ""));
      CacheStore store;
      write(store, listingOf(6, 3));
      if (beside) {
        run(store.connection(), "INSERT INTO cache VALUES ('other', '/x', '/x')");
      }
      run(store.connection(), std::string("UPDATE entry SET path = ") + row.path + " WHERE rowid = 5");
      const PagePlan plan = planPage(store.connection(), uuid);
      EXPECT_THAT(plan, FieldsAre(3, row.total, _));
      if (!beside || row.by_number == by_count) {
        EXPECT_EQ(plan.by_number, row.by_number);
      }
    }
  }
}

TEST_F(Plan, ReadsByCountWhereAnEntryIsNotOfTheOnlyFolder) {
  const struct {
    const char *path;
    std::int64_t total;
    bool by_number;
  } table[] = {{"0", 5, by_count},     {"3", 5, by_count},     {"-2", 5, by_count},    {"1.5", 5, by_count},
               {"1e300", 5, by_count}, {"'far'", 5, by_count}, {"x'32'", 5, by_count}, {"'2x'", 5, by_count},
               {"1", 6, by_number},    {"2.0", 6, by_number},  {"'2'", 6, by_number},  {"4294967298", 5, by_count}};
  for (const auto &row : table) {
    SCOPED_TRACE(row.path);
    CacheStore store;
    write(store, listingOf(6, 6));
    run(store.connection(), std::string("UPDATE entry SET path = ") + row.path + " WHERE rowid = 5");
    EXPECT_THAT(planPage(store.connection(), uuid), FieldsAre(2, row.total, row.by_number));
  }
}

// A column of whole numbers turns such a text into a number as it is written, but what a file really holds can be
// otherwise.
TEST_F(Plan, ReadsByCountWhereAPathIsATextThatReadsLikeARow) {
  for (const int folders : {1, 2}) {
    std::filesystem::remove(file(1));
    {
      CacheStore store(1, true);
      write(store, listingOf(6, 6 / folders));
      store.commit();
    }
    OtherConnection other(file(1));
    other.run(
        "PRAGMA writable_schema = ON;"
        "UPDATE sqlite_master SET sql = replace(sql, 'path INT NOT', 'path TEXT NOT') WHERE name = 'entry';"
        "PRAGMA writable_schema = RESET; UPDATE entry SET path = '2' WHERE rowid = 5; PRAGMA writable_schema = ON;"
        "UPDATE sqlite_master SET sql = replace(sql, 'path TEXT NOT', 'path INT NOT') WHERE name = 'entry';"
        "PRAGMA writable_schema = RESET");
    ASSERT_THAT(rows(other.handle(), "SELECT typeof(path) FROM entry WHERE rowid = 5"), ElementsAre("text"));
    CacheStore store(1, false);
    EXPECT_THAT(planPage(store.connection(), uuid), FieldsAre(folders + 1, 6, by_count));
  }
}

TEST_F(Plan, CountsTheEntriesOfTheFoldersThatAreLeft) {
  const struct {
    const char *change;
    std::int64_t folders;
    std::int64_t total;
  } table[] = {
      {"DELETE FROM cache WHERE rowid = 1", 2, 6},
      {"DELETE FROM cache WHERE rowid = 2", 2, 3},
      {"DELETE FROM cache WHERE rowid = 3", 2, 3},
      {"UPDATE cache SET uuid = 'other' WHERE rowid = 1", 2, 6},
      {"UPDATE cache SET uuid = 'other' WHERE rowid = 2", 2, 3},
      {"UPDATE cache SET rowid = 9 WHERE rowid = 3", 3, 3},
      {"UPDATE cache SET rowid = -1 WHERE rowid = 1", 3, 6},
      {"UPDATE cache SET rowid = 0 WHERE rowid = 2", 3, 3},
      {"UPDATE entry SET path = 1; UPDATE cache SET rowid = 4 WHERE rowid = 1", 3, 0},
  };
  for (const auto &row : table) {
    SCOPED_TRACE(row.change);
    CacheStore store;
    write(store, listingOf(6, 3));
    run(store.connection(), row.change);
    EXPECT_THAT(planPage(store.connection(), uuid), FieldsAre(row.folders, row.total, _));
  }
}

// Tables that hold a listing of three entries as set() would number them, and yet are not what set() makes.
TEST_F(Plan, TakesTablesOfAnotherMakeByCount) {
  const std::string own_cache =
      "CREATE TABLE cache ( uuid TEXT NOT NULL DEFAULT '', path TEXT NOT NULL DEFAULT '', alias TEXT NOT NULL DEFAULT "
      "'' );";
  const std::string own_entry =
      "CREATE TABLE entry ( path INT NOT NULL DEFAULT 0, name TEXT NOT NULL DEFAULT '', stat BLOB NOT NULL DEFAULT "
      "'', cluster TEXT NOT NULL DEFAULT '' );";
  const std::string content =
      "INSERT INTO cache (uuid, path, alias) VALUES ('u', '', ''), ('u', '/d', '/D');"
      "INSERT INTO entry (path, name) VALUES (2, 'a'), (2, 'b'), (2, 'c');";
  const struct {
    const char *what;
    std::string sql;
    std::int64_t folders;
    std::int64_t total;
    bool by_number;
  } table[] = {
      {"the own make", own_cache + own_entry + content, 2, 3, by_number},
      {"an entry column more",
       own_cache +
           "CREATE TABLE entry ( path INT NOT NULL DEFAULT 0, name TEXT NOT NULL DEFAULT '', stat BLOB NOT NULL "
           "DEFAULT '', cluster TEXT NOT NULL DEFAULT '', more );" +
           content,
       2, 3, by_count},
      {"a folder column more", own_cache + own_entry + "ALTER TABLE cache ADD COLUMN more;" + content, 2, 3, by_count},
      {"other types", "CREATE TABLE cache (uuid, path, alias);" + own_entry + content, 2, 3, by_count},
      {"other letters", own_cache + "CREATE TABLE ENTRY (path, name, stat, cluster);" + content, 2, 3, by_count},
      {"entries without numbers",
       own_cache + "CREATE TABLE entry (path, name PRIMARY KEY, stat, cluster) WITHOUT ROWID;" + content, 2, 3,
       by_count},
      {"folders without numbers",
       "CREATE TABLE cache (uuid, path PRIMARY KEY, alias) WITHOUT ROWID;" + own_entry + content, 2, 0, by_count},
      {"an entry column of that name",
       own_cache + "CREATE TABLE entry (rowid, path, name, stat, cluster);" + content +
           "UPDATE entry SET rowid = 4 - oid;",
       2, 3, by_count},
      {"a folder column of that name",
       "CREATE TABLE cache (rowid, uuid, path, alias);" + own_entry + content +
           "UPDATE cache SET rowid = 2 WHERE path = '';",
       2, 3, by_count},
      {"a key for a number", own_cache + "CREATE TABLE entry (id INTEGER PRIMARY KEY, path, name, stat);" + content, 2,
       3, by_count},
      {"a view of the entries",
       own_cache + "CREATE TABLE t (path, name, stat, cluster); CREATE VIEW entry AS SELECT * FROM t;" +
           "INSERT INTO cache VALUES ('u', '', ''), ('u', '/d', ''); INSERT INTO t (path) VALUES (2), (2), (1)",
       2, 3, by_count},
      {"an index, which has an order of its own", own_cache + own_entry + "CREATE INDEX i ON entry (path);" + content,
       2, 3, by_count},
      {"an index of the folders", own_cache + own_entry + content + "CREATE INDEX i ON cache (uuid);", 2, 3, by_count},
      {"figures for the planner", own_cache + own_entry + content + "ANALYZE;", 2, 3, by_count},
  };
  for (const auto &row : table) {
    SCOPED_TRACE(row.what);
    const OtherConnection connection(":memory:");
    run(connection.handle(), row.sql);
    EXPECT_THAT(planPage(connection.handle(), "u"), FieldsAre(row.folders, row.total, row.by_number));
    const std::vector<std::string> joined =
        rows(connection.handle(), "SELECT COUNT(*) FROM cache, entry WHERE uuid = 'u' AND cache.rowid = entry.path");
    EXPECT_THAT(joined, ElementsAre(row.total != 0 ? std::to_string(row.total) : "error: no such column: cache.rowid"));
  }
}

// --- Pages -----------------------------------------------------------------------------------------------------------

// One row of a page, all of it.
std::string rowText(std::string_view folder, std::string_view name, std::string_view stat, std::string_view alias) {
  return std::string(folder).append("|").append(name).append("|").append(stat).append("|").append(alias);
}

std::string statText(const void *bytes, std::size_t size) {
  struct ::stat status {};
  std::memcpy(&status, bytes, std::min(size, sizeof status));
  return std::to_string(status.st_ino) + "," + std::to_string(status.st_mode) + "," + std::to_string(status.st_size);
}

struct Page {
  std::int64_t total = -1;
  std::vector<std::string> found;
};

bool operator==(const Page &a, const Page &b) {
  return a.total == b.total && a.found == b.found;
}

void PrintTo(const Page &page, std::ostream *stream) {
  *stream << "of " << page.total << ":";
  for (const std::string &row : page.found) {
    *stream << "\n  " << row;
  }
}

// What the plain statements give.
Page plainPage(sqlite3 *connection, const std::string &uuid, std::int32_t offset, std::int32_t limit) {
  Page page;
  Statement count(connection, "SELECT COUNT(*) FROM cache, entry WHERE uuid = @uuid AND cache.rowid = entry.path");
  count.bind(count.parameter("@uuid"), uuid);
  page.total = count.step() == SQLITE_ROW ? count.number(0) : 0;
  Statement statement(connection,
                      "SELECT cache.path, entry.name, entry.stat, cache.alias FROM cache, entry WHERE uuid = @uuid AND "
                      "cache.rowid = entry.path LIMIT @limit OFFSET @offset");
  statement.bind(statement.parameter("@uuid"), uuid);
  statement.bind(statement.parameter("@limit"), limit);
  statement.bind(statement.parameter("@offset"), offset);
  while (statement.step() == SQLITE_ROW) {
    const std::string_view stat = statement.blob(2);
    page.found.push_back(
        rowText(statement.text(0), statement.text(1), statText(stat.data(), stat.size()), statement.text(3)));
  }
  return page;
}

Page fetchedPage(CacheStore &store, const std::string &uuid, std::int32_t offset, std::int32_t limit) {
  ErrorRecord error;
  const auto formatter = std::make_shared<RememberingFormatter>();
  const JsonRef reply = store.fetch(uuid, offset, limit, formatter, error);
  EXPECT_NE(reply, nullptr) << error.message;
  Page page;
  page.total = json_integer_value(json_object_get(reply.get(), "total"));
  for (const ResourceEntry &described : formatter->entries) {
    page.found.push_back(rowText(described.directory.view(), described.name,
                                 statText(&described.stat, sizeof described.stat), described.displayDirectory.view()));
  }
  EXPECT_EQ(json_array_size(json_object_get(reply.get(), "datas")), page.found.size());
  return page;
}

// Changes that a store may have gone through, small ones and such that leave nothing as it was.
class Changes {
 public:
  explicit Changes(unsigned seed) : random_(seed) {}  // NOLINT: the same changes in every run

  std::int64_t between(std::int64_t low, std::int64_t high) {
    return low + static_cast<std::int64_t>(random_() % static_cast<std::uint64_t>(high - low + 1));
  }
  template <std::size_t N>
  std::int64_t one(const std::array<std::int64_t, N> &values) {
    return values[random_() % N];
  }

  std::string next() {
    const std::string row = std::to_string(between(-2, 70));
    switch (between(0, 15)) {
      case 0:
        return "DELETE FROM entry WHERE rowid = " + row;
      case 1:
        return "DELETE FROM entry WHERE rowid > " + row;
      case 2:
        return "DELETE FROM entry WHERE rowid < " + row;
      case 3:
      case 4:
        return "UPDATE entry SET path = " + path() + " WHERE rowid = " + row;
      case 5:
        return "UPDATE entry SET path = " + path() + " WHERE rowid % 3 = 1";
      case 6:
      case 7:
        return insertion(std::to_string(between(-3, 80)));
      case 8:
        return insertion("NULL");
      case 9:
        return insertion("9223372036854775806");
      case 10:
        return "UPDATE OR REPLACE entry SET rowid = " + std::to_string(between(1, 70)) + " WHERE rowid = " + row;
      case 11:
        return "INSERT INTO cache VALUES ('other', '/other', '/Other" + row + "')";
      case 12:
        return "UPDATE OR REPLACE cache SET rowid = " + std::to_string(between(2, 12)) +
               " WHERE rowid = " + std::to_string(between(2, 12));
      case 13:
        return "UPDATE cache SET uuid = 'other' WHERE rowid = " + std::to_string(between(2, 12));
      case 14:
        return "UPDATE entry SET path = (rowid * 7) % 9 + 1";  // folders taken in turns
      default:
        return "CREATE TEMP TABLE scratch (number INTEGER PRIMARY KEY, path, name, stat, cluster);"
               "INSERT INTO scratch (path, name, stat, cluster) SELECT path, name, stat, cluster FROM entry;"
               "DELETE FROM entry; INSERT INTO entry (rowid, path, name, stat, cluster) SELECT * FROM scratch;"
               "DROP TABLE scratch";  // closes every gap
    }
  }

 private:
  std::string path() {
    static const std::array<const char *, 12> kinds{"'2'",   "'two'", "2.5", "3.0",   "x'32'", "''",
                                                    "1e300", "-1",    "0",   "' 3 '", "7.0",   "x''"};
    return between(0, 2) == 0 ? kinds[random_() % kinds.size()] : std::to_string(between(1, 12));
  }
  std::string insertion(const std::string &row) {
    return "INSERT OR REPLACE INTO entry (rowid, path, name, stat) VALUES (" + row + ", " + path() + ", 'new" +
           std::to_string(++names_) + "', zeroblob(" + std::to_string(between(0, 150)) + "))";
  }

  std::mt19937_64 random_;
  int names_ = 0;
};

// How often each way of reading was taken.
struct Ways {
  int by_number = 0;
  int by_count = 0;
};

void expectPlainPages(CacheStore &store, const std::string &uuid, Changes &random, Ways &ways) {
  constexpr std::int64_t least = std::numeric_limits<std::int32_t>::min();
  constexpr std::int64_t most = std::numeric_limits<std::int32_t>::max();
  for (const std::string &listing : {uuid, std::string("other")}) {
    const PagePlan plan = planPage(store.connection(), listing);
    ASSERT_EQ(std::vector<std::string>{std::to_string(plan.folders)},
              rows(store.connection(), "SELECT COUNT(*) FROM cache WHERE uuid = '" + listing + "'"));
    if (plan.folders == 0) {
      continue;
    }
    ++(plan.by_number ? ways.by_number : ways.by_count);
    for (int pages = 0; pages < 6; ++pages) {
      const auto offset = static_cast<std::int32_t>(
          random.one<10>({0, -1, least, most, plan.total, plan.total - 1, plan.total + 1, random.between(0, 70),
                          random.between(0, 70), random.between(-70, 70)}));
      const auto limit = static_cast<std::int32_t>(
          random.one<8>({-1, 0, 1, most, least, random.between(1, 70), random.between(1, 9), -random.between(1, 9)}));
      ASSERT_EQ(fetchedPage(store, listing, offset, limit), plainPage(store.connection(), listing, offset, limit))
          << "offset " << offset << ", limit " << limit;
    }
  }
}

class PagesOfAChangedStore : public Plan, public testing::WithParamInterface<std::size_t> {};

INSTANTIATE_TEST_SUITE_P(Stores, PagesOfAChangedStore, testing::Values(0U, 1U),
                         [](const auto &row) { return row.param == 0 ? "InMemory" : "InAFile"; });

TEST_P(PagesOfAChangedStore, AreThoseOfThePlainStatements) {
  Changes random(20261121);
  Ways ways;
  for (int round = 0; round < 60; ++round) {
    SCOPED_TRACE(round);
    CacheStore store(GetParam(), true);
    write(store, listingOf(static_cast<int>(random.between(0, 60)), static_cast<int>(random.between(1, 12))));
    ASSERT_NO_FATAL_FAILURE(expectPlainPages(store, uuid, random, ways));
    for (std::int64_t changes = random.between(1, 6); changes > 0; --changes) {
      const std::string change = random.next();
      SCOPED_TRACE(change);
      run(store.connection(), change);
      ASSERT_NO_FATAL_FAILURE(expectPlainPages(store, uuid, random, ways));
    }
  }
  EXPECT_GT(ways.by_number, 40);
  EXPECT_GT(ways.by_count, 40);
}

TEST_P(PagesOfAChangedStore, AreThoseOfThePlainStatementsWithAnIndexToo) {
  CacheStore store(GetParam(), true);
  write(store, listingOf(40, 4));
  run(store.connection(), "UPDATE entry SET path = rowid % 10 + 2; CREATE INDEX i ON entry (path)");
  for (const std::int32_t offset : {0, 7, 39}) {
    EXPECT_EQ(fetchedPage(store, uuid, offset, 5), plainPage(store.connection(), uuid, offset, 5));
  }
}

// --- What a store remembers of its own listing -----------------------------------------------------------------------

class OwnListing : public Plan {
 protected:
  OwnListing() { write(store, listingOf(6, 3)); }

  // The total and the names of fetchOwn; -1 where the listing is not there.
  std::pair<std::int64_t, std::vector<std::string>> own() {
    ErrorRecord record;
    const auto formatter = std::make_shared<RememberingFormatter>();
    JsonRef reply;
    logged([&] { reply = store.fetchOwn(1, 3, formatter, record); });
    if (reply == nullptr) {
      EXPECT_STREQ(record.message, "invalid uuid");
      return {-1, {}};
    }
    return {json_integer_value(json_object_get(reply.get(), "total")), formatter->names()};
  }

  CacheStore store;
};

TEST_F(OwnListing, IsReadAsItWasWritten) {
  EXPECT_THAT(own(), FieldsAre(6, ElementsAre("1", "2", "3")));
  EXPECT_THAT(own(), FieldsAre(6, ElementsAre("1", "2", "3")));
}

TEST_F(OwnListing, ShowsEveryChangeOfItsRows) {
  run(store.connection(), "DELETE FROM entry WHERE rowid = 3");
  EXPECT_THAT(own(), FieldsAre(5, ElementsAre("1", "3", "4")));
  run(store.connection(), "UPDATE entry SET path = 99 WHERE name = '1'");
  EXPECT_THAT(own(), FieldsAre(4, ElementsAre("3", "4", "5")));
  run(store.connection(), "INSERT INTO entry (rowid, path, name) VALUES (-5, 2, 'first'), (3, 2, 'new')");
  EXPECT_THAT(own(), FieldsAre(6, ElementsAre("0", "new", "3")));
  run(store.connection(), "UPDATE cache SET uuid = 'other' WHERE rowid = 2");
  EXPECT_THAT(own(), FieldsAre(3, ElementsAre("4", "5")));
  run(store.connection(), "DELETE FROM cache");
  EXPECT_THAT(own(), FieldsAre(-1, IsEmpty()));
}

TEST_F(OwnListing, IsGoneWithWhatRemovesIt) {
  store.clear();
  EXPECT_THAT(own(), FieldsAre(-1, IsEmpty()));
  write(store, listingOf(4, 1));
  EXPECT_THAT(own(), FieldsAre(4, ElementsAre("1", "2", "3")));
  logged([&] { store.remove(uuid, error); });
  EXPECT_THAT(own(), FieldsAre(-1, IsEmpty()));
  write(store, listingOf(2, 1));
  EXPECT_THAT(own(), FieldsAre(2, ElementsAre("1")));
  store.resetSchema();
  EXPECT_THAT(own(), FieldsAre(-1, IsEmpty()));
}

TEST_F(OwnListing, IsTheLastOneAlone) {
  const std::string before = uuid;
  write(store, listingOf(3, 3));
  EXPECT_THAT(own(), FieldsAre(3, ElementsAre("1", "2")));
  EXPECT_EQ(logged([&] { EXPECT_EQ(store.fetch(before, 0, 5, nullptr, error), nullptr); }),
            "STAMP [W] dirwell(PID): [cache] uuid " + before + " invalid\n");
  ErrorRecord quiet;
  logged([&] { EXPECT_EQ(store.fetch("", 0, 5, nullptr, quiet), nullptr); });
}

// The cheap way is worth what it is for only while the entries' table leads.
TEST_F(OwnListing, IsReadFromTheRowOfThePageOn) {
  EXPECT_THAT(rows(store.connection(),
                   "EXPLAIN QUERY PLAN SELECT cache.path, entry.name, entry.stat, cache.alias FROM cache, entry WHERE "
                   "uuid = @uuid AND cache.rowid = entry.path AND entry.rowid > max(@offset, 0) LIMIT @limit"),
              ElementsAre(testing::EndsWith("SEARCH entry USING INTEGER PRIMARY KEY (rowid>?)"),
                          testing::EndsWith("SEARCH cache USING INTEGER PRIMARY KEY (rowid=?)")));
}

}  // namespace
}  // namespace dirwell
