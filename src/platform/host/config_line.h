// The grammar of one line, shared by configuration files and session records: "[section]", "key = value", comments.
#pragma once

#include <string>
#include <string_view>

namespace dirwell::host {

enum class LineKind {
  nothing,         // empty, a comment, or no line of this grammar
  section,         // name: the section's
  broken_section,  // begins like a section, but nothing closes it
  value,           // name: the key; value: everything after the first '='
};

struct Line {
  LineKind kind = LineKind::nothing;
  std::string_view name;
  std::string_view value;
};

// Cuts the next line off the front of `text`, without its line feed, and tells what it is. Blanks (and the carriage
// return of a CRLF line end) around names and values are cut. The results are views into `text`.
Line take_line(std::string_view &text);

// A section's or key's name in the one form that all names have which are equal but for the case of ASCII letters.
std::string folded_name(std::string_view name);

// The number at the front of a value: an optional sign and decimal digits, held within the range of int; 0 without
// digits.
int leading_integer(std::string_view value);

}  // namespace dirwell::host
