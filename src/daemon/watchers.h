// The cache watchers: notice changes in the folders of each lasting cache, so that a fetch can say that it has gone
// stale. They live in the daemon, one for each valid cache index.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "cache/watch_times.h"
#include "service/unique_fd.h"

namespace dirwell {

class CacheWatcher {
 public:
  // `times` is what the watcher keeps up to date; it must outlive the watcher.
  explicit CacheWatcher(WatchTimes &times);
  ~CacheWatcher();  // stops
  CacheWatcher(const CacheWatcher &) = delete;
  CacheWatcher &operator=(const CacheWatcher &) = delete;

  // Starts watching, with an empty list. Does nothing while running; returns false, with the watcher stopped, when the
  // kernel gives no inotify instance or no thread. Worker thread.
  bool start();

  // Ends the watching at once. Does nothing when not running. Worker thread.
  void stop();

  // Forgets every watch. Pool thread.
  void clear();

  // Watches `folders` beside what is watched, and counts the cache as fresh from now on. Returns how many could not be
  // watched (gone, no right, limit of the kernel reached). Pool thread.
  std::size_t add(const std::vector<std::string> &folders);

 private:
  static void *run(void *self);
  void drain(const class VetoFilter &veto);
  [[nodiscard]] bool watches(int watch);
  void set_both_times();

  WatchTimes &times_;
  UniqueFd inotify_;
  UniqueFd wake_;  // an eventfd that ends the poll thread's wait
  std::atomic<bool> running_{false};
  pthread_t thread_{};
  std::mutex adding_;      // held by an add(), from which a stop() must not take the descriptor away
  std::mutex mutex_;       // guards watches_: the pool thread changes it, the poll thread reads it
  std::set<int> watches_;  // watch descriptors; the kernel does not give a number out again
};

// Of the process: a watcher for each valid cache index. Worker hooks.
void start_watchers();
void stop_watchers();

// Replaces the watches of a cache index by the folders that its cache holds; an invalid index touches nothing. The
// folders are watched with the session user's file rights. Pool thread.
void reload_watches(std::size_t index);

}  // namespace dirwell
