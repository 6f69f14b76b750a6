#include "platform/host/server.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <cerrno>
#include <exception>
#include <new>
#include <thread>
#include <utility>

#include "platform/host/brief_calls.h"
#include "platform/host/limits.h"
#include "platform/host/loop_descriptors.h"
#include "platform/host/response_head.h"

namespace dirwell::host {

namespace {

void fail(const std::exception_ptr &error) {
  if (error) {
    std::rethrow_exception(error);
  }
}

// Of one client: it concerns no other.
void forget(const std::exception_ptr & /*error*/) {}

}  // namespace

Server::Server(const std::string &service, hx_request_callback callback, int stop_event)
    : budget_(budget_of_process()),
      bus_(callback, budget_.kept),
      descriptors_before_(event_descriptors()),
      loop_(1),
      admission_(service),
      stop_event_(loop_),
      accept_pause_(loop_),
      stop_limit_(loop_) {
  for (const int descriptor : event_descriptors()) {
    if (!descriptors_before_.contains(descriptor)) {
      loop_guards_.emplace_back(descriptor);
    }
  }
  // Last: if a later step failed, the descriptor, which is the caller's, would be closed with this object.
  stop_event_.assign(stop_event);
}

Server::~Server() {
  over_ = true;
  bus_.kept.clear();
  static_cast<void>(stop_event_.release());
  release_listener();
}

bool Server::listen(const std::string &path) {
  if (!file_.open(path)) {
    return false;
  }
  listener_guard_ = fork_guard::Guarded(file_.descriptor());
  listener_.emplace(loop_, asio::local::stream_protocol(), file_.descriptor());
  return true;
}

// The loop only waits at the socket; the file owns it.
void Server::release_listener() {
  if (listener_) {
    boost::system::error_code ignored;
    listener_->release(ignored);
    listener_.reset();
  }
}

// Where memory runs out, what was under way is lost and the service goes on: others may give some back.
void Server::run() {
  do {
    lost_ = false;
    try {
      keep_up(awaits_stop_, &Server::wait_for_stop);
      if (!bus_.stopping) {
        keep_up(accepts_, &Server::accept);
      }
      loop_.restart();
      loop_.run();
    } catch (const std::bad_alloc &) {
      lost_ = true;
      std::this_thread::sleep_for(limits().pause);
    }
  } while (lost_);
}

void Server::keep_up(bool &runs, Task task) {
  if (!runs) {
    // A coroutine that is lost may be destroyed after the loop has gone on without it, so the loop is stopped again.
    AtEnd ends([this, &runs] {
      runs = false;
      if (!over_ && !hung_up_) {
        lost_ = true;
        loop_.stop();
      }
    });
    runs = true;
    asio::co_spawn(loop_, (this->*task)(std::move(ends)), fail);
  }
}

asio::awaitable<void> Server::accept([[maybe_unused]] AtEnd ends) {
  while (!bus_.stopping) {
    fork_guard::GuardedFd client = next_client();
    if (client.valid()) {
      take(std::move(client));
      co_await asio::post(loop_, asio::use_awaitable);
    } else if (errno == EAGAIN) {
      if (!co_await ready(*listener_, asio::socket_base::wait_read)) {
        co_return;
      }
    } else if (errno != EINTR && errno != ECONNABORTED) {
      co_await pause();  // out of descriptors or memory, which others may give back
    }
  }
}

// Invalid with errno set when there is none or none can be taken.
fork_guard::GuardedFd Server::next_client() {
  const fork_guard::NoFork no_fork;
  return fork_guard::GuardedFd(OwnedFd(::accept4(file_.descriptor(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)));
}

asio::awaitable<void> Server::pause() {
  boost::system::error_code ignored;
  accept_pause_.expires_after(limits().pause);
  co_await accept_pause_.async_wait(asio::redirect_error(asio::use_awaitable, ignored));
}

void Server::take(fork_guard::GuardedFd client) {
  uid_t user = 0;
  if (!peer_user(client.get(), user)) {
    return;
  }
  try {
    if (!admission_.admits(user)) {
      refuse(std::move(client), 403, "The caller is not admitted to this service.");
    } else if (connections_.size() < budget_.connections) {
      serve(std::move(client));
    } else if (may_wait()) {
      waiting_.push_back(std::move(client));
    } else {
      refuse(std::move(client), 503, "Too many clients wait for this service.");
    }
  } catch (const std::exception &) {
    // Out of memory or descriptors: this client is lost, the service goes on.
  }
}

void Server::serve(fork_guard::GuardedFd client) {
  auto stream = std::make_shared<Stream>(loop_.get_executor(), std::move(client));
  auto connection = std::make_shared<Connection>(bus_, std::move(stream),
                                                 [this](const std::shared_ptr<Stream> &left) { linger(left); });
  AtEnd leaves([this, connection] { ended(connection); });
  connections_.insert(connection);
  asio::co_spawn(loop_, attend(connection, std::move(leaves)), forget);
}

asio::awaitable<void> Server::attend(std::shared_ptr<Connection> connection, [[maybe_unused]] AtEnd leaves) {
  co_await connection->serve();
}

void Server::refuse(fork_guard::GuardedFd client, int status, std::string_view detail) {
  auto stream = std::make_shared<Stream>(loop_.get_executor(), std::move(client));
  stream->send_now(refusal(status, detail, {}));
  linger(stream);
}

// Nobody is left in the kernel's queue instead: a caller that is not admitted would wait there too.
bool Server::may_wait() {
  if (waiting_.size() >= budget_.waiting && Clock::now() >= next_look_) {
    next_look_ = Clock::now() + limits().pause;
    drop_left_clients();
  }
  return waiting_.size() < budget_.waiting;
}

void Server::ended(const std::shared_ptr<Connection> &connection) {
  if (over_) {
    return;
  }
  connections_.erase(connection);
  if (bus_.stopping) {
    if (connections_.empty()) {
      stop_limit_.cancel();
    }
  } else if (!hands_on_) {
    hands_on_ = true;
    hand_places_on();
    hands_on_ = false;
  }
}

void Server::hand_places_on() {
  while (!waiting_.empty() && connections_.size() < budget_.connections) {
    fork_guard::GuardedFd client = std::move(waiting_.front());
    waiting_.pop_front();
    try {
      serve(std::move(client));  // may come back to ended()
    } catch (const std::exception &) {
      // As in take().
    }
  }
}

// Places go to clients that are still there.
void Server::drop_left_clients() {
  std::vector<pollfd> clients;
  clients.reserve(waiting_.size());
  for (const fork_guard::GuardedFd &client : waiting_) {
    clients.push_back({client.get(), 0, 0});
  }
  if (::poll(clients.data(), clients.size(), 0) > 0) {
    const BriefCalls brief;
    auto looked_at = clients.cbegin();
    std::erase_if(waiting_, [&](const fork_guard::GuardedFd &) { return (looked_at++)->revents != 0; });
  }
}

void Server::linger(const std::shared_ptr<Stream> &client) {
  client->finish();
  if (lingering_.size() < budget_.lingering && !bus_.stopping) {
    AtEnd leaves([this, client] {
      if (!over_) {
        lingering_.erase(client);
      }
    });
    lingering_.insert(client);
    asio::co_spawn(loop_, drain(client, std::move(leaves)), forget);
  }
}

// A client that is still sending would fail at that and never read its answer, so what it sends is taken and dropped
// for a while.
asio::awaitable<void> Server::drain(std::shared_ptr<Stream> client, [[maybe_unused]] AtEnd leaves) {
  constexpr std::size_t bytes_limit = 64UL * 1024 * 1024;
  const Clock::time_point deadline = Clock::now() + limits().linger;
  std::array<char, 4096> chunk;  // a client that has its reply rarely sends more
  for (std::size_t dropped = 0; dropped < bytes_limit && Clock::now() < deadline && !bus_.stopping;) {
    const std::ptrdiff_t got = client->receive(chunk);
    if (got == 0) {
      co_return;
    }
    if (got > 0) {
      dropped += static_cast<std::size_t>(got);
      co_await asio::post(loop_, asio::use_awaitable);
    } else if (co_await client->readable(deadline) != Stream::Wake::ready) {
      co_return;
    }
  }
}

asio::awaitable<void> Server::wait_for_stop([[maybe_unused]] AtEnd ends) {
  boost::system::error_code ignored;
  co_await stop_event_.async_wait(asio::posix::stream_descriptor::wait_read,
                                  asio::redirect_error(asio::use_awaitable, ignored));
  stop();
  if (!connections_.empty()) {
    stop_limit_.expires_after(limits().stop);
    co_await stop_limit_.async_wait(asio::redirect_error(asio::use_awaitable, ignored));
  }
  for (const auto &connection : connections_) {
    connection->hang_up();
  }
  hung_up_ = true;
}

void Server::stop() {
  bus_.stopping = true;
  release_listener();
  file_.close();
  listener_guard_ = {};
  accept_pause_.cancel();
  {
    const BriefCalls brief;
    waiting_.clear();
  }
  for (const auto &connection : connections_) {
    connection->stop();
  }
  for (const auto &client : lingering_) {
    client->cancel();
  }
}

}  // namespace dirwell::host
