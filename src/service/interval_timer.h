// A periodic callback on a thread of its own.
#pragma once

#include <pthread.h>

#include <atomic>
#include <functional>

namespace dirwell {

class IntervalTimer {
 public:
  IntervalTimer() = default;
  ~IntervalTimer();  // stops
  IntervalTimer(const IntervalTimer &) = delete;
  IntervalTimer &operator=(const IntervalTimer &) = delete;

  // Sets what each expiry calls, on the timer's thread. Only while the timer is stopped.
  void set_callback(std::function<void()> callback);

  // Starts with a first expiry `seconds` from now and one every `seconds` after it. Does nothing while running; returns
  // false, with the timer stopped, when the timer or its thread cannot be made. Not safe against a concurrent stop().
  bool start(unsigned seconds);

  // Ends the timer at once and joins its thread; a callback under way is waited for. Does nothing when not running.
  // Must not be called by the callback.
  void stop();

 private:
  static void *run(void *self);

  std::atomic<bool> running_{false};
  int descriptor_ = -1;
  pthread_t thread_{};
  std::function<void()> callback_;
};

}  // namespace dirwell
