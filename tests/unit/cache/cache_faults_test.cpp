// A database file that cannot be used, and the row that cannot be written.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <random>

#include "cache/cache_store.h"
#include "cache_support.h"
#include "service/log.h"

namespace dirwell {
namespace {

using test::dump;
using test::entry;
using test::exists;
using test::logged;
using test::OtherConnection;
using test::rows;
using test::rowsOf;
using test::uuidIn;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string uuid_form = "[-0-9a-f]{36}";

std::string errorLine(const std::string &text) {
  return "STAMP [E] dirwell(PID): [cache] " + text + "\n";
}

class Faults : public test::CacheTest {
 protected:
  // What a listing logs that fails before any row: no reply and no error.
  std::string logOfSetWithoutReply(CacheStore &store) {
    JsonRef reply;
    std::string text = logged([&] { reply = store.set({entry("/d", "a")}, error); });
    EXPECT_EQ(reply, nullptr);
    EXPECT_EQ(error.code, 0U);
    EXPECT_STREQ(error.message, "");
    return text;
  }

  // What a listing logs that fails at a row.
  std::string logOfFailedSet(CacheStore &store, const std::vector<ResourceEntry> &entries) {
    JsonRef reply;
    std::string text = logged([&] { reply = store.set(entries, error); });
    EXPECT_EQ(reply, nullptr);
    EXPECT_EQ(error.code, 3U);
    EXPECT_STREQ(error.message, "cache failure");
    return text;
  }

  // A store on the file as it is answers every reading with the failures that a client is told.
  void expectUnreadable() {
    const std::string content = contentOf(file(1));
    CacheStore store(1, false);
    ErrorRecord fetching;
    EXPECT_EQ(logged([&] { EXPECT_EQ(store.fetch("u", 0, 500, nullptr, fetching), nullptr); }),
              "STAMP [W] dirwell(PID): [cache] uuid u invalid\n");
    EXPECT_STREQ(fetching.message, "invalid uuid");
    ErrorRecord removing;
    EXPECT_EQ(logged([&] { store.remove("u", removing); }), "STAMP [I] dirwell(PID): [cache] uuid u deleted\n");
    EXPECT_STREQ(removing.message, "uuid not found");
    EXPECT_THAT(store.cachedPaths(), IsEmpty());
    EXPECT_EQ(dump(store.clusterSummary()), "[]");
    EXPECT_EQ(contentOf(file(1)), content);
  }

  static std::string contentOf(const std::string &path) {
    if (!std::filesystem::is_regular_file(path)) {
      return {};
    }
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  ErrorRecord error;
};

TEST_F(Faults, WithoutAVolumeNothingIsWritten) {
  configureNothing();
  log_level = 3;
  CacheStore store(1, true);
  EXPECT_EQ(logOfSetWithoutReply(store),
            errorLine("unable to open database file") + errorLine("unable to open database file"));
  log_level = 2;
  EXPECT_EQ(logOfSetWithoutReply(store), "");
  EXPECT_EQ(store.fetchOwn(0, 500, nullptr, error), nullptr);
  EXPECT_STREQ(error.message, "invalid uuid");
}

TEST_F(Faults, AVolumeThatIsNotThereIsLikeNone) {
  configure("[SHARE_DEF]\ndefVolMP = " + volume() + "/missing\n");
  CacheStore store(1, true);
  EXPECT_EQ(logOfSetWithoutReply(store),
            errorLine("unable to open database file") + errorLine("unable to open database file"));
  EXPECT_FALSE(exists(volume() + "/missing"));
}

TEST_F(Faults, AFolderInPlaceOfTheFileIsLikeNone) {
  std::filesystem::create_directory(file(1));
  CacheStore store(1, true);
  EXPECT_EQ(logOfSetWithoutReply(store),
            errorLine("unable to open database file") + errorLine("unable to open database file"));
  EXPECT_TRUE(std::filesystem::is_directory(file(1)));
  expectUnreadable();
}

TEST_F(Faults, AReadOnlyFolderTakesNoFile) {
  ::chmod(folder().c_str(), 0555);
  EXPECT_EQ(test::in_child([&] {
              log_level = 0;
              if (::setegid(65534) != 0 || ::seteuid(65534) != 0) {
                ::_exit(2);
              }
              CacheStore store(1, true);
              const bool refused = store.set({}, error) == nullptr && error.code == 0;
              ::_exit(refused && store.connection() == nullptr ? 0 : 1);
            }),
            0);
  EXPECT_TRUE(std::filesystem::is_empty(folder()));
}

TEST_F(Faults, AFileThatMayOnlyBeReadIsFetchedAndNotChanged) {
  std::string uuid;
  {
    CacheStore store(1, true);
    logged([&] { uuid = uuidIn(store.set({entry("/d", "a")}, error)); });
  }
  ::chmod(file(1).c_str(), 0444);
  EXPECT_EQ(test::in_child([&] {
              log_level = 0;
              if (::setegid(65534) != 0 || ::seteuid(65534) != 0) {
                ::_exit(2);
              }
              CacheStore store(1, false);
              const bool fetched =
                  dump(store.fetch(uuid, 0, 500, nullptr, error)) == R"({"datas":[],"total":1,"changed":false})";
              ErrorRecord removing;
              store.remove(uuid, removing);
              ::_exit(fetched && removing.code == 3 && store.hasUuid(uuid) ? 0 : 1);
            }),
            0);
}

TEST_F(Faults, EmptyAndForeignAndTruncatedFilesHoldNoListing) {
  std::ofstream(file(1)).flush();
  expectUnreadable();

  std::mt19937 random(7);  // NOLINT: the same bytes in every run
  std::string bytes(100000, '\0');
  for (char &byte : bytes) {
    byte = static_cast<char>(random());
  }
  std::ofstream(file(1), std::ios::binary) << bytes;
  expectUnreadable();

  std::ofstream(file(1), std::ios::binary | std::ios::trunc) << "SQLite format 3" << '\0' << bytes;
  expectUnreadable();

  OtherConnection(folder() + "/other").run("CREATE TABLE something (else_)");
  std::filesystem::rename(folder() + "/other", file(1));
  expectUnreadable();

  for (const int part : {10, 100, 1000, 32768, 50000}) {
    {
      CacheStore store(1, true);
      logged([&] { store.set({entry("/d", "a")}, error); });
    }
    std::filesystem::resize_file(file(1), static_cast<std::uintmax_t>(part));
    SCOPED_TRACE(part);
    expectUnreadable();
  }
}

// Whatever single place of the file is damaged, reading ends.
TEST_F(Faults, DamagedPagesEndTheReadingAndNothingElse) {
  std::vector<ResourceEntry> entries;
  entries.reserve(2000);
  for (int i = 0; i < 2000; ++i) {
    entries.push_back(entry(i % 3 == 0 ? "/A" : "/B", "name" + std::to_string(i), std::to_string(i % 5)));
  }
  std::string uuid;
  {
    CacheStore store(1, true);
    logged([&] { uuid = uuidIn(store.set(entries, error)); });
  }
  const std::string sound = contentOf(file(1));
  std::mt19937 random(11);  // NOLINT: the same damage in every run
  log_level = 0;
  for (int round = 0; round < 200; ++round) {
    std::string damaged = sound;
    for (int i = 0; i < 40; ++i) {
      damaged[random() % damaged.size()] = static_cast<char>(random());
    }
    const std::size_t page = random() % (damaged.size() / 32768);
    damaged[page * 32768 + random() % 20] = static_cast<char>(random());
    std::ofstream(file(1), std::ios::binary | std::ios::trunc) << damaged;
    CacheStore store(1, false);
    ErrorRecord record;
    store.fetch(uuid, 0, 2000, std::make_shared<test::RememberingFormatter>(), record);
    store.clusterSummary();
    EXPECT_LE(store.cachedPaths().size(), 200000U);
    store.remove(uuid, record);
  }
}

TEST_F(Faults, AFileRemovedWhileOpenIsReadToTheEnd) {
  CacheStore store(1, true);
  std::string uuid;
  logged([&] { uuid = uuidIn(store.set({entry("/d", "a")}, error)); });
  CacheStore reader(1, false);
  ASSERT_TRUE(reader.hasUuid(uuid));
  ::unlink(file(1).c_str());
  EXPECT_EQ(dump(reader.fetch(uuid, 0, 500, nullptr, error)), R"({"datas":[],"total":1,"changed":false})");
  EXPECT_EQ(CacheStore(1, false).connection(), nullptr);
  EXPECT_FALSE(exists(file(1)));
}

TEST_F(Faults, ALinkInPlaceOfTheFileIsReplacedByAFreshOne) {
  const test::TempDir elsewhere;
  const std::string target = elsewhere.write("target", "kept");
  std::filesystem::create_symlink(target, file(1));
  CacheStore store(1, true);
  logged([&] { store.set({}, error); });
  EXPECT_EQ(error.code, 0U);
  EXPECT_FALSE(std::filesystem::is_symlink(file(1)));
  EXPECT_EQ(contentOf(target), "kept");
}

TEST_F(Faults, ALockedFileGivesNeitherReplyNorError) {
  CacheStore store(1, true);
  store.resetSchema();
  OtherConnection other(file(1));
  other.run("BEGIN IMMEDIATE");
  EXPECT_EQ(logOfSetWithoutReply(store), errorLine("database is locked") + errorLine("database is locked"));
  other.run("COMMIT; BEGIN EXCLUSIVE");
  EXPECT_EQ(logOfSetWithoutReply(store), errorLine("database is locked") + errorLine("database is locked"));
}

TEST_F(Faults, TheTransactionOfAFailedPlaceholderEndsWithTheStore) {
  {
    CacheStore store(1, true);
    store.resetSchema();
    OtherConnection other(file(1));
    other.run("BEGIN IMMEDIATE");
    logOfSetWithoutReply(store);
    EXPECT_EQ(sqlite3_get_autocommit(store.connection()), 0);
  }
  EXPECT_THAT(rowsOf(file(1), "BEGIN EXCLUSIVE; SELECT count(*) FROM cache"), ElementsAre("0"));
}

TEST_F(Faults, AnEntryThatCannotBeWrittenUndoesTheListing) {
  CacheStore store(1, true);
  sqlite3_limit(store.connection(), SQLITE_LIMIT_LENGTH, 1000);
  EXPECT_EQ(logOfFailedSet(store, {entry("/d", "a"), entry("/d", std::string(2000, 'n')), entry("/d", "b")}),
            errorLine("constraint failed"));
  EXPECT_EQ(sqlite3_get_autocommit(store.connection()), 1);
  EXPECT_THAT(rowsOf(file(1), "SELECT (SELECT count(*) FROM cache), (SELECT count(*) FROM entry)"), ElementsAre("0|0"));
  ErrorRecord next;
  JsonRef reply;
  logged([&] { reply = store.set({entry("/d", "a")}, next); });
  EXPECT_NE(reply, nullptr);
  EXPECT_EQ(next.code, 0U);
}

TEST_F(Faults, AFolderThatCannotBeWrittenUndoesTheListing) {
  CacheStore store(1, true);
  sqlite3_limit(store.connection(), SQLITE_LIMIT_LENGTH, 1000);
  EXPECT_EQ(logOfFailedSet(store, {entry("/d", "a"), entry(std::string(2000, 'f'), "b")}),
            errorLine("constraint failed"));
  EXPECT_THAT(rowsOf(file(1), "SELECT (SELECT count(*) FROM cache), (SELECT count(*) FROM entry)"), ElementsAre("0|0"));
  log_level = 2;
  error = {};
  EXPECT_EQ(logOfFailedSet(store, {entry(std::string(2000, 'f'), "b")}), "");
}

TEST_F(Faults, AFullDiskUndoesTheListing) {
  CacheStore store(1, true);
  store.resetSchema();
  rows(store.connection(), "PRAGMA max_page_count = 8");
  std::vector<ResourceEntry> entries;
  entries.reserve(5000);
  for (int i = 0; i < 5000; ++i) {
    entries.push_back(entry("/d", std::to_string(i)));
  }
  EXPECT_EQ(logOfFailedSet(store, entries), errorLine("database or disk is full"));
  EXPECT_THAT(rowsOf(file(1), "SELECT (SELECT count(*) FROM cache), (SELECT count(*) FROM entry)"), ElementsAre("0|0"));
  EXPECT_THAT(rowsOf(file(1), "PRAGMA integrity_check"), ElementsAre("ok"));
}

// Runs an action when a connection begins a statement.
class AtStatement {
 public:
  AtStatement(sqlite3 *connection, std::string text, std::function<void()> action)
      : connection_(connection), text_(std::move(text)), action_(std::move(action)) {
    sqlite3_trace_v2(connection_, SQLITE_TRACE_STMT, &AtStatement::called, this);
  }
  ~AtStatement() { sqlite3_trace_v2(connection_, 0, nullptr, nullptr); }
  AtStatement(const AtStatement &) = delete;
  AtStatement &operator=(const AtStatement &) = delete;

 private:
  static int called(unsigned /*event*/, void *self, void *statement, void * /*text*/) {
    auto &at = *static_cast<AtStatement *>(self);
    const char *sql = sqlite3_sql(static_cast<sqlite3_stmt *>(statement));
    if (at.action_ && sql != nullptr && std::string_view(sql).starts_with(at.text_)) {
      std::exchange(at.action_, nullptr)();
    }
    return 0;
  }

  sqlite3 *connection_;
  std::string text_;
  std::function<void()> action_;
};

TEST_F(Faults, AListingThatAnotherRequestOvertakesIsNotMixedWithIt) {
  CacheStore loser(1, true);
  loser.resetSchema();
  CacheStore winner(1, false);
  ErrorRecord fine;
  JsonRef reply;
  log_level = 3;
  const AtStatement overtake(loser.connection(), "INSERT INTO cache", [&] {
    reply = winner.set({entry("/w", "1", "w"), entry("/w", "2", "w")}, fine);
  });
  EXPECT_EQ(logOfFailedSet(loser, {entry("/l", "3", "l")}), errorLine("database is locked"));
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(fine.code, 0U);
  EXPECT_THAT(rowsOf(file(1), "SELECT rowid, path FROM cache"), ElementsAre("1|", "2|/w"));
  EXPECT_THAT(rowsOf(file(1), "SELECT name FROM entry"), ElementsAre("1", "2"));
}

TEST_F(Faults, TheSummaryOfAListingIsItsOwnWhateverFollowsItsCommit) {
  struct Requests {
    CacheStore first{1, true};
    CacheStore second{1, false};
    ErrorRecord fine;
    std::string log;
    int commits = 0;
  } requests;
  log_level = 3;
  // Another request writes its own listing as soon as it can: the first commit is that of the fresh tables.
  const auto statement_ended = [](unsigned, void *self, void *statement, void * /*time*/) {
    auto &at = *static_cast<Requests *>(self);
    const char *sql = sqlite3_sql(static_cast<sqlite3_stmt *>(statement));
    if (sql != nullptr && std::string_view(sql).starts_with("COMMIT") && ++at.commits == 2) {
      at.log = logged([&at] {
        EXPECT_NE(at.second.set({entry("/w", "1", "w"), entry("/w", "2", "v")}, at.fine), nullptr);
      });
    }
    return 0;
  };
  requests.first.resetSchema();
  requests.commits = 0;
  sqlite3_trace_v2(requests.first.connection(), SQLITE_TRACE_PROFILE, statement_ended, &requests);
  const JsonRef reply = requests.first.set({entry("/l", "3", "l")}, error);
  sqlite3_trace_v2(requests.first.connection(), 0, nullptr, nullptr);
  EXPECT_EQ(requests.commits, 2);
  EXPECT_EQ(requests.log, "");
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(dump(JsonRef(json_incref(json_object_get(reply.get(), "cluster")))), R"([{"value":"l","count":1}])");
  EXPECT_THAT(rowsOf(file(1), "SELECT name FROM entry"), ElementsAre("1", "2"));
}

TEST_F(Faults, AListingWhoseCommitFailsStillAnswers) {
  CacheStore store(1, true);
  store.resetSchema();
  OtherConnection reader(file(1));
  log_level = 7;
  std::string text;
  {
    const AtStatement read(store.connection(), "INSERT INTO cache", [&] { reader.run("BEGIN; SELECT * FROM cache"); });
    text = logged([&] { EXPECT_NE(store.set({entry("/d", "a")}, error), nullptr); });
  }
  EXPECT_THAT(text, testing::MatchesRegex("STAMP \\[D\\] dirwell\\(PID\\): \\(cache:LINE\\) \\[cache\\] commit failed: "
                                          "database is locked\n"
                                          "STAMP \\[I\\] dirwell\\(PID\\): \\[cache\\] uuid " +
                                          uuid_form + " created\n"));
  EXPECT_EQ(error.code, 0U);
}

}  // namespace
}  // namespace dirwell
