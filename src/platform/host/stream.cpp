#include "platform/host/stream.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <cerrno>

#include "platform/host/at_end.h"
#include "platform/host/brief_calls.h"
#include "platform/host/limits.h"

namespace dirwell::host {

namespace {

ssize_t receive_now(int socket, std::span<char> buffer) {
  const BriefCalls brief;
  return ::recv(socket, buffer.data(), buffer.size(), MSG_DONTWAIT);
}

}  // namespace

asio::awaitable<bool> ready(asio::local::stream_protocol::socket &socket, asio::socket_base::wait_type what) {
  boost::system::error_code error;
  co_await socket.async_wait(what, asio::redirect_error(asio::use_awaitable, error));
  co_return !error;
}

Stream::Stream(const asio::any_io_executor &executor, fork_guard::GuardedFd socket)
    : socket_(executor), deadline_(executor), pause_(executor) {
  socket_.assign(asio::local::stream_protocol(), socket.get());
  socket.release(guard_);
}

Stream::~Stream() {
  // Taken out of the loop by name: as long as a forked process held a copy, the kernel would keep reporting it.
  boost::system::error_code ignored;
  OwnedFd socket(socket_.release(ignored));
  const BriefCalls brief;  // what was never read is dropped here
  socket.reset();
}

// One wait at a time: a stream is read or written, never both at once.
asio::awaitable<Stream::Wake> Stream::wait(asio::socket_base::wait_type what, Clock::time_point deadline) {
  if (hung_up_) {
    co_return Wake::cancelled;
  }
  const auto self = shared_from_this();
  const std::size_t wait = ++waits_;
  bool expired = false;
  const AtEnd no_timer([this] {
    ++waits_;
    deadline_.cancel();
  });
  if (deadline != Clock::time_point::max()) {
    deadline_.expires_at(deadline);
    deadline_.async_wait([self, wait, &expired](const boost::system::error_code &error) {
      if (!error && wait == self->waits_) {
        expired = true;
        self->cancel();
      }
    });
  }
  const bool woken = co_await ready(socket_, what);
  co_return woken ? Wake::ready : (expired ? Wake::timeout : Wake::cancelled);
}

std::ptrdiff_t Stream::receive(std::span<char> buffer) {
  while (true) {
    const ssize_t got = receive_now(socket_.native_handle(), buffer);
    if (got >= 0) {
      return got;
    }
    if (errno == EAGAIN) {
      return -1;
    }
    if (errno != EINTR) {
      return 0;
    }
  }
}

asio::awaitable<bool> Stream::send(std::string_view first, std::string_view second, std::string_view third) {
  const auto self = shared_from_this();
  std::array<std::string_view, 3> pieces = {first, second, third};
  Clock::time_point stalled = Clock::time_point::max();
  while (true) {
    std::array<iovec, 3> vectors = {};
    std::size_t count = 0;
    for (const std::string_view piece : pieces) {
      if (!piece.empty()) {
        vectors.at(count++) = {const_cast<char *>(piece.data()), piece.size()};
      }
    }
    if (count == 0) {
      co_return true;
    }
    msghdr message = {};
    message.msg_iov = vectors.data();
    message.msg_iovlen = count;
    const ssize_t sent = ::sendmsg(socket_.native_handle(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0 && errno == EAGAIN) {
      // Counted between bytes that were taken: the kernel tells of room only when there is plenty.
      if (stalled == Clock::time_point::max()) {
        stalled = Clock::now() + limits().stalled;
      }
      if (hung_up_ || Clock::now() >= stalled) {
        co_return false;
      }
      if (co_await wait(asio::socket_base::wait_write, stalled) == Wake::cancelled) {
        co_return false;
      }
      continue;
    }
    if (sent < 0 && errno != EINTR) {
      co_return false;
    }
    stalled = Clock::time_point::max();
    auto left = sent < 0 ? std::size_t{0} : static_cast<std::size_t>(sent);
    for (std::string_view &piece : pieces) {
      const std::size_t part = std::min(left, piece.size());
      piece.remove_prefix(part);
      left -= part;
    }
  }
}

void Stream::send_now(std::string_view text) {
  // A client that reads nothing does not get all of it; there is nobody to tell.
  static_cast<void>(::send(socket_.native_handle(), text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL));
}

void Stream::watch(std::function<void()> on_gone) {
  on_gone_ = std::move(on_gone);
  wait_for_end(++watches_);
}

void Stream::wait_for_end(std::size_t watch) {
  const auto self = shared_from_this();
  socket_.async_wait(asio::socket_base::wait_error, [self, watch](const boost::system::error_code &) {
    if (watch != self->watches_) {
      return;
    }
    if (self->gone()) {
      ++self->watches_;
      const auto on_gone = std::move(self->on_gone_);
      on_gone();
      return;
    }
    // Out-of-band data wakes the wait at once and for as long as nobody reads it, so look again after a while only.
    self->pause_.expires_after(std::chrono::milliseconds(200));
    self->pause_.async_wait([self, watch](const boost::system::error_code &) {
      if (watch == self->watches_) {
        self->wait_for_end(watch);
      }
    });
  });
  // The loop reports changes: what had happened before is asked for.
  if (gone()) {
    cancel();
  }
}

void Stream::unwatch() {
  ++watches_;
  on_gone_ = nullptr;
  pause_.cancel();
  cancel();
}

bool Stream::gone() {
  pollfd watched = {socket_.native_handle(), 0, 0};
  return hung_up_ || (::poll(&watched, 1, 0) > 0 && (watched.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0);
}

// Called while destructors run too: what there is nothing to cancel for is no failure.
void Stream::cancel() {
  boost::system::error_code ignored;
  socket_.cancel(ignored);
}

void Stream::finish() {
  ::shutdown(socket_.native_handle(), SHUT_WR);
}

void Stream::hang_up() {
  hung_up_ = true;
  ::shutdown(socket_.native_handle(), SHUT_RDWR);
  cancel();
}

}  // namespace dirwell::host
