#include "client/unix_socket.h"

#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <boost/asio/error.hpp>
#include <cerrno>
#include <climits>
#include <cstring>

namespace dirwell::client {
namespace {

using boost::system::error_code;

error_code last_error() {
  return {errno, boost::system::system_category()};
}

}  // namespace

UnixSocket::UnixSocket(const std::string &path, std::chrono::milliseconds patience, error_code &error)
    : descriptor_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)), patience_(patience) {
  error = {};
  sockaddr_un address{};
  if (descriptor_ < 0) {
    error = last_error();
    return;
  }
  if (path.size() >= sizeof address.sun_path) {
    error = error_code(ENAMETOOLONG, boost::system::system_category());
    return;
  }
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  // Connecting waits while the service has too many callers in its queue; the send limit bounds that wait.
  const timeval limit{patience.count() / 1000, patience.count() % 1000 * 1000};
  if (::setsockopt(descriptor_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0 ||
      ::connect(descriptor_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    error = errno == EAGAIN ? make_error_code(boost::system::errc::timed_out) : last_error();
  }
}

bool UnixSocket::wait(short events, error_code &error) const {
  pollfd ready{descriptor_, events, 0};
  const auto end = std::chrono::steady_clock::now() + patience_;
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
    const int count = ::poll(&ready, 1, static_cast<int>(std::clamp<long long>(left, 0, INT_MAX)));
    if (count > 0) {
      return true;
    }
    if (count == 0) {
      error = make_error_code(boost::system::errc::timed_out);
      return false;
    }
    if (errno != EINTR) {
      error = last_error();
      return false;
    }
  }
}

std::size_t UnixSocket::receive(boost::asio::mutable_buffer buffer, error_code &error) {
  error = {};
  while (wait(POLLIN, error)) {
    const ssize_t got = ::recv(descriptor_, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (got > 0) {
      return static_cast<std::size_t>(got);
    }
    if (got == 0) {
      error = boost::asio::error::eof;
      return 0;
    }
    if (errno != EAGAIN && errno != EINTR) {
      error = last_error();
      return 0;
    }
  }
  return 0;
}

std::size_t UnixSocket::send(boost::asio::const_buffer buffer, error_code &error) {
  error = {};
  while (wait(POLLOUT, error)) {
    const ssize_t sent = ::send(descriptor_, buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent >= 0) {
      return static_cast<std::size_t>(sent);
    }
    if (errno != EAGAIN && errno != EINTR) {
      error = last_error();
      return 0;
    }
  }
  return 0;
}

}  // namespace dirwell::client
