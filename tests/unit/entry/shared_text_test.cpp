#include "entry/shared_text.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace dirwell {
namespace {

TEST(SharedText, SharesItsBytesWithItsCopies) {
  const SharedText text(std::string("/share/Public"));
  const SharedText copy = text;  // NOLINT(performance-unnecessary-copy-initialization): the copy is the subject
  EXPECT_EQ(copy.view(), "/share/Public");
  EXPECT_EQ(copy.view().data(), text.view().data());
  EXPECT_TRUE(copy.same_object(text));
}

TEST(SharedText, OutlivesTheTextItWasMadeFrom) {
  std::string source = "a text that is too long for the string's own room";
  const SharedText text(source);
  source.assign(source.size(), 'x');
  EXPECT_EQ(text.view(), "a text that is too long for the string's own room");
}

TEST(SharedText, ComparesByItsBytes) {
  const SharedText text("/a");
  const SharedText equal("/a");
  EXPECT_TRUE(text == equal);
  EXPECT_FALSE(text.same_object(equal));
  EXPECT_FALSE(text == SharedText("/b"));
  EXPECT_FALSE(text == SharedText());
}

TEST(SharedText, HoldsNothingForTheEmptyText) {
  EXPECT_TRUE(SharedText().empty());
  EXPECT_TRUE(SharedText("").empty());
  EXPECT_EQ(SharedText("").view(), "");
  EXPECT_TRUE(SharedText() == SharedText(""));
  EXPECT_FALSE(SharedText("a").empty());
}

TEST(SharedText, KeepsBytesOfAnyValue) {
  using namespace std::string_view_literals;
  EXPECT_EQ(SharedText("a\0\xFF"sv).view(), "a\0\xFF"sv);
}

}  // namespace
}  // namespace dirwell
