// Handlers that outlive their reply, at the end of all: no connection is left that would hang up on them.

#include "platform/host/kept_handlers.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <boost/asio/io_context.hpp>
#include <memory>
#include <vector>

namespace dirwell::host {
namespace {

class KeptHandlersTest : public testing::Test {
 protected:
  // Keeps the bus's end of a new handler, which is given; the handler's own is the last of `handlers`.
  std::weak_ptr<Stream> keep_another(KeptHandlers &kept) {
    std::array<int, 2> ends = {-1, -1};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()), 0);
    handlers.emplace_back(ends[1]);
    const auto stream = std::make_shared<Stream>(loop.get_executor(), fork_guard::GuardedFd(OwnedFd(ends[0])));
    kept.keep(this, stream);
    return stream;
  }
  // Whether the handler can tell that its client has gone.
  [[nodiscard]] bool let_go(std::size_t number) const {
    pollfd watched = {handlers.at(number).get(), POLLRDHUP, 0};
    return ::poll(&watched, 1, 0) == 1;
  }

  boost::asio::io_context loop{1};
  std::vector<OwnedFd> handlers;
};

TEST_F(KeptHandlersTest, AreLetGoWhenTheyAreCleared) {
  KeptHandlers kept(10);
  keep_another(kept);
  keep_another(kept);
  loop.poll();
  EXPECT_FALSE(let_go(0));
  EXPECT_FALSE(let_go(1));
  kept.clear();
  loop.restart();
  loop.poll();  // what they waited for
  EXPECT_TRUE(let_go(0));
  EXPECT_TRUE(let_go(1));
}

TEST_F(KeptHandlersTest, AreForgottenOnceTheyHaveGone) {
  KeptHandlers kept(10);
  const std::weak_ptr<Stream> first = keep_another(kept);
  keep_another(kept);
  loop.poll();
  EXPECT_FALSE(first.expired());
  handlers.front().reset();
  loop.restart();
  loop.poll();
  EXPECT_TRUE(first.expired());
  EXPECT_FALSE(let_go(1));
  kept.clear();
  loop.restart();
  loop.poll();
  EXPECT_TRUE(let_go(1));
}

}  // namespace
}  // namespace dirwell::host
