// A report of what a request cost, for tuning. No endpoint calls it.
#pragma once

#include <map>
#include <string>

namespace dirwell {

// Writes one D line: the label, the timing named "func" as the total (0 where there is none), the peak memory and the
// size of the cache database in MiB, and every other timing in the order of the names. The database is taken to be
// descriptor 4 of the process; without one its size is 0. Any thread.
void profiling_report(const std::map<std::string, double> &timings, const std::string &label);

}  // namespace dirwell
