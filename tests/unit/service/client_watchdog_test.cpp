#include "service/client_watchdog.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/environment.h"

namespace dirwell {
namespace {

// An io without a client counts as alive; a client that goes is tested with the bus, over a real connection.
TEST(ClientWatchdog, LetsARequestRunWhoseClientIsThere) {
  EXPECT_EQ(test::in_child([] {
              hx_io *io = hx_io_create();
              ClientWatchdog::instance().start(io, 1);
              ::sleep(2);
              ClientWatchdog::instance().stop();
              hx_io_free(io);
            }),
            0);
}

TEST(ClientWatchdog, MayBeStoppedWithoutAStartAndTwice) {
  EXPECT_EQ(test::in_child([] {
              ClientWatchdog::instance().stop();
              hx_io *io = hx_io_create();
              ClientWatchdog::instance().start(io, 60);
              ClientWatchdog::instance().start(io, 60);
              ClientWatchdog::instance().stop();
              ClientWatchdog::instance().stop();
              hx_io_free(io);
            }),
            0);
}

}  // namespace
}  // namespace dirwell
