#include "cache/watch_times.h"

namespace dirwell {

namespace {

std::array<WatchTimes, highest_cache_index> times_by_index;

}  // namespace

WatchTimes *watchTimes(std::size_t index) {
  return index >= 1 && index <= highest_cache_index ? &times_by_index.at(index - 1) : nullptr;
}

bool cacheChanged(std::size_t index) {
  const WatchTimes *times = watchTimes(index);
  return times != nullptr && times->lastChange > times->lastReload;
}

}  // namespace dirwell
