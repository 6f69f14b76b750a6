#include "daemon/crash_report.h"

#include <errno.h>
#include <execinfo.h>
#include <string.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

#include "service/log.h"

namespace dirwell {

namespace {

constexpr int most_frames = 50;
constexpr int own_frames = 2;  // the handler and the signal trampoline
constexpr unsigned patience_seconds = 5;

}  // namespace

void prepare_crash_report() {
  // The first backtrace of a process loads a library, which a handler could not do safely.
  std::array<void *, 1> frame{};
  ::backtrace(frame.data(), static_cast<int>(frame.size()));
}

void on_crash_signal(int signal_number) {
  // A lock that the crashed code held must not turn the crash into a hang.
  ::alarm(patience_seconds);
  std::array<void *, most_frames> frames{};
  const int count = ::backtrace(frames.data(), most_frames);
  char **symbols = count < own_frames ? nullptr : ::backtrace_symbols(frames.data(), count);
  if (symbols == nullptr) {
    ::_exit(1);
  }
  const char *signal_text = ::strsignal(signal_number);  // NOLINT(concurrency-mt-unsafe): the process ends here
  log_fatal("%s (pid %d) %s:", signal_text, static_cast<int>(::getpid()), program_invocation_name);
  for (int position = own_frames; position < count && symbols[position] != nullptr; ++position) {
    log_fatal("%2d. %s", position - 1, symbols[position]);
  }
  std::free(symbols);
  ::_exit(1);
}

}  // namespace dirwell
