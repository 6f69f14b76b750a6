#include "service/languages.h"

#include <gtest/gtest.h>
#include <unicode/coll.h>
#include <unicode/locid.h>

#include <memory>

namespace dirwell {
namespace {

TEST(LanguageTable, StartsWithTheDefaultAndHasEveryRowInOrder) {
  const char *const codes[] = {"ENG", "SCH", "TCH", "CZE", "DAN", "GER", "SPA", "FRE", "ITA", "JPN", "KOR", "NOR",
                               "POL", "RUS", "FIN", "SWE", "DUT", "TUR", "THA", "HUN", "POR", "GRK", "ROM"};
  ASSERT_EQ(LanguageTable.size(), 23U);
  for (std::size_t i = 0; i < LanguageTable.size(); ++i) {
    EXPECT_EQ(LanguageTable[i].code, codes[i]);
  }
}

TEST(SetDefaultLanguage, IsWhatCollationFollows) {
  const auto z_before_a_umlaut = [] {
    UErrorCode status = U_ZERO_ERROR;
    const std::unique_ptr<icu::Collator> collator(icu::Collator::createInstance(status));
    return collator->compareUTF8("z", "\xC3\xA4", status) == UCOL_LESS;
  };
  set_default_language(LanguageTable[5]);  // German: ä beside a
  EXPECT_FALSE(z_before_a_umlaut());
  set_default_language(LanguageTable[15]);  // Swedish: ä behind z
  EXPECT_TRUE(z_before_a_umlaut());
  set_default_language(LanguageTable.front());
}

}  // namespace
}  // namespace dirwell
