#include "platform/host/path_list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace dirwell::host {
namespace {

using testing::ElementsAre;

TEST(SplitList, LeavesEmptyPiecesOutAndKeepsBlanks) {
  EXPECT_THAT(split_list(""), ElementsAre());
  EXPECT_THAT(split_list(":::"), ElementsAre());
  EXPECT_THAT(split_list("a"), ElementsAre("a"));
  EXPECT_THAT(split_list("/a:/b"), ElementsAre("/a", "/b"));
  EXPECT_THAT(split_list(":/a::/b c: :"), ElementsAre("/a", "/b c", " "));
}

TEST(WithoutTrailingSlashes, CutsThemAll) {
  EXPECT_EQ(without_trailing_slashes("/a/b"), "/a/b");
  EXPECT_EQ(without_trailing_slashes("/a/b///"), "/a/b");
  EXPECT_EQ(without_trailing_slashes("/"), "");
  EXPECT_EQ(without_trailing_slashes(""), "");
}

TEST(LiesWithin, ComparesWholeComponents) {
  EXPECT_TRUE(lies_within("/a/b", "/a/b"));
  EXPECT_TRUE(lies_within("/a/b/", "/a/b"));
  EXPECT_TRUE(lies_within("/a/b/c/d", "/a/b"));
  EXPECT_TRUE(lies_within("/a", ""));
  EXPECT_FALSE(lies_within("/a/bc", "/a/b"));
  EXPECT_FALSE(lies_within("/a", "/a/b"));
  EXPECT_FALSE(lies_within("/x/a/b", "/a/b"));
  EXPECT_FALSE(lies_within("a", ""));
}

}  // namespace
}  // namespace dirwell::host
