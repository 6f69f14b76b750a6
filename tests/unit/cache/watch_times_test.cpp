#include "cache/watch_times.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>

namespace dirwell {
namespace {

void setTimes(std::size_t index, std::time_t change, std::time_t reload) {
  watchTimes(index)->lastChange = change;
  watchTimes(index)->lastReload = reload;
}

TEST(WatchTimes, StandForEachValidIndexAndForNoOther) {
  ASSERT_NE(watchTimes(1), nullptr);
  ASSERT_NE(watchTimes(2), nullptr);
  EXPECT_NE(watchTimes(1), watchTimes(2));
  EXPECT_EQ(watchTimes(0), nullptr);
  EXPECT_EQ(watchTimes(3), nullptr);
  EXPECT_EQ(watchTimes(SIZE_MAX), nullptr);
}

TEST(CacheChanged, MeansAChangeLaterThanTheLastReload) {
  for (const std::size_t index : {1U, 2U}) {
    setTimes(index, 1000, 1000);
    EXPECT_FALSE(cacheChanged(index));
    setTimes(index, 1001, 1000);
    EXPECT_TRUE(cacheChanged(index));
    EXPECT_FALSE(cacheChanged(3 - index));
    setTimes(index, 1000, 1001);
    EXPECT_FALSE(cacheChanged(index));
    setTimes(index, 0, 0);
    EXPECT_FALSE(cacheChanged(index));
  }
}

TEST(CacheChanged, IsNeverTrueWithoutTimes) {
  setTimes(1, 9, 1);
  setTimes(2, 9, 1);
  EXPECT_FALSE(cacheChanged(0));
  EXPECT_FALSE(cacheChanged(3));
  EXPECT_FALSE(cacheChanged(SIZE_MAX));
  setTimes(1, 0, 0);
  setTimes(2, 0, 0);
}

}  // namespace
}  // namespace dirwell
