#include "platform/host/socket_file.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "support/environment.h"
#include "support/refused_calls.h"
#include "support/temp_dir.h"

namespace dirwell::host {
namespace {

class SocketFileTest : public testing::Test {
 protected:
  // 0, or the number of the error.
  [[nodiscard]] int connect() const {
    const OwnedFd client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return connect_to(client.get(), path_) == 0 ? 0 : errno;
  }
  [[nodiscard]] bool exists() const { return std::filesystem::exists(std::filesystem::symlink_status(path_)); }

  test::TempDir folder_;
  std::string path_ = folder_.path() + "/made/when missing/x.sock";
};

TEST_F(SocketFileTest, ListensForEverybodyAndIsRemoved) {
  {
    SocketFile file;
    EXPECT_EQ(file.descriptor(), -1);
    ASSERT_TRUE(file.open(path_));
    EXPECT_EQ(connect(), 0);
    struct stat status {};
    ASSERT_EQ(::lstat(path_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0666U);
    file.close();
    EXPECT_EQ(file.descriptor(), -1);
    EXPECT_FALSE(exists());
    file.close();
    ASSERT_TRUE(file.open(path_));
  }
  EXPECT_FALSE(exists());
}

TEST_F(SocketFileTest, ReplacesAFileThatNobodyListensAt) {
  std::filesystem::create_directories(std::filesystem::path(path_).parent_path());
  const std::string elsewhere = folder_.path() + "/elsewhere";
  {
    SocketFile dead;
    ASSERT_TRUE(dead.open(elsewhere));
    std::filesystem::rename(elsewhere, path_);
  }
  ASSERT_TRUE(exists());
  EXPECT_EQ(connect(), ECONNREFUSED);
  SocketFile file;
  EXPECT_TRUE(file.open(path_));
  EXPECT_EQ(connect(), 0);
}

TEST_F(SocketFileTest, LeavesOneThatSomebodyListensAt) {
  SocketFile first;
  ASSERT_TRUE(first.open(path_));
  SocketFile second;
  EXPECT_FALSE(second.open(path_));
  EXPECT_EQ(errno, EADDRINUSE);
  EXPECT_EQ(second.descriptor(), -1);
  second.close();
  EXPECT_EQ(connect(), 0);
}

TEST_F(SocketFileTest, LeavesWhatIsNoSocket) {
  folder_.write("made/when missing/x.sock", "text");
  SocketFile file;
  EXPECT_FALSE(file.open(path_));
  EXPECT_EQ(errno, EADDRINUSE);
  EXPECT_EQ(std::filesystem::file_size(path_), 4U);
  std::filesystem::remove(path_);
  std::filesystem::create_symlink("nowhere", path_);
  EXPECT_FALSE(file.open(path_));
  EXPECT_EQ(errno, EADDRINUSE);
  EXPECT_TRUE(std::filesystem::is_symlink(path_));
}

TEST_F(SocketFileTest, TellsWhyThereCanBeNone) {
  SocketFile file;
  EXPECT_FALSE(file.open(folder_.write("file") + "/x.sock"));
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_FALSE(file.open(folder_.path() + "/" + std::string(108, 'x')));
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_EQ(connect_to(-1, std::string(108, 'x')), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_EQ(connect(), ENOENT);
}

TEST_F(SocketFileTest, TellsWhyAStaleFileCannotBeReplaced) {
  const test::TempDir others;
  const std::string path = others.path() + "/x.sock";
  {
    SocketFile dead;
    ASSERT_TRUE(dead.open(path_));
    std::filesystem::rename(path_, path);
  }
  ASSERT_EQ(::chmod(others.path().c_str(), 0755), 0);
  EXPECT_EQ(test::in_child([&] {
              // Everybody may connect, but only root may remove the file.
              if (::setegid(65534) != 0 || ::seteuid(65534) != 0) {
                ::_exit(9);
              }
              const int next = ::dup(0);
              ::close(next);
              SocketFile file;
              const bool opened = file.open(path);
              const int reason = errno;
              ::_exit(!opened && reason == EACCES && file.descriptor() == -1 && ::dup(0) == next ? 0 : 1);
            }),
            0);
  EXPECT_TRUE(std::filesystem::is_socket(path));
}

TEST_F(SocketFileTest, LeavesNoFileThatNotEverybodyCouldConnectTo) {
  EXPECT_EQ(test::in_child([&] {
              test::refuse_chmod(EROFS);
              const int next = ::dup(0);
              ::close(next);
              SocketFile file;
              const bool opened = file.open(path_);
              const int reason = errno;
              ::_exit(!opened && reason == EROFS && file.descriptor() == -1 && ::dup(0) == next ? 0 : 1);
            }),
            0);
  EXPECT_TRUE(std::filesystem::is_directory(folder_.path() + "/made/when missing"));
  EXPECT_FALSE(exists());
}

TEST_F(SocketFileTest, LeavesNoFileThatNobodyListensAt) {
  EXPECT_EQ(test::in_child([&] {
              test::refuse_calls(SYS_listen, ENOBUFS);
              SocketFile file;
              ::_exit(!file.open(path_) && errno == ENOBUFS && file.descriptor() == -1 ? 0 : 1);
            }),
            0);
  EXPECT_FALSE(exists());
}

TEST_F(SocketFileTest, LeavesAFileThatHasTakenItsPlace) {
  SocketFile file;
  ASSERT_TRUE(file.open(path_));
  std::filesystem::remove(path_);
  folder_.write("made/when missing/x.sock", "another's");
  file.close();
  EXPECT_TRUE(exists());
}

TEST(SocketPath, MayHave107Bytes) {
  EXPECT_TRUE(is_socket_path(std::string(107, 'x')));
  EXPECT_FALSE(is_socket_path(std::string(108, 'x')));
}

}  // namespace
}  // namespace dirwell::host
