#include "service/unique_fd.h"

#include <fcntl.h>
#include <gtest/gtest.h>

namespace dirwell {
namespace {

bool is_open(int descriptor) {
  return ::fcntl(descriptor, F_GETFD) != -1;
}

TEST(UniqueFd, ClosesWithItsScopeAndMovesItsOwnership) {
  const int descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  {
    UniqueFd first(descriptor);
    UniqueFd second(std::move(first));
    EXPECT_EQ(second.get(), descriptor);
    EXPECT_TRUE(is_open(descriptor));
  }
  EXPECT_FALSE(is_open(descriptor));
}

TEST(CloseIfValid, LeavesClosedAndNegativeDescriptorsAlone) {
  const int descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  close_if_valid(descriptor);
  EXPECT_FALSE(is_open(descriptor));
  close_if_valid(descriptor);
  close_if_valid(-1);
}

}  // namespace
}  // namespace dirwell
