#include "service/fork_gate.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unicode/coll.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <thread>
#include <vector>

#include "platform/include/strata_nas.h"
#include "service/log.h"
#include "service/session.h"
#include "support/environment.h"
#include "support/private_root.h"

namespace dirwell {
namespace {

using namespace std::chrono_literals;

int wait_for(pid_t child) {
  int status = -1;
  ::waitpid(child, &status, 0);
  return status;
}

TEST(ForkGate, LetsSectionsOfOneThreadNest) {
  const fork_gate::Section outer;
  const fork_gate::Section inner;
  SUCCEED();
}

TEST(ForkGate, MakesAForkWaitForAnOpenSection) {
  std::atomic<bool> open{false};
  std::atomic<bool> leaving{false};
  std::thread worker([&] {
    const fork_gate::Section section;
    open = true;
    std::this_thread::sleep_for(100ms);
    leaving = true;
  });
  while (!open) {
    std::this_thread::yield();
  }
  const pid_t child = fork_gate::fork();
  if (child == 0) {
    ::_exit(leaving ? 0 : 1);
  }
  EXPECT_TRUE(leaving);
  EXPECT_EQ(wait_for(child), 0);
  worker.join();
}

TEST(ForkGate, IsOpenInTheChild) {
  const pid_t child = fork_gate::fork();
  if (child == 0) {
    ::alarm(5);
    { const fork_gate::Section section; }
    const pid_t grandchild = fork_gate::fork();
    if (grandchild == 0) {
      const fork_gate::Section section;
      ::_exit(0);
    }
    ::_exit(wait_for(grandchild) == 0 ? 0 : 1);
  }
  EXPECT_EQ(wait_for(child), 0);
}

TEST(ForkGate, LetsForksThroughWhileThreadsOpenSectionsInTightLoops) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      while (!stop) {
        const fork_gate::Section section;
      }
    });
  }
  for (int i = 0; i < 300; ++i) {
    const pid_t child = fork_gate::fork();
    if (child == 0) {
      ::_exit(0);
    }
    ASSERT_EQ(wait_for(child), 0);
  }
  stop = true;
  for (auto &thread : threads) {
    thread.join();
  }
}

void use_database() {
  sqlite3 *database = nullptr;
  sqlite3_open(":memory:", &database);
  sqlite3_exec(database, "CREATE TABLE t (x); INSERT INTO t VALUES (1); SELECT * FROM t;", nullptr, nullptr, nullptr);
  sqlite3_close(database);
}

void use_collation(const char *locale) {
  UErrorCode status = U_ZERO_ERROR;
  const std::unique_ptr<icu::Collator> collator(icu::Collator::createInstance(icu::Locale(locale), status));
  collator->compareUTF8("file9", "file10", status);
}

void use_time_zone() {
  const std::time_t now = std::time(nullptr);
  std::tm fields{};
  ::tzset();
  ::localtime_r(&now, &fields);
}

void use_name_service() {
  char buffer[1024];
  passwd account{};
  passwd *found = nullptr;
  ::getpwuid_r(0, &account, buffer, sizeof buffer, &found);
}

void use_everything(int round) {
  static const char *const locales[] = {"en_US", "cs_CZ", "ja_JP", "th_TH"};
  use_database();
  use_collation(locales[round % 4]);
  use_time_zone();
  use_name_service();
  SMB_Free_Share_Info(SMB_Get_Share_Info());
  Session::instance().alive();
}

// Returns the number of the first fork whose child did not end well, or -1.
int first_bad_fork(int forks) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&stop, i] {
      for (int round = i; !stop; ++round) {
        const fork_gate::Section section;
        use_everything(round);
        log_error("[cache] in the loop");
      }
    });
  }
  int bad = -1;
  for (int i = 0; i < forks && bad < 0; ++i) {
    const pid_t child = fork_gate::fork();
    if (child == 0) {
      ::alarm(10);
      use_everything(i);
      log_error("[cache] in the child");
      ::_exit(0);
    }
    bad = wait_for(child) == 0 ? -1 : i;
  }
  stop = true;
  for (auto &thread : threads) {
    thread.join();
  }
  return bad;
}

#ifdef __SANITIZE_ADDRESS__
constexpr int forks_by_force = 300;  // an instrumented process takes many times as long to fork
#else
constexpr int forks_by_force = 1500;
#endif

// By force: threads that do nothing but what a request process needs too, and a fork a moment. In a child, since the
// process's session is set.
TEST(ForkGate, LeavesNothingLockedInTheChildThatARequestNeeds) {
  const test::ScopedSession session("gate");
  test::write_below_root("etc/samba/smb.conf", "[a]\npath = /share/a\n");
  int status = -1;
  test::captured_stderr([&status] {
    status = test::in_child([] {
      Session::instance().set_sid("gate");
      ::_exit(first_bad_fork(forks_by_force) < 0 ? 0 : 1);
    });
  });
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace dirwell
