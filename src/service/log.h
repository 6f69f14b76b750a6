// Diagnostics: single lines on standard error, each written with one write.
//
// A line is the time stamp, the tag, "dirwell(PID): ", for D and T lines the source place, the message and a line feed.
// Messages begin with a component word in square brackets. Any thread of any process may log; the line is built inside
// the fork gate, because breaking down a time takes a lock of the C library.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

namespace dirwell {

// Process-wide level, 6 when the process starts. Written during start-up only, read everywhere without a lock.
extern std::atomic<std::int32_t> log_level;

// The threshold of each severity: its lines are written when log_level is greater.
enum class Severity : std::int32_t { fatal = 0, error = 2, warning = 3, info = 5, debug = 6, trace = 7 };

inline bool log_enabled(Severity severity) {
  return log_level.load(std::memory_order_relaxed) > static_cast<std::int32_t>(severity);
}

// Where a D or T line comes from: the source's name without folder and extension, the line, the function.
struct SourcePlace {
  std::string_view source;
  unsigned line;
  const char *function;

  // The calling place itself, under the name of its file or under `source` where one component has several files.
  static SourcePlace here(std::string_view source = {}, const char *file = __builtin_FILE(),
                          unsigned line = __builtin_LINE(), const char *function = __builtin_FUNCTION());
};

// Each writes one line when its severity is enabled, else nothing; no other effect, errno untouched. `format` and what
// follows are as for printf and hold the message alone, without line feed.
[[gnu::format(printf, 1, 2)]] void log_fatal(const char *format, ...);
[[gnu::format(printf, 1, 2)]] void log_error(const char *format, ...);
[[gnu::format(printf, 1, 2)]] void log_warning(const char *format, ...);
[[gnu::format(printf, 1, 2)]] void log_info(const char *format, ...);
[[gnu::format(printf, 2, 3)]] void log_debug(SourcePlace place, const char *format, ...);
[[gnu::format(printf, 2, 3)]] void log_trace(SourcePlace place, const char *format, ...);

// Seconds since the epoch moved to local standard time; daylight saving never counts.
std::time_t local_now();

// The stamp of a time from local_now(): "2019-03-05T14:07:09+0800". UTC prints "-0000".
std::string log_timestamp(std::time_t local_seconds);

// Formats to a descriptor; returns the number of bytes written, or -1 with errno set.
[[gnu::format(printf, 2, 3)]] int dprintf(int descriptor, const char *format, ...);

}  // namespace dirwell
