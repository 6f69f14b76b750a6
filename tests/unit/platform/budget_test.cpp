// How the descriptors of a process are shared out.

#include "platform/host/budget.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ostream>

#include "support/environment.h"
#include "support/refused_calls.h"

namespace dirwell::host {

void PrintTo(const Budget &budget, std::ostream *out) {
  *out << budget.connections << " places, " << budget.kept << " kept, " << budget.lingering << " lingering, "
       << budget.waiting << " waiting";
}

namespace {

TEST(Budget, GivesEveryoneTheirLimitWhereDescriptorsAreAsManyAsUsual) {
  EXPECT_EQ(share_out(1024), (Budget{128, 128, 64, 280}));
  EXPECT_EQ(share_out(1 << 20), (Budget{128, 128, 64, 4096}));
}

TEST(Budget, GivesLessWhereDescriptorsAreFew) {
  EXPECT_EQ(share_out(320), (Budget{40, 40, 20, 60}));
  EXPECT_EQ(share_out(64), (Budget{4, 4, 2, 10}));
}

TEST(Budget, LeavesTheDaemonItsOwn) {
  for (std::size_t descriptors = 40; descriptors < 5000; ++descriptors) {
    const Budget budget = share_out(descriptors);
    // A place's request, whose client has gone, may be held as long as the place is.
    const std::size_t most = 4 * budget.connections + budget.kept + budget.lingering + budget.waiting;
    EXPECT_LE(most + std::min<std::size_t>(descriptors / 2, 40), descriptors) << descriptors;
  }
}

TEST(Budget, LeavesNobodyWithoutAny) {
  EXPECT_EQ(share_out(0), (Budget{1, 1, 1, 1}));
  EXPECT_EQ(share_out(16), (Budget{1, 1, 1, 2}));
}

TEST(Budget, IsOfWhatTheProcessMayHold) {
  EXPECT_EQ(test::in_child([] {
              rlimit files = {};
              ::getrlimit(RLIMIT_NOFILE, &files);
              files.rlim_cur = 320;
              ::setrlimit(RLIMIT_NOFILE, &files);
              ::_exit(budget_of_process() == Budget{40, 40, 20, 60} ? 0 : 1);
            }),
            0);
}

TEST(Budget, IsTheLeastWhereNobodyTellsWhatTheProcessMayHold) {
  EXPECT_EQ(test::in_child([] {
              test::refuse_calls(SYS_prlimit64, EPERM);
              ::_exit(budget_of_process() == Budget{1, 1, 1, 1} ? 0 : 1);
            }),
            0);
}

}  // namespace
}  // namespace dirwell::host
