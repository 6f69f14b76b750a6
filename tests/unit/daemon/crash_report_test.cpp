#include "daemon/crash_report.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>

#include "service/log.h"
#include "support/environment.h"

namespace dirwell {
namespace {

using ::testing::MatchesRegex;

struct Crash {
  int status = -1;
  std::vector<std::string> lines;
};

Crash crash_at_level(int level) {
  Crash crash;
  const std::string text = test::captured_stderr([&] {
    crash.status = test::in_child([level] {
      log_level = level;
      prepare_crash_report();
      ::signal(SIGSEGV, on_crash_signal);
      ::raise(SIGSEGV);
    });
  });
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    crash.lines.push_back(line);
  }
  return crash;
}

TEST(CrashReport, NamesTheSignalAndNumbersTheFramesFromOne) {
  const test::ScopedEnvironment zone("TZ", "UTC0");
  const Crash crash = crash_at_level(8);
  EXPECT_TRUE(WIFEXITED(crash.status));
  EXPECT_EQ(WEXITSTATUS(crash.status), 1);
  ASSERT_GE(crash.lines.size(), 3U);
  EXPECT_THAT(crash.lines[0],
              MatchesRegex("[-0-9T:]+-0000 \\[F\\] dirwell\\([0-9]+\\): Segmentation fault \\(pid [0-9]+\\) "
                           ".*unit_daemon.*:"));
  EXPECT_THAT(crash.lines[1], MatchesRegex("[-0-9T:]+-0000 \\[F\\] dirwell\\([0-9]+\\):  1\\. .+"));
  EXPECT_THAT(crash.lines[2], MatchesRegex("[-0-9T:]+-0000 \\[F\\] dirwell\\([0-9]+\\):  2\\. .+"));
  EXPECT_LE(crash.lines.size(), 49U) << "fifty frames at most, less the first two, and the heading";
}

TEST(CrashReport, IsSilentBelowLevelOneButEndsTheProcessAllTheSame) {
  const Crash crash = crash_at_level(0);
  EXPECT_TRUE(WIFEXITED(crash.status));
  EXPECT_EQ(WEXITSTATUS(crash.status), 1);
  EXPECT_TRUE(crash.lines.empty());
}

}  // namespace
}  // namespace dirwell
