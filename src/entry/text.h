// Text counted in UTF-8 characters by their lead bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace dirwell {

inline constexpr std::uint64_t all_characters = ~std::uint64_t{0};

// Byte length of a character by its first byte: 1 to 6, or 0 for a byte that starts none.
std::size_t utf8CharacterLength(unsigned char lead);

// Characters `first` to `first + count - 1` of `text`, as a view into it; a last character that the text cuts short is
// taken as far as it goes. Empty when `first` lies beyond the text, and when the walk meets a byte that starts no
// character. `first + count` wraps at 2^64: the all-ones count means "to the end" only from character 0, and gives the
// empty text from any later one. Callers rely on that.
std::string_view utf8Substring(std::string_view text, std::uint64_t first, std::uint64_t count);

}  // namespace dirwell
