// Calling another service.

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <cerrno>
#include <chrono>
#include <new>
#include <string>
#include <string_view>

#include "platform/host/io.h"
#include "platform/host/owned_fd.h"
#include "platform/host/socket_file.h"
#include "platform/include/hxservice.h"

namespace dirwell::host {

namespace {

namespace http = boost::beast::http;
using Clock = std::chrono::steady_clock;
using ReplyParser = http::response_parser<http::string_body>;

constexpr std::size_t reply_limit = 16UL * 1024 * 1024;

// Gives the next blocking operation on the socket what is left of the time; false with ETIMEDOUT when that is nothing.
bool limit_next(int socket, int option, Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now()).count();
  if (left <= 0) {
    errno = ETIMEDOUT;
    return false;
  }
  timeval limit = {};
  limit.tv_sec = left / 1'000'000;
  limit.tv_usec = left % 1'000'000;
  return ::setsockopt(socket, SOL_SOCKET, option, &limit, sizeof(limit)) == 0;
}

bool timed_out() {
  errno = errno == EAGAIN || errno == EINPROGRESS ? ETIMEDOUT : errno;
  return false;
}

bool send_all(int socket, std::string_view text, Clock::time_point deadline) {
  while (!text.empty()) {
    if (!limit_next(socket, SO_SNDTIMEO, deadline)) {
      return false;
    }
    const ssize_t sent = ::send(socket, text.data(), text.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno != EINTR) {
      return timed_out();
    }
    text.remove_prefix(sent < 0 ? 0 : static_cast<std::size_t>(sent));
  }
  return true;
}

// Reads one whole response.
bool read_reply(int socket, ReplyParser &parser, Clock::time_point deadline) {
  parser.body_limit(reply_limit);
  parser.eager(true);
  std::string buffer;
  std::array<char, 16UL * 1024> chunk;
  boost::beast::error_code error;
  while (!parser.is_done()) {
    if (!limit_next(socket, SO_RCVTIMEO, deadline)) {
      return false;
    }
    const ssize_t got = ::recv(socket, chunk.data(), chunk.size(), 0);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got < 0) {
      return timed_out();
    }
    if (got == 0) {
      if (parser.got_some()) {  // the parser may not be told of the end of nothing
        parser.put_eof(error);
      } else {
        error = http::error::end_of_stream;
      }
      errno = ECONNRESET;
      return !error;
    }
    buffer.append(chunk.data(), static_cast<std::size_t>(got));
    buffer.erase(0, parser.put(boost::asio::buffer(buffer), error));
    if (error && error != http::error::need_more) {
      errno = error == http::error::body_limit ? EMSGSIZE : EPROTO;
      return false;
    }
  }
  return true;
}

bool write_all(int descriptor, std::string_view text, Clock::time_point deadline) {
  constexpr std::size_t piece = 4096;  // what a pipe that is ready to be written takes without blocking
  while (!text.empty()) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd watched = {descriptor, POLLOUT, 0};
    const int ready = left <= 0 ? 0 : ::poll(&watched, 1, static_cast<int>(std::min<decltype(left)>(left, 60'000)));
    if (ready == 0 && left <= 0) {
      errno = ETIMEDOUT;
      return false;
    }
    if (ready <= 0) {
      if (ready < 0 && errno != EINTR) {
        return false;
      }
      continue;
    }
    const ssize_t written = ::write(descriptor, text.data(), std::min(text.size(), piece));
    if (written < 0 && errno != EINTR && errno != EAGAIN) {
      return false;
    }
    text.remove_prefix(written < 0 ? 0 : static_cast<std::size_t>(written));
  }
  return true;
}

// Endpoint names stand in the path of the target.
std::string percent_encoded(std::string_view name) {
  constexpr std::string_view digits = "0123456789ABCDEF";
  std::string encoded;
  for (const char letter : name) {
    const auto byte = static_cast<unsigned char>(letter);
    const bool plain = (byte >= '0' && byte <= '9') || (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
                       std::string_view("-._~").find(letter) != std::string_view::npos;
    if (plain) {
      encoded.push_back(letter);
    } else {
      encoded.append({'%', digits[byte / 16U], digits[byte % 16U]});
    }
  }
  return encoded;
}

int call(const char *service, const char *endpoint, hx_io &io, std::chrono::seconds limit, int reply_descriptor) {
  const Clock::time_point deadline = Clock::now() + limit;
  const OwnedFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket.valid() || !limit_next(socket.get(), SO_SNDTIMEO, deadline)) {
    return -1;
  }
  if (connect_to(socket.get(), socket_path(service)) != 0) {
    timed_out();
    return -1;
  }
  std::string head = "POST /" + percent_encoded(endpoint) + " HTTP/1.1\r\nHost: localhost\r\n";
  head.append("Content-Type: application/json; charset=utf-8\r\nContent-Length: ");
  head.append(std::to_string(io.content.size())).append("\r\nConnection: close\r\n\r\n");
  ReplyParser parser;
  // A service that refuses the request may answer before it has read all of it.
  static_cast<void>(send_all(socket.get(), head, deadline) && send_all(socket.get(), io.content, deadline));
  if (!read_reply(socket.get(), parser, deadline)) {
    return -1;
  }
  std::string &body = parser.get().body();
  if (reply_descriptor < 0) {
    io.content = std::move(body);
  } else if (!write_all(reply_descriptor, body, deadline)) {
    return -1;
  }
  return static_cast<int>(parser.get().result_int());
}

}  // namespace

}  // namespace dirwell::host

int hx_call(const char *service, const char *endpoint, hx_io *io, int timeout_seconds, int reply_descriptor) {
  if (service == nullptr || endpoint == nullptr || io == nullptr || timeout_seconds <= 0) {
    errno = EINVAL;
    return -1;
  }
  try {
    return dirwell::host::call(service, endpoint, *io, std::chrono::seconds(timeout_seconds), reply_descriptor);
  } catch (const std::bad_alloc &) {
    errno = ENOMEM;
    return -1;
  }
}
