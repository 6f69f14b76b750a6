#include "platform/host/budget.h"

#include <sys/resource.h>

#include <algorithm>

#include "platform/host/limits.h"

namespace dirwell::host {

namespace {

// The daemon's own: its standing files, those of a moment, the socket of a caller that is being refused.
constexpr std::size_t own = 40;
// More than this wait in the kernel's queue no shorter.
constexpr std::size_t most_waiting = 4096;

}  // namespace

Budget share_out(std::size_t descriptors) {
  const std::size_t shared = descriptors - std::min(own, descriptors / 2);
  // Of seven parts, three go to the places, one each to what a place may leave behind: a kept handler, or a request
  // whose client has gone while the daemon itself still works on it.
  const std::size_t part = std::max<std::size_t>(shared / 7, 1);
  Budget budget;
  budget.connections = std::min(limits().connections, part);
  budget.kept = std::min(limits().kept, part);
  budget.lingering = std::min(limits().lingering, std::max<std::size_t>(part / 2, 1));
  const std::size_t taken = 4 * budget.connections + budget.kept + budget.lingering;
  budget.waiting = std::clamp<std::size_t>(shared - std::min(shared, taken), 1, most_waiting);
  return budget;
}

Budget budget_of_process() {
  rlimit files = {};
  constexpr std::size_t most_counted = std::size_t{1} << 20;
  if (::getrlimit(RLIMIT_NOFILE, &files) != 0) {
    return share_out(0);
  }
  return share_out(std::min<rlim_t>(files.rlim_cur, most_counted));
}

}  // namespace dirwell::host
