#include "ordering/sort_key.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <memory>

namespace dirwell {
namespace {

using testing::ElementsAre;

std::vector<unsigned char> bytesOf(const SortKey &key) {
  const auto first = key.arena().begin() + static_cast<std::ptrdiff_t>(key.offset());
  return {first, first + static_cast<std::ptrdiff_t>(key.length())};
}

std::unique_ptr<icu::Collator> english() {
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::Collator> collator(icu::Collator::createInstance(icu::Locale("en_US"), status));
  collator->setAttribute(UCOL_NUMERIC_COLLATION, UCOL_ON, status);
  return collator;
}

std::vector<unsigned char> collatedBytes(const icu::Collator *collator, std::string_view text,
                                         bool descending = false) {
  SortKey key(1);
  key.start();
  key.collated(collator, text, descending);
  return bytesOf(key);
}

bool trustedText(std::string_view text) {
  const std::unique_ptr<icu::Collator> collator = english();
  SortKey key(1);
  key.start();
  key.collated(collator.get(), text, false);
  return key.trusted();
}

TEST(SortKey, WritesNumbersSoThatBytesOrderThem) {
  SortKey key(1);
  key.start();
  key.number(0, false);
  EXPECT_THAT(bytesOf(key), ElementsAre(0x80, 0, 0, 0, 0, 0, 0, 0));
  key.start();
  key.number(258, false);
  EXPECT_THAT(bytesOf(key), ElementsAre(0x80, 0, 0, 0, 0, 0, 1, 2));
  key.start();
  key.number(-1, false);
  EXPECT_THAT(bytesOf(key), ElementsAre(0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF));
  key.start();
  key.number(std::numeric_limits<std::int64_t>::min(), false);
  EXPECT_THAT(bytesOf(key), ElementsAre(0, 0, 0, 0, 0, 0, 0, 0));
  key.start();
  key.number(258, true);
  EXPECT_THAT(bytesOf(key), ElementsAre(0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE, 0xFD));
}

TEST(SortKey, KeepsEachKeyApartInOneArena) {
  SortKey key(2);
  key.start();
  key.fixed(3);
  key.raw("ab");
  EXPECT_EQ(key.offset(), 0U);
  EXPECT_THAT(bytesOf(key), ElementsAre(3, 'a', 'b', 0));
  key.start();
  key.raw("");
  EXPECT_EQ(key.offset(), 4U);
  EXPECT_THAT(bytesOf(key), ElementsAre(0));
  EXPECT_THAT(key.arena(), ElementsAre(3, 'a', 'b', 0, 0));
}

TEST(SortKey, EndsCollatedTextsInAByteTheyCannotHold) {
  const std::unique_ptr<icu::Collator> collator = english();
  for (const char *text : {"", "a", "A10 b", "\xC3\xA9", "\xFF", "\x01"}) {
    const std::vector<unsigned char> up = collatedBytes(collator.get(), text);
    const std::vector<unsigned char> down = collatedBytes(collator.get(), text, true);
    ASSERT_FALSE(up.empty());
    EXPECT_EQ(std::find(up.begin(), up.end(), 0), up.end() - 1) << text;
    EXPECT_EQ(std::find(down.begin(), down.end(), 0xFF), down.end() - 1) << text;
  }
}

TEST(SortKey, OrdersTextsAsTheCollatorDoes) {
  const std::unique_ptr<icu::Collator> collator = english();
  const char *ascending[] = {"", " ", "0", "a", "A", "a 1", "a9", "a10", "ab", "\xC3\xA9z", "f"};
  for (std::size_t place = 1; place < std::size(ascending); ++place) {
    SCOPED_TRACE(ascending[place]);
    EXPECT_LT(collatedBytes(collator.get(), ascending[place - 1]), collatedBytes(collator.get(), ascending[place]));
    EXPECT_GT(collatedBytes(collator.get(), ascending[place - 1], true),
              collatedBytes(collator.get(), ascending[place], true));
  }
  EXPECT_EQ(collatedBytes(collator.get(), "\xC3\xA9"), collatedBytes(collator.get(), "e\xCC\x81"));
}

TEST(SortKey, HasRoomForLongTexts) {
  const std::unique_ptr<icu::Collator> collator = english();
  std::string text;
  for (int character = 0; character < 20000; ++character) {
    text += character % 2 == 0 ? "\xE1\xB9\xA9" : "\xED\x95\x9C";
  }
  EXPECT_LT(collatedBytes(collator.get(), text), collatedBytes(collator.get(), text + "a"));
  EXPECT_GT(collatedBytes(collator.get(), text).size(), 40000U);
}

TEST(SortKey, HasRoomForCharactersThatStandForManyOthers) {
  const std::unique_ptr<icu::Collator> collator = english();
  std::string text;
  for (int character = 0; character < 100; ++character) {
    text += "\xEF\xB7\xBA";  // one that collates as eighteen
  }
  const std::vector<unsigned char> bytes = collatedBytes(collator.get(), text);
  EXPECT_GT(bytes.size(), 1000U);
  EXPECT_EQ(std::find(bytes.begin(), bytes.end(), 0), bytes.end() - 1);
  EXPECT_LT(bytes, collatedBytes(collator.get(), text + "a"));
}

TEST(SortKey, OrdersBytesWithoutACollator) {
  EXPECT_THAT(collatedBytes(nullptr, "b\xC3"), ElementsAre('b', 0xC3, 0));
  EXPECT_THAT(collatedBytes(nullptr, "b", true), ElementsAre(0x9D, 0xFF));
  SortKey key(2);
  key.start();
  key.sharedCollated(nullptr, "b", false);
  key.sharedCollated(nullptr, "b", true);
  EXPECT_THAT(bytesOf(key), ElementsAre('b', 0, 0x9D, 0xFF));
  EXPECT_TRUE(key.trusted());
}

TEST(SortKey, TrustsTheTextsWhoseKeysAgreeWithComparison) {
  for (const char *text : {"", "plain.txt", "a10", "\xC3\x89lan", "e\xCC\x81", "\xD0\x96", "\xCE\xB1",
                           "\xE6\x97\xA5\xE6\x9C\xAC", "\xE3\x82\xAB", "\xED\x95\x9C"}) {
    EXPECT_TRUE(trustedText(text)) << text;
  }
}

TEST(SortKey, DistrustsDigitsOfOtherScriptsAndWhatIsRare) {
  for (const char *text : {"\xD9\xA0", "a\xDB\xB1", "\xE0\xA5\xA6", "\xE0\xB9\x90", "\xEF\xBC\x90", "\xF0\x9D\x9F\x8E",
                           "\xEF\xBF\xBE", "\xFF", "ok\x80", "\xF0\x9F\x98\x80", "\xEA\x98\xA0"}) {
    EXPECT_FALSE(trustedText(text)) << text;
  }
}

TEST(SortKey, IsTrustedAnewAtEachStart) {
  SortKey key(2);
  key.start();
  key.distrust();
  key.number(1, false);
  EXPECT_FALSE(key.trusted());
  key.start();
  EXPECT_TRUE(key.trusted());
}

TEST(SortKey, RemembersSharedTextsWithTheirTrust) {
  const std::unique_ptr<icu::Collator> up = english();
  const std::unique_ptr<icu::Collator> down = english();
  SortKey key(8);
  for (int round = 0; round < 3; ++round) {
    key.start();
    key.sharedCollated(up.get(), "jpg", false);
    EXPECT_EQ(bytesOf(key), collatedBytes(up.get(), "jpg"));
    EXPECT_TRUE(key.trusted());
    key.start();
    key.sharedCollated(down.get(), "jpg", true);
    EXPECT_EQ(bytesOf(key), collatedBytes(down.get(), "jpg", true));
    key.start();
    key.sharedCollated(up.get(), "\xD9\xA0", false);
    EXPECT_FALSE(key.trusted());
    key.start();
    key.distrust();
    key.sharedCollated(up.get(), "jpg", false);
    EXPECT_FALSE(key.trusted());
  }
}

TEST(SortKey, StaysRightBeyondTheTextsItRemembers) {
  const std::unique_ptr<icu::Collator> collator = english();
  std::vector<std::string> texts;
  texts.reserve(6000);
  for (int text = 0; text < 6000; ++text) {
    texts.push_back("x" + std::to_string(text));
  }
  SortKey key(2 * texts.size());
  for (int round = 0; round < 2; ++round) {
    std::vector<unsigned char> before;
    for (const std::string &text : texts) {
      key.start();
      key.sharedCollated(collator.get(), text, false);
      ASSERT_LT(before, bytesOf(key)) << text;
      before = bytesOf(key);
    }
  }
}

}  // namespace
}  // namespace dirwell
