// Texts as a person reads them on a terminal.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace dirwell::client {

// UTF-8 text in the character set of the current locale, safe on a terminal: one line, and nothing that steers the
// terminal or turns the direction of writing. What cannot be shown is escaped ("\n", "\u001b"), a backslash is doubled,
// so that different texts stay different. Bytes that are no UTF-8 become "\377" (octal).
std::string display_text(std::string_view utf8);

// A size in bytes with at most four characters and a binary unit: "0", "999", "1.0K", "12M". Rounded up at no step:
// 1023 bytes are "1023", and what would round to "1024K" is "1.0M".
std::string human_size(std::int64_t bytes);

}  // namespace dirwell::client
