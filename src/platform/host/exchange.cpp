#include "platform/host/exchange.h"

#include <sys/socket.h>
#include <sys/stat.h>

#include <array>
#include <boost/asio/post.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <charconv>
#include <exception>
#include <memory>
#include <optional>
#include <span>
#include <utility>

#include "platform/host/owned_fd.h"

namespace dirwell::host {

// The compiler (GCC 12) evaluates a co_await on the right of && and || even when the left decides. So no condition here
// has one there.

namespace {

// A response that is complete within this size gets a length; a longer one is passed on as it comes.
constexpr std::size_t pending_limit = 64UL * 1024;
constexpr std::size_t read_size = 64UL * 1024;
// A handler and a client that never let the bus wait must not keep it from the others.
constexpr unsigned reads_in_a_row = 16;

// "1F00\r\n"
std::string_view chunk_head(std::size_t size, std::array<char, 24> &buffer) {
  char *end = std::to_chars(buffer.data(), buffer.data() + buffer.size() - 2, size, 16).ptr;
  *end++ = '\r';
  *end++ = '\n';
  return {buffer.data(), static_cast<std::size_t>(end - buffer.data())};
}

}  // namespace

Exchange::~Exchange() {
  client_->unwatch();
  bus_.marks.close(mark_);
}

// Null when there is no socket to be had; throws when memory or the loop has no place for it.
std::unique_ptr<hx_io> Exchange::open(IncomingRequest request, OwnedFd &handler_end) {
  fork_guard::GuardedFd bus_end;
  {
    const fork_guard::NoFork no_fork;
    std::array<int, 2> ends = {-1, -1};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
      return nullptr;
    }
    handler_end = OwnedFd(ends[1]);
    bus_end = fork_guard::GuardedFd(OwnedFd(ends[0]));
    fork_guard::guard(handler_end.get());
  }
  struct stat status = {};
  if (::fstat(handler_end.get(), &status) != 0) {
    return nullptr;
  }
  auto io = std::make_unique<hx_io>();
  io->content = std::move(request.body);
  io->request = std::make_unique<hx_request>();
  hx_request &context = *io->request;
  context.method = std::move(request.method);
  context.path = std::move(request.target.path);
  context.parameters = std::move(request.target.parameters);
  context.descriptor = handler_end.get();
  context.device = status.st_dev;
  context.inode = status.st_ino;
  handler_ = std::make_shared<Stream>(client_->executor(), std::move(bus_end));
  mark_ = bus_.marks.open();
  context.mark = mark_;
  return io;
}

bool Exchange::dispatch(IncomingRequest request) {
  OwnedFd handler_end;
  std::unique_ptr<hx_io> io;
  try {
    io = open(std::move(request), handler_end);
  } catch (const std::exception &) {
    return false;
  }
  if (!io) {
    return false;
  }
  const fork_guard::Dispatching dispatching(handler_end.get());
  hx_request *const context = io->request.get();
  bus_.callback(context, io.release(), handler_end.release());
  return true;
}

asio::awaitable<Exchange::Outcome> Exchange::relay(ResponseTerms terms) {
  terms_ = terms;
  client_->watch([this] { hang_up(); });
  co_await copy();
  // The mark was set before the end of the stream was sent.
  const bool whole = reader_.whole(ReplyMarks::is_set(mark_));
  bool sent = false;
  if (!cut_off_ && !client_->gone()) {
    sent = co_await end_response(whole);
  }
  client_->unwatch();
  if (!sent || !whole || handler_->gone()) {
    handler_->hang_up();
    handler_.reset();
  }
  if (!sent) {
    co_return Outcome::aborted;
  }
  co_return terms_.keep_alive ? Outcome::reusable : Outcome::finished;
}

void Exchange::hang_up() {
  if (handler_) {
    handler_->hang_up();
  }
}

// Until the handler's stream ends, is no response, or the client does not take it any more.
asio::awaitable<void> Exchange::copy() {
  const auto memory = std::make_unique_for_overwrite<char[]>(read_size);
  const std::span<char> buffer(memory.get(), read_size);
  unsigned reads = 0;
  while (true) {
    const std::ptrdiff_t got = handler_->receive(buffer);
    if (got == 0) {
      co_return;
    }
    if (got < 0) {
      if (co_await handler_->readable() != Stream::Wake::ready) {
        co_return;
      }
      continue;
    }
    const std::string_view body = reader_.feed({buffer.data(), static_cast<std::size_t>(got)});
    if (reader_.state() == CgiReader::State::broken) {
      co_return;
    }
    if (!co_await pass_on(body)) {
      cut_off_ = true;
      co_return;
    }
    if (++reads % reads_in_a_row == 0) {
      co_await asio::post(co_await asio::this_coro::executor, asio::use_awaitable);
    }
  }
}

asio::awaitable<bool> Exchange::pass_on(std::string_view body) {
  if (streaming_) {
    co_return co_await send_piece(body);
  }
  pending_.append(body);
  if (pending_.size() <= pending_limit) {
    co_return true;
  }
  streaming_ = true;
  const std::optional<std::uint64_t> length = reader_.head().content_length;
  terms_.keep_alive = terms_.keep_alive && !bus_.stopping && (length || !terms_.http_1_0);
  const std::string head = response_head(reader_.head(), terms_, length);
  const std::string first = std::exchange(pending_, {});
  if (!co_await client_->send(head)) {
    co_return false;
  }
  co_return co_await send_piece(first);
}

asio::awaitable<bool> Exchange::send_piece(std::string_view body) {
  if (body.empty() || terms_.head_only) {
    co_return true;
  }
  if (terms_.http_1_0 || reader_.head().content_length) {
    co_return co_await client_->send(body);
  }
  std::array<char, 24> size;
  co_return co_await client_->send(chunk_head(body.size(), size), body, "\r\n");
}

// What is left to say when the handler's stream has ended; false when the client must see an abrupt end instead.
asio::awaitable<bool> Exchange::end_response(bool whole) {
  if (streaming_) {
    const bool chunked = !terms_.http_1_0 && !reader_.head().content_length && !terms_.head_only;
    if (whole && chunked) {
      co_return co_await client_->send("0\r\n\r\n");
    }
    co_return whole;
  }
  terms_.keep_alive = terms_.keep_alive && !bus_.stopping;
  if (!whole) {
    const std::string response = refusal(502, "The process that handles the request ended without a reply.", terms_);
    co_return co_await client_->send(response);
  }
  const std::string head = response_head(reader_.head(), terms_, pending_.size());
  co_return co_await client_->send(head, terms_.head_only ? std::string_view() : pending_);
}

}  // namespace dirwell::host
