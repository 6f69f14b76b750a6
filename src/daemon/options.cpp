#include "daemon/options.h"

#include <getopt.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <cstdlib>

#include "cache/cache_store.h"
#include "daemon/crash_report.h"
#include "platform/include/hxservice.h"
#include "service/log.h"
#include "service/session.h"

namespace dirwell {

namespace {

constexpr int highest_level = 8;

// The leading colon keeps getopt silent about what it does not know.
constexpr const char *short_options = ":cs:l:";
constexpr std::array<option, 4> long_options{{
    {"clear", no_argument, nullptr, 'c'},
    {"sid", required_argument, nullptr, 's'},
    {"level", required_argument, nullptr, 'l'},
    {nullptr, 0, nullptr, 0},
}};

void set_level(const char *argument) {
  const int level = std::min(std::atoi(argument), highest_level);  // NOLINT(cert-err34-c): a text without digits is 0
  if (level == highest_level) {
    prepare_crash_report();
    hx_signal(SIGSEGV, on_crash_signal);
  }
  log_level = level;
}

}  // namespace

StartUp read_options(int argc, char *const argv[]) {
  for (;;) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): only the start-up reads options
    switch (::getopt_long(argc, argv, short_options, long_options.data(), nullptr)) {
      case -1:
        return StartUp::serve;
      case 'l':
        set_level(optarg);
        break;
      case 's':
        Session::instance().set_sid(optarg);
        break;
      case 'c':
        cleanCacheFolder();
        return StartUp::cleared;
      default:
        break;
    }
  }
}

}  // namespace dirwell
