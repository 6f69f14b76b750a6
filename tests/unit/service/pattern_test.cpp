#include "service/pattern.h"

#include <gtest/gtest.h>

namespace dirwell {
namespace {

TEST(Pattern, GivesTheGroupsOfAMatch) {
  const Pattern pattern("^(a|b)(:(.+))?$");
  const auto whole = pattern.groups("b:xyz");
  ASSERT_TRUE(whole);
  EXPECT_EQ((*whole)[0], "b:xyz");
  EXPECT_EQ((*whole)[1], "b");
  EXPECT_EQ((*whole)[2], ":xyz");
  EXPECT_EQ((*whole)[3], "xyz");
  const auto bare = pattern.groups("a");
  ASSERT_TRUE(bare);
  EXPECT_EQ((*bare)[1], "a");
  EXPECT_EQ((*bare)[3], "");
}

TEST(Pattern, GivesNothingWithoutAMatch) {
  const Pattern pattern("^[0-9]+$");
  EXPECT_FALSE(pattern.groups("12x"));
  EXPECT_FALSE(pattern.matches("12x"));
  EXPECT_TRUE(pattern.matches("12"));
}

TEST(PatternDeathTest, ThatDoesNotCompileEndsTheProcess) {
  EXPECT_DEATH(Pattern("("), "expression does not compile");
}

}  // namespace
}  // namespace dirwell
