// What others may plant in the cache folder, which is open to everyone.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "cache/cache_store.h"
#include "cache_support.h"

namespace dirwell {
namespace {

using test::logged;
using test::OtherConnection;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char *own_tables =
    "CREATE TABLE IF NOT EXISTS cache ( uuid TEXT NOT NULL DEFAULT '', path TEXT NOT NULL DEFAULT '', alias TEXT NOT "
    "NULL DEFAULT '' );";

class ForeignFiles : public test::CacheTest {
 protected:
  // A file of ours with one listing "a" of one folder "/x".
  void makeListing() {
    logged([] { CacheStore(1, true).resetSchema(); });
    OtherConnection(file(1)).run("INSERT INTO cache VALUES ('a', '/x', '')");
  }
};

TEST_F(ForeignFiles, PipesAreNotWaitedFor) {
  ASSERT_EQ(::mkfifo(file(1).c_str(), 0666), 0);
  CacheStore store(1, false);
  EXPECT_EQ(store.connection(), nullptr);
  EXPECT_FALSE(store.holdsOwnTable());
  EXPECT_THAT(store.cachedPaths(), IsEmpty());
}

TEST_F(ForeignFiles, APipeForAJournalIsNotWaitedForAndHidesTheListing) {
  makeListing();
  ASSERT_EQ(::mkfifo((file(1) + "-journal").c_str(), 0666), 0);
  {
    CacheStore store(1, false);
    EXPECT_FALSE(store.hasUuid("a"));
    EXPECT_THAT(store.cachedPaths(), IsEmpty());
  }
  ASSERT_EQ(::unlink((file(1) + "-journal").c_str()), 0);
  EXPECT_TRUE(CacheStore(1, false).hasUuid("a"));
}

TEST_F(ForeignFiles, AFreshFileTakesThePlaceOfPipes) {
  ASSERT_EQ(::mkfifo(file(1).c_str(), 0666), 0);
  ASSERT_EQ(::mkfifo((file(1) + "-journal").c_str(), 0666), 0);
  logged([] {
    CacheStore store(1, true);
    store.resetSchema();
    EXPECT_TRUE(store.holdsOwnTable());
  });
  EXPECT_TRUE(std::filesystem::is_regular_file(file(1)));
}

TEST_F(ForeignFiles, DevicesAreNoDatabases) {
  std::filesystem::create_symlink("/dev/zero", file(1));
  EXPECT_EQ(CacheStore(1, false).connection(), nullptr);
}

TEST_F(ForeignFiles, ALinkToADatabaseIsNotFollowed) {
  makeListing();
  const std::string target = file(1) + " of another";
  ASSERT_EQ(std::rename(file(1).c_str(), target.c_str()), 0);
  std::filesystem::create_symlink(target, file(1));
  {
    const CacheStore store(1, false);
    EXPECT_EQ(store.connection(), nullptr);
  }
  std::filesystem::remove(file(1));
  ASSERT_EQ(std::rename(target.c_str(), file(1).c_str()), 0);
  EXPECT_TRUE(CacheStore(1, false).hasUuid("a"));
}

TEST_F(ForeignFiles, TheWayToTheVolumeMayHoldLinks) {
  const test::TempDir elsewhere;
  const std::string link = elsewhere.path() + "/volume";
  std::filesystem::create_directory_symlink(volume(), link);
  configure("[SHARE_DEF]\ndefVolMP = " + link + "\n");
  makeListing();
  EXPECT_TRUE(CacheStore(1, false).hasUuid("a"));
  EXPECT_TRUE(std::filesystem::is_regular_file(file(1)));
}

TEST_F(ForeignFiles, TheTableOfAFreshStoreIsItsOwn) {
  makeListing();
  CacheStore store(1, false);
  EXPECT_TRUE(store.holdsOwnTable());
  EXPECT_THAT(store.cachedPaths(), ElementsAre("/x"));
}

TEST_F(ForeignFiles, TablesOfAnotherMakeAreNotItsOwn) {
  const std::string own = own_tables;
  for (const std::string &statements : {
           std::string("CREATE TABLE other (path)"),
           std::string("CREATE TABLE cache (uuid, path, alias)"),
           std::string("CREATE TABLE cache (uuid, path AS (hex(uuid)), alias)"),
           std::string("CREATE VIEW cache AS SELECT 'a' AS uuid, '/x' AS path, '' AS alias"),
           std::string("CREATE VIRTUAL TABLE cache USING fts5(uuid, path, alias)"),
           // The right text under the wrong name, kind or number of times.
           own + "PRAGMA writable_schema = ON; UPDATE sqlite_master SET name = 'Cache'",
           own + "PRAGMA writable_schema = ON; UPDATE sqlite_master SET type = 'view'",
           own + "PRAGMA writable_schema = ON; INSERT INTO sqlite_master SELECT * FROM sqlite_master",
       }) {
    std::filesystem::remove(file(1));
    OtherConnection(file(1)).run(statements);
    EXPECT_FALSE(CacheStore(1, false).holdsOwnTable()) << statements;
  }
}

TEST_F(ForeignFiles, OtherTablesBesideItsOwnMakeNoDifference) {
  OtherConnection(file(1)).run(std::string(own_tables) + "CREATE TABLE more (path); CREATE INDEX i ON cache (path)");
  EXPECT_TRUE(CacheStore(1, false).holdsOwnTable());
}

TEST_F(ForeignFiles, WhatIsMissingOrNoDatabaseHasNoTableOfItsOwn) {
  EXPECT_FALSE(CacheStore(1, false).holdsOwnTable());
  const int empty = ::open(file(1).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
  ASSERT_GE(empty, 0);
  ::close(empty);
  EXPECT_FALSE(CacheStore(1, false).holdsOwnTable());
}

}  // namespace
}  // namespace dirwell
