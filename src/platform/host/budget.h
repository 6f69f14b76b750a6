// How the descriptors that a process may hold are shared out among those who cost it some.
#pragma once

#include <cstddef>

namespace dirwell::host {

// The most of each that a service holds at once. However clients behave, what is left is enough for the daemon's own
// files: a daemon that could not open its session's record would take the session for ended.
struct Budget {
  std::size_t connections = 1;  // places; each needs the client's socket and both ends of a handler's
  std::size_t kept = 1;         // handlers that go on after their reply
  std::size_t lingering = 1;    // refused clients that are still being listened to
  std::size_t waiting = 1;      // admitted clients without a place

  bool operator==(const Budget &) const = default;
};

// The shares of a process that may hold so many descriptors, none greater than its limit.
Budget share_out(std::size_t descriptors);

// The shares of this process, as its limit is now.
Budget budget_of_process();

}  // namespace dirwell::host
