// What a forked process must not share with the bus.
//
// A copy of a client's connection in a request process would hide that client's end of file; a copy of another
// request's socket would keep that response open; a copy of the listener would accept connections that nobody serves; a
// handler of the daemon's signals would stop the daemon when the request process is meant. So each child closes the
// bus's descriptors and forgets its signal handlers before anything else runs in it.
#pragma once

#include <sys/types.h>

#include <mutex>
#include <utility>

#include "platform/host/owned_fd.h"

namespace dirwell::host::fork_guard {

// Registers the fork handlers; at the first call only.
void install();

// A descriptor that forked processes close and that its owner closes unseen, in his own time: guarded for as long as
// the number leads to the same file. Any thread.
void guard(int descriptor);

// A descriptor that forked processes close, for as long as the object lives. Any thread.
class Guarded {
 public:
  Guarded() = default;
  explicit Guarded(int descriptor);
  Guarded(Guarded &&other) noexcept { swap(other); }
  Guarded &operator=(Guarded &&other) noexcept {
    Guarded moved(std::move(other));
    swap(moved);
    return *this;
  }
  ~Guarded();

 private:
  void swap(Guarded &other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    std::swap(device_, other.device_);
    std::swap(inode_, other.inode_);
  }

  int descriptor_ = -1;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

// Keeps other threads from forking for the length of a scope: while a descriptor is open and not yet guarded. The
// calling thread must not fork either.
class NoFork {
 public:
  NoFork();

 private:
  std::lock_guard<std::mutex> lock_;
};

// A descriptor with one owner, which forked processes close. It is guarded until after it is closed.
class GuardedFd {
 public:
  GuardedFd() = default;
  explicit GuardedFd(OwnedFd descriptor) : guard_(descriptor.get()), descriptor_(std::move(descriptor)) {}

  [[nodiscard]] int get() const { return descriptor_.get(); }
  [[nodiscard]] bool valid() const { return descriptor_.valid(); }
  // Gives descriptor and guard away.
  int release(Guarded &guard) {
    guard = std::move(guard_);
    return descriptor_.release();
  }

 private:
  Guarded guard_;
  OwnedFd descriptor_;
};

// The request that is being dispatched: a process that the worker forks meanwhile keeps its descriptor.
class Dispatching {
 public:
  explicit Dispatching(int descriptor);
  ~Dispatching();
  Dispatching(const Dispatching &) = delete;
  Dispatching &operator=(const Dispatching &) = delete;
};

// A signal whose handler is the daemon's own.
void add_signal(int number);

}  // namespace dirwell::host::fork_guard
