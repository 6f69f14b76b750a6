#include "service/parameters.h"

#include <gtest/gtest.h>
#include <unicode/locid.h>

#include <set>

#include "service/json.h"

namespace dirwell {
namespace {

JsonRef parse(const std::string &text) {
  JsonRef value(json_loads(text.c_str(), 0, nullptr));
  EXPECT_TRUE(value) << text;
  return value;
}

std::string default_locale() {
  return icu::Locale::getDefault().getName();
}

struct LangOutcome {
  std::uint32_t code;
  std::string message;
  std::string locale;
};

LangOutcome lang(const std::string &request) {
  ErrorRecord record;
  read_lang(parse(request).get(), record);
  return {record.code, record.message, default_locale()};
}

TEST(ReadLang, SetsTheLocaleOfEveryLanguage) {
  const struct {
    const char *code;
    const char *locale;
  } rows[] = {
      {"ENG", "en_US"}, {"SCH", "zh_CN"}, {"TCH", "zh_TW"}, {"CZE", "cs_CZ"}, {"DAN", "da_DK"}, {"GER", "de_DE"},
      {"SPA", "es_ES"}, {"FRE", "fr_FR"}, {"ITA", "it_IT"}, {"JPN", "ja_JP"}, {"KOR", "ko_KR"}, {"NOR", "nb_NO"},
      {"POL", "pl_PL"}, {"RUS", "ru_RU"}, {"FIN", "fi_FI"}, {"SWE", "sv_SE"}, {"DUT", "nl_NL"}, {"TUR", "tr_TR"},
      {"THA", "th_TH"}, {"HUN", "hu_HU"}, {"POR", "pt_PT"}, {"GRK", "el_GR"}, {"ROM", "ro_RO"},
  };
  for (const auto &row : rows) {
    const LangOutcome outcome = lang(std::string(R"({"lang":")") + row.code + "\"}");
    EXPECT_EQ(outcome.code, 0U) << row.code;
    EXPECT_EQ(outcome.locale, row.locale) << row.code;
  }
}

TEST(ReadLang, IgnoresLetterCase) {
  EXPECT_EQ(lang(R"({"lang":"eng"})").code, 0U);
  EXPECT_EQ(lang(R"({"lang":"Cze"})").locale, "cs_CZ");
}

TEST(ReadLang, RefusesWhatIsNoCodeOrNoString) {
  for (const char *request : {R"({"lang":"EN"})", R"({"lang":""})", R"({"lang":"ENGL"})", R"({"lang":1})",
                              R"({"lang":null})", R"({"lang":["ENG"]})", R"({"lang":"ENG "})"}) {
    const LangOutcome outcome = lang(request);
    EXPECT_EQ(outcome.code, 2U) << request;
    EXPECT_EQ(outcome.message, "invalid lang") << request;
  }
}

TEST(ReadLang, StartsFromTheDefaultWhateverAnEarlierRequestChose) {
  ASSERT_EQ(lang(R"({"lang":"SWE"})").locale, "sv_SE");
  EXPECT_EQ(lang("{}").locale, "en_US");
  ASSERT_EQ(lang(R"({"lang":"SWE"})").locale, "sv_SE");
  EXPECT_EQ(lang(R"({"lang":"nonsense"})").locale, "en_US");
}

TEST(ReadLang, DoesNothingAfterAnError) {
  ASSERT_EQ(lang(R"({"lang":"SWE"})").locale, "sv_SE");
  ErrorRecord record;
  set_error(record, 2, "invalid limit");
  read_lang(parse(R"({"lang":"nonsense"})").get(), record);
  EXPECT_STREQ(record.message, "invalid limit");
  EXPECT_EQ(default_locale(), "sv_SE");
}

TEST(ReadUuid, TakesLowerCaseHexadecimal) {
  ErrorRecord record;
  std::string uuid;
  read_uuid(uuid, parse(R"({"uuid":"01234567-89ab-cdef-0123-456789abcdef"})").get(), record);
  EXPECT_EQ(record.code, 0U);
  EXPECT_EQ(uuid, "01234567-89ab-cdef-0123-456789abcdef");
}

TEST(ReadUuid, RefusesEveryOtherForm) {
  for (const char *request :
       {"{}", R"({"uuid":"01234567-89AB-cdef-0123-456789abcdef"})",
        R"({"uuid":"{01234567-89ab-cdef-0123-456789abcdef}"})", R"({"uuid":"0123456789abcdef0123456789abcdef"})",
        R"({"uuid":""})", R"({"uuid":7})", R"({"uuid":null})", R"({"uuid":"01234567-89ab-cdef-0123-456789abcdef "})",
        R"({"uuid":"01234567-89ab-cdef-0123-456789abcdeg"})",
        "{\"uuid\":\"01234567-89ab-cdef-0123-456789abcdef\\n\"}"}) {
    ErrorRecord record;
    std::string uuid = "before";
    read_uuid(uuid, parse(request).get(), record);
    EXPECT_EQ(record.code, 2U) << request;
    EXPECT_STREQ(record.message, "invalid uuid") << request;
    EXPECT_EQ(uuid, "") << request;
  }
}

TEST(ReadUuid, RefusesATextThatGoesOnBehindANul) {
  const JsonRef request(json_object());
  const std::string text = std::string("01234567-89ab-cdef-0123-456789abcdef") + '\0' + "x";
  json_object_set_new(request.get(), "uuid", json_stringn(text.data(), text.size()));
  ErrorRecord record;
  std::string uuid;
  read_uuid(uuid, request.get(), record);
  EXPECT_STREQ(record.message, "invalid uuid");
}

TEST(ReadPaging, AcceptsFiftyToTwoThousand) {
  const struct {
    const char *json;
    std::int64_t limit;  // 0: refused
  } rows[] = {
      {R"({"limit":49})", 0},         {R"({"limit":50})", 50},  {R"({"limit":2000})", 2000}, {R"({"limit":2001})", 0},
      {R"({"limit":"100"})", 100},    {R"({"limit":true})", 0}, {R"({"limit":false})", 0},   {R"({"limit":null})", 0},
      {R"({"limit":-50})", 0},        {R"({"limit":"x"})", 0},  {R"({"limit":100.5})", 0},   {"{}", 500},
      {R"({"limit":4294967346})", 0},  // 2^32 + 50
  };
  for (const auto &row : rows) {
    ErrorRecord record;
    Paging paging;
    read_paging(paging, parse(row.json).get(), record);
    if (row.limit == 0) {
      EXPECT_EQ(record.code, 2U) << row.json;
      EXPECT_STREQ(record.message, "invalid limit") << row.json;
    } else {
      EXPECT_EQ(record.code, 0U) << row.json;
      EXPECT_EQ(paging.limit, row.limit) << row.json;
    }
  }
}

TEST(ReadPaging, TakesAnyOffset) {
  const struct {
    const char *json;
    std::int64_t offset;
  } rows[] = {
      {R"({"offset":7})", 7},
      {R"({"offset":-7})", -7},
      {R"({"offset":"12"})", 12},
      {R"({"offset":"x"})", 0},
      {"{}", 0},
      {R"({"offset":4294967299})", 4294967299},
  };
  for (const auto &row : rows) {
    ErrorRecord record;
    Paging paging;
    read_paging(paging, parse(row.json).get(), record);
    EXPECT_EQ(record.code, 0U) << row.json;
    EXPECT_EQ(paging.offset, row.offset) << row.json;
  }
}

TEST(ReadPaging, DoesNotReadTheOffsetAfterABadLimit) {
  ErrorRecord record;
  Paging paging;
  read_paging(paging, parse(R"({"limit":1,"offset":9})").get(), record);
  EXPECT_EQ(paging.offset, 0);
}

TEST(ReadPaging, KeepsTheDefaultsAfterAnError) {
  ErrorRecord record;
  set_error(record, 2, "invalid uuid");
  Paging paging{1, 2};
  read_paging(paging, parse(R"({"limit":60,"offset":9})").get(), record);
  EXPECT_EQ(paging.limit, 500);
  EXPECT_EQ(paging.offset, 0);
  EXPECT_STREQ(record.message, "invalid uuid");
}

TEST(ReadIndex, AcceptsOneAndTwo) {
  const struct {
    const char *json;
    std::uint64_t index;
    bool valid;
  } rows[] = {
      {"{}", 1, true},
      {R"({"index":1})", 1, true},
      {R"({"index":2})", 2, true},
      {R"({"index":"2"})", 2, true},
      {R"({"index":true})", 1, true},
      {R"({"index":0})", 0, false},
      {R"({"index":3})", 3, false},
      {R"({"index":-1})", 18446744073709551615U, false},
      {R"({"index":"x"})", 0, false},
      {R"({"index":4294967297})", 4294967297, false},
  };
  for (const auto &row : rows) {
    ErrorRecord record;
    std::uint64_t index = 99;
    read_index(index, parse(row.json).get(), record);
    EXPECT_EQ(index, row.index) << row.json;
    EXPECT_EQ(record.code, row.valid ? 0U : 2U) << row.json;
    EXPECT_STREQ(record.message, row.valid ? "" : "invalid index") << row.json;
  }
}

constexpr const char *good_uuid = R"("uuid":"01234567-89ab-cdef-0123-456789abcdef")";

TEST(ReadUuid, ReadsNothingAfterAnError) {
  ErrorRecord record;
  set_error(record, 2, "invalid limit");
  std::string uuid = "of before";
  read_uuid(uuid, parse(std::string("{") + good_uuid + "}").get(), record);
  EXPECT_EQ(uuid, "");
  EXPECT_STREQ(record.message, "invalid limit");
}

TEST(CombinedReaders, ReportTheFirstBadParameter) {
  ErrorRecord record;
  CachePage page;
  read_cache_page(page, parse(R"({"uuid":"x","limit":1,"index":9})").get(), record);
  EXPECT_STREQ(record.message, "invalid uuid");

  record = {};
  read_cache_page(page, parse(std::string("{") + good_uuid + R"(,"limit":1,"index":9})").get(), record);
  EXPECT_STREQ(record.message, "invalid limit");

  record = {};
  read_cache_page(page, parse(std::string("{") + good_uuid + R"(,"limit":60,"offset":3,"index":9})").get(), record);
  EXPECT_STREQ(record.message, "invalid index");

  record = {};
  read_cache_page(page, parse(std::string("{") + good_uuid + R"(,"limit":60,"offset":3,"index":2})").get(), record);
  EXPECT_EQ(record.code, 0U);
  EXPECT_EQ(page.paging.limit, 60);
  EXPECT_EQ(page.paging.offset, 3);
  EXPECT_EQ(page.index, 2U);
  EXPECT_EQ(page.uuid, "01234567-89ab-cdef-0123-456789abcdef");

  CacheReference reference;
  record = {};
  read_cache_reference(reference, parse(R"({"index":9})").get(), record);
  EXPECT_STREQ(record.message, "invalid uuid");
  record = {};
  read_cache_reference(reference, parse(std::string("{") + good_uuid + R"(,"index":9})").get(), record);
  EXPECT_STREQ(record.message, "invalid index");
}

TEST(NewUuid, IsANewOneOfTheFormThatRequestsUse) {
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) {
    const JsonRef request(json_pack("{s:s}", "uuid", new_uuid().c_str()));
    ErrorRecord record;
    std::string uuid;
    read_uuid(uuid, request.get(), record);
    EXPECT_EQ(record.code, 0U);
    EXPECT_TRUE(seen.insert(uuid).second);
  }
}

}  // namespace
}  // namespace dirwell
