// The size bands that a listing is grouped by.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <string_view>

namespace dirwell {

struct SizeBand {
  std::string_view label;
  std::int64_t below;  // exclusive upper bound, bytes
};

inline constexpr std::array<SizeBand, 6> size_bands{{
    {"xs", 100},
    {"s", 10240},
    {"m", 1048576},
    {"l", 104857600},
    {"xl", 10737418240},
    {"xxl", std::numeric_limits<std::int64_t>::max()},
}};
static_assert(std::ranges::adjacent_find(size_bands, std::ranges::greater_equal{}, &SizeBand::below) ==
              size_bands.end());

// Row of the band that holds `size`; the largest number of all, which is below no bound, belongs to the last.
constexpr std::size_t sizeBandOf(std::int64_t size) {
  const auto *const band = std::ranges::find_if(size_bands, [size](const SizeBand &row) { return size < row.below; });
  return std::min(static_cast<std::size_t>(band - size_bands.begin()), size_bands.size() - 1);
}
static_assert(sizeBandOf(-1) == 0 && sizeBandOf(std::numeric_limits<std::int64_t>::max()) == 5);

}  // namespace dirwell
