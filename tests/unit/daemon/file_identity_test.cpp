#include "daemon/file_identity.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "service/session.h"
#include "support/environment.h"
#include "support/private_root.h"
#include "support/temp_dir.h"

namespace dirwell {
namespace {

bool can_open(const std::string &path) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor >= 0) {
    ::close(descriptor);
  }
  return descriptor >= 0;
}

TEST(SessionFileIdentity, HoldsForItsScope) {
  const test::ScopedSession session("fs1", "nobody");
  const test::TempDir folder;
  const std::string secret = folder.write("secret");
  ::chmod(folder.path().c_str(), 0755);
  ::chmod(secret.c_str(), 0600);
  EXPECT_EQ(test::in_child([&] {
              test::captured_stderr([] { Session::instance().set_sid("fs1"); });
              const bool before = can_open(secret);
              bool inside = true;
              bool held = false;
              {
                const SessionFileIdentity identity;
                held = identity.held();
                inside = can_open(secret);
              }
              const bool after = can_open(secret);
              ::_exit(before && held && !inside && after ? 0 : 1);
            }),
            0);
}

TEST(SessionFileIdentity, LeavesOtherThreadsTheirRights) {
  const test::ScopedSession session("fs2", "nobody");
  const test::TempDir folder;
  const std::string secret = folder.write("secret");
  ::chmod(secret.c_str(), 0600);
  EXPECT_EQ(test::in_child([&] {
              test::captured_stderr([] { Session::instance().set_sid("fs2"); });
              std::atomic<int> step{0};
              bool other = false;
              std::thread thread([&] {
                while (step != 1) {
                  std::this_thread::yield();
                }
                other = can_open(secret);
                step = 2;
              });
              bool own = true;
              {
                const SessionFileIdentity identity;
                step = 1;
                while (step != 2) {
                  std::this_thread::yield();
                }
                own = can_open(secret);
              }
              thread.join();
              ::_exit(other && !own ? 0 : 1);
            }),
            0);
}

std::vector<gid_t> groups_now() {
  std::vector<gid_t> groups(64);
  groups.resize(static_cast<std::size_t>(::getgroups(64, groups.data())));
  return groups;
}

TEST(SessionFileIdentity, ReplacesTheThreadsGroupsByTheUsersAndPutsThemBack) {
  const test::ScopedSession session("fs4", "nobody");
  const test::TempDir folder;
  const std::string for_the_group = folder.write("for the group");
  ::chmod(folder.path().c_str(), 0755);
  constexpr gid_t stray = 4242;
  ASSERT_EQ(::chown(for_the_group.c_str(), 0, stray), 0);
  ::chmod(for_the_group.c_str(), 0640);
  EXPECT_EQ(test::in_child([&] {
              test::captured_stderr([] { Session::instance().set_sid("fs4"); });
              if (::setgroups(1, &stray) != 0) {
                ::_exit(2);
              }
              bool inside = true;
              bool users_groups = false;
              {
                const SessionFileIdentity identity;
                inside = can_open(for_the_group);
                users_groups = identity.held() && groups_now() == Session::instance().groups();
              }
              ::_exit(!inside && users_groups && groups_now() == std::vector<gid_t>{stray} ? 0 : 1);
            }),
            0);
}

TEST(SessionFileIdentity, IsNotHeldWhereTheKernelRefusesIt) {
  const test::ScopedSession session("fs3", "root");
  EXPECT_EQ(test::in_child([] {
              test::captured_stderr([] { Session::instance().set_sid("fs3"); });
              if (::setgid(65534) != 0 || ::setuid(65534) != 0) {
                ::_exit(2);
              }
              const SessionFileIdentity identity;
              ::_exit(identity.held() ? 1 : 0);
            }),
            0);
}

}  // namespace
}  // namespace dirwell
