// A file descriptor with one owner.
#pragma once

#include <unistd.h>

#include <utility>

namespace dirwell::host {

class OwnedFd {
 public:
  OwnedFd() = default;
  explicit OwnedFd(int descriptor) : descriptor_(descriptor) {}
  OwnedFd(OwnedFd &&other) noexcept : descriptor_(other.release()) {}
  OwnedFd &operator=(OwnedFd &&other) noexcept {
    reset(other.release());
    return *this;
  }
  ~OwnedFd() { reset(); }

  [[nodiscard]] int get() const { return descriptor_; }
  [[nodiscard]] bool valid() const { return descriptor_ >= 0; }
  int release() { return std::exchange(descriptor_, -1); }
  void reset(int descriptor = -1) {
    if (descriptor_ >= 0) {
      ::close(descriptor_);
    }
    descriptor_ = descriptor;
  }

 private:
  int descriptor_ = -1;
};

}  // namespace dirwell::host
