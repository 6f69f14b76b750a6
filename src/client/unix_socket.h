// A stream over a UNIX socket on which every wait has an end.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/asio/buffer.hpp>
#include <boost/system/error_code.hpp>
#include <boost/system/system_error.hpp>
#include <chrono>
#include <string>
#include <utility>

namespace dirwell::client {

// Meets the needs of synchronous HTTP reading and writing. One thread at a time.
class UnixSocket {
 public:
  // Connects to the socket at `path`. Afterwards each read and write fails with errc::timed_out when nothing moves for
  // `patience`. On failure `error` is set and the object must not be used further.
  UnixSocket(const std::string &path, std::chrono::milliseconds patience, boost::system::error_code &error);
  ~UnixSocket() {
    if (descriptor_ >= 0) {
      ::close(descriptor_);
    }
  }
  UnixSocket(const UnixSocket &) = delete;
  UnixSocket &operator=(const UnixSocket &) = delete;

  template <typename Buffers>
  std::size_t read_some(const Buffers &buffers, boost::system::error_code &error) {
    const boost::asio::mutable_buffer first = first_of<boost::asio::mutable_buffer>(buffers);
    error = {};
    return first.size() == 0 ? 0 : receive(first, error);
  }
  template <typename Buffers>
  std::size_t write_some(const Buffers &buffers, boost::system::error_code &error) {
    const boost::asio::const_buffer first = first_of<boost::asio::const_buffer>(buffers);
    error = {};
    return first.size() == 0 ? 0 : send(first, error);
  }
  template <typename Buffers>
  std::size_t read_some(const Buffers &buffers) {
    return thrown([&](boost::system::error_code &error) { return read_some(buffers, error); });
  }
  template <typename Buffers>
  std::size_t write_some(const Buffers &buffers) {
    return thrown([&](boost::system::error_code &error) { return write_some(buffers, error); });
  }

 private:
  template <typename Buffer, typename Buffers>
  static Buffer first_of(const Buffers &buffers) {
    for (auto each = boost::asio::buffer_sequence_begin(buffers); each != boost::asio::buffer_sequence_end(buffers);
         ++each) {
      if (const Buffer buffer(*each); buffer.size() > 0) {
        return buffer;
      }
    }
    return {};
  }
  template <typename Action>
  static std::size_t thrown(Action action) {
    boost::system::error_code error;
    const std::size_t moved = action(error);
    if (error) {
      throw boost::system::system_error(error);
    }
    return moved;
  }

  std::size_t receive(boost::asio::mutable_buffer buffer, boost::system::error_code &error);
  std::size_t send(boost::asio::const_buffer buffer, boost::system::error_code &error);
  bool wait(short events, boost::system::error_code &error) const;

  int descriptor_;
  std::chrono::milliseconds patience_;
};

}  // namespace dirwell::client
