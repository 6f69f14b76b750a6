// A connected socket on the worker's loop. Asio only waits; the reading and writing is done here, without blocking.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <string_view>

#include "platform/host/fork_guard.h"

namespace dirwell::host {

namespace asio = boost::asio;
using Clock = std::chrono::steady_clock;

// Waits until the socket is ready for `what`; false when the wait was cancelled.
asio::awaitable<bool> ready(asio::local::stream_protocol::socket &socket, asio::socket_base::wait_type what);

// Always held by shared_ptr: the waits that are under way keep it alive. Worker only.
class Stream : public std::enable_shared_from_this<Stream> {
 public:
  // Throws when the loop cannot take the socket in.
  Stream(const asio::any_io_executor &executor, fork_guard::GuardedFd socket);
  ~Stream();
  Stream(const Stream &) = delete;
  Stream &operator=(const Stream &) = delete;

  asio::any_io_executor executor() { return socket_.get_executor(); }

  enum class Wake { ready, timeout, cancelled };
  // Waits until something can be read (the end included) or the time has come.
  asio::awaitable<Wake> readable(Clock::time_point deadline = Clock::time_point::max()) {
    return wait(asio::socket_base::wait_read, deadline);
  }

  // What one read gives: a count of bytes, 0 at the end of the stream or when it is broken, -1 when there is nothing
  // yet.
  std::ptrdiff_t receive(std::span<char> buffer);

  // Writes all the pieces, waiting for the reader as long as it goes on reading; false when it has gone, when it has
  // taken nothing for the time of a stalled reader, or when the stream was hung up.
  asio::awaitable<bool> send(std::string_view first, std::string_view second = {}, std::string_view third = {});
  // Writes what can be written now.
  void send_now(std::string_view text);

  // Calls `on_gone` once the peer has gone altogether; a peer that has shut down its sending side is still there. Ends
  // with unwatch(), after which `on_gone` is not called any more.
  void watch(std::function<void()> on_gone);
  void unwatch();

  // The peer has gone altogether, or the stream was hung up.
  [[nodiscard]] bool gone();
  // Wakes a wait that is under way.
  void cancel();
  // No more can be written; the peer reads its end.
  void finish();
  // Ends the stream for both sides and for every holder of the peer's end, in whatever process, and wakes what waits.
  void hang_up();

 private:
  asio::awaitable<Wake> wait(asio::socket_base::wait_type what, Clock::time_point deadline);
  void wait_for_end(std::size_t watch);

  fork_guard::Guarded guard_;  // until after the socket is closed
  asio::local::stream_protocol::socket socket_;
  asio::steady_timer deadline_;
  asio::steady_timer pause_;
  std::size_t waits_ = 0;    // tells a late timer from one that is still meant
  std::size_t watches_ = 0;  // the same for the watch
  bool hung_up_ = false;
  std::function<void()> on_gone_;
};

}  // namespace dirwell::host
