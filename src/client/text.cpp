#include "client/text.h"

#include <wchar.h>
#include <wctype.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>

namespace dirwell::client {
namespace {

struct Character {
  char32_t value = 0;
  std::size_t length = 0;  // in bytes; 0: the first byte begins no character
};

Character first_character(std::string_view text) {
  const auto byte = [text](std::size_t i) -> char32_t {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : char32_t{0};
  };
  struct Form {
    char32_t mask, lead, least;
    std::size_t length;
  };
  constexpr std::array<Form, 4> forms = {{
      {0x80, 0x00, 0x0, 1},
      {0xE0, 0xC0, 0x80, 2},
      {0xF0, 0xE0, 0x800, 3},
      {0xF8, 0xF0, 0x10000, 4},
  }};
  for (const Form &form : forms) {
    if ((byte(0) & form.mask) != form.lead) {
      continue;
    }
    char32_t value = byte(0) & ~form.mask;
    for (std::size_t i = 1; i < form.length; ++i) {
      if ((byte(i) & 0xC0) != 0x80) {
        return {};
      }
      value = value << 6 | (byte(i) & 0x3F);
    }
    if (value < form.least || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) {
      return {};
    }
    return {value, form.length};
  }
  return {};
}

// Marks that reorder the text around them, and line ends that are no control characters.
constexpr bool steers_text(char32_t value) {
  return value == 0x061C || value == 0x200E || value == 0x200F || (value >= 0x2028 && value <= 0x202E) ||
         (value >= 0x2066 && value <= 0x2069) || value == 0xFEFF;
}

template <typename Number>
std::string formatted(const char *format, Number number) {
  std::array<char, 32> buffer{};
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  const int length = std::snprintf(buffer.data(), buffer.size(), format, number);
#pragma GCC diagnostic pop
  return {buffer.data(), static_cast<std::size_t>(std::max(length, 0))};
}

std::string shown(char32_t value) {
  switch (value) {
    case U'\n':
      return "\\n";
    case U'\t':
      return "\\t";
    case U'\r':
      return "\\r";
    case U'\\':
      return "\\\\";
    default:
      break;
  }
  const auto wide = static_cast<wchar_t>(value);
  if (value >= 0x20 && value != 0x7F && !steers_text(value) && ::iswprint(static_cast<wint_t>(wide)) != 0 &&
      ::wcwidth(wide) >= 0) {
    std::array<char, MB_LEN_MAX> bytes{};
    mbstate_t state{};
    const std::size_t length = ::wcrtomb(bytes.data(), wide, &state);
    if (length != static_cast<std::size_t>(-1)) {
      return {bytes.data(), length};
    }
  }
  const auto number = static_cast<unsigned>(value);
  return value > 0xFFFF ? formatted("\\U%08x", number) : formatted("\\u%04x", number);
}

}  // namespace

std::string display_text(std::string_view utf8) {
  std::string result;
  while (!utf8.empty()) {
    const Character next = first_character(utf8);
    if (next.length == 0) {
      result += formatted("\\%03o", static_cast<unsigned>(static_cast<unsigned char>(utf8.front())));
      utf8.remove_prefix(1);
    } else {
      result += shown(next.value);
      utf8.remove_prefix(next.length);
    }
  }
  return result;
}

std::string human_size(std::int64_t bytes) {
  if (bytes < 1024) {
    return std::to_string(bytes);
  }
  constexpr std::string_view units = "KMGTPE";
  double value = static_cast<double>(bytes) / 1024;
  std::size_t unit = 0;
  while (value >= 1023.5 && unit + 1 < units.size()) {
    value /= 1024;
    ++unit;
  }
  return formatted(value < 9.95 ? "%.1f" : "%.0f", value) + units[unit];
}

}  // namespace dirwell::client
