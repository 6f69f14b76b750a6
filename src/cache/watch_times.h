// When each lasting cache last changed and was last reloaded: written by the watchers, read by every fetch.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <ctime>

namespace dirwell {

// Times of one cache index, whole seconds. A request process sees them as they were when it was forked.
struct WatchTimes {
  std::atomic<std::time_t> lastChange{0};
  std::atomic<std::time_t> lastReload{0};
};

inline constexpr std::size_t highest_cache_index = 2;

// The times of index 1 or 2; null for any other index. Any thread.
WatchTimes *watchTimes(std::size_t index);

// Whether the cache of `index` has changed since it was last reloaded; never for the in-memory store (index 0).
bool cacheChanged(std::size_t index);

}  // namespace dirwell
