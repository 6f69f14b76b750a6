#include "service/profiling.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include "service/log.h"
#include "support/environment.h"
#include "support/temp_dir.h"

namespace dirwell {
namespace {

using ::testing::MatchesRegex;

// What the report says at a level, in a process whose descriptor 4 is `database` (or closed).
std::string report(int level, const std::map<std::string, double> &timings, const std::string &database = "") {
  return test::captured_stderr([&] {
    test::in_child([&] {
      log_level = level;
      ::close(4);
      if (!database.empty() && ::dup2(::open(database.c_str(), O_RDONLY | O_CLOEXEC), 4) != 4) {
        ::_exit(1);
      }
      profiling_report(timings, "fetch");
    });
  });
}

TEST(ProfilingReport, IsSilentAtTheDefaultLevel) {
  EXPECT_EQ(report(6, {{"func", 1.5}}), "");
}

TEST(ProfilingReport, ShowsTotalMemoryAndDatabaseAndTheOtherTimingsByName) {
  const test::ScopedEnvironment zone("TZ", "UTC0");
  const test::TempDir folder;
  const std::string database = folder.write("database", std::string(3 * 1024 * 1024 / 2, 'x'));
  EXPECT_THAT(
      report(7, {{"walk", 0.25}, {"func", 1.5}, {"describe", 0.125}}, database),
      MatchesRegex("[-0-9T:]{19}-0000 \\[D\\] dirwell\\([0-9]+\\): \\(profiling:69\\) \\[profiling\\] fetch, "
                   "cpu 1\\.50, memory [1-9][0-9]*\\.[0-9]{2}, database 1\\.50, describe 0\\.12, walk 0\\.25\n"));
}

TEST(ProfilingReport, ReportsZeroWithoutATotalAndWithoutADatabase) {
  EXPECT_THAT(report(7, {}), MatchesRegex(".*\\[profiling\\] fetch, cpu 0\\.00, memory [0-9.]+, database 0\\.00\n"));
}

}  // namespace
}  // namespace dirwell
