#include "ordering/size_bands.h"

#include <gtest/gtest.h>

#include <string>

namespace dirwell {
namespace {

TEST(SizeBands, AreTheSixOfTheListing) {
  const SizeBand expected[] = {{"xs", 100},      {"s", 10240},        {"m", 1048576},
                               {"l", 104857600}, {"xl", 10737418240}, {"xxl", 9223372036854775807}};
  ASSERT_EQ(size_bands.size(), std::size(expected));
  for (std::size_t row = 0; row < size_bands.size(); ++row) {
    EXPECT_EQ(size_bands[row].label, expected[row].label);
    EXPECT_EQ(size_bands[row].below, expected[row].below);
  }
}

TEST(SizeBands, HoldEverySizeOnce) {
  EXPECT_EQ(sizeBandOf(-9223372036854775807 - 1), 0U);
  EXPECT_EQ(sizeBandOf(99), 0U);
  EXPECT_EQ(sizeBandOf(100), 1U);
  EXPECT_EQ(sizeBandOf(1048576), 3U);
  EXPECT_EQ(sizeBandOf(10737418239), 4U);
  EXPECT_EQ(sizeBandOf(10737418240), 5U);
  EXPECT_EQ(sizeBandOf(9223372036854775807), 5U);
}

}  // namespace
}  // namespace dirwell
