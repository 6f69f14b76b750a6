#include "platform/host/config_line.h"

#include <algorithm>
#include <limits>

namespace dirwell::host {
namespace {

constexpr std::string_view blanks = " \t\r\v\f";

std::string_view without_blanks(std::string_view text) {
  const std::size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

constexpr char ascii_lower(char letter) {
  return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

}  // namespace

Line take_line(std::string_view &text) {
  const std::size_t end = std::min(text.find('\n'), text.size());
  const std::string_view line = without_blanks(text.substr(0, end));
  text.remove_prefix(std::min(end + 1, text.size()));

  if (line.empty() || line.front() == '#' || line.front() == ';') {
    return {};
  }
  if (line.front() == '[') {
    // The last bracket closes: a section's name may be a path, and a path may hold brackets.
    const std::size_t close = line.rfind(']');
    if (close == std::string_view::npos) {
      return {LineKind::broken_section, {}, {}};
    }
    return {LineKind::section, without_blanks(line.substr(1, close - 1)), {}};
  }
  const std::size_t equals = line.find('=');
  if (equals == std::string_view::npos) {
    return {};
  }
  return {LineKind::value, without_blanks(line.substr(0, equals)), without_blanks(line.substr(equals + 1))};
}

std::string folded_name(std::string_view name) {
  std::string folded(name);
  std::transform(folded.begin(), folded.end(), folded.begin(), ascii_lower);
  return folded;
}

int leading_integer(std::string_view value) {
  const bool negative = !value.empty() && value.front() == '-';
  if (negative || (!value.empty() && value.front() == '+')) {
    value.remove_prefix(1);
  }
  constexpr long long most = std::numeric_limits<int>::max();
  constexpr long long least = std::numeric_limits<int>::min();
  long long number = 0;
  for (const char digit : value) {
    if (digit < '0' || digit > '9') {
      break;
    }
    number = std::min(number * 10 + (digit - '0'), -least);
  }
  return static_cast<int>(negative ? -number : std::min(number, most));
}

}  // namespace dirwell::host
