// JSON values: ownership, and reading members of values that a peer sent.
#pragma once

#include <jansson.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace dirwell::client {

struct JsonRelease {
  void operator()(json_t *value) const { json_decref(value); }
};
using JsonRef = std::unique_ptr<json_t, JsonRelease>;

// The value of `text`, or null when it is no JSON.
inline JsonRef parse_json(std::string_view text) {
  return JsonRef(json_loadb(text.data(), text.size(), JSON_ALLOW_NUL, nullptr));
}

// The member's text or integer; "" or 0 when it is missing or of another type.
inline std::string text_member(const json_t *object, const char *key) {
  const json_t *value = json_object_get(object, key);
  return json_is_string(value) ? std::string(json_string_value(value), json_string_length(value)) : std::string();
}
inline std::int64_t integer_member(const json_t *object, const char *key) {
  return json_integer_value(json_object_get(object, key));
}

}  // namespace dirwell::client
