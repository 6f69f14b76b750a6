#include "daemon/file_identity.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>

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
