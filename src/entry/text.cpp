#include "entry/text.h"

#include <algorithm>
#include <array>

namespace dirwell {
namespace {

// The five- and six-byte forms are older than today's UTF-8; they are counted as characters all the same.
struct LeadRange {
  unsigned char last;
  unsigned char length;
};

constexpr std::array<LeadRange, 8> lead_ranges{{
    {0x7F, 1},
    {0xC1, 0},
    {0xDF, 2},
    {0xEF, 3},
    {0xF7, 4},
    {0xFB, 5},
    {0xFD, 6},
    {0xFF, 0},
}};
static_assert(std::ranges::is_sorted(lead_ranges, {}, &LeadRange::last) && lead_ranges.back().last == 0xFF);

constexpr std::array<unsigned char, 256> lead_lengths = [] {
  std::array<unsigned char, 256> lengths{};
  std::size_t lead = 0;
  for (const LeadRange &range : lead_ranges) {
    for (; lead <= range.last; ++lead) {
      lengths[lead] = range.length;
    }
  }
  return lengths;
}();

}  // namespace

std::size_t utf8CharacterLength(unsigned char lead) {
  return lead_lengths[lead];
}

std::string_view utf8Substring(std::string_view text, std::uint64_t first, std::uint64_t count) {
  const std::uint64_t end = first + count;  // wraps
  std::size_t start = text.size();
  std::size_t position = 0;
  for (std::uint64_t index = 0; position < text.size(); ++index) {
    if (index == first) {
      start = position;
    }
    if (index >= first && end <= index) {
      break;
    }
    const std::size_t length = utf8CharacterLength(static_cast<unsigned char>(text[position]));
    if (length == 0) {
      return {};
    }
    position = std::min(position + length, text.size());
  }
  return text.substr(start, position - start);
}

}  // namespace dirwell
