// JSON values: ownership, text of any bytes, and the lenient conversions of request parameters.
#pragma once

#include <jansson.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace dirwell {

struct JsonRelease {
  void operator()(json_t *value) const { json_decref(value); }
};
// Owns one reference of a JSON value. JsonRef(json_incref(v)) shares a borrowed one; release() hands it on.
using JsonRef = std::unique_ptr<json_t, JsonRelease>;

// The same text with each ill-formed UTF-8 sequence (each maximal subpart) replaced by U+FFFD.
std::string well_formed_utf8(std::string_view bytes);

// A JSON string of any bytes, ill-formed UTF-8 replaced as above. Never null.
JsonRef json_text(std::string_view bytes);

// Moves the members of `part` to the end of `object`, in their order; a key that `object` already has takes the new
// value and the new place. A null `part` adds nothing.
void json_merge(json_t *object, const JsonRef &part);

// Put a value, whose reference they take over, into an object under a well-formed key, or at the end of an array. They
// throw std::bad_alloc where the value could not be made (null) or has no place: a reply is whole, or it is not sent.
void json_put(json_t *object, const char *key, json_t *value);
void json_append(json_t *array, json_t *value);

// As json_loads(), but throws std::bad_alloc where memory and not the text is to blame. Null for what is no JSON.
JsonRef json_parsed(const char *text);

// True for JSON true, an integer above 0 and the string "true" in any letter case; false for all else and for null.
bool json_as_bool(const json_t *value);

// An integer as it is; true 1, false 0; a string by its leading decimal digits; 0 for all else and for null.
std::int64_t json_as_int(const json_t *value);

// Flags of every reply: compact, slashes escaped, reals with two significant digits.
inline constexpr std::size_t reply_json_flags = JSON_COMPACT | JSON_ESCAPE_SLASH | JSON_REAL_PRECISION(2);

}  // namespace dirwell
