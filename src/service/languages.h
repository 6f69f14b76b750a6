// The languages of listings: request codes and the ICU locales behind them.
#pragma once

#include <array>
#include <string_view>

namespace dirwell {

struct Language {
  std::string_view code;    // as requests name it, upper case
  const char *locale;       // ICU locale id
  std::string_view native;  // its name as the usage texts show it
};

// In the order of the usage texts; the first row is the default.
inline constexpr std::array<Language, 23> LanguageTable{{
    {"ENG", "en_US", "English"},  {"SCH", "zh_CN", "简体中文"},   {"TCH", "zh_TW", "繁體中文"},
    {"CZE", "cs_CZ", "Czech"},    {"DAN", "da_DK", "Dansk"},      {"GER", "de_DE", "Deutsch"},
    {"SPA", "es_ES", "Español"},  {"FRE", "fr_FR", "Français"},   {"ITA", "it_IT", "Italiano"},
    {"JPN", "ja_JP", "日本語"},   {"KOR", "ko_KR", "한글"},       {"NOR", "nb_NO", "Norsk"},
    {"POL", "pl_PL", "Polski"},   {"RUS", "ru_RU", "Русский"},    {"FIN", "fi_FI", "Suomi"},
    {"SWE", "sv_SE", "Svenska"},  {"DUT", "nl_NL", "Nederlands"}, {"TUR", "tr_TR", "Turk dili"},
    {"THA", "th_TH", "ไทย"},      {"HUN", "hu_HU", "Magyar"},     {"POR", "pt_PT", "Português"},
    {"GRK", "el_GR", "Ελληνικά"}, {"ROM", "ro_RO", "Român"},
}};

// Makes `language` the process's ICU default locale, which collation and case mapping follow.
void set_default_language(const Language &language);

}  // namespace dirwell
