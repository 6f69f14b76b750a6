#include "service/interval_timer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

namespace dirwell {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

std::size_t open_descriptors() {
  const std::filesystem::directory_iterator begin("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin, std::filesystem::directory_iterator()));
}

TEST(IntervalTimer, ThatWasNeverStartedIsStoppedWithoutEffect) {
  IntervalTimer timer;
  timer.stop();
  timer.stop();
}

TEST(IntervalTimer, CallsBackEveryPeriod) {
  std::atomic<int> calls{0};
  IntervalTimer timer;
  timer.set_callback([&] { ++calls; });
  const auto start = Clock::now();
  ASSERT_TRUE(timer.start(1));
  std::this_thread::sleep_for(500ms);
  EXPECT_EQ(calls, 0) << "the first expiry is one period after the start";
  while (calls < 2 && Clock::now() - start < 5s) {
    std::this_thread::sleep_for(20ms);
  }
  const auto elapsed = Clock::now() - start;
  timer.stop();
  EXPECT_EQ(calls, 2);
  EXPECT_GE(elapsed, 1800ms);
  EXPECT_LT(elapsed, 3s);
}

TEST(IntervalTimer, ThatRunsIsNotStartedAgain) {
  std::atomic<int> calls{0};
  IntervalTimer timer;
  timer.set_callback([&] { ++calls; });
  ASSERT_TRUE(timer.start(3600));
  const std::size_t descriptors = open_descriptors();
  EXPECT_TRUE(timer.start(1));
  EXPECT_EQ(open_descriptors(), descriptors);
  std::this_thread::sleep_for(1500ms);
  timer.stop();
  EXPECT_EQ(calls, 0) << "the second period counts for nothing";
}

TEST(IntervalTimer, StopsAtOnceAndClosesItsDescriptor) {
  const std::size_t descriptors = open_descriptors();
  IntervalTimer timer;
  std::atomic<int> calls{0};
  timer.set_callback([&] { ++calls; });
  ASSERT_TRUE(timer.start(3600));
  EXPECT_EQ(open_descriptors(), descriptors + 1);
  const auto start = Clock::now();
  timer.stop();
  EXPECT_LT(Clock::now() - start, 1s);
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(IntervalTimer, StartsAnewAfterAStop) {
  std::atomic<int> calls{0};
  IntervalTimer timer;
  timer.set_callback([&] { ++calls; });
  ASSERT_TRUE(timer.start(3600));
  timer.stop();
  ASSERT_TRUE(timer.start(1));
  for (int i = 0; i < 200 && calls == 0; ++i) {
    std::this_thread::sleep_for(20ms);
  }
  timer.stop();
  EXPECT_GE(calls, 1);
}

}  // namespace
}  // namespace dirwell
