#include "service/client_watchdog.h"

#include <unistd.h>

namespace dirwell {

namespace {

std::mutex creation_mutex;

}  // namespace

ClientWatchdog &ClientWatchdog::instance() {
  const std::lock_guard lock(creation_mutex);
  static ClientWatchdog watchdog;
  return watchdog;
}

ClientWatchdog::ClientWatchdog() {
  timer_.set_callback([this] { tick(); });
}

void ClientWatchdog::start(hx_io *io, unsigned seconds) {
  const std::lock_guard lock(mutex_);
  io_ = io;
  timer_.start(seconds);  // without a timer the request simply runs to its end
}

void ClientWatchdog::tick() {
  const std::lock_guard lock(mutex_);
  if (io_ != nullptr && hx_io_alive(io_) == 0) {
    ::_exit(1);
  }
}

// The mutex is not taken: a tick that holds it is waited for by the timer itself.
void ClientWatchdog::stop() {
  timer_.stop();
}

}  // namespace dirwell
