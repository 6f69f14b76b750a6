// Texts counted in characters: utf8Substring against a plain oracle, and the two readers of UTF-8 against each other.
//
// Input: a line "FIRST COUNT", then the text.
#include <cstdlib>
#include <string>
#include <string_view>

#include "entry/text.h"
#include "fuzz/support/check.h"
#include "fuzz/support/input.h"
#include "platform/host/text.h"
#include "service/json.h"

namespace dirwell::fuzz {
namespace {

// 0 for a byte that starts no character.
std::size_t length_by_rule(unsigned char lead) {
  if (lead < 128) {
    return 1;
  }
  if (lead >= 194 && lead <= 223) {
    return 2;
  }
  if (lead >= 224 && lead <= 239) {
    return 3;
  }
  if (lead >= 240 && lead <= 247) {
    return 4;
  }
  if (lead >= 248 && lead <= 251) {
    return 5;
  }
  return lead == 252 || lead == 253 ? 6 : 0;
}

// Character by character into a new text; the sum of first and count wraps, as callers rely on.
std::string substring_by_rule(std::string_view text, std::uint64_t first, std::uint64_t count) {
  std::string result;
  std::uint64_t index = 0;
  while (!text.empty()) {
    if (index >= first && first + count <= index) {
      return result;
    }
    const std::size_t length = length_by_rule(static_cast<unsigned char>(text.front()));
    if (length == 0) {
      return {};
    }
    const std::string_view character = text.substr(0, length);
    text.remove_prefix(character.size());
    if (index >= first) {
      result += character;
    }
    ++index;
  }
  return result;
}

std::uint64_t number(std::string_view digits) {
  return std::strtoull(std::string(digits).c_str(), nullptr, 10);  // "-1" is the all-ones count
}

void check_substring(std::string_view text, std::uint64_t first, std::uint64_t count) {
  const std::string_view part = utf8Substring(text, first, count);
  check_equal(std::string(part), substring_by_rule(text, first, count), "the substring is that of the plain rule");
  check(part.empty() || (part.data() >= text.data() && part.data() + part.size() <= text.data() + text.size()),
        "the result lies within the text");
}

// What both of them take for UTF-8 is the same, and replacing leaves nothing to replace.
void check_well_formed(std::string_view text) {
  const std::string replaced = well_formed_utf8(text);
  const bool has_nul = text.find('\0') != std::string_view::npos;
  check(host::is_clean_utf8(text) == (replaced == text && !has_nul), "the bus and the replies agree on what is UTF-8");
  check_equal(well_formed_utf8(replaced), replaced, "well-formed text stays as it is");
  const JsonRef value = json_text(text);
  check_equal(std::string(json_string_value(value.get()), json_string_length(value.get())), replaced,
              "a JSON text holds the bytes, ill-formed ones replaced");
}

}  // namespace
}  // namespace dirwell::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  using namespace dirwell;
  using namespace dirwell::fuzz;
  std::string_view text = text_of(data, size);
  std::string_view numbers = take_line(text);
  const std::uint64_t first = number(take_until(numbers, ' '));
  const std::uint64_t count = number(numbers);
  check_substring(text, first, count);
  check_substring(text, 0, first);
  check_substring(text, first, 1);
  check_substring(text, 0, all_characters);
  check_substring(text, 1, all_characters);
  for (const char byte : text) {
    const auto lead = static_cast<unsigned char>(byte);
    check_equal(utf8CharacterLength(lead), length_by_rule(lead), "the length of a character is that of its first byte");
  }
  check_well_formed(text);
  return 0;
}
