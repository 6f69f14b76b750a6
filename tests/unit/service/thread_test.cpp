#include "service/thread.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/environment.h"

namespace dirwell {
namespace {

struct Seen {
  int policy = -1;
  bool terminate_blocked = false;
  bool fault_blocked = true;
};

void *look(void *argument) {
  auto &seen = *static_cast<Seen *>(argument);
  sched_param parameters{};
  ::pthread_getschedparam(::pthread_self(), &seen.policy, &parameters);
  sigset_t mask;
  ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  seen.terminate_blocked = ::sigismember(&mask, SIGTERM) == 1 && ::sigismember(&mask, SIGUSR1) == 1;
  seen.fault_blocked = ::sigismember(&mask, SIGSEGV) == 1;
  return nullptr;
}

bool round_robin_is_allowed() {
  sched_param parameters{};
  parameters.sched_priority = ::sched_get_priority_min(SCHED_RR);
  return WEXITSTATUS(test::in_child([&] {
           if (::sched_setscheduler(0, SCHED_RR, &parameters) != 0) {
             ::_exit(1);
           }
         })) == 0;
}

TEST(StartThread, RunsRoundRobinWhereTheKernelAllows) {
  Seen seen;
  pthread_t thread{};
  ASSERT_EQ(start_thread(thread, look, &seen), 0);
  ::pthread_join(thread, nullptr);
  EXPECT_EQ(seen.policy, round_robin_is_allowed() ? SCHED_RR : SCHED_OTHER);
}

TEST(StartThread, StartsAlsoWhereTheKernelRefusesThePolicy) {
  EXPECT_EQ(test::in_child([] {
              if (::setuid(65534) != 0) {
                ::_exit(2);
              }
              Seen seen;
              pthread_t thread{};
              if (start_thread(thread, look, &seen) != 0) {
                ::_exit(1);
              }
              ::pthread_join(thread, nullptr);
              ::_exit(seen.policy == SCHED_OTHER ? 0 : 3);
            }),
            0);
}

TEST(StartThread, BlocksSignalsButNotFaults) {
  Seen seen;
  pthread_t thread{};
  ASSERT_EQ(start_thread(thread, look, &seen), 0);
  ::pthread_join(thread, nullptr);
  EXPECT_TRUE(seen.terminate_blocked);
  EXPECT_FALSE(seen.fault_blocked);
  sigset_t mask;
  ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  EXPECT_EQ(::sigismember(&mask, SIGTERM), 0) << "the starting thread keeps its own mask";
}

}  // namespace
}  // namespace dirwell
