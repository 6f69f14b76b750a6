#include "service/json.h"

#include <new>

#include <gtest/gtest.h>

namespace dirwell {
namespace {

JsonRef parse(const char *text) {
  return JsonRef(json_loads(text, JSON_DECODE_ANY, nullptr));
}

TEST(JsonAsBool, IsTrueForTruePositiveIntegersAndTheWord) {
  const struct {
    const char *json;
    bool expected;
  } rows[] = {
      {"true", true},  {"false", false},   {"1", true},          {"7", true},        {"0", false},
      {"-1", false},   {"\"true\"", true}, {"\"TRUE\"", true},   {"\"True\"", true}, {"\"1\"", false},
      {"\"\"", false}, {"\"yes\"", false}, {"\"true \"", false}, {"1.5", false},     {"{}", false},
      {"[1]", false},  {"null", false},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(json_as_bool(parse(row.json).get()), row.expected) << row.json;
  }
  EXPECT_FALSE(json_as_bool(nullptr));
}

TEST(JsonAsInt, TakesIntegersBooleansAndLeadingDigits) {
  const struct {
    const char *json;
    std::int64_t expected;
  } rows[] = {
      {"12", 12},
      {"-12", -12},
      {"true", 1},
      {"false", 0},
      {"\"100\"", 100},
      {"\"100x\"", 100},
      {"\" 5\"", 5},
      {"\"-3\"", -3},
      {"\"x\"", 0},
      {"\"\"", 0},
      {"2.9", 0},
      {"[7]", 0},
      {"{\"a\":1}", 0},
      {"null", 0},
      {"\"0x10\"", 0},
      {"\"9223372036854775807\"", 9223372036854775807},
      {"9223372036854775807", 9223372036854775807},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(json_as_int(parse(row.json).get()), row.expected) << row.json;
  }
  EXPECT_EQ(json_as_int(nullptr), 0);
}

TEST(JsonText, KeepsWellFormedText) {
  EXPECT_STREQ(json_string_value(json_text("Élan 日本 \xF0\x9F\x98\x80").get()), "Élan 日本 \xF0\x9F\x98\x80");
  EXPECT_STREQ(json_string_value(json_text("").get()), "");
}

TEST(JsonText, ReplacesEachIllFormedSequence) {
  const struct {
    std::string bytes;
    const char *expected;
  } rows[] = {
      {"a\xFFz", "a\xEF\xBF\xBDz"},                                              // no lead byte
      {"\xE9t\xE9", "\xEF\xBF\xBDt\xEF\xBF\xBD"},                                // Latin-1
      {"\xE2\x82", "\xEF\xBF\xBD"},                                              // cut short: one sequence
      {"\xE2\x82x", "\xEF\xBF\xBDx"},                                            //
      {"\xC0\xAF", "\xEF\xBF\xBD\xEF\xBF\xBD"},                                  // overlong: no byte starts a character
      {"\xED\xA0\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},                  // a surrogate
      {"\xF4\x90\x80\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},  // beyond U+10FFFF
      {"\x80\x80", "\xEF\xBF\xBD\xEF\xBF\xBD"},                                  // stray continuations
  };
  for (const auto &row : rows) {
    EXPECT_EQ(std::string(json_string_value(json_text(row.bytes).get())), row.expected);
    EXPECT_EQ(well_formed_utf8(row.bytes), row.expected);
  }
}

TEST(JsonMerge, PutsKeysAtTheEndInTheirOrderAndReplaces) {
  const JsonRef object = parse(R"({"cluster":[],"uuid":"u","total":5})");
  json_merge(object.get(), parse(R"({"datas":[1],"total":9,"changed":false})"));
  char *text = json_dumps(object.get(), JSON_COMPACT);
  EXPECT_STREQ(text, R"({"cluster":[],"uuid":"u","datas":[1],"total":9,"changed":false})");
  free(text);
  json_merge(object.get(), nullptr);
  EXPECT_EQ(json_object_size(object.get()), 5U);
}

TEST(JsonPut, ThrowsWhereTheValueCouldNotBeMade) {
  const JsonRef object(json_object());
  const JsonRef array(json_array());
  json_put(object.get(), "key", json_integer(1));
  json_append(array.get(), json_integer(2));
  EXPECT_THROW(json_put(object.get(), "other", nullptr), std::bad_alloc);
  EXPECT_THROW(json_append(array.get(), nullptr), std::bad_alloc);
  EXPECT_THROW(json_put(nullptr, "key", json_integer(3)), std::bad_alloc);
  EXPECT_EQ(json_integer_value(json_object_get(object.get(), "key")), 1);
  EXPECT_EQ(json_object_size(object.get()), 1U);
  EXPECT_EQ(json_array_size(array.get()), 1U);
}

TEST(JsonParsed, IsNullForWhatIsNoJson) {
  EXPECT_EQ(json_parsed("{\"a\":"), nullptr);
  EXPECT_EQ(json_parsed(""), nullptr);
  EXPECT_EQ(json_integer_value(json_object_get(json_parsed("{\"a\":7}").get(), "a")), 7);
}

TEST(ReplyFlags, AreTheCombinedValueOfEveryReply) {
  EXPECT_EQ(reply_json_flags, 5152U);
}

}  // namespace
}  // namespace dirwell
