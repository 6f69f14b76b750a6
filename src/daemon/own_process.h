// Work on what others wrote, in a process of its own.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace dirwell {

// Hands the daemon one text; what stands behind a NUL in it is not part of it. False when the daemon takes no more.
using TextOutput = std::function<bool(std::string_view text)>;
// Returns whether the work is done.
using OwnWork = std::function<bool(const TextOutput &output)>;

struct OwnResult {
  bool done = false;               // the work said so; otherwise `texts` is what it got to
  std::vector<std::string> texts;  // in the order in which they were handed out
};

// What a library makes of a text or a file that may be anybody's work, in time, in memory or by a fault, nobody knows
// beforehand. So a forked process runs `work`, as the session's user for good, within seconds and a bounded memory; the
// daemon takes texts from it. Not inside a fork gate section; the calling thread, which is not the bus worker, waits.
OwnResult in_own_process(const OwnWork &work);

}  // namespace dirwell
