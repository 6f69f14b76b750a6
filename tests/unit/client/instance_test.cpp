#include "client/instance.h"

#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "client/failure.h"
#include "fake_service.h"
#include "support/environment.h"
#include "support/refused_calls.h"
#include "support/temp_dir.h"

namespace {

using namespace dirwell::client;
using dirwell::test::FakeService;
using dirwell::test::ScopedEnvironment;
using dirwell::test::TempDir;

TEST(FindRoot, TakesTheOptionThenTheEnvironment) {
  const ScopedEnvironment root("DIRWELL_ROOT", "/env/root//");
  EXPECT_EQ(find_root(""), "/env/root");
  EXPECT_EQ(find_root("/given/"), "/given");
  EXPECT_EQ(find_root("/"), "");
  const ScopedEnvironment none("DIRWELL_ROOT", "");
  EXPECT_EQ(find_root(""), "");
}

TEST(Instance, StandsAtFixedPlacesBelowTheRoot) {
  EXPECT_EQ(socket_path("", "abc"), "/var/run/dirwell-abc.sock");
  EXPECT_EQ(socket_path("/tmp/box", "abc"), "/tmp/box/var/run/dirwell-abc.sock");
  EXPECT_EQ(session_folder("/tmp/box"), "/tmp/box/var/run/dirwell/sessions");
}

TEST(Sid, IsShortAndPlain) {
  for (const std::string &sid : {std::string("a"), std::string("AZaz09_-"), std::string(64, 'x')}) {
    EXPECT_TRUE(is_sid(sid)) << sid;
  }
  for (const std::string &sid :
       {std::string(), std::string(65, 'x'), std::string("a.b"), std::string("a/b"), std::string("a b"),
        std::string("\xC3\xA9"), std::string("a\n"), std::string("a\0", 2)}) {
    EXPECT_FALSE(is_sid(sid)) << sid;
  }
}

TEST(Sid, IsMadeUpAnew) {
  const std::string one = new_sid();
  EXPECT_TRUE(is_sid(one));
  EXPECT_EQ(one.size(), 16U);
  EXPECT_NE(one, new_sid());
}

TEST(Sid, IsNotMadeUpWithoutRandomNumbers) {
  EXPECT_EQ(dirwell::test::in_child([] {
              dirwell::test::refuse_calls(SYS_getrandom, ENOSYS);
              try {
                new_sid();
              } catch (const Failure &failure) {
                const bool said = failure.what() == std::string("the machine gives no random numbers");
                ::_exit(said && failure.status() == Status::refused ? 0 : 3);
              }
              ::_exit(1);
            }),
            0);
}

// A socket file that nobody listens at any more.
void leave_stale_socket(const std::string &path) {
  const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
  ::close(descriptor);
}

class FindSid : public testing::Test {
 protected:
  FindSid() { folder.mkdir("var/run"); }

  [[nodiscard]] std::string found(const std::string &option = "") const { return find_sid(folder.path(), option); }

  [[nodiscard]] std::pair<Status, std::string> failure(const std::string &option = "") const {
    try {
      return {Status::success, found(option)};
    } catch (const Failure &failure) {
      return {failure.status(), failure.what()};
    }
  }

  TempDir folder;
  ScopedEnvironment none{"DIRWELL_SID", ""};
};

TEST_F(FindSid, TakesTheOptionThenTheEnvironment) {
  const ScopedEnvironment sid("DIRWELL_SID", "from-env");
  EXPECT_EQ(found("given"), "given");
  EXPECT_EQ(found(), "from-env");
}

TEST_F(FindSid, RefusesWhatIsNoSid) {
  EXPECT_EQ(failure("../x"), std::pair(Status::usage, std::string("\"../x\" is no session id")));
  const ScopedEnvironment sid("DIRWELL_SID", "a b\x1b");
  EXPECT_EQ(failure(), std::pair(Status::usage, std::string("\"a b\\u001b\" is no session id")));
}

TEST_F(FindSid, TakesTheOnlyInstanceThatListens) {
  const FakeService service(socket_path(folder.path(), "alive"), "");
  leave_stale_socket(socket_path(folder.path(), "stale"));
  folder.write("var/run/dirwell-file.sock");
  folder.write("var/run/dirwell-.sock");
  const FakeService unnameable(socket_path(folder.path(), "a.b"), "");
  folder.write("var/run/other.sock");
  EXPECT_EQ(found(), "alive");
}

TEST_F(FindSid, SaysWhenThereIsNone) {
  leave_stale_socket(socket_path(folder.path(), "stale"));
  EXPECT_EQ(failure(), std::pair(Status::unreachable, "no instance runs under " + folder.path() + "/var/run"));
  std::filesystem::remove_all(folder.path() + "/var");
  EXPECT_EQ(failure(), std::pair(Status::unreachable, "no instance runs under " + folder.path() + "/var/run"));
}

TEST_F(FindSid, SaysWhenThereAreSeveral) {
  const FakeService second(socket_path(folder.path(), "second"), "");
  const FakeService first(socket_path(folder.path(), "first"), "");
  EXPECT_EQ(failure(),
            std::pair(Status::unreachable, std::string("several instances run; choose one with --sid: first second")));
}

// More callers than its queue takes are waiting already.
TEST_F(FindSid, CountsAnInstanceThatIsTooBusyToAnswer) {
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int waiting = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, socket_path(folder.path(), "busy").c_str(), sizeof address.sun_path - 1);
  const auto *name = reinterpret_cast<const sockaddr *>(&address);
  ASSERT_EQ(::bind(listener, name, sizeof address), 0);
  ASSERT_EQ(::listen(listener, 0), 0);
  ASSERT_EQ(::connect(waiting, name, sizeof address), 0);
  EXPECT_EQ(found(), "busy");
  ::close(waiting);
  ::close(listener);
  EXPECT_EQ(failure().first, Status::unreachable);
}

TEST_F(FindSid, CountsAnInstanceThatMayNotBeSpokenTo) {
  const FakeService service(socket_path(folder.path(), "closed"), "");
  std::filesystem::permissions(folder.path(), std::filesystem::perms(0755));
  std::filesystem::permissions(socket_path(folder.path(), "closed"), std::filesystem::perms(0600));
  EXPECT_EQ(dirwell::test::in_child([this] {
              if (::seteuid(65534) != 0 || !is_running(folder.path(), "closed")) {
                ::_exit(1);
              }
            }),
            0);
}

}  // namespace
