// Writing a listing, forgetting it, and its cluster summary. Reading pages has a file of its own.
#include <sys/stat.h>
#include <unistd.h>

#include <limits>

#include "cache/cache_store.h"
#include "cache_support.h"
#include "service/client_watchdog.h"
#include "service/log.h"

namespace dirwell {
namespace {

using test::dump;
using test::entry;
using test::logged;
using test::OtherConnection;
using test::rows;
using test::rowsOf;
using test::uuidIn;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr const char *uuid_form = "[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}";

class Operations : public test::CacheTest {
 protected:
  // Writes a listing that must succeed; what it logs goes nowhere.
  JsonRef written(CacheStore &store, const std::vector<ResourceEntry> &entries) {
    JsonRef reply;
    logged([&] { reply = store.set(entries, error); });
    EXPECT_EQ(error.code, 0U);
    EXPECT_NE(reply, nullptr);
    return reply;
  }

  ErrorRecord error;
};
using Set = Operations;
using Remove = Operations;
using ClusterSummary = Operations;

TEST_F(Set, AnswersAnEmptyListingWithAUuidThatIsKnown) {
  CacheStore store(1, true);
  const JsonRef reply = written(store, {});
  const std::string uuid = uuidIn(reply);
  EXPECT_THAT(uuid, MatchesRegex(uuid_form));
  EXPECT_EQ(dump(reply), "{\"cluster\":[],\"uuid\":\"" + uuid + "\",\"total\":0}");
  EXPECT_THAT(rowsOf(file(1), "SELECT rowid, * FROM cache"), ElementsAre("1|" + uuid + "||"));
  EXPECT_THAT(rowsOf(file(1), "SELECT * FROM entry"), IsEmpty());

  CacheStore later(1, false);
  EXPECT_EQ(dump(later.fetch(uuid, 0, 500, nullptr, error)), "{\"datas\":[],\"total\":0,\"changed\":false}");
  EXPECT_EQ(error.code, 0U);
}

TEST_F(Set, WritesAFolderRowForEachRunOfEntriesOfOneFolder) {
  CacheStore store(1, true);
  const SharedText a = "/real/A";
  std::vector<ResourceEntry> entries = {entry(a, "1", "x"), entry("/real/A", "2", "x"), entry("/real/B", "3", "y"),
                                        entry(a, "4", "")};
  const JsonRef reply = written(store, entries);
  const std::string uuid = uuidIn(reply);
  EXPECT_THAT(rowsOf(file(1), "SELECT rowid, * FROM cache ORDER BY rowid"),
              ElementsAre("1|" + uuid + "||", "2|" + uuid + "|/real/A|/real/A", "3|" + uuid + "|/real/B|/real/B",
                          "4|" + uuid + "|/real/A|/real/A"));
  EXPECT_THAT(rowsOf(file(1), "SELECT rowid, path, name, length(stat), cluster FROM entry ORDER BY rowid"),
              ElementsAre("1|2|1|144|x", "2|2|2|144|x", "3|3|3|144|y", "4|4|4|144|"));
  EXPECT_THAT(rowsOf(file(1), "SELECT DISTINCT typeof(path), typeof(name), typeof(stat), typeof(cluster) FROM entry"),
              ElementsAre("integer|text|blob|text"));
  EXPECT_EQ(dump(reply),
            "{\"cluster\":[{\"value\":\"x\",\"count\":2},{\"value\":\"y\",\"count\":1},{\"value\":\"\","
            "\"count\":1}],\"uuid\":\"" +
                uuid + "\",\"total\":4}");
}

TEST_F(Set, JoinsDirectoryAndAliasWithTheSubPath) {
  CacheStore store(1, true);
  std::vector<ResourceEntry> entries(5);
  entries[0].directory = "/real";
  entries[0].displayDirectory = "/Alias";
  entries[0].subPath = "/a/b";
  entries[0].name = "1";
  // The same folder put together otherwise is the same run; the alias of its first entry counts.
  entries[1].directory = "/real/a";
  entries[1].displayDirectory = "/Other";
  entries[1].subPath = "b";
  entries[1].name = "2";
  // Equal length, other bytes.
  entries[2].directory = "/real/a";
  entries[2].displayDirectory = "Alias";
  entries[2].subPath = "/B";
  entries[2].name = "3";
  entries[3].directory = "/real/a";
  entries[3].name = "4";
  entries[4].directory = "real";
  entries[4].subPath = "/a";
  entries[4].name = "5";
  written(store, entries);
  EXPECT_THAT(rowsOf(file(1), "SELECT rowid, path, alias FROM cache ORDER BY rowid"),
              ElementsAre("1||", "2|/real/a/b|/Alias/a/b", "3|/real/a/B|/Alias/B", "4|/real/a|"));
  EXPECT_THAT(rowsOf(file(1), "SELECT name, path FROM entry ORDER BY rowid"),
              ElementsAre("1|2", "2|2", "3|3", "4|4", "5|4"));
}

TEST_F(Set, PutsEntriesWithoutAFolderUnderTheFirstRow) {
  CacheStore store(1, true);
  std::vector<ResourceEntry> entries(2);
  entries[0].name = "a";
  entries[1].name = "b";
  entries[1].displayDirectory = "/alias";
  written(store, entries);
  EXPECT_THAT(rowsOf(file(1), "SELECT path, alias FROM cache"), ElementsAre("|"));
  EXPECT_THAT(rowsOf(file(1), "SELECT path, name FROM entry"), ElementsAre("1|a", "1|b"));
}

TEST_F(Set, StoresTheStatusInItsLittleEndianForm) {
  struct ::stat status {};
  status.st_dev = 0x0102030405060708U;
  status.st_ino = 0x1112131415161718U;
  status.st_nlink = 0x2122232425262728U;
  status.st_mode = 0x000081a4U;
  status.st_uid = 0x31323334U;
  status.st_gid = 0x41424344U;
  status.st_rdev = 0x5152535455565758U;
  status.st_size = -2;
  status.st_blksize = 0x6162636465666768;
  status.st_blocks = 0x7172737475767778;
  status.st_atim = {-1, 999999999};
  status.st_mtim = {0x6061626364, 1};
  status.st_ctim = {5, 2};
  std::vector<ResourceEntry> entries = {ResourceEntry::fromStatus("/d", "n", status)};
  CacheStore store(1, true);
  written(store, entries);
  EXPECT_THAT(rowsOf(file(1), "SELECT hex(stat) FROM entry"),
              ElementsAre("0807060504030201"
                          "1817161514131211"
                          "2827262524232221"
                          "A4810000"
                          "34333231"
                          "44434241"
                          "00000000"
                          "5857565554535251"
                          "FEFFFFFFFFFFFFFF"
                          "6867666564636261"
                          "7877767574737271"
                          "FFFFFFFFFFFFFFFF"
                          "FFC99A3B00000000"
                          "6463626160000000"
                          "0100000000000000"
                          "0500000000000000"
                          "0200000000000000"
                          "000000000000000000000000000000000000000000000000"));
}

TEST_F(Set, KeepsNamesAsTheirBytes) {
  CacheStore store(1, true);
  written(store, {entry("/d\xff", "n\xc3(\n'\"|", "c\xfe")});
  EXPECT_THAT(rowsOf(file(1), "SELECT hex(name), hex(cluster) FROM entry"), ElementsAre("6EC3280A27227C|63FE"));
  EXPECT_THAT(rowsOf(file(1), "SELECT hex(path), hex(alias) FROM cache WHERE rowid = 2"), ElementsAre("2F64FF|2F64FF"));
}

TEST_F(Set, ReplacesTheListingBefore) {
  CacheStore store(1, true);
  const std::string first = uuidIn(written(store, {entry("/d", "a"), entry("/e", "b")}));
  const std::string second = uuidIn(written(store, {entry("/d", "c")}));
  EXPECT_NE(first, second);
  EXPECT_FALSE(store.hasUuid(first));
  EXPECT_TRUE(store.hasUuid(second));
  EXPECT_THAT(rowsOf(file(1), "SELECT rowid, path FROM cache"), ElementsAre("1|", "2|/d"));
  EXPECT_THAT(rowsOf(file(1), "SELECT path, name FROM entry"), ElementsAre("2|c"));

  CacheStore again(1, true);
  const std::string third = uuidIn(written(again, {}));
  CacheStore reader(1, false);
  EXPECT_FALSE(reader.hasUuid(second));
  EXPECT_TRUE(reader.hasUuid(third));
}

TEST_F(Set, MapsTheDatabaseIntoMemory) {
  CacheStore store(1, true);
  written(store, {});
  EXPECT_THAT(rows(store.connection(), "PRAGMA mmap_size"), ElementsAre("518348800"));
}

TEST_F(Set, LogsTheNewUuidAtInfoLevel) {
  CacheStore store;
  JsonRef reply;
  const std::string text = logged([&] { reply = store.set({entry("/d", "a")}, error); });
  EXPECT_EQ(text, "STAMP [I] dirwell(PID): [cache] uuid " + uuidIn(reply) + " created\n");
  log_level = 5;
  EXPECT_EQ(logged([&] { store.set({entry("/d", "a")}, error); }), "");
  log_level = 7;
  EXPECT_THAT(logged([&] { store.set({entry("/d", "a")}, error); }),
              MatchesRegex("STAMP \\[I\\] dirwell\\(PID\\): \\[cache\\] uuid [-0-9a-f]{36} created\n"));
}

TEST_F(Set, TracesEachEntryInLocalTime) {
  std::vector<ResourceEntry> entries = {entry("/real", "a"), entry("/real", "b"), entry("/real/x", "c"),
                                        entry("/real/x", "d"), entry("/real/x", "e")};
  entries[0].stat.st_size = 9223372036854775807;
  entries[0].stat.st_mtim.tv_sec = 1614796199;  // 2021-03-03 23:59:59 in this zone
  entries[1].stat.st_mtim.tv_sec = 1614796200;
  entries[1].stat.st_mode = S_IFDIR | 0755;
  entries[2].stat.st_mode = S_IFLNK | 0777;
  entries[2].stat.st_size = -5;
  entries[2].stat.st_mtim.tv_sec = -20000;
  entries[3].stat.st_mtim.tv_sec = std::numeric_limits<std::int64_t>::max();
  entries[4].stat.st_mtim.tv_sec = 67768036191000000;
  log_level = 8;
  CacheStore store;
  JsonRef reply;
  const std::string text = logged([&] { reply = store.set(entries, error); });
  const std::string head = "STAMP [T] dirwell(PID): (cache:LINE) set() [cache] ";
  EXPECT_EQ(text, head + "/real/a isdir=0, size=9223372036854775807, modify=2021-3-3\n" + head +
                      "/real/b isdir=1, size=0, modify=2021-3-4\n" + head +
                      "/real/x/c isdir=0, size=-5, modify=1969-12-31\n" + head +
                      "/real/x/d isdir=0, size=0, modify=0-0-0\n" + head +
                      "/real/x/e isdir=0, size=0, modify=2147485547-12-24\n" + "STAMP [I] dirwell(PID): [cache] uuid " +
                      uuidIn(reply) + " created\n");
  log_level = 7;
  EXPECT_THAT(logged([&] { store.set(entries, error); }), testing::Not(testing::HasSubstr("[T]")));
}

TEST_F(Set, StopsTheClientWatchdog) {
  EXPECT_EQ(test::in_child([] {
              log_level = 0;
              hx_io *io = hx_io_create();
              ClientWatchdog::instance().start(io, 60);
              const std::int64_t watched = test::threadCount();
              CacheStore store;
              ErrorRecord record;
              store.set({}, record);
              ::_exit(watched == 2 && test::threadCount() == 1 ? 0 : 1);
            }),
            0);
}

TEST_F(Set, DoesNothingForARequestThatHasFailed) {
  CacheStore store(1, true);
  const std::string uuid = uuidIn(written(store, {}));
  set_error(error, 2, "invalid sort");
  EXPECT_EQ(logged([&] { EXPECT_EQ(store.set({entry("/d", "a")}, error), nullptr); }), "");
  EXPECT_STREQ(error.message, "invalid sort");
  EXPECT_TRUE(store.hasUuid(uuid));
}

TEST_F(Remove, ForgetsTheListingAndLeavesItsEntries) {
  std::string uuid;
  {
    CacheStore store(1, true);
    uuid = uuidIn(written(store, {entry("/d", "a"), entry("/e", "b")}));
  }
  CacheStore store(1, false);
  EXPECT_EQ(logged([&] { store.remove(uuid, error); }), "STAMP [I] dirwell(PID): [cache] uuid " + uuid + " deleted\n");
  EXPECT_EQ(error.code, 0U);
  EXPECT_THAT(rowsOf(file(1), "SELECT * FROM cache"), IsEmpty());
  EXPECT_THAT(rowsOf(file(1), "SELECT name FROM entry"), ElementsAre("a", "b"));
  EXPECT_EQ(logged([&] { EXPECT_EQ(store.fetch(uuid, 0, 500, nullptr, error), nullptr); }),
            "STAMP [W] dirwell(PID): [cache] uuid " + uuid + " invalid\n");
  EXPECT_EQ(error.code, 2U);
  EXPECT_STREQ(error.message, "invalid uuid");
}

TEST_F(Remove, ReportsAnUnknownUuidAndLogsItAllTheSame) {
  CacheStore store(1, true);
  const std::string uuid = uuidIn(written(store, {entry("/d", "a")}));
  EXPECT_EQ(logged([&] { store.remove("unknown", error); }), "STAMP [I] dirwell(PID): [cache] uuid unknown deleted\n");
  EXPECT_EQ(error.code, 3U);
  EXPECT_STREQ(error.message, "uuid not found");
  EXPECT_TRUE(store.hasUuid(uuid));

  ErrorRecord second;
  logged([&] { store.remove(uuid, second); });
  EXPECT_EQ(second.code, 0U);
  logged([&] { store.remove(uuid, second); });
  EXPECT_STREQ(second.message, "uuid not found");
}

TEST_F(Remove, LogsAtInfoLevelOnly) {
  CacheStore store(1, true);
  written(store, {});
  log_level = 5;
  EXPECT_EQ(logged([&] { store.remove("unknown", error); }), "");
}

TEST_F(Remove, FindsNothingWithoutAConnectionOrBehindALock) {
  CacheStore missing(2, false);
  EXPECT_EQ(logged([&] { missing.remove("u", error); }), "STAMP [I] dirwell(PID): [cache] uuid u deleted\n");
  EXPECT_STREQ(error.message, "uuid not found");

  CacheStore store(1, true);
  ErrorRecord none;
  std::string uuid;
  logged([&] { uuid = uuidIn(store.set({entry("/d", "a")}, none)); });
  ErrorRecord locked;
  {
    OtherConnection other(file(1));
    other.run("BEGIN IMMEDIATE");
    // The rows that set() wrote before do not count as removed.
    logged([&] { store.remove(uuid, locked); });
  }
  EXPECT_EQ(locked.code, 3U);
  EXPECT_STREQ(locked.message, "uuid not found");
  EXPECT_TRUE(store.hasUuid(uuid));
}

TEST_F(Remove, DoesNothingForARequestThatHasFailed) {
  CacheStore store(1, true);
  const std::string uuid = uuidIn(written(store, {}));
  set_error(error, 2, "invalid index");
  EXPECT_EQ(logged([&] { store.remove(uuid, error); }), "");
  EXPECT_STREQ(error.message, "invalid index");
  EXPECT_TRUE(store.hasUuid(uuid));
}

TEST_F(ClusterSummary, CountsTheClustersInTheOrderOfTheirFirstEntry) {
  CacheStore store;
  written(store, {entry("/d", "1", "b"), entry("/d", "2", "a"), entry("/d", "3", "b")});
  EXPECT_EQ(dump(store.clusterSummary()), R"([{"value":"b","count":2},{"value":"a","count":1}])");
}

TEST_F(ClusterSummary, KeepsClustersApartThatDifferInBytes) {
  CacheStore store;
  written(store, {entry("/d", "1", "É"), entry("/d", "2", "E\xCC\x81"), entry("/d", "3", "a,b"), entry("/d", "4", "A"),
                  entry("/d", "5", "a"), entry("/d", "6", ""), entry("/d", "7", "a,b"), entry("/d", "8", "x\xff")});
  EXPECT_EQ(dump(store.clusterSummary()),
            "[{\"value\":\"É\",\"count\":1},{\"value\":\"E\xCC\x81\",\"count\":1},{\"value\":\"a,b\",\"count\":2},"
            "{\"value\":\"A\",\"count\":1},{\"value\":\"a\",\"count\":1},{\"value\":\"\",\"count\":1},"
            "{\"value\":\"x\xEF\xBF\xBD\",\"count\":1}]");
}

TEST_F(ClusterSummary, GivesAListingWithoutClustersAsOneEmptyCluster) {
  CacheStore store;
  written(store, {entry("/d", "1"), entry("/d", "2")});
  EXPECT_EQ(dump(store.clusterSummary()), R"([{"value":"","count":2}])");
}

}  // namespace
}  // namespace dirwell
