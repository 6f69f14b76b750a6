// A file descriptor with one owner.
#pragma once

#include <unistd.h>

#include <utility>

namespace dirwell {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int descriptor) : descriptor_(descriptor) {}
  UniqueFd(UniqueFd &&other) noexcept : descriptor_(other.release()) {}
  UniqueFd &operator=(UniqueFd &&other) noexcept {
    reset(other.release());
    return *this;
  }
  ~UniqueFd() { reset(); }

  [[nodiscard]] int get() const { return descriptor_; }
  [[nodiscard]] bool valid() const { return descriptor_ >= 0; }
  int release() { return std::exchange(descriptor_, -1); }
  // Closes what is held (a failing close leaves nothing to mend) and holds `descriptor` instead.
  void reset(int descriptor = -1) {
    if (descriptor_ >= 0) {
      ::close(descriptor_);
    }
    descriptor_ = descriptor;
  }

 private:
  int descriptor_ = -1;
};

// Closes `descriptor` unless it is not open any more.
void close_if_valid(int descriptor);

}  // namespace dirwell
