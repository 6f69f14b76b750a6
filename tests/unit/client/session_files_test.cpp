#include "client/session_files.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "client/failure.h"
#include "support/environment.h"
#include "support/temp_dir.h"

namespace {

using namespace dirwell::client;
using dirwell::test::TempDir;

std::string content(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

mode_t mode(const std::string &path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

template <typename Action>
std::string refusal(Action action) {
  try {
    action();
  } catch (const Failure &failure) {
    EXPECT_EQ(failure.status(), Status::refused);
    return failure.what();
  }
  return "(none)";
}

class SessionFiles : public testing::Test {
 protected:
  [[nodiscard]] std::string file(const std::string &sid) const { return sessions + "/" + sid; }

  TempDir folder;
  std::string root = folder.path() + "/made/on/the/way";
  std::string sessions = root + "/var/run/dirwell/sessions";
};

TEST_F(SessionFiles, BeginASessionWithItsUser) {
  begin_session(root, {"abc", "daemon", {}});
  EXPECT_EQ(content(file("abc")), "user = daemon\n");
  begin_session(root, {"limited", "root", 1'700'000'000});
  EXPECT_EQ(content(file("limited")), "user = root\nexpires = 1700000000\n");
  // Nothing else stays behind.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(sessions), std::filesystem::directory_iterator()), 2);
}

TEST_F(SessionFiles, AreWritableByTheirOwnerAloneWhateverTheMask) {
  for (const mode_t mask : {0000U, 0022U, 0077U, 0777U}) {
    SCOPED_TRACE(mask);
    const TempDir own;
    const mode_t before = ::umask(mask);
    begin_session(own.path(), {"abc", "root", {}});
    ::umask(before);
    EXPECT_EQ(mode(own.path() + "/var/run/dirwell/sessions/abc"), 0644U);
    EXPECT_EQ(mode(own.path() + "/var/run/dirwell/sessions") & 0022U, 0U);
  }
}

TEST_F(SessionFiles, DoNotReplaceOneAnother) {
  begin_session(root, {"abc", "daemon", {}});
  EXPECT_EQ(refusal([this] { begin_session(root, {"abc", "root", {}}); }), "the session abc exists already");
  EXPECT_EQ(content(file("abc")), "user = daemon\n");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(sessions), std::filesystem::directory_iterator()), 1);
}

TEST_F(SessionFiles, NeedAnAccount) {
  EXPECT_EQ(refusal([this] {
              begin_session(root, {"abc", "no such\naccount", {}});
            }),
            "there is no account \"no such\\naccount\"");
  EXPECT_FALSE(std::filesystem::exists(folder.path() + "/made"));
}

TEST_F(SessionFiles, SayWhyTheyCannotBeMade) {
  const std::string plain = folder.write("plain");
  EXPECT_EQ(refusal([&plain] { begin_session(plain, {"abc", "root", {}}); }), plain + "/var: Not a directory");
}

// Nothing of a session that cannot be written whole is left, and no session that is there is lost by it.
TEST_F(SessionFiles, SayWhyTheyCannotBeWritten) {
  begin_session(root, {"abc", "daemon", {}});
  ASSERT_EQ(::mkdir(file("kept").c_str(), 0755), 0);
  ASSERT_EQ(::chmod(folder.path().c_str(), 0755), 0);
  EXPECT_EQ(dirwell::test::in_child([this] {
              std::signal(SIGXFSZ, SIG_IGN);
              rlimit limit{};
              ::getrlimit(RLIMIT_FSIZE, &limit);
              const rlimit nothing = {0, limit.rlim_max};
              ::setrlimit(RLIMIT_FSIZE, &nothing);
              const std::string said = refusal([this] { begin_session(root, {"full", "root", {}}); });
              ::setrlimit(RLIMIT_FSIZE, &limit);
              const bool draft_named = said.starts_with(sessions + "/.draft.") && said.ends_with(": File too large");
              ::_exit(draft_named ? 0 : 1);
            }),
            0);
  EXPECT_EQ(dirwell::test::in_child([this] {
              if (::seteuid(1) != 0) {
                ::_exit(2);
              }
              const std::string begun = refusal([this] { begin_session(root, {"mine", "root", {}}); });
              const std::string ended = refusal([this] { end_session(root, "abc"); });
              const bool both =
                  begun == sessions + ": Permission denied" && ended == file("abc") + ": Permission denied";
              ::_exit(::seteuid(0) == 0 && both ? 0 : 1);
            }),
            0);
  EXPECT_EQ(refusal([this] { end_session(root, "kept"); }), file("kept") + ": Is a directory");
  const std::string unnameable(300, 'x');
  EXPECT_EQ(refusal([&] { begin_session(root, {unnameable, "root", {}}); }), file(unnameable) + ": File name too long");
  EXPECT_EQ(content(file("abc")), "user = daemon\n");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(sessions), std::filesystem::directory_iterator()), 2);
}

TEST_F(SessionFiles, SayWhyTheyCannotBeListed) {
  folder.mkdir("root");
  folder.mkdir("root/var");
  folder.mkdir("root/var/run");
  folder.mkdir("root/var/run/dirwell");
  folder.write("root/var/run/dirwell/sessions");
  EXPECT_EQ(refusal([this] { list_sessions(folder.at("root")); }),
            folder.at("root/var/run/dirwell/sessions") + ": Not a directory");
}

TEST_F(SessionFiles, EndASession) {
  begin_session(root, {"abc", "root", {}});
  end_session(root, "abc");
  EXPECT_FALSE(std::filesystem::exists(file("abc")));
  EXPECT_EQ(refusal([this] { end_session(root, "abc"); }), "there is no session abc");
}

TEST_F(SessionFiles, AreListedInOrder) {
  EXPECT_TRUE(list_sessions(root).empty());
  begin_session(root, {"b", "daemon", 5});
  begin_session(root, {"a", "root", {}});
  std::ofstream(file("not.a.sid")) << "user = root\n";
  std::filesystem::create_directory(file("folder"));
  std::filesystem::create_symlink("a", file("link"));
  ASSERT_EQ(::mkfifo(file("fifo").c_str(), 0600), 0);
  const std::vector<SessionRecord> list = list_sessions(root);
  ASSERT_EQ(list.size(), 2U);
  EXPECT_EQ(list[0].sid, "a");
  EXPECT_EQ(list[0].user, "root");
  EXPECT_EQ(list[0].expires, std::nullopt);
  EXPECT_EQ(list[1].sid, "b");
  EXPECT_EQ(list[1].user, "daemon");
  EXPECT_EQ(list[1].expires, 5);
}

TEST_F(SessionFiles, AreReadAsTheServiceReadsThem) {
  struct Row {
    const char *content;
    const char *user;
    std::optional<std::int64_t> expires;
  };
  const std::vector<Row> rows = {
      {"user = a\n", "a", {}},
      {"USER=a\r\n  Expires = 12 \r\n", "a", 12},
      {"# user = x\n;user = y\nuser = a\nuser = b\n", "a", {}},
      {"expires = 1\nexpires = 2\n", "", 1},
      {"user = a\nexpires = soon\n", "a", 0},
      {"user = a\nexpires =\n", "a", 0},
      {"[s]\nuser = a\n", "", {}},
      {"user =\nuser = b", "", {}},
      {"", "", {}},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.content);
    const SessionRecord session = read_session("sid", row.content);
    EXPECT_EQ(session.sid, "sid");
    EXPECT_EQ(session.user, row.user);
    EXPECT_EQ(session.expires, row.expires);
  }
}

TEST(CurrentUser, IsTheEffectiveOne) {
  EXPECT_EQ(dirwell::test::in_child([] {
              if (::seteuid(1) != 0 || current_user() != "daemon") {
                ::_exit(1);
              }
            }),
            0);
  EXPECT_EQ(dirwell::test::in_child([] {
              if (::seteuid(4242) != 0) {
                ::_exit(1);
              }
              try {
                current_user();
              } catch (const Failure &failure) {
                ::_exit(failure.what() == std::string("the user 4242 has no account; name one with --user") ? 0 : 2);
              }
              ::_exit(3);
            }),
            0);
}

}  // namespace
