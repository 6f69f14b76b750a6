#include "service/log.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "service/fork_gate.h"

namespace dirwell {

std::atomic<std::int32_t> log_level = 6;

namespace {

// Puts errno back, so that a caller may log between a failing call and the use of its error.
class KeepErrno {
 public:
  KeepErrno() : saved_(errno) {}
  ~KeepErrno() { errno = saved_; }
  KeepErrno(const KeepErrno &) = delete;
  KeepErrno &operator=(const KeepErrno &) = delete;

 private:
  int saved_;
};

[[gnu::format(printf, 1, 0)]] std::string vformat(const char *format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  if (length < 0) {
    return {};
  }
  std::string text(static_cast<std::size_t>(length), '\0');
  std::vsnprintf(text.data(), text.size() + 1, format, arguments);
  return text;
}

std::string line_head(char tag) {
  return log_timestamp(local_now()) + " [" + tag + "] dirwell(" + std::to_string(::getpid()) + "): ";
}

// One write a line, so that the lines of threads and request processes do not run into each other. A diagnostic that
// cannot be written has nowhere to be reported.
void write_line(const std::string &line) {
  std::size_t done = 0;
  while (done < line.size()) {
    const ssize_t written = ::write(STDERR_FILENO, line.data() + done, line.size() - done);
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written <= 0) {
      return;
    }
    done += static_cast<std::size_t>(written);
  }
}

std::string place_text(const SourcePlace &place) {
  return "(" + std::string(place.source) + ":" + std::to_string(place.line) + ") ";
}

// Debug and trace lines carry their place, trace lines the function too. A line that memory does not suffice for is
// lost: whoever logs goes on.
[[gnu::format(printf, 3, 0)]] void write_message(char tag, const SourcePlace *place, const char *format,
                                                 va_list arguments) {
  const KeepErrno keep;
  const fork_gate::Section section;
  try {
    std::string line = line_head(tag);
    if (place != nullptr) {
      line += place_text(*place);
      line += tag == 'T' ? std::string(place->function) + "() " : "";
    }
    write_line(line + vformat(format, arguments) + '\n');
  } catch (const std::bad_alloc &) {  // NOLINT(bugprone-empty-catch)
  }
}

std::string_view file_stem(std::string_view path) {
  if (const auto slash = path.rfind('/'); slash != std::string_view::npos) {
    path.remove_prefix(slash + 1);
  }
  return path.substr(0, path.rfind('.'));
}

}  // namespace

SourcePlace SourcePlace::here(std::string_view source, const char *file, unsigned line, const char *function) {
  return {source.empty() ? file_stem(file) : source, line, function};
}

// The crash report does not pass the fork gate: whatever the dying thread held, its last words must not wait for it.
void log_fatal(const char *format, ...) {
  if (!log_enabled(Severity::fatal)) {
    return;
  }
  va_list arguments;
  va_start(arguments, format);
  write_line(line_head('F') + vformat(format, arguments) + '\n');
  va_end(arguments);
}

void log_error(const char *format, ...) {
  if (!log_enabled(Severity::error)) {
    return;
  }
  va_list arguments;
  va_start(arguments, format);
  write_message('E', nullptr, format, arguments);
  va_end(arguments);
}

void log_warning(const char *format, ...) {
  if (!log_enabled(Severity::warning)) {
    return;
  }
  va_list arguments;
  va_start(arguments, format);
  write_message('W', nullptr, format, arguments);
  va_end(arguments);
}

void log_info(const char *format, ...) {
  if (!log_enabled(Severity::info)) {
    return;
  }
  va_list arguments;
  va_start(arguments, format);
  write_message('I', nullptr, format, arguments);
  va_end(arguments);
}

void log_debug(SourcePlace place, const char *format, ...) {
  if (!log_enabled(Severity::debug)) {
    return;
  }
  va_list arguments;
  va_start(arguments, format);
  write_message('D', &place, format, arguments);
  va_end(arguments);
}

void log_trace(SourcePlace place, const char *format, ...) {
  if (!log_enabled(Severity::trace)) {
    return;
  }
  va_list arguments;
  va_start(arguments, format);
  write_message('T', &place, format, arguments);
  va_end(arguments);
}

std::time_t local_now() {
  ::tzset();
  return std::time(nullptr) - ::timezone;
}

std::string log_timestamp(std::time_t local_seconds) {
  std::tm fields{};
  ::gmtime_r(&local_seconds, &fields);
  const long minutes = ::timezone / 60;
  // Zero offset carries the minus sign: readers of these lines know "-0000" as UTC.
  const char sign = minutes < 0 ? '+' : '-';
  const long absolute = std::labs(minutes);
  char text[64];
  const int length = std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d%c%02ld%02ld",
                                   fields.tm_year + 1900, fields.tm_mon + 1, fields.tm_mday, fields.tm_hour,
                                   fields.tm_min, fields.tm_sec, sign, absolute / 60, absolute % 60);
  return length < 0 ? std::string() : std::string(text, static_cast<std::size_t>(length));
}

int dprintf(int descriptor, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int written = ::vdprintf(descriptor, format, arguments);
  va_end(arguments);
  return written;
}

}  // namespace dirwell
