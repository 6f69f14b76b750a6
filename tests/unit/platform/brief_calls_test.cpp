// Open files that a client sends along with its bytes, and whose close would wait.

#include "platform/host/brief_calls.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <cstring>
#include <memory>
#include <vector>

#include "platform/bus_service.h"
#include "platform/host/stream.h"
#include "platform/host/worker.h"

namespace dirwell::test {
namespace {

using Clock = std::chrono::steady_clock;

// A connection of this machine with itself whose far end reads nothing: full, and to be closed only when all has been
// taken or ten seconds are over.
class WaitingConnection {
 public:
  WaitingConnection() {
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    near_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool connected = ::bind(listener, reinterpret_cast<sockaddr *>(&address), size) == 0 &&
                           ::listen(listener, 1) == 0 &&
                           ::getsockname(listener, reinterpret_cast<sockaddr *>(&address), &size) == 0 &&
                           ::connect(near_, reinterpret_cast<sockaddr *>(&address), size) == 0;
    far_ = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    ::close(listener);
    EXPECT_TRUE(connected);
    const std::vector<char> bytes(1 << 16);
    while (::send(near_, bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
    }
    const linger wait = {1, 10};
    ::setsockopt(near_, SOL_SOCKET, SO_LINGER, &wait, sizeof wait);
  }
  ~WaitingConnection() {
    ::close(far_);
    if (near_ >= 0) {
      ::close(near_);
    }
  }
  WaitingConnection(const WaitingConnection &) = delete;
  WaitingConnection &operator=(const WaitingConnection &) = delete;

  // Sends `text` and the near end of the connection, which is closed here. False when the kernel refuses that.
  bool hand_over(int socket, std::string text) {
    iovec bytes = {text.data(), text.size()};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control = {};
    msghdr message = {};
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr *header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(header), &near_, sizeof(int));
    if (::sendmsg(socket, &message, MSG_NOSIGNAL) != static_cast<ssize_t>(text.size())) {
      return false;
    }
    ::close(std::exchange(near_, -1));
    return true;
  }

 private:
  int near_ = -1;
  int far_ = -1;
};

// A stream on the worker, and the far end of its socket, which takes files on every kernel.
class BriefCalls : public testing::Test {
 protected:
  BriefCalls() {
    std::array<int, 2> ends = {-1, -1};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    stream_ = std::make_shared<host::Stream>(loop_.get_executor(), host::fork_guard::GuardedFd(host::OwnedFd(ends[0])));
    far_ = host::OwnedFd(ends[1]);
  }

  boost::asio::io_context loop_;
  std::shared_ptr<host::Stream> stream_;
  host::OwnedFd far_;
};

TEST_F(BriefCalls, ReadWhatComesWithFilesWithoutAWait) {
  const host::WorkerScope worker;
  WaitingConnection connection;
  ASSERT_TRUE(connection.hand_over(far_.get(), "text"));
  std::array<char, 8> buffer = {};
  const auto begin = Clock::now();
  EXPECT_EQ(stream_->receive(buffer), 4);
  EXPECT_LT(Clock::now() - begin, 1s);
  EXPECT_STREQ(buffer.data(), "text");
  EXPECT_EQ(stream_->receive(buffer), -1) << "nothing more yet";
}

TEST_F(BriefCalls, DropWhatWasNeverReadWithoutAWait) {
  const host::WorkerScope worker;
  std::vector<std::unique_ptr<WaitingConnection>> connections;
  for (int count = 0; count < 5; ++count) {
    connections.push_back(std::make_unique<WaitingConnection>());
    ASSERT_TRUE(connections.back()->hand_over(far_.get(), "text"));
  }
  const auto begin = Clock::now();
  stream_.reset();
  EXPECT_LT(Clock::now() - begin, 1s);
}

TEST_F(BriefCalls, OfAServiceServeTheOthers) {
  const ServiceProcess service(echo);
  Client hostile(service);
  Client other(service);
  EXPECT_EQ(other.ask(post("/x", "before")).body, "[\"before\"]");
  WaitingConnection connection;
  connection.hand_over(hostile.socket(), "POST /x HTTP/1.1\r\n");  // or the kernel refuses
  const auto begin = Clock::now();
  EXPECT_EQ(other.ask(post("/x", "after")).body, "[\"after\"]");
  EXPECT_LT(Clock::now() - begin, 1s);
  hostile.close();
  EXPECT_EQ(other.ask(post("/x", "last")).body, "[\"last\"]");
  EXPECT_LT(Clock::now() - begin, 1s);
}

}  // namespace
}  // namespace dirwell::test
