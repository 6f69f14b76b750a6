// What must be done when a coroutine is gone.
//
// A coroutine that cannot begin to wait, for want of memory, is not told: the loop throws, and destroys it where it
// stands. Nothing that stands behind its co_await runs then, and no completion handler; only destructors do.
#pragma once

#include <functional>
#include <utility>

namespace dirwell::host {

class AtEnd {
 public:
  // `action` runs once, when the object is destroyed; it must not throw.
  explicit AtEnd(std::function<void()> action) : action_(std::move(action)) {}
  AtEnd(AtEnd &&other) noexcept { action_.swap(other.action_); }
  AtEnd &operator=(AtEnd &&) = delete;
  ~AtEnd() {
    if (action_) {
      action_();
    }
  }

 private:
  std::function<void()> action_;
};

}  // namespace dirwell::host
