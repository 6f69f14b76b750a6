#include "client/cache_follow.h"

#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdint>
#include <limits>
#include <ostream>
#include <string>
#include <thread>
#include <utility>

#include "client/reply.h"

namespace dirwell::client {
namespace {

// Every line is written before the next wait, so a signal may end the process wherever it stands, also while it waits
// for an answer.
class EndsOnSignals {
 public:
  EndsOnSignals() {
    struct sigaction action {};
    action.sa_handler = [](int) { ::_exit(0); };
    for (auto &[number, before] : before_) {
      ::sigaction(number, &action, &before);
    }
  }
  ~EndsOnSignals() {
    for (const auto &[number, before] : before_) {
      ::sigaction(number, &before, nullptr);
    }
  }
  EndsOnSignals(const EndsOnSignals &) = delete;
  EndsOnSignals &operator=(const EndsOnSignals &) = delete;

 private:
  std::array<std::pair<int, struct sigaction>, 2> before_ = {{{SIGINT, {}}, {SIGTERM, {}}}};
};

}  // namespace

std::string_view freshness(bool changed) {
  return changed ? "stale: the folders have changed" : "no change was seen";
}

void follow_cache(const Instance &instance, const FollowOptions &options, std::ostream &out) {
  const EndsOnSignals ends;
  CacheOptions page = options.cache;
  // Far beyond the end: entries would be described, at a cost, for nothing.
  page.limit = 50;
  page.offset = std::numeric_limits<std::int32_t>::max();
  const std::string request = cache_request(page);
  bool changed = false;
  for (;; std::this_thread::sleep_for(std::chrono::duration<double>(options.interval))) {
    const bool before = std::exchange(changed, read_listing(call(instance, "fetch.cache", request)).changed);
    if (changed != before) {
      out << freshness(changed) << std::endl;  // at once: a reader may wait for this line
    }
    if (changed && !options.keep) {
      return;
    }
  }
}

}  // namespace dirwell::client
