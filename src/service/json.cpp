#include "service/json.h"

#include <strings.h>
#include <unicode/unistr.h>

#include <cstdlib>
#include <new>

namespace dirwell {

namespace {

// When memory is short, Jansson's parser calls the text invalid or leaves parts of it out. So its allocations are
// watched.
thread_local bool memory_was_short = false;

void *watched_malloc(std::size_t size) {
  void *const memory = std::malloc(size);
  memory_was_short = memory_was_short || memory == nullptr;
  return memory;
}

// Before any value is made.
[[maybe_unused]] const bool watching = [] {  // NOLINT(cert-err58-cpp): what it calls is C and throws nothing
  json_set_alloc_funcs(watched_malloc, std::free);
  return true;
}();

}  // namespace

std::string well_formed_utf8(std::string_view bytes) {
  std::string text;
  icu::UnicodeString::fromUTF8(icu::StringPiece(bytes.data(), static_cast<std::int32_t>(bytes.size())))
      .toUTF8String(text);
  return text;
}

JsonRef json_text(std::string_view bytes) {
  // Nearly every text is well-formed, and then Jansson's own check is the only one.
  JsonRef value(json_stringn(bytes.data(), bytes.size()));
  if (!value) {
    const std::string text = well_formed_utf8(bytes);
    value.reset(json_stringn(text.data(), text.size()));
  }
  if (!value) {
    throw std::bad_alloc();
  }
  return value;
}

void json_put(json_t *object, const char *key, json_t *value) {
  if (json_object_set_new_nocheck(object, key, value) != 0) {
    throw std::bad_alloc();
  }
}

void json_append(json_t *array, json_t *value) {
  if (json_array_append_new(array, value) != 0) {
    throw std::bad_alloc();
  }
}

JsonRef json_parsed(const char *text) {
  memory_was_short = false;
  JsonRef value(json_loads(text, 0, nullptr));
  if (memory_was_short) {
    throw std::bad_alloc();
  }
  return value;
}

void json_merge(json_t *object, const JsonRef &part) {
  const char *key = nullptr;
  json_t *value = nullptr;
  json_object_foreach(part.get(), key, value) {
    json_object_del(object, key);  // absent is fine: the value is new then
    if (json_object_set(object, key, value) != 0) {
      throw std::bad_alloc();
    }
  }
}

bool json_as_bool(const json_t *value) {
  switch (value == nullptr ? JSON_NULL : json_typeof(value)) {
    case JSON_TRUE:
      return true;
    case JSON_INTEGER:
      return json_integer_value(value) > 0;
    case JSON_STRING:
      return ::strcasecmp(json_string_value(value), "true") == 0;
    default:
      return false;
  }
}

std::int64_t json_as_int(const json_t *value) {
  switch (value == nullptr ? JSON_NULL : json_typeof(value)) {
    case JSON_INTEGER:
      return json_integer_value(value);
    case JSON_TRUE:
      return 1;
    case JSON_STRING:
      return std::strtoll(json_string_value(value), nullptr, 10);
    default:
      return 0;
  }
}

}  // namespace dirwell
