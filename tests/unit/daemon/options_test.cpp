#include "daemon/options.h"

#include <getopt.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "daemon/crash_report.h"
#include "service/log.h"
#include "service/session.h"
#include "support/environment.h"
#include "support/private_root.h"

namespace dirwell {
namespace {

// Reads a command line in a child and ends it with what `check` says of the outcome.
bool after_reading(std::vector<std::string> words, const std::function<bool(StartUp)> &check) {
  int status = -1;
  test::captured_stderr([&] {
    status = test::in_child([&] {
      std::vector<char *> arguments;
      words.insert(words.begin(), "dirwell");
      for (std::string &word : words) {
        arguments.push_back(word.data());
      }
      arguments.push_back(nullptr);
      ::optind = 0;
      const StartUp outcome = read_options(static_cast<int>(words.size()), arguments.data());
      ::_exit(check(outcome) ? 0 : 1);
    });
  });
  return status == 0;
}

bool crash_handler_installed() {
  struct sigaction action {};
  ::sigaction(SIGSEGV, nullptr, &action);
  return action.sa_handler == on_crash_signal;
}

TEST(LevelOption, IsClampedToEightWhereTheCrashHandlerIsInstalled) {
  const struct {
    const char *argument;
    int level;
    bool handler;
  } rows[] = {{"12", 8, true}, {"8", 8, true}, {"7", 7, false}, {"0", 0, false}, {"-3", -3, false}, {"x", 0, false}};
  for (const auto &row : rows) {
    EXPECT_TRUE(after_reading({"--level", row.argument}, [&](StartUp) {
      return log_level == row.level && crash_handler_installed() == row.handler;
    })) << row.argument;
    EXPECT_TRUE(after_reading({std::string("-l") + row.argument}, [&](StartUp) { return log_level == row.level; }))
        << row.argument;
  }
}

TEST(LevelOption, AppliesInArgumentOrder) {
  EXPECT_TRUE(after_reading({"-l", "3", "-l", "7"}, [](StartUp) { return log_level == 7; }));
}

TEST(SidOption, NamesTheSession) {
  EXPECT_TRUE(after_reading({"--sid", "abc"}, [](StartUp) { return Session::instance().sid() == "abc"; }));
  EXPECT_TRUE(after_reading({"-s", "abc"}, [](StartUp) { return Session::instance().sid() == "abc"; }));
  EXPECT_TRUE(after_reading({"--sid=abc"}, [](StartUp) { return Session::instance().sid() == "abc"; }));
}

TEST(ClearOption, EndsTheReading) {
  EXPECT_TRUE(after_reading({"-c", "-s", "abc", "-l", "7"}, [](StartUp outcome) {
    return outcome == StartUp::cleared && Session::instance().sid().empty() && log_level == 6;
  }));
  EXPECT_TRUE(after_reading({"-l", "3", "--clear"},
                            [](StartUp outcome) { return outcome == StartUp::cleared && log_level == 3; }));
}

TEST(UnknownOptions, ArePassedOver) {
  EXPECT_TRUE(after_reading({"-x", "--nonsense", "word", "-l", "4", "-s"}, [](StartUp outcome) {
    return outcome == StartUp::serve && log_level == 4 && Session::instance().sid().empty();
  }));
}

TEST(UnknownOptions, AreNotComplainedAbout) {
  const std::string said = test::captured_stderr([] {
    test::in_child([] {
      char program[] = "dirwell";
      char unknown[] = "--nonsense";
      char missing[] = "-l";
      char *arguments[] = {program, unknown, missing, nullptr};
      ::optind = 0;
      read_options(3, arguments);
    });
  });
  EXPECT_EQ(said, "");
}

}  // namespace
}  // namespace dirwell
