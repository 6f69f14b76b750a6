#include "daemon/watchers.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <optional>

#include "daemon/cached_folders.h"
#include "daemon/file_identity.h"
#include "listing/filters.h"
#include "service/fork_gate.h"
#include "service/log.h"
#include "service/thread.h"

namespace dirwell {

namespace {

constexpr int poll_milliseconds = 500;
constexpr std::size_t buffer_size = 4096;
constexpr std::uint32_t relevant_events = IN_MODIFY | IN_ATTRIB | IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE | IN_DELETE |
                                          IN_DELETE_SELF | IN_MOVE_SELF | IN_DONT_FOLLOW;

// One slot for each valid index, made at the first use behind its own mutex.
struct Slot {
  std::mutex mutex;
  std::unique_ptr<CacheWatcher> watcher;
};
std::array<Slot, highest_cache_index> slots;

// Null for an index that has no slot.
CacheWatcher *watcher_of(std::size_t index) {
  WatchTimes *times = watchTimes(index);
  if (times == nullptr) {
    return nullptr;
  }
  Slot &slot = slots[index - 1];
  const std::lock_guard lock(slot.mutex);
  if (!slot.watcher) {
    slot.watcher = std::make_unique<CacheWatcher>(*times);
  }
  return slot.watcher.get();
}

// Where memory does not suffice for the list, the thread comes back for it: the events wait in the kernel meanwhile.
void load(std::optional<VetoFilter> &veto) {
  const fork_gate::Section section;
  try {
    veto.emplace();
  } catch (const std::bad_alloc &) {  // NOLINT(bugprone-empty-catch)
  }
}

// Allocates nothing itself; where fnmatch lacks memory there is no match, and the change counts.
bool is_vetoed(const VetoFilter &veto, const char *name) {
  const fork_gate::Section section;
  return veto.isVetoedName(name);
}

}  // namespace

CacheWatcher::CacheWatcher(WatchTimes &times) : times_(times) {
  set_both_times();
}

CacheWatcher::~CacheWatcher() {
  stop();
}

void CacheWatcher::set_both_times() {
  const std::time_t now = std::time(nullptr);
  times_.lastChange = now;
  times_.lastReload = now;
}

bool CacheWatcher::start() {
  if (running_) {
    return true;
  }
  inotify_.reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  wake_.reset(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  if (!inotify_.valid() || !wake_.valid()) {
    inotify_.reset();
    wake_.reset();
    return false;
  }
  running_ = true;
  set_both_times();
  if (start_thread(thread_, &CacheWatcher::run, this) != 0) {
    running_ = false;
    inotify_.reset();
    wake_.reset();
    return false;
  }
  return true;
}

void CacheWatcher::stop() {
  if (!running_.exchange(false)) {
    return;
  }
  ::eventfd_write(wake_.get(), 1);
  ::pthread_join(thread_, nullptr);
  // The daemon ends only after the pool thread, so that waiting for its add() costs nothing.
  const std::scoped_lock lock(adding_, mutex_);
  inotify_.reset();  // and with it every watch
  wake_.reset();
  watches_.clear();
}

void CacheWatcher::clear() {
  const std::lock_guard lock(mutex_);
  for (const int watch : watches_) {
    ::inotify_rm_watch(inotify_.get(), watch);  // fails where the folder has gone, and the watch with it
  }
  watches_.clear();
}

std::size_t CacheWatcher::add(const std::vector<std::string> &folders) {
  const std::lock_guard adding(adding_);
  std::size_t refused = 0;
  for (const std::string &folder : folders) {
    // Without the mutex: a folder on a file system that hangs must not hang the poll thread too. An event before the
    // watch is noted does not matter, since the times are set below.
    const int watch = ::inotify_add_watch(inotify_.get(), folder.c_str(), relevant_events);
    if (watch < 0) {
      ++refused;
      continue;
    }
    const std::lock_guard lock(mutex_);
    watches_.insert(watch);
  }
  set_both_times();
  return refused;
}

bool CacheWatcher::watches(int watch) {
  const std::lock_guard lock(mutex_);
  return watches_.contains(watch);
}

void *CacheWatcher::run(void *self) {
  auto &watcher = *static_cast<CacheWatcher *>(self);
  std::optional<VetoFilter> veto;
  while (watcher.running_) {
    if (!veto) {
      load(veto);
    }
    const int events = veto ? watcher.inotify_.get() : -1;
    std::array<pollfd, 2> waiting{{{events, POLLIN, 0}, {watcher.wake_.get(), POLLIN, 0}}};
    const int ready = ::poll(waiting.data(), waiting.size(), poll_milliseconds);
    if (ready < 0) {
      break;
    }
    if (ready > 0 && (waiting[0].revents & POLLIN) != 0) {
      watcher.drain(*veto);
    }
  }
  return nullptr;
}

// Reads until the queue is empty. No lock is waited for inside a fork gate section.
void CacheWatcher::drain(const VetoFilter &veto) {
  alignas(inotify_event) std::array<char, buffer_size> buffer;
  ssize_t got = 0;
  while ((got = ::read(inotify_.get(), buffer.data(), buffer.size())) > 0 || (got < 0 && errno == EINTR)) {
    for (std::size_t at = 0; got > 0 && at + sizeof(inotify_event) <= static_cast<std::size_t>(got);) {
      inotify_event event{};
      std::memcpy(&event, buffer.data() + at, sizeof event);
      const char *name = event.len > 0 ? buffer.data() + at + sizeof event : "";
      // An overflow says that events were lost, and so perhaps changes.
      if ((event.mask & IN_Q_OVERFLOW) != 0 || (watches(event.wd) && !is_vetoed(veto, name))) {
        times_.lastChange = std::time(nullptr);
      }
      at += sizeof event + event.len;
    }
  }
}

void start_watchers() {
  for (std::size_t index = 1; index <= highest_cache_index; ++index) {
    if (!watcher_of(index)->start()) {
      log_warning("[cache] cannot watch cache %zu", index);
    }
  }
}

void stop_watchers() {
  for (std::size_t index = 1; index <= highest_cache_index; ++index) {
    watcher_of(index)->stop();
  }
}

void reload_watches(std::size_t index) {
  CacheWatcher *watcher = watcher_of(index);
  if (watcher == nullptr) {
    return;
  }
  watcher->clear();
  std::vector<std::string> folders = foldersOfCache(index);
  const SessionFileIdentity identity;
  if (!identity.held()) {
    watcher->add({});  // fresh, with nothing to watch
    log_debug(SourcePlace::here(), "[cache] the folders of cache %zu cannot be watched as the session's user", index);
    return;
  }
  std::erase(folders, std::string());  // the placeholder of the listing itself
  if (const std::size_t refused = watcher->add(folders); refused > 0) {
    log_debug(SourcePlace::here(), "[cache] %zu of %zu folders of cache %zu cannot be watched", refused, folders.size(),
              index);
  }
}

}  // namespace dirwell
