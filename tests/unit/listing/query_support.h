// What the tests of listing requests share: requests written as JSON text, and entries that differ in one thing.
#pragma once

#include <gtest/gtest.h>
#include <jansson.h>

#include <memory>
#include <string>
#include <string_view>

#include "listing/resource_query.h"
#include "service/json.h"

namespace dirwell::test {

inline JsonRef json_of(std::string_view text) {
  json_error_t error;
  JsonRef value(json_loadb(text.data(), text.size(), JSON_ALLOW_NUL, &error));
  EXPECT_NE(value, nullptr) << error.text << " in " << text;
  return value;
}

// A request of an empty "path" and further members, as in R"("name": "*.jpg")".
inline std::string request_of(std::string_view members) {
  std::string text = R"({"path": [])";
  if (!members.empty()) {
    text += ", ";
    text += members;
  }
  return text + "}";
}

struct Parsed {
  ResourceQuery query;
  ErrorRecord record;
};

inline Parsed parse_text(const std::string &text) {
  Parsed parsed;
  const JsonRef request = json_of(text);
  parseResourceQuery(parsed.query, request.get(), parsed.record);
  return parsed;
}

// Parses a request that is good but for what the test looks at.
inline Parsed parse_members(std::string_view members) {
  return parse_text(request_of(members));
}

// The message of a refused request; "0" for one that is accepted.
inline std::string refusal_of(const Parsed &parsed) {
  if (parsed.record.code == error_none) {
    EXPECT_STREQ(parsed.record.message, "");
    return "0";
  }
  EXPECT_EQ(parsed.record.code, 2U);
  return parsed.record.message;
}

// The filter at `index` as the class that it must be.
template <class Concrete>
const Concrete &filter_at(const ResourceQuery &query, std::size_t index) {
  const auto *filter = dynamic_cast<const Concrete *>(query.filters.at(index).get());
  EXPECT_NE(filter, nullptr) << "filter " << index;
  return *filter;
}

}  // namespace dirwell::test
