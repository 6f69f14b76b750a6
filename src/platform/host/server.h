// The loop of a service: listens, admits, serves, stops.
#pragma once

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "platform/host/admission.h"
#include "platform/host/at_end.h"
#include "platform/host/budget.h"
#include "platform/host/connection.h"
#include "platform/host/exchange.h"
#include "platform/host/socket_file.h"
#include "platform/host/stream.h"

namespace dirwell::host {

class Server {
 public:
  // `stop_event` is an eventfd that becomes readable when the service is to stop; the caller keeps it open.
  Server(const std::string &service, hx_request_callback callback, int stop_event);
  ~Server();
  Server(const Server &) = delete;
  Server &operator=(const Server &) = delete;

  // Begins to listen; false with errno set on failure.
  bool listen(const std::string &path);
  // Serves until the stop event; the calling thread is the worker. Throws when the loop itself fails, but never for
  // want of memory.
  void run();

 private:
  using Task = asio::awaitable<void> (Server::*)(AtEnd ends);
  void keep_up(bool &runs, Task task);
  asio::awaitable<void> accept(AtEnd ends);
  asio::awaitable<void> pause();
  asio::awaitable<void> wait_for_stop(AtEnd ends);
  asio::awaitable<void> attend(std::shared_ptr<Connection> connection, AtEnd leaves);
  asio::awaitable<void> drain(std::shared_ptr<Stream> client, AtEnd leaves);
  fork_guard::GuardedFd next_client();
  void take(fork_guard::GuardedFd client);
  void serve(fork_guard::GuardedFd client);
  void refuse(fork_guard::GuardedFd client, int status, std::string_view detail);
  bool may_wait();
  void ended(const std::shared_ptr<Connection> &connection);
  void hand_places_on();
  void linger(const std::shared_ptr<Stream> &client);
  void drop_left_clients();
  void release_listener();
  void stop();

  const Budget budget_;
  Bus bus_;  // outlives the loop, which may still hold connections
  std::set<int> descriptors_before_;
  bool awaits_stop_ = false;
  bool accepts_ = false;
  bool lost_ = false;     // one of the two, or memory: the loop begins anew
  bool hung_up_ = false;  // the service has stopped, and nobody waits for it any more
  bool hands_on_ = false;
  bool over_ = false;  // the loop destroys coroutines when the rest of this object has gone
  asio::io_context loop_;
  std::vector<fork_guard::Guarded> loop_guards_;  // of the loop's own descriptors
  Admission admission_;
  fork_guard::Guarded listener_guard_;  // until after the file is closed
  SocketFile file_;
  std::optional<asio::local::stream_protocol::socket> listener_;
  asio::posix::stream_descriptor stop_event_;
  asio::steady_timer accept_pause_;
  asio::steady_timer stop_limit_;
  std::deque<fork_guard::GuardedFd> waiting_;  // admitted, without a place yet
  Clock::time_point next_look_;                // for those of them that have left
  std::unordered_set<std::shared_ptr<Connection>> connections_;
  std::unordered_set<std::shared_ptr<Stream>> lingering_;
};

}  // namespace dirwell::host
