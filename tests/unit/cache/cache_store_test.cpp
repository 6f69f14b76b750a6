#include "cache/cache_store.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "cache_support.h"
#include "service/log.h"

namespace dirwell {
namespace {

using test::dump;
using test::exists;
using test::logged;
using test::OtherConnection;
using test::rows;
using test::rowsOf;
using testing::ElementsAre;
using testing::IsEmpty;

using Store = test::CacheTest;

std::string folded(const CacheStore &store, const std::string &expression) {
  return rows(store.connection(), "SELECT DEDIACRITICAL(" + expression + ")").at(0);
}

TEST_F(Store, MakesItsTablesWithTheirExactText) {
  CacheStore store(1, true);
  store.resetSchema();
  EXPECT_THAT(
      rowsOf(file(1), "SELECT type, name, sql FROM sqlite_master ORDER BY rowid"),
      ElementsAre("table|cache|CREATE TABLE cache ( uuid TEXT NOT NULL DEFAULT '', path TEXT NOT NULL DEFAULT '', "
                  "alias TEXT NOT NULL DEFAULT '' )",
                  "table|entry|CREATE TABLE entry ( path INT NOT NULL DEFAULT 0, name TEXT NOT NULL DEFAULT '', "
                  "stat BLOB NOT NULL DEFAULT '', cluster TEXT NOT NULL DEFAULT '' )"));
}

TEST_F(Store, DropsWhatTheTablesHeldWithEachSchema) {
  CacheStore store(1, true);
  store.resetSchema();
  rows(store.connection(), "INSERT INTO cache(uuid) VALUES ('a'); INSERT INTO entry(name) VALUES ('a')");
  EXPECT_EQ(logged([&] { store.resetSchema(); }), "");
  EXPECT_THAT(rowsOf(file(1), "SELECT * FROM cache, entry"), IsEmpty());
  rows(store.connection(), "INSERT INTO cache(uuid) VALUES ('b')");
  EXPECT_THAT(rowsOf(file(1), "SELECT rowid, uuid FROM cache"), ElementsAre("1|b"));
}

TEST_F(Store, WritesAFreshFileWithItsStorageOptions) {
  CacheStore store(1, true);
  store.resetSchema();
  EXPECT_THAT(rowsOf(file(1), "PRAGMA page_size"), ElementsAre("32768"));
  EXPECT_THAT(rowsOf(file(1), "PRAGMA auto_vacuum"), ElementsAre("1"));          // FULL
  EXPECT_THAT(rows(store.connection(), "PRAGMA temp_store"), ElementsAre("2"));  // MEMORY
  EXPECT_THAT(rows(store.connection(), "PRAGMA synchronous"), ElementsAre("0"));
  EXPECT_THAT(rows(store.connection(), "PRAGMA journal_mode"), ElementsAre("off"));
  rows(store.connection(), "BEGIN; INSERT INTO cache(uuid) VALUES ('a')");
  EXPECT_FALSE(exists(file(1) + "-journal"));
}

TEST_F(Store, NamesTheFileBySessionAndIndex) {
  const CacheStore first(1, true);
  const CacheStore second(2, true);
  const CacheStore large(18446744073709551615U, true);
  EXPECT_TRUE(exists(folder() + "/cachetest.1"));
  EXPECT_TRUE(exists(folder() + "/cachetest.2"));
  EXPECT_TRUE(exists(folder() + "/cachetest.18446744073709551615"));
}

TEST_F(Store, StartsAFreshFileInPlaceOfTheOldOne) {
  std::ofstream(file(1)) << "not a database";
  CacheStore store(1, true);
  EXPECT_EQ(logged([&] { store.resetSchema(); }), "");
  EXPECT_THAT(rowsOf(file(1), "SELECT count(*) FROM cache"), ElementsAre("0"));
}

TEST_F(Store, LogsAFreshFileAboveLevelSix) {
  log_level = 7;
  EXPECT_EQ(logged([] { const CacheStore store(2, true); }),
            "STAMP [D] dirwell(PID): (cache:LINE) [cache] initial db " + file(2) + "\n");
  EXPECT_EQ(logged([] { const CacheStore store(2, false); }), "");
  EXPECT_EQ(logged([] { const CacheStore store; }), "");
  log_level = 6;
  EXPECT_EQ(logged([] { const CacheStore store(2, true); }), "");
}

TEST_F(Store, LeavesNoFileBehindWhereThereWasNone) {
  {
    CacheStore store(1, false);
    EXPECT_EQ(store.connection(), nullptr);
    EXPECT_FALSE(store.hasUuid("a"));
  }
  EXPECT_THAT(rowsOf(":memory:", "SELECT 1"), ElementsAre("1"));
  EXPECT_TRUE(std::filesystem::is_empty(folder()));
}

TEST_F(Store, OpensAnExistingFileWithoutChangingIt) {
  OtherConnection(file(1)).run("CREATE TABLE kept (a)");
  const std::vector<std::string> before = rowsOf(file(1), "PRAGMA page_size");
  CacheStore store(1, false);
  EXPECT_THAT(rows(store.connection(), "SELECT name FROM sqlite_master"), ElementsAre("kept"));
  EXPECT_EQ(rows(store.connection(), "PRAGMA page_size"), before);
  EXPECT_THAT(rows(store.connection(), "PRAGMA journal_mode"), ElementsAre("delete"));
}

TEST_F(Store, KeepsTheInMemoryFormOffTheDisk) {
  configureNothing();
  EXPECT_EQ(logged([] {
              CacheStore unnamed;
              unnamed.resetSchema();
              CacheStore zero(0, true);
              zero.resetSchema();
              EXPECT_THAT(rows(zero.connection(), "SELECT count(*) FROM cache"), ElementsAre("0"));
              EXPECT_THAT(rows(unnamed.connection(), "PRAGMA page_size"), ElementsAre("32768"));
              unnamed.removeFile();
            }),
            "");
  EXPECT_TRUE(std::filesystem::is_empty(folder()));
  EXPECT_FALSE(exists(":memory:"));
}

TEST_F(Store, WarnsWithoutADefaultVolumeAndMakesNothing) {
  configureNothing();
  for (const bool fresh : {true, false}) {
    EXPECT_EQ(logged([&] {
                const CacheStore store(1, fresh);
                EXPECT_EQ(store.connection(), nullptr);
              }),
              "STAMP [W] dirwell(PID): [cache] no default volume\n");
  }
  log_level = 3;
  EXPECT_EQ(logged([] { const CacheStore store(1, true); }), "");
  EXPECT_TRUE(std::filesystem::is_empty(folder()));
  EXPECT_FALSE(exists("/.fs"));
}

TEST_F(Store, AnswersWithoutAConnectionAsFailedStatementsWould) {
  log_level = 3;
  CacheStore store(1, false);
  EXPECT_EQ(logged([&] {
              store.begin();
              store.commit();
              store.rollback();
              store.clear();
              store.removeFile();
              EXPECT_EQ(store.countEntries("a"), 0);
              EXPECT_FALSE(store.hasUuid("a"));
              EXPECT_THAT(store.cachedPaths(), IsEmpty());
              EXPECT_EQ(dump(store.clusterSummary()), "[]");
            }),
            "");
  EXPECT_EQ(logged([&] { store.resetSchema(); }), "STAMP [E] dirwell(PID): [cache] unable to open database file\n");
  log_level = 2;
  EXPECT_EQ(logged([&] { store.resetSchema(); }), "");
}

TEST_F(Store, CountsTheEntriesOfOneUuidByTheirFolders) {
  CacheStore store;
  store.resetSchema();
  rows(store.connection(),
       "INSERT INTO cache(uuid) VALUES ('a'), ('a'), ('b');"
       "INSERT INTO entry(path) VALUES (1), (2), (2), (3), (9)");
  EXPECT_EQ(store.countEntries("a"), 3);
  EXPECT_EQ(store.countEntries("b"), 1);
  EXPECT_EQ(store.countEntries("c"), 0);
  EXPECT_TRUE(store.hasUuid("a"));
  EXPECT_TRUE(store.hasUuid("b"));
  EXPECT_FALSE(store.hasUuid("c"));
  EXPECT_FALSE(store.hasUuid(""));
  EXPECT_FALSE(store.hasUuid("A"));
}

TEST_F(Store, GivesItsPathsInRowOrder) {
  CacheStore store;
  store.resetSchema();
  rows(store.connection(),
       "INSERT INTO cache(uuid, path) VALUES ('a', ''), ('a', '/z'), ('b', '/a'), ('a', '/z'), ('a', "
       "CAST(x'2fff' AS TEXT))");
  EXPECT_THAT(store.cachedPaths(), ElementsAre("", "/z", "/a", "/z", "/\xff"));
}

TEST_F(Store, EmptiesItsTables) {
  CacheStore store(1, true);
  store.resetSchema();
  rows(store.connection(), "INSERT INTO cache(uuid) VALUES ('a'); INSERT INTO entry(name) VALUES ('a')");
  store.clear();
  EXPECT_THAT(rowsOf(file(1), "SELECT (SELECT count(*) FROM cache), (SELECT count(*) FROM entry)"), ElementsAre("0|0"));
}

TEST_F(Store, KeepsWhatIsCommittedAndDropsWhatIsRolledBack) {
  CacheStore store(1, true);
  store.resetSchema();
  store.begin();
  rows(store.connection(), "INSERT INTO cache(uuid) VALUES ('kept')");
  store.commit();
  store.begin();
  rows(store.connection(), "INSERT INTO cache(uuid) VALUES ('dropped')");
  store.rollback();
  EXPECT_THAT(rowsOf(file(1), "SELECT uuid FROM cache"), ElementsAre("kept"));
}

TEST_F(Store, RemovesItsFileAndWorksOn) {
  CacheStore store(1, true);
  store.resetSchema();
  store.removeFile();
  EXPECT_FALSE(exists(file(1)));
  EXPECT_THAT(rows(store.connection(), "SELECT count(*) FROM cache"), ElementsAre("0"));
}

TEST_F(Store, FoldsAccentsAndLettersInStatements) {
  const CacheStore store(1, true);
  EXPECT_EQ(folded(store, "'Crème Brûlée'"), "creme brulee");
  EXPECT_EQ(folded(store, "'e' || char(0x301) || 'É'"), "ee");
  EXPECT_EQ(folded(store, "''"), "");
  EXPECT_EQ(folded(store, "'Straße ΑΘΉΝΑ 東京'"), "straße αθηνα 東京");
  EXPECT_EQ(folded(store, "CAST(x'41ff42' AS TEXT)"),
            "a\xEF\xBF\xBD"
            "b");
  EXPECT_EQ(folded(store, "1"), "NULL");
  EXPECT_EQ(folded(store, "1.5"), "NULL");
  EXPECT_EQ(folded(store, "NULL"), "NULL");
  EXPECT_EQ(folded(store, "x'4142'"), "NULL");
  EXPECT_EQ(folded(store, "'A', 'B'"), "error: wrong number of arguments to function DEDIACRITICAL()");
  EXPECT_EQ(folded(CacheStore(0, true), "'É'"), "e");
  OtherConnection(file(2)).run("CREATE TABLE kept (a)");
  EXPECT_EQ(folded(CacheStore(2, false), "'É'"), "e");
}

TEST_F(Store, FoldsNothingInTheFormWithoutTransliterator) {
  EXPECT_EQ(folded(CacheStore(), "'É'"), "NULL");
}

TEST_F(Store, FindsALockedFileBusyAtOnce) {
  CacheStore store(1, true);
  store.resetSchema();
  OtherConnection other(file(1));
  other.run("BEGIN EXCLUSIVE");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_THAT(rows(store.connection(), "SELECT * FROM cache"), ElementsAre("error: database is locked"));
  EXPECT_EQ(logged([&] { store.resetSchema(); }), "STAMP [E] dirwell(PID): [cache] database is locked\n");
  EXPECT_FALSE(store.hasUuid("a"));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

TEST_F(Store, IsInNobodysWayWithoutALock) {
  CacheStore writer(1, true);
  writer.resetSchema();
  rows(writer.connection(), "INSERT INTO cache VALUES ('a', '/x', ''), ('a', '/y', '')");
  CacheStore look(1, CacheStore::Unlocked{});
  look.begin();
  ASSERT_TRUE(look.holdsOwnTable());
  EXPECT_THAT(rows(writer.connection(), "BEGIN EXCLUSIVE; DELETE FROM cache WHERE path = '/y'"), IsEmpty());
  EXPECT_THAT(look.cachedPaths(), ElementsAre("/x", "/y"));
  EXPECT_THAT(CacheStore(1, CacheStore::Unlocked{}).cachedPaths(), ElementsAre("/x", "/y"));
  EXPECT_THAT(rows(writer.connection(), "COMMIT"), IsEmpty());
  EXPECT_THAT(CacheStore(1, CacheStore::Unlocked{}).cachedPaths(), ElementsAre("/x"));
}

TEST_F(Store, CannotBeWrittenWithoutALock) {
  OtherConnection(file(1)).run("CREATE TABLE cache (uuid, path, alias); INSERT INTO cache VALUES ('a', '/x', '')");
  CacheStore look(1, CacheStore::Unlocked{});
  EXPECT_THAT(rows(look.connection(), "DELETE FROM cache"), ElementsAre("error: attempt to write a readonly database"));
  EXPECT_THAT(look.cachedPaths(), ElementsAre("/x"));
  EXPECT_THAT(rows(look.connection(), "PRAGMA trusted_schema"), ElementsAre("0"));
}

// A journal is what a request writes just then, or what somebody planted.
TEST_F(Store, LeavesAJournalAloneWithoutALock) {
  CacheStore(1, true).resetSchema();
  std::ofstream(file(1) + "-journal") << "of another request";
  EXPECT_TRUE(CacheStore(1, CacheStore::Unlocked{}).holdsOwnTable());
  EXPECT_TRUE(exists(file(1) + "-journal"));
}

TEST_F(Store, FindsNothingWithoutALockWhereNothingIs) {
  {
    CacheStore look(1, CacheStore::Unlocked{});
    EXPECT_EQ(look.connection(), nullptr);
    EXPECT_FALSE(look.holdsOwnTable());
    EXPECT_THAT(look.cachedPaths(), IsEmpty());
  }
  EXPECT_TRUE(std::filesystem::is_empty(folder()));
  ASSERT_EQ(::mkfifo(file(1).c_str(), 0666), 0);
  EXPECT_EQ(CacheStore(1, CacheStore::Unlocked{}).connection(), nullptr);
  std::filesystem::remove(file(1));
  OtherConnection(file(2)).run("CREATE TABLE cache (uuid, path, alias)");
  std::filesystem::create_symlink(file(2), file(1));
  EXPECT_EQ(CacheStore(1, CacheStore::Unlocked{}).connection(), nullptr);
  configureNothing();
  EXPECT_EQ(logged([] { EXPECT_EQ(CacheStore(1, CacheStore::Unlocked{}).connection(), nullptr); }),
            "STAMP [W] dirwell(PID): [cache] no default volume\n");
}

TEST_F(Store, FindsItsFileWithoutALockWhateverTheVolumeIsCalled) {
  const std::string odd = volume() + "/a%41?immutable=0#b \xc3\xa9&c";
  std::filesystem::create_directories(odd + "/.fs");
  configure("[SHARE_DEF]\ndefVolMP = " + odd + "\n");
  CacheStore writer(1, true);
  writer.resetSchema();
  rows(writer.connection(), "INSERT INTO cache VALUES ('a', '/x', '')");
  EXPECT_THAT(CacheStore(1, CacheStore::Unlocked{}).cachedPaths(), ElementsAre("/x"));
}

TEST_F(Store, NotesAFailedCommitAboveLevelSix) {
  CacheStore store(1, true);
  store.resetSchema();
  OtherConnection reader(file(1));
  reader.run("BEGIN; SELECT * FROM cache");
  store.begin();
  rows(store.connection(), "INSERT INTO cache(uuid) VALUES ('a')");
  log_level = 6;
  EXPECT_EQ(logged([&] { store.commit(); }), "");
  log_level = 7;
  EXPECT_EQ(logged([&] { store.commit(); }),
            "STAMP [D] dirwell(PID): (cache:LINE) [cache] commit failed: database is locked\n");
  reader.run("COMMIT");
  EXPECT_EQ(logged([&] { store.commit(); }), "");
  EXPECT_THAT(rowsOf(file(1), "SELECT uuid FROM cache"), ElementsAre("a"));
}

TEST_F(Store, RunsNothingThatAForeignSchemaBringsAlong) {
  OtherConnection(file(1)).run(
      "CREATE TABLE cache (uuid, path, alias); CREATE TABLE entry (path, name, stat, cluster);"
      "CREATE TABLE trap (fell);"
      "CREATE TRIGGER t BEFORE DELETE ON cache BEGIN INSERT INTO trap VALUES (1); END;"
      "INSERT INTO cache VALUES ('a', '/x', '')");
  CacheStore store(1, false);
  ErrorRecord error;
  logged([&] { store.remove("a", error); });
  EXPECT_EQ(error.code, 0U);
  EXPECT_THAT(rowsOf(file(1), "SELECT (SELECT count(*) FROM cache), (SELECT count(*) FROM trap)"), ElementsAre("0|0"));

  OtherConnection(file(2)).run("CREATE VIEW cache AS SELECT '/x' AS path, 'a' AS uuid, '' AS alias");
  CacheStore viewed(2, false);
  EXPECT_THAT(viewed.cachedPaths(), IsEmpty());
  EXPECT_FALSE(viewed.hasUuid("a"));
  rows(viewed.connection(), "PRAGMA writable_schema = ON");
  EXPECT_THAT(rows(viewed.connection(), "DELETE FROM sqlite_master"),
              ElementsAre("error: table sqlite_master may not be modified"));
}

constexpr const char *endless_view =
    "CREATE VIEW cache AS WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n) SELECT ";

TEST_F(Store, StopsReadingPathsThatNeverCome) {
  CacheStore store;
  sqlite3_db_config(store.connection(), SQLITE_DBCONFIG_ENABLE_VIEW, 1, nullptr);
  rows(store.connection(), std::string(endless_view) + "'/x' AS path FROM n WHERE i < 0");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_THAT(store.cachedPaths(), IsEmpty());
  const auto taken = std::chrono::steady_clock::now() - start;
  EXPECT_GE(taken, std::chrono::milliseconds(1900));
  EXPECT_LT(taken, std::chrono::seconds(5));
  // The limit goes with the reading.
  EXPECT_THAT(rows(store.connection(),
                   "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n LIMIT 100000) SELECT max(i) FROM n"),
              ElementsAre("100000"));
}

TEST_F(Store, StopsAtTooManyPathsAndAtTooManyBytesOfThem) {
  CacheStore many;
  sqlite3_db_config(many.connection(), SQLITE_DBCONFIG_ENABLE_VIEW, 1, nullptr);
  rows(many.connection(), std::string(endless_view) + "'/x' AS path FROM n");
  EXPECT_EQ(many.cachedPaths().size(), 200000U);

  CacheStore large;
  sqlite3_db_config(large.connection(), SQLITE_DBCONFIG_ENABLE_VIEW, 1, nullptr);
  rows(large.connection(), std::string(endless_view) + "printf('%1048576s', i) AS path FROM n");
  EXPECT_EQ(large.cachedPaths().size(), 64U);
}

TEST_F(Store, ReadsNullAndVeryLongPaths) {
  OtherConnection(file(1)).run(
      "CREATE TABLE cache (uuid, path, alias);"
      "INSERT INTO cache VALUES ('a', NULL, ''), ('a', printf('/%0500000d', 0), ''), ('a', 7, ''), ('a', x'2f62', ''),"
      "('a', zeroblob(3000000), '')");
  CacheStore store(1, false);
  // The last one is longer than any value that is read from a file.
  EXPECT_THAT(store.cachedPaths(), ElementsAre("", "/" + std::string(500000, '0'), "7", "/b"));
}

}  // namespace
}  // namespace dirwell
