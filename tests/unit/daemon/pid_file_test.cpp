#include "daemon/pid_file.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/environment.h"
#include "support/private_root.h"

namespace dirwell {
namespace {

using test::captured_stderr;
using test::in_child;
using test::private_root;

std::string path_of(const std::string &instance) {
  return private_root() + "/var/run/" + instance + ".pid";
}

std::string content(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

TEST(PidFile, HoldsThePidWithoutALineFeedAndGoesWhenRemoved) {
  EXPECT_EQ(in_child([] {
              const std::string path = path_of("dirwell-pid1");
              create_pid_file("dirwell-pid1");
              const bool written = content(path) == std::to_string(::getpid());
              struct ::stat status {};
              ::stat(path.c_str(), &status);
              const bool mode = (status.st_mode & 0777) == 0644;
              remove_pid_file();
              ::_exit(written && mode && !std::filesystem::exists(path) ? 0 : 1);
            }),
            0);
}

TEST(PidFile, OfAnEarlierInstanceIsTakenOverWhole) {
  test::write_below_root("var/run/dirwell-pid2.pid", "123456789012345");
  EXPECT_EQ(in_child([] {
              create_pid_file("dirwell-pid2");
              const bool right = content(path_of("dirwell-pid2")) == std::to_string(::getpid());
              remove_pid_file();
              ::_exit(right ? 0 : 1);
            }),
            0);
}

// What a second instance says and how it ends while `held` is the content of the locked file.
std::string second_instance(const std::string &instance, const std::string &held) {
  const std::string path = test::write_below_root("var/run/" + instance + ".pid", held);
  const int holder = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(::flock(holder, LOCK_EX | LOCK_NB), 0);
  int status = -1;
  std::string said = captured_stderr([&] { status = in_child([&] { create_pid_file(instance); }); });
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_EQ(content(path), held) << "only the holder of the lock touches the file";
  ::close(holder);
  ::unlink(path.c_str());
  return said.substr(said.find("): ") + 3);
}

TEST(PidFile, ThatIsLockedEndsASecondInstanceWithTheFirstOnesPid) {
  EXPECT_EQ(second_instance("dirwell-pid3", "4711"), "[dirwell-pid3] daemon is running (4711).\n");
}

TEST(PidFile, ThatIsLockedIsQuotedUpToThirtyTwoBytes) {
  EXPECT_EQ(second_instance("dirwell-pid4", "0123456789012345678901234567890123456789"),
            "[dirwell-pid4] daemon is running (01234567890123456789012345678901).\n");
}

TEST(PidFile, ThatCannotBeOpenedEndsTheProcess) {
  std::filesystem::create_directories(path_of("dirwell-pid5"));
  int status = -1;
  const std::string said = captured_stderr([&] { status = in_child([] { create_pid_file("dirwell-pid5"); }); });
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_THAT(said, ::testing::EndsWith("): [dirwell-pid5] create pid file " + path_of("dirwell-pid5") + " fail.\n"));
  std::filesystem::remove(path_of("dirwell-pid5"));
}

// A daemon that ends before it has the file, or after it gave it up, leaves another's alone.
TEST(PidFile, OfAnotherInstanceIsNotRemoved) {
  EXPECT_EQ(in_child([] {
              const std::string path = test::write_below_root("var/run/dirwell-pid7.pid", "4711");
              remove_pid_file();
              if (content(path) != "4711") {
                ::_exit(1);
              }
              create_pid_file("dirwell-pid7");
              remove_pid_file();
              if (std::filesystem::exists(path)) {
                ::_exit(2);
              }
              test::write_below_root("var/run/dirwell-pid7.pid", "4712");
              remove_pid_file();
              const bool left = content(path) == "4712";
              ::unlink(path.c_str());
              ::_exit(left ? 0 : 3);
            }),
            0);
}

TEST(PidFile, IsNotLockedByPrograms) {
  EXPECT_EQ(in_child([] {
              create_pid_file("dirwell-pid6");
              // Close-on-exec is what keeps a program from holding the lock beyond the daemon's life.
              for (int descriptor = 3; descriptor < 64; ++descriptor) {
                const int flags = ::fcntl(descriptor, F_GETFD);
                std::error_code ignored;
                const auto target =
                    std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor), ignored);
                if (flags != -1 && target == path_of("dirwell-pid6") && (flags & FD_CLOEXEC) == 0) {
                  ::_exit(1);
                }
              }
              remove_pid_file();
            }),
            0);
}

}  // namespace
}  // namespace dirwell
