#include "service/interval_timer.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <exception>
#include <utility>

#include "service/thread.h"

namespace dirwell {

IntervalTimer::~IntervalTimer() {
  stop();
}

void IntervalTimer::set_callback(std::function<void()> callback) {
  callback_ = std::move(callback);
}

bool IntervalTimer::start(unsigned seconds) {
  if (running_) {
    return true;
  }
  descriptor_ = ::timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC);
  if (descriptor_ < 0) {
    return false;
  }
  itimerspec when{};
  ::clock_gettime(CLOCK_REALTIME, &when.it_value);
  when.it_value.tv_sec += seconds;
  when.it_interval.tv_sec = seconds;
  running_ = true;
  if (::timerfd_settime(descriptor_, TFD_TIMER_ABSTIME, &when, nullptr) != 0 ||
      start_thread(thread_, &IntervalTimer::run, this) != 0) {
    running_ = false;
    ::close(descriptor_);
    descriptor_ = -1;
    return false;
  }
  return true;
}

void *IntervalTimer::run(void *self) {
  auto &timer = *static_cast<IntervalTimer *>(self);
  while (timer.running_) {
    std::uint64_t expiries = 0;
    const ssize_t got = ::read(timer.descriptor_, &expiries, sizeof expiries);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got != sizeof expiries) {
      break;
    }
    if (timer.running_) {
      try {
        timer.callback_();
      } catch (const std::exception &) {  // NOLINT(bugprone-empty-catch): the next expiry makes up for it
      }
    }
  }
  return nullptr;
}

void IntervalTimer::stop() {
  if (!running_.exchange(false)) {
    return;
  }
  // An expiry at once, and again and again, wakes the thread's blocked read.
  itimerspec now{};
  now.it_value.tv_nsec = 1;
  now.it_interval.tv_nsec = 1;
  ::timerfd_settime(descriptor_, 0, &now, nullptr);
  ::pthread_join(thread_, nullptr);
  ::close(descriptor_);
  descriptor_ = -1;
}

}  // namespace dirwell
