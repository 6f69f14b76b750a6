#include "service/client_watchdog.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>

#include "platform/host/io.h"
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

// An io whose client has gone: its request's descriptor leads nowhere.
hx_io *io_of_a_client_that_has_gone() {
  hx_io *io = hx_io_create();
  io->request = std::make_unique<hx_request>();
  return io;
}

TEST(ClientWatchdog, EndsARequestWhoseClientHasGone) {
  EXPECT_EQ(test::in_child([] {
              ClientWatchdog::instance().start(io_of_a_client_that_has_gone(), 1);
              ::sleep(10);
              ::_exit(7);
            }),
            W_EXITCODE(1, 0));
}

TEST(ClientWatchdog, LooksAtTheIoThatItWasGivenLast) {
  EXPECT_EQ(test::in_child([] {
              ClientWatchdog::instance().start(io_of_a_client_that_has_gone(), 1);
              ClientWatchdog::instance().start(hx_io_create(), 60);  // the time stays the first
              ::sleep(3);
              ::_exit(7);
            }),
            W_EXITCODE(7, 0));
  EXPECT_EQ(test::in_child([] {
              ClientWatchdog::instance().start(hx_io_create(), 1);
              ClientWatchdog::instance().start(io_of_a_client_that_has_gone(), 60);
              ::sleep(10);
              ::_exit(7);
            }),
            W_EXITCODE(1, 0));
}

}  // namespace
}  // namespace dirwell
