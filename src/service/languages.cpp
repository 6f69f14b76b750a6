#include "service/languages.h"

#include <unicode/locid.h>

namespace dirwell {

namespace {

constexpr bool codes_are_unique() {
  for (std::size_t i = 0; i < LanguageTable.size(); ++i) {
    for (std::size_t j = i + 1; j < LanguageTable.size(); ++j) {
      if (LanguageTable[i].code == LanguageTable[j].code) {
        return false;
      }
    }
  }
  return true;
}
static_assert(codes_are_unique());

}  // namespace

void set_default_language(const Language &language) {
  UErrorCode status = U_ZERO_ERROR;
  icu::Locale::setDefault(icu::Locale(language.locale), status);
}

}  // namespace dirwell
