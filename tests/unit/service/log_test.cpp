#include "service/log.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <thread>

#include "support/environment.h"

namespace dirwell {
namespace {

using test::captured_stderr;
using test::ScopedEnvironment;
using ::testing::MatchesRegex;

class ScopedLevel {
 public:
  explicit ScopedLevel(std::int32_t level) : before_(log_level) { log_level = level; }
  ~ScopedLevel() { log_level = before_; }

 private:
  std::int32_t before_;
};

std::string lines_at_level(std::int32_t level) {
  const ScopedLevel scoped(level);
  return captured_stderr([] {
    log_fatal("f");
    log_error("e");
    log_warning("w");
    log_info("i");
    log_debug({"source", 12, "function"}, "d");
    log_trace({"source", 12, "function"}, "t");
  });
}

std::string tags_at_level(std::int32_t level) {
  const std::string lines = lines_at_level(level);
  std::string tags;
  for (std::size_t at = lines.find('['); at != std::string::npos; at = lines.find('[', at + 1)) {
    tags += lines.substr(at + 1, 1);
  }
  return tags;
}

TEST(LogLevel, IsSixWhenTheProcessStarts) {
  EXPECT_EQ(log_level, 6);
}

TEST(LogLevel, LetsEachSeverityThroughAboveItsThreshold) {
  const struct {
    std::int32_t level;
    const char *tags;
  } rows[] = {
      {-3, ""},   {0, ""},     {1, "F"},     {2, "F"},      {3, "FE"},     {4, "FEW"},
      {5, "FEW"}, {6, "FEWI"}, {7, "FEWID"}, {8, "FEWIDT"}, {9, "FEWIDT"},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(tags_at_level(row.level), row.tags) << "level " << row.level;
  }
}

TEST(LogLine, IsStampTagProcessAndMessage) {
  const ScopedEnvironment zone("TZ", "UTC0");
  const std::string line = captured_stderr([] { log_error("[cache] %s %d", "text", 7); });
  const std::string expected_tail = " [E] dirwell(" + std::to_string(::getpid()) + "): [cache] text 7\n";
  ASSERT_GT(line.size(), expected_tail.size());
  EXPECT_EQ(line.substr(line.size() - expected_tail.size()), expected_tail);
  EXPECT_THAT(line.substr(0, line.size() - expected_tail.size()),
              MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}-0000"));
}

// The "C" locale, which the daemon stays in, has no bytes for the letter.
TEST(LogLine, IsWithoutAMessageThatCannotBeMade) {
  const std::string lines = captured_stderr([] {
    log_error("[cache] %ls", L"\u0416");
    log_error("[cache] next");
  });
  EXPECT_THAT(lines, MatchesRegex("[^\n]+ \\[E\\] dirwell\\([0-9]+\\): \n"
                                  "[^\n]+ \\[E\\] dirwell\\([0-9]+\\): \\[cache\\] next\n"));
}

TEST(LogLine, ShowsSourceAndLineAtDebugAndTheFunctionAtTrace) {
  const ScopedLevel level(8);
  const std::string text = captured_stderr([] {
    log_debug({"cache", 41, "open"}, "[cache] initial db %s", "x");
    log_trace({"session", 97, "seteuser"}, "[session] gid = %d", 5);
  });
  const std::string pid = std::to_string(::getpid());
  EXPECT_NE(text.find(" [D] dirwell(" + pid + "): (cache:41) [cache] initial db x\n"), std::string::npos) << text;
  EXPECT_NE(text.find(" [T] dirwell(" + pid + "): (session:97) seteuser() [session] gid = 5\n"), std::string::npos)
      << text;
}

TEST(LogLine, NamesTheCallingFileWithoutFolderAndExtension) {
  EXPECT_EQ(SourcePlace::here().source, "log_test");
  EXPECT_EQ(SourcePlace::here("cache").source, "cache");
  EXPECT_EQ(SourcePlace::here().line, static_cast<unsigned>(__LINE__));
  EXPECT_STREQ(SourcePlace::here().function, "TestBody");
}

TEST(LogLine, OfAnyLengthArrivesWhole) {
  const std::string long_text(200'000, 'x');
  const std::string line = captured_stderr([&] { log_error("%s", long_text.c_str()); });
  EXPECT_NE(line.find(long_text + "\n"), std::string::npos);
}

TEST(LogLine, LeavesErrnoAlone) {
  captured_stderr([] {
    errno = ENOENT;
    log_error("x");
    EXPECT_EQ(errno, ENOENT);
  });
}

TEST(LogLine, OfOneThreadIsNeverInsideAnothers) {
  const std::string text = captured_stderr([] {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([] {
        for (int n = 0; n < 500; ++n) {
          log_error("[cache] abcdefghijklmnopqrstuvwxyz");
        }
      });
    }
    for (auto &thread : threads) {
      thread.join();
    }
  });
  std::size_t lines = 0;
  for (std::size_t start = 0; start < text.size(); ++lines) {
    const std::size_t end = text.find('\n', start);
    ASSERT_NE(end, std::string::npos);
    const std::string line = text.substr(start, end - start);
    ASSERT_EQ(line.substr(line.rfind(')')), "): [cache] abcdefghijklmnopqrstuvwxyz");
    start = end + 1;
  }
  EXPECT_EQ(lines, 2000U);
}

// 2019-03-05 06:07:09 UTC.
constexpr std::time_t instant = 1551766029;

std::string stamp_in(const std::string &zone, std::time_t utc) {
  const ScopedEnvironment scoped("TZ", zone);
  return log_timestamp(utc - ::timezone);
}

TEST(TimeStamp, ShowsLocalStandardTimeAndItsOffset) {
  EXPECT_EQ(stamp_in("CST-8", instant), "2019-03-05T14:07:09+0800");       // east
  EXPECT_EQ(stamp_in("XST5", instant), "2019-03-05T01:07:09-0500");        // west
  EXPECT_EQ(stamp_in("XST5:30", instant), "2019-03-05T00:37:09-0530");     // west, half an hour
  EXPECT_EQ(stamp_in("IST-5:30", instant), "2019-03-05T11:37:09+0530");    // east, half an hour
  EXPECT_EQ(stamp_in("NPT-5:45", instant), "2019-03-05T11:52:09+0545");    // a quarter
  EXPECT_EQ(stamp_in("NST3:30NDT", instant), "2019-03-05T02:37:09-0330");  // with a summer time of its own
}

TEST(TimeStamp, OfUtcCarriesTheMinusSign) {
  EXPECT_EQ(stamp_in("UTC0", instant), "2019-03-05T06:07:09-0000");
}

TEST(TimeStamp, IgnoresDaylightSaving) {
  // 2019-07-01 12:00:00 UTC is 14:00 on the clocks of Berlin, and 13:00 in its standard time.
  EXPECT_EQ(stamp_in("CET-1CEST,M3.5.0,M10.5.0/3", 1561982400), "2019-07-01T13:00:00+0100");
}

TEST(TimeStamp, OfNowIsTheClockMovedByTheStandardOffset) {
  const ScopedEnvironment scoped("TZ", "XST-3:30");
  const std::time_t before = std::time(nullptr);
  const std::time_t local = local_now();
  const std::time_t after = std::time(nullptr);
  EXPECT_GE(local, before + 12600);
  EXPECT_LE(local, after + 12600);
}

TEST(Dprintf, WritesFormattedTextToADescriptor) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  EXPECT_EQ(dirwell::dprintf(ends[1], "%s-%d", "a", 42), 4);
  char text[8] = {};
  EXPECT_EQ(::read(ends[0], text, sizeof text), 4);
  EXPECT_STREQ(text, "a-42");
  ::close(ends[0]);
  ::close(ends[1]);
}

}  // namespace
}  // namespace dirwell
