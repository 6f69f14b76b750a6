#include "platform/host/regular_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "support/environment.h"
#include "support/temp_dir.h"

namespace dirwell::host {
namespace {

class ReadRegularFile : public testing::Test {
 protected:
  // The content; the number of the error where the kernel refused; "nothing" for what is of the wrong kind or size.
  std::string read(const std::string &path, Links links = Links::follow, std::size_t limit = 1000) {
    errno = 0;
    const std::optional<std::string> content = read_regular_file(path, links, limit, status_);
    return content ? *content : (errno == 0 || errno == EINVAL ? "nothing" : error(errno));
  }
  static std::string error(int number) { return "error " + std::to_string(number); }

  test::TempDir folder_;
  struct stat status_ {};
};

TEST_F(ReadRegularFile, GivesTheContentAndTheStatus) {
  const std::string path = folder_.write("file", std::string("one\0two", 7));
  EXPECT_EQ(read(path), std::string("one\0two", 7));
  EXPECT_EQ(status_.st_size, 7);
  EXPECT_EQ(read(folder_.write("empty")), "");
}

TEST_F(ReadRegularFile, TakesAsManyBytesAsTheLimitAndNoneMore) {
  const std::string path = folder_.write("file", "12345");
  EXPECT_EQ(read(path, Links::follow, 5), "12345");
  status_ = {};
  EXPECT_EQ(read(path, Links::follow, 4), "nothing");
  EXPECT_EQ(status_.st_size, 0) << "what is not read says nothing";
}

// The kernel's files tell no size.
TEST_F(ReadRegularFile, ReadsToTheEndWhateverTheSizeSays) {
  EXPECT_EQ(read("/proc/self/comm"), "unit_platform\n");
  EXPECT_EQ(status_.st_size, 0);
  EXPECT_EQ(read("/proc/self/comm", Links::follow, 13), "nothing");
  EXPECT_EQ(read("/proc/self/comm", Links::follow, 14), "unit_platform\n");
}

TEST_F(ReadRegularFile, WaitsForNothingAndTakesNothingElse) {
  ASSERT_EQ(::mkfifo(folder_.at("fifo").c_str(), 0600), 0);
  EXPECT_EQ(read(folder_.at("fifo")), "nothing");
  EXPECT_EQ(read(folder_.path()), "nothing");
  EXPECT_EQ(read("/dev/null"), "nothing");
  EXPECT_EQ(read("/dev/zero"), "nothing");
  EXPECT_EQ(read(folder_.at("missing")), error(ENOENT));
}

TEST_F(ReadRegularFile, FollowsALinkOnlyWhereItMay) {
  folder_.write("file", "content");
  ASSERT_EQ(::symlink("file", folder_.at("link").c_str()), 0);
  EXPECT_EQ(read(folder_.at("link")), "content");
  EXPECT_EQ(read(folder_.at("link"), Links::refuse), error(ELOOP));
  EXPECT_EQ(read(folder_.at("file"), Links::refuse), "content");
}

TEST_F(ReadRegularFile, IsBoundByTheRightsOfTheProcess) {
  const std::string path = folder_.write("file", "secret");
  ::chmod(folder_.path().c_str(), 0755);
  ::chmod(path.c_str(), 0600);
  EXPECT_EQ(test::in_child([&] {
              if (::setgid(65534) != 0 || ::setuid(65534) != 0) {
                ::_exit(2);
              }
              ::_exit(read(path) == error(EACCES) ? 0 : 1);
            }),
            0);
}

// A process's memory can be opened, and reading where nothing is mapped fails.
TEST_F(ReadRegularFile, GivesNothingWhereReadingFails) {
  EXPECT_EQ(read("/proc/self/mem"), error(EIO));
}

}  // namespace
}  // namespace dirwell::host
