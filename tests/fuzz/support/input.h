// Taking an input apart. Inputs are texts as far as that is possible, so that a person can read and write them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace dirwell::fuzz {

inline std::string_view text_of(const std::uint8_t *data, std::size_t size) {
  return {reinterpret_cast<const char *>(data), size};
}

// As a C text: up to the first NUL.
inline std::string c_text(std::string_view text) {
  return std::string(text.substr(0, text.find('\0')));
}

// What stands before the first `separator`, which is cut off `text` with it; all of it where there is none.
inline std::string_view take_until(std::string_view &text, char separator) {
  const std::size_t end = text.find(separator);
  const std::string_view taken = text.substr(0, end);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  return taken;
}

inline std::string_view take_line(std::string_view &text) {
  return take_until(text, '\n');
}

// The pieces between the separators, at most `most` of them.
inline std::vector<std::string_view> split(std::string_view text, char separator, std::size_t most) {
  std::vector<std::string_view> pieces;
  while (!text.empty() && pieces.size() < most) {
    pieces.push_back(take_until(text, separator));
  }
  return pieces;
}

}  // namespace dirwell::fuzz
