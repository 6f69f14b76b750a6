// Ends a request process whose client has gone away.
#pragma once

#include <mutex>

#include "platform/include/hxservice.h"
#include "service/interval_timer.h"

namespace dirwell {

// Only meaningful in a request's own process: the process ends with status 1, without reply or clean-up, at the first
// tick that finds the client gone.
class ClientWatchdog {
 public:
  // The process's watchdog, created at the first call. Any thread.
  static ClientWatchdog &instance();

  // Watches the client of `io` every `seconds`; while the timer runs only the io is exchanged. `io` must outlive the
  // watching.
  void start(hx_io *io, unsigned seconds);

  // Stops watching: from here on the request runs to its end.
  void stop();

  ClientWatchdog(const ClientWatchdog &) = delete;
  ClientWatchdog &operator=(const ClientWatchdog &) = delete;

 private:
  ClientWatchdog();
  ~ClientWatchdog() = default;
  void tick();

  std::mutex mutex_;
  hx_io *io_ = nullptr;
  IntervalTimer timer_;
};

}  // namespace dirwell
