// Reading pages back.
#include <sys/stat.h>

#include <cstring>
#include <limits>
#include <random>

#include "cache/cache_store.h"
#include "cache/watch_times.h"
#include "cache_support.h"
#include "service/log.h"

namespace dirwell {
namespace {

using test::dump;
using test::entry;
using test::logged;
using test::OtherConnection;
using test::RememberingFormatter;
using test::rows;
using test::uuidIn;
using testing::ElementsAre;
using testing::IsEmpty;

class Fetch : public test::CacheTest {
 protected:
  void write(CacheStore &store, const std::vector<ResourceEntry> &entries) {
    logged([&] { uuid = uuidIn(store.set(entries, error)); });
    ASSERT_EQ(error.code, 0U);
  }

  // The names of a page.
  std::vector<std::string> page(CacheStore &store, std::int64_t offset, std::int64_t limit) {
    const auto formatter = std::make_shared<RememberingFormatter>();
    const JsonRef reply = store.fetch(uuid, offset, limit, formatter, error);
    EXPECT_NE(reply, nullptr);
    total = json_integer_value(json_object_get(reply.get(), "total"));
    return formatter->names();
  }

  std::string uuid;
  std::int64_t total = -1;
  ErrorRecord error;
};

std::vector<ResourceEntry> numbered(int count) {
  std::vector<ResourceEntry> entries;
  entries.reserve(static_cast<std::size_t>(count));
  const SharedText directory = "/d";
  for (int i = 0; i < count; ++i) {
    entries.push_back(entry(directory, std::to_string(i)));
  }
  return entries;
}

TEST_F(Fetch, GivesThePageTheTotalTheFlagAndTheSettingsInThisOrder) {
  CacheStore store;
  write(store, numbered(3));
  const auto formatter = std::make_shared<RememberingFormatter>();
  EXPECT_EQ(dump(store.fetch(uuid, 1, 500, formatter, error)),
            R"({"datas":[{"name":"1"},{"name":"2"}],"total":3,"changed":false,"first":1,"second":2})");
  EXPECT_EQ(dump(store.fetchOwn(0, 1, formatter, error)),
            R"({"datas":[{"name":"0"}],"total":3,"changed":false,"first":1,"second":3})");
  EXPECT_EQ(error.code, 0U);
}

TEST_F(Fetch, DescribesNothingWithoutAFormatter) {
  CacheStore store;
  write(store, numbered(3));
  EXPECT_EQ(dump(store.fetch(uuid, 0, 500, nullptr, error)), R"({"datas":[],"total":3,"changed":false})");
  EXPECT_EQ(error.code, 0U);
}

TEST_F(Fetch, RebuildsEachEntryWithItsFolder) {
  const SharedText root = "/real";
  const SharedText alias = "/Alias";
  struct ::stat status {};
  status.st_mode = S_IFREG | 0640;
  status.st_size = 123456789012;
  status.st_uid = 4294967294U;
  status.st_mtim = {-7, 999999999};
  std::vector<ResourceEntry> entries(3);
  entries[0].directory = root;
  entries[0].displayDirectory = alias;
  entries[0].subPath = "/a/b";
  entries[0].name = "Photo.JPG";
  entries[0].cluster = "p";
  entries[0].stat = status;
  entries[1] = entries[0];
  entries[1].name = "x.y";
  entries[1].stat.st_mode = S_IFDIR | 0755;
  entries[2] = entries[0];
  entries[2].subPath = {};
  entries[2].name = "n\xff.t\xc3";
  CacheStore store;
  write(store, entries);
  const auto formatter = std::make_shared<RememberingFormatter>();
  store.fetch(uuid, 0, 500, formatter, error);
  ASSERT_EQ(formatter->entries.size(), 3U);
  const std::vector<ResourceEntry> &found = formatter->entries;
  EXPECT_EQ(found[0].directory.view(), "/real/a/b");
  EXPECT_EQ(found[0].displayDirectory.view(), "/Alias/a/b");
  EXPECT_EQ(found[0].subPath.view(), "");
  EXPECT_EQ(found[0].name, "Photo.JPG");
  EXPECT_EQ(found[0].extension, "JPG");
  EXPECT_EQ(found[0].cluster, "");
  EXPECT_EQ(std::memcmp(&found[0].stat, &status, sizeof status), 0);
  EXPECT_EQ(found[1].extension, "");
  EXPECT_TRUE(found[1].isDirectory());
  EXPECT_TRUE(found[1].directory.same_object(found[0].directory));
  EXPECT_TRUE(found[1].displayDirectory.same_object(found[0].displayDirectory));
  EXPECT_EQ(found[2].directory.view(), "/real");
  EXPECT_EQ(found[2].displayDirectory.view(), "/Alias");
  EXPECT_EQ(found[2].name, "n\xff.t\xc3");
  EXPECT_EQ(found[2].extension, "t\xc3");
}

TEST_F(Fetch, PagesAsTheDatabaseCounts) {
  CacheStore store;
  write(store, numbered(120));
  EXPECT_THAT(page(store, 118, 50), ElementsAre("118", "119"));
  EXPECT_EQ(total, 120);
  EXPECT_THAT(page(store, 120, 50), IsEmpty());
  EXPECT_EQ(total, 120);
  EXPECT_THAT(page(store, std::numeric_limits<std::int32_t>::max(), 50), IsEmpty());
  EXPECT_EQ(total, 120);
  EXPECT_THAT(page(store, -7, 2), ElementsAre("0", "1"));
  EXPECT_EQ(page(store, 0, -1).size(), 120U);
  EXPECT_THAT(page(store, 0, 0), IsEmpty());
}

TEST_F(Fetch, CountsOffsetAndLimitByTheirLow32Bits) {
  CacheStore store;
  write(store, numbered(10));
  EXPECT_THAT(page(store, (std::int64_t{1} << 32) + 3, 2), ElementsAre("3", "4"));
  EXPECT_THAT(page(store, 8, (std::int64_t{1} << 32) + 1), ElementsAre("8"));
  EXPECT_THAT(page(store, std::int64_t{1} << 31, 1), ElementsAre("0"));  // the lowest negative number
  EXPECT_THAT(page(store, std::numeric_limits<std::int64_t>::max(), 1), ElementsAre("0"));
}

TEST_F(Fetch, RefusesAUuidThatTheStoreDoesNotHold) {
  CacheStore store;
  write(store, numbered(1));
  const auto formatter = std::make_shared<RememberingFormatter>();
  EXPECT_EQ(logged([&] { EXPECT_EQ(store.fetch("0-0", 0, 500, formatter, error), nullptr); }),
            "STAMP [W] dirwell(PID): [cache] uuid 0-0 invalid\n");
  EXPECT_EQ(error.code, 2U);
  EXPECT_STREQ(error.message, "invalid uuid");
  EXPECT_THAT(formatter->entries, IsEmpty());
  ErrorRecord quiet;
  log_level = 3;
  EXPECT_EQ(logged([&] { EXPECT_EQ(store.fetch("0-0", 0, 500, formatter, quiet), nullptr); }), "");
  EXPECT_EQ(quiet.code, 2U);
}

TEST_F(Fetch, DoesNothingForARequestThatHasFailed) {
  CacheStore store;
  write(store, numbered(1));
  set_error(error, 3, "cache failure");
  EXPECT_EQ(logged([&] { EXPECT_EQ(store.fetchOwn(0, 500, nullptr, error), nullptr); }), "");
  EXPECT_EQ(logged([&] { EXPECT_EQ(store.fetch("unknown", 0, 500, nullptr, error), nullptr); }), "");
  EXPECT_STREQ(error.message, "cache failure");
}

TEST_F(Fetch, TellsWhetherTheCacheHasChangedByItsIndex) {
  const auto changed = [this](std::size_t index) {
    CacheStore store(index, true);
    write(store, {});
    return dump(store.fetchOwn(0, 500, nullptr, error));
  };
  for (const std::size_t index : {1U, 2U}) {
    watchTimes(index)->lastReload = 1000;
    watchTimes(index)->lastChange = index == 2 ? 1001 : 1000;
  }
  EXPECT_EQ(changed(1), R"({"datas":[],"total":0,"changed":false})");
  EXPECT_EQ(changed(2), R"({"datas":[],"total":0,"changed":true})");
  watchTimes(1)->lastChange = 1001;
  EXPECT_EQ(changed(1), R"({"datas":[],"total":0,"changed":true})");
  EXPECT_EQ(changed(0), R"({"datas":[],"total":0,"changed":false})");
  for (const std::size_t index : {1U, 2U}) {
    watchTimes(index)->lastReload = 0;
    watchTimes(index)->lastChange = 0;
  }
}

// 6,000 entries in runs of few folders, as a recursive listing sorted by name gives them.
std::vector<ResourceEntry> interleaved() {
  const std::vector<SharedText> folders = {"/A", "/B", "/A/c", "/\xff", "/A"};
  std::mt19937 random(20240311);  // NOLINT: the same listing in every run
  std::vector<ResourceEntry> entries;
  while (entries.size() < 6000) {
    const SharedText &folder = folders[random() % folders.size()];
    for (std::size_t run = 1 + random() % 5; run > 0; --run) {
      entries.push_back(entry(folder, std::to_string(entries.size()), std::to_string(random() % 7)));
    }
  }
  return entries;
}

void expectListingOrder(CacheStore &store, const std::string &uuid, const std::vector<ResourceEntry> &entries) {
  ErrorRecord error;
  const auto formatter = std::make_shared<RememberingFormatter>();
  for (std::int64_t offset = 0; offset < static_cast<std::int64_t>(entries.size()); offset += 777) {
    store.fetch(uuid, offset, 777, formatter, error);
  }
  ASSERT_EQ(formatter->entries.size(), entries.size());
  for (std::size_t i = 0; i < entries.size(); ++i) {
    ASSERT_EQ(formatter->entries[i].name, entries[i].name) << i;
    ASSERT_EQ(formatter->entries[i].directory.view(), entries[i].directory.view()) << i;
  }
}

TEST_F(Fetch, KeepsTheListingOrderAcrossPagesAndRuns) {
  const std::vector<ResourceEntry> entries = interleaved();
  {
    CacheStore store(1, true);
    write(store, entries);
    expectListingOrder(store, uuid, entries);
  }
  CacheStore store(1, false);
  expectListingOrder(store, uuid, entries);
  CacheStore memory;
  write(memory, entries);
  expectListingOrder(memory, uuid, entries);
}

TEST_F(Fetch, WalksTheEntriesAndLooksTheirFoldersUp) {
  CacheStore store;
  write(store, interleaved());
  EXPECT_THAT(rows(store.connection(),
                   "EXPLAIN QUERY PLAN SELECT cache.path, entry.name, entry.stat, cache.alias FROM cache, entry WHERE "
                   "uuid = @uuid AND cache.rowid = entry.path LIMIT @limit OFFSET @offset"),
              ElementsAre(testing::EndsWith("SCAN entry"),
                          testing::EndsWith("SEARCH cache USING INTEGER PRIMARY KEY (rowid=?)")));
}

// Should another version of the database walk the folders first, runs still come in the order of their entries.
TEST_F(Fetch, HasTheSameOrderByTheOtherPlan) {
  const std::vector<ResourceEntry> entries = interleaved();
  CacheStore store;
  write(store, entries);
  const std::vector<std::string> found =
      rows(store.connection(),
           "SELECT entry.name FROM cache CROSS JOIN entry WHERE uuid = '" + uuid + "' AND cache.rowid = entry.path");
  ASSERT_EQ(found.size(), entries.size());
  for (std::size_t i = 0; i < entries.size(); ++i) {
    ASSERT_EQ(found[i], entries[i].name);
  }
}

TEST_F(Fetch, ReadsRowsThatAnyoneMayHaveWritten) {
  OtherConnection(file(1)).run(
      "CREATE TABLE cache (uuid, path, alias); CREATE TABLE entry (path, name, stat, cluster);"
      "INSERT INTO cache VALUES ('u', NULL, NULL), ('u', printf('/%0500000d', 0), 5), ('u', '/d', '/D');"
      "INSERT INTO entry VALUES (3, 'short', x'0100000000000000020000000000000003', ''),"
      "(3, 'long', zeroblob(24) || x'a4810000' || zeroblob(20) || x'0700000000000000' || zeroblob(300), ''),"
      "(3, 'empty', x'', ''), (3, 'null', NULL, NULL), (3, NULL, 'text', ''), (1, 'lost', 12, ''), (2, 'far', x'', ''),"
      "('3', 'text row', x'', ''), (NULL, 'no row', x'', ''), (99, 'none', x'', '')");
  CacheStore store(1, false);
  const auto formatter = std::make_shared<RememberingFormatter>();
  const JsonRef reply = store.fetch("u", 0, 500, formatter, error);
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(error.code, 0U);
  const std::vector<ResourceEntry> &found = formatter->entries;
  ASSERT_THAT(formatter->names(), ElementsAre("short", "long", "empty", "null", "", "lost", "far", "text row"));
  EXPECT_EQ(found[0].stat.st_dev, 1U);
  EXPECT_EQ(found[0].stat.st_ino, 2U);
  EXPECT_EQ(found[0].stat.st_nlink, 3U);
  EXPECT_EQ(found[0].stat.st_mode, 0U);
  EXPECT_EQ(found[0].stat.st_size, 0);
  EXPECT_EQ(found[1].stat.st_mode, 0100644U);
  EXPECT_EQ(found[1].stat.st_size, 7);
  EXPECT_EQ(found[2].stat.st_dev, 0U);
  EXPECT_EQ(found[4].stat.st_dev, 0x74786574U);
  EXPECT_EQ(found[5].directory.view(), "");
  EXPECT_EQ(found[5].displayDirectory.view(), "");
  EXPECT_EQ(found[6].directory.view().size(), 500001U);
  EXPECT_EQ(found[6].displayDirectory.view(), "5");
  EXPECT_EQ(found[7].directory.view(), "/d");
  // The summary reads the same rows.
  EXPECT_EQ(dump(store.clusterSummary()), R"([{"value":"","count":9},{"value":"","count":1}])");
}

}  // namespace
}  // namespace dirwell
