#include "platform/host/json_end.h"

#include <gtest/gtest.h>

namespace dirwell::host {
namespace {

bool closes(std::string_view text) {
  JsonEnd end;
  end.feed(text);
  JsonEnd byte_by_byte;
  for (std::size_t place = 0; place < text.size(); ++place) {
    byte_by_byte.feed(text.substr(place, 1));
  }
  EXPECT_EQ(end.closed(), byte_by_byte.closed()) << text;
  return end.closed();
}

TEST(JsonEnd, IsBehindTheOneValue) {
  for (const char *text : {"{}", "[]", "\"\"", " \t\r\n{} \t\r\n", "{\"a\":[1,{\"b\":null}]}", "[[[]]]", "\"text\"",
                           "{\"}\":\"]\"}", "[\"\\\"]\"]", "\"\\\\\"", "{\"a\":\"\\\\\"}"}) {
    EXPECT_TRUE(closes(text)) << text;
  }
}

TEST(JsonEnd, IsNotThereYet) {
  for (const char *text :
       {"", " ", "{", "[", "[[]", "{\"a\":{}", "\"", "\"\\\"", "{\"a\":\"}", "{\"a\":\"\\", "[\"]"}) {
    EXPECT_FALSE(closes(text)) << text;
  }
}

TEST(JsonEnd, IsNoneWhereSomethingElseStands) {
  for (const char *text : {"1", "null", "x{}", "}", "]", ",", "{}x", "{}{}", "\"\"\"", "[] ]", "{} 1 {}"}) {
    EXPECT_FALSE(closes(text)) << text;
  }
}

}  // namespace
}  // namespace dirwell::host
