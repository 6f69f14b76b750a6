// What a forked process must not share with the bus.
//
// A copy of a client's connection in a request process would hide that client's end of file; a copy of another
// request's socket would keep that response open; a copy of the listener would accept connections that nobody serves; a
// handler of the daemon's signals would stop the daemon when the request process is meant. So each child closes the
// bus's descriptors and forgets its signal handlers before anything else runs in it.
#pragma once

#include <sys/types.h>

#include <utility>

namespace dirwell::host::fork_guard {

// Registers the fork handlers; at the first call only.
void install();

// A descriptor that forked processes close, for as long as the object lives. The descriptor may be closed by others
// meanwhile, and its number reused. Any thread.
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
