#include <fcntl.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "host_files.h"
#include "platform/include/strata_nasauth.h"
#include "support/environment.h"
#include "support/temp_dir.h"

namespace {

using dirwell::test::below_root;
using dirwell::test::in_child;
using dirwell::test::put;
using namespace std::string_literals;

const std::string sessions = "/var/run/dirwell/sessions/";

class HostSession : public testing::Test {
 protected:
  ~HostSession() override { dirwell::test::remove("/var/run/dirwell/sessions"); }

  static std::string session(const std::string &sid, std::string_view content, mode_t mode = 0600) {
    std::string path = put(sessions + sid, content);
    EXPECT_EQ(::chmod(path.c_str(), mode), 0);
    return path;
  }

  static bool lives(const std::string &sid) {
    auth_session record{};
    return auth_get_session_ex(sid.c_str(), 1, &record) == 0;
  }
};

TEST_F(HostSession, FillsTheRecordOfItsUser) {
  session("abc", "user = daemon\n");
  auth_session record;
  std::memset(&record, 0x55, sizeof record);
  ASSERT_EQ(auth_get_session_ex("abc", 1, &record), 0);
  EXPECT_STREQ(record.user, "daemon");
  const passwd *daemon = ::getpwnam("daemon");
  ASSERT_NE(daemon, nullptr);
  EXPECT_EQ(record.uid, daemon->pw_uid);
  EXPECT_EQ(record.gid, daemon->pw_gid);
  EXPECT_EQ(std::string(record.user + 6, sizeof record.user - 6), std::string(250, '\0'));
  EXPECT_EQ(std::string(record.reserved, sizeof record.reserved), std::string(2536, '\0'));
}

TEST_F(HostSession, StaysAsItWasFoundWhileItCannotBeLookedUp) {
  session("abc", "user = daemon\n");
  session("other", "user = daemon\n");
  ASSERT_TRUE(lives("abc"));
  auth_session record{};
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit none{0, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  const int there = auth_get_session_ex("abc", 1, &record);
  const bool other = lives("other");  // never found before
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(there, 0);
  EXPECT_STREQ(record.user, "daemon");
  EXPECT_FALSE(other);
}

TEST_F(HostSession, ThatHasEndedOrRunOutIsNotTakenForAliveWhereItCannotBeLookedUp) {
  const std::string ended = session("ended", "user = daemon\n");
  ASSERT_TRUE(lives("ended"));
  std::filesystem::remove(ended);
  ASSERT_FALSE(lives("ended"));
  session("brief", "user = daemon\nexpires = " + std::to_string(::time(nullptr) + 2) + "\n");
  ASSERT_TRUE(lives("brief"));
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit none{0, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  const bool ended_lives = lives("ended");
  const bool brief_lives = lives("brief");
  std::this_thread::sleep_for(std::chrono::milliseconds(2100));
  const bool brief_still_lives = lives("brief");
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_FALSE(ended_lives);
  EXPECT_TRUE(brief_lives);
  EXPECT_FALSE(brief_still_lives);
}

TEST_F(HostSession, LeavesTheRecordAloneWhenThereIsNone) {
  session("abc", "user = no-such-account\n");
  auth_session record;
  std::memset(&record, 0x55, sizeof record);
  EXPECT_NE(auth_get_session_ex("abc", 1, &record), 0);
  EXPECT_NE(auth_get_session_ex("missing", 1, &record), 0);
  auth_session same;
  std::memset(&same, 0x55, sizeof same);
  EXPECT_EQ(std::memcmp(&record, &same, sizeof record), 0);
}

TEST_F(HostSession, ReadsEachFormOfAFile) {
  const std::string past = std::to_string(::time(nullptr) - 1);
  const std::string future = std::to_string(::time(nullptr) + 1000);
  struct Row {
    const char *what;
    std::string content;
    bool lives;
  };
  const std::vector<Row> rows = {
      {"user alone", "user = daemon\n", true},
      {"no final line feed", "user=daemon", true},
      {"CRLF", "user = daemon\r\n", true},
      {"capital key", "USER = daemon\n", true},
      {"comments and others", "# x\nsource = web\n; y\nuser = daemon\n", true},
      {"first user counts", "user = daemon\nuser = no-such-account\n", true},
      {"first user counts though bad", "user = no-such-account\nuser = daemon\n", false},
      {"empty", "", false},
      {"no user", "expires = " + future + "\n", false},
      {"empty user", "user =\n", false},
      {"unknown user", "user = no-such-account\n", false},
      {"number for a user", "user = 1\n", false},
      {"user with NUL", "user = daemon\0x\n"s, false},
      {"user in a section", "[session]\nuser = daemon\n", false},
      {"account names keep their case", "user = DAEMON\n", false},
      {"expires later", "user = daemon\nexpires = " + future + "\n", true},
      {"expired", "user = daemon\nexpires = " + past + "\n", false},
      {"expires now", "user = daemon\nexpires = " + std::to_string(::time(nullptr)) + "\n", false},
      {"expired before the user", "expires = " + past + "\nuser = daemon\n", false},
      {"first limit counts", "user = daemon\nexpires = " + past + "\nexpires = " + future + "\n", false},
      {"expired long ago", "user = daemon\nexpires = -1\n", false},
      {"limit without value", "user = daemon\nexpires =\n", false},
      {"limit with a unit", "user = daemon\nexpires = " + future + "s\n", false},
      {"limit in words", "user = daemon\nexpires = never\n", false},
      {"limit beyond 64 bits", "user = daemon\nexpires = 99999999999999999999\n", false},
      {"commented limit", "user = daemon\n#expires = " + past + "\n", true},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.what);
    session("sid", row.content);
    EXPECT_EQ(lives("sid"), row.lives);
  }
}

TEST_F(HostSession, EndsWhenItsLimitIsReached) {
  session("sid", "user = daemon\nexpires = " + std::to_string(::time(nullptr) + 2) + "\n");
  EXPECT_TRUE(lives("sid"));
  session("sid", "user = daemon\nexpires = " + std::to_string(::time(nullptr) - 2) + "\n");
  EXPECT_FALSE(lives("sid"));
}

TEST_F(HostSession, EndsWhenItsFileGoes) {
  session("sid", "user = daemon\n");
  EXPECT_TRUE(lives("sid"));
  dirwell::test::remove(sessions + "sid");
  EXPECT_FALSE(lives("sid"));
}

TEST_F(HostSession, AcceptsOnlyWellFormedIds) {
  session("Az09_-", "user = daemon\n");
  EXPECT_TRUE(lives("Az09_-"));
  const std::string longest(64, 'x');
  session(longest, "user = daemon\n");
  EXPECT_TRUE(lives(longest));
  session(longest + "x", "user = daemon\n");
  EXPECT_FALSE(lives(longest + "x"));
  for (const char *sid : {"a.b", "a b", "\xC3\xA9", "a\n", "a%41", "a:b"}) {
    SCOPED_TRACE(sid);
    session(sid, "user = daemon\n");
    EXPECT_FALSE(lives(sid));
  }
}

TEST_F(HostSession, LooksForNoFileUnderAnIllFormedId) {
  put("/var/run/dirwell/outside", "user = daemon\n");
  session("sid", "user = daemon\n");
  EXPECT_FALSE(lives("../outside"));
  EXPECT_FALSE(lives("./sid"));
  EXPECT_FALSE(lives("/sid"));
  EXPECT_FALSE(lives(".."));
  EXPECT_FALSE(lives("."));
  EXPECT_FALSE(lives(""));
  auth_session record{};
  EXPECT_NE(auth_get_session_ex(nullptr, 1, &record), 0);
  EXPECT_NE(auth_get_session_ex("sid", 1, nullptr), 0);
  dirwell::test::remove("/var/run/dirwell/outside");
}

TEST_F(HostSession, TrustsNoFileThatOthersMayWrite) {
  struct Row {
    mode_t mode;
    bool lives;
  };
  for (const Row &row : {Row{0600, true}, Row{0644, true}, Row{0400, true}, Row{0755, true}, Row{0620, false},
                         Row{0602, false}, Row{0666, false}}) {
    SCOPED_TRACE(row.mode);
    session("sid", "user = daemon\n", row.mode);
    EXPECT_EQ(lives("sid"), row.lives);
  }
}

TEST_F(HostSession, TrustsNoFileOfAnotherUser) {
  const std::string path = session("sid", "user = daemon\n", 0644);
  ASSERT_EQ(::chown(path.c_str(), 4242, 0), 0);
  EXPECT_FALSE(lives("sid"));
  // A group owner does not matter while the group may not write.
  ASSERT_EQ(::chown(path.c_str(), 0, 4242), 0);
  EXPECT_TRUE(lives("sid"));
}

TEST_F(HostSession, TrustsAFileOfTheDaemonsOwnUserWhateverIdentityIsTakenOn) {
  std::string folder = session("sid", "user = daemon\n", 0644);
  ASSERT_EQ(::chown(folder.c_str(), 4242, 0), 0);
  while ((folder = std::filesystem::path(folder).parent_path()).size() > 4) {
    ASSERT_EQ(::chmod(folder.c_str(), 0755), 0);
  }
  const auto as = [](uid_t real, uid_t effective) {
    return in_child([=] {
      if (::setresuid(real, effective, 0) != 0) {
        ::_exit(99);
      }
      ::_exit(lives("sid") ? 0 : 1);
    });
  };
  EXPECT_EQ(as(4242, 4242), 0);
  EXPECT_EQ(as(4242, 1), 0);
  EXPECT_EQ(as(0, 4242), 1 << 8);
}

TEST_F(HostSession, TakesOnlyARegularFile) {
  const std::string target = session("target", "user = daemon\n");
  ASSERT_EQ(::symlink(target.c_str(), below_root(sessions + "link").c_str()), 0);
  EXPECT_TRUE(lives("target"));
  EXPECT_FALSE(lives("link"));
  ASSERT_EQ(::mkfifo(below_root(sessions + "fifo").c_str(), 0600), 0);
  EXPECT_FALSE(lives("fifo"));
  ASSERT_EQ(::mkdir(below_root(sessions + "folder").c_str(), 0700), 0);
  EXPECT_FALSE(lives("folder"));
}

TEST_F(HostSession, RefusesAFileThatIsTooLarge) {
  session("sid", "user = daemon\n" + std::string(70'000, '\n'));
  EXPECT_FALSE(lives("sid"));
}

// Account records are read in a jail of their own, with its own list of accounts.
class Jail {
 public:
  explicit Jail(const std::string &accounts) {
    folder_.write("etc/passwd", accounts);
    folder_.write("etc/nsswitch.conf", "passwd: files\n");
    const std::string file = folder_.write((below_root(sessions) + "sid").substr(1), "user = someone\n");
    EXPECT_EQ(::chmod(file.c_str(), 0600), 0);
  }

  [[nodiscard]] int wait_status() const {
    return in_child([this] {
      if (::chroot(folder_.path().c_str()) != 0 || ::chdir("/") != 0) {
        ::_exit(99);
      }
      auth_session record{};
      const int result = auth_get_session_ex("sid", 1, &record);
      ::_exit(result != 0                                                                          ? 1
              : record.uid == 1234 && record.gid == 99 && std::strcmp(record.user, "someone") == 0 ? 0
                                                                                                   : 2);
    });
  }

 private:
  dirwell::test::TempDir folder_;
};

TEST_F(HostSession, NeedsAnAccountRecordThatFitsItsBuffer) {
  const std::string head = "someone:x:1234:99:";
  const std::string tail = ":/home/someone:/bin/sh\n";
  EXPECT_EQ(Jail(head + "Some One" + tail).wait_status(), 0);
  EXPECT_EQ(Jail(head + std::string(800, 'x') + tail).wait_status(), 0);
  EXPECT_EQ(Jail(head + std::string(1100, 'x') + tail).wait_status(), 1 << 8);
}

TEST_F(HostSession, NeedsARecordThatFitsUnderTheAccountsIdToo) {
  // The daemon looks the id up, and there finds the other name's record first.
  const std::string other = "other:x:1234:99:" + std::string(1100, 'x') + ":/:/bin/sh\n";
  const std::string someone = "someone:x:1234:99::/:/bin/sh\n";
  EXPECT_EQ(Jail(someone + other).wait_status(), 0);
  EXPECT_EQ(Jail(other + someone).wait_status(), 1 << 8);
}

TEST_F(HostSession, NeedsANameThatFitsTheRecord) {
  const std::string name(256, 'n');
  dirwell::test::TempDir folder;
  folder.write("etc/passwd", name + ":x:1:1::/:/bin/sh\n" + name.substr(1) + ":x:2:2::/:/bin/sh\n");
  for (const auto &[sid, account] : {std::pair{"long", name}, std::pair{"fits", name.substr(1)}}) {
    const std::string file = folder.write((below_root(sessions) + sid).substr(1), "user = " + account + "\n");
    ASSERT_EQ(::chmod(file.c_str(), 0600), 0);
  }
  EXPECT_EQ(in_child([&folder] {
              if (::chroot(folder.path().c_str()) != 0) {
                ::_exit(99);
              }
              ::_exit((lives("long") ? 1 : 0) + (lives("fits") ? 0 : 2));
            }),
            0);
}

}  // namespace
