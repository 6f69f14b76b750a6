// Small questions about texts that come from a peer.
#pragma once

#include <string_view>

namespace dirwell::host {

// Whether the bytes are well-formed UTF-8 without NUL: no overlong form, no surrogate, nothing beyond U+10FFFF.
bool is_clean_utf8(std::string_view text);

// Equal without regard to the case of ASCII letters.
bool equal_ignoring_case(std::string_view one, std::string_view other);

// Without blanks and tabs at both ends.
std::string_view trimmed(std::string_view text);

}  // namespace dirwell::host
