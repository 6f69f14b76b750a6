#include "service/profiling.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>

#include "service/log.h"

namespace dirwell {

namespace {

constexpr const char *total = "func";
// Where readers of the line look for it.
constexpr SourcePlace report_place{"profiling", 69, "profiling_report"};

float peak_memory_mib() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return static_cast<float>(usage.ru_maxrss) / 1024;
}

float database_mib() {
  struct ::stat status {};
  const std::string path = "/proc/" + std::to_string(::getpid()) + "/fd/4";
  if (::stat(path.c_str(), &status) != 0) {
    return 0;
  }
  return static_cast<float>(status.st_size) / 1024 / 1024;
}

std::string number(double value) {
  std::array<char, 512> text;  // the largest double takes 309 digits
  const int length = std::snprintf(text.data(), text.size(), "%.2f", value);
  return {text.data(), static_cast<std::size_t>(length)};
}

}  // namespace

void profiling_report(const std::map<std::string, double> &timings, const std::string &label) {
  if (!log_enabled(Severity::debug)) {
    return;
  }
  const auto func = timings.find(total);
  std::string text = "[profiling] " + label + ", cpu " + number(func == timings.end() ? 0 : func->second) +
                     ", memory " + number(peak_memory_mib()) + ", database " + number(database_mib());
  for (const auto &[name, value] : timings) {
    if (name != total) {
      text += ", " + name + " " + number(value);
    }
  }
  log_debug(report_place, "%s", text.c_str());
}

}  // namespace dirwell
