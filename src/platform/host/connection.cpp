#include "platform/host/connection.h"

#include <array>
#include <span>
#include <utility>

#include "platform/host/limits.h"

namespace dirwell::host {

namespace {

constexpr std::size_t read_size = 16UL * 1024;

// What a connection is busy with, for as long as it is.
class Current {
 public:
  // NOLINTNEXTLINE(cppcoreguidelines-prefer-member-initializer): what the member refers to is written
  Current(Exchange *&place, Exchange &exchange) : place_(place) { place_ = &exchange; }
  ~Current() { place_ = nullptr; }
  Current(const Current &) = delete;
  Current &operator=(const Current &) = delete;

 private:
  Exchange *&place_;
};

}  // namespace

Connection::~Connection() {
  bus_.kept.hang_up(this);
}

asio::awaitable<void> Connection::serve() {
  const auto self = shared_from_this();
  for (bool first = true;; first = false) {
    RequestReader reader;
    if (!co_await read_request(reader, first)) {
      co_return;
    }
    const Exchange::Outcome outcome = co_await answer(reader);
    if (outcome == Exchange::Outcome::finished) {
      linger_(client_);
    }
    if (outcome != Exchange::Outcome::reusable) {
      co_return;
    }
  }
}

// False when there is no request to answer any more; a refusal has been sent then where one is due.
asio::awaitable<bool> Connection::read_request(RequestReader &reader, bool first) {
  Clock::time_point deadline = Clock::now() + (first ? limits().first_request : limits().idle);
  bool timed = first;  // silence between requests is no fault of the client's
  bool continued = false;
  std::array<char, read_size> chunk;
  while (true) {
    buffer_.erase(0, reader.feed(buffer_));
    if (reader.state() == RequestReader::State::complete) {
      co_return true;
    }
    if (reader.state() == RequestReader::State::refused) {
      refuse(reader.refusal(), reader.terms());
      co_return false;
    }
    idle_ = !reader.begun();
    if (!timed && !idle_) {
      timed = true;
      deadline = Clock::now() + limits().request;
    }
    if (reader.expects_continue() && !continued && buffer_.empty()) {
      continued = true;
      client_->send_now("HTTP/1.1 100 Continue\r\n\r\n");
    }
    std::ptrdiff_t got = client_->receive(chunk);
    if (got < 0 && idle_ && bus_.stopping) {
      co_return false;
    }
    if (got < 0 || Clock::now() >= deadline) {
      const Stream::Wake wake = co_await client_->readable(deadline);
      if (wake == Stream::Wake::timeout || Clock::now() >= deadline) {
        if (timed) {
          refuse({408, "The request was not complete in time."}, reader.terms());
        }
        co_return false;
      }
      if (wake == Stream::Wake::cancelled && client_->gone()) {
        co_return false;
      }
      continue;
    }
    if (got == 0) {
      if (!idle_) {  // it may have shut down its sending side only
        refuse({400, "The request ends before it is complete."}, reader.terms());
      }
      co_return false;
    }
    buffer_.append(chunk.data(), static_cast<std::size_t>(got));
  }
}

asio::awaitable<Exchange::Outcome> Connection::answer(RequestReader &reader) {
  idle_ = false;
  ResponseTerms terms = reader.terms();
  Exchange exchange(bus_, client_);
  if (!exchange.dispatch(reader.take())) {
    terms.keep_alive = terms.keep_alive && !bus_.stopping;
    const std::string response = refusal(503, "The service cannot take the request now.", terms);
    const bool sent = co_await client_->send(response);
    co_return !sent ? Exchange::Outcome::aborted
                    : (terms.keep_alive ? Exchange::Outcome::reusable : Exchange::Outcome::finished);
  }
  const Current current(exchange_, exchange);
  const Exchange::Outcome outcome = co_await exchange.relay(terms);
  if (outcome == Exchange::Outcome::reusable) {
    if (auto handler = exchange.take_handler()) {
      bus_.kept.keep(this, std::move(handler));
    }
  }
  co_return outcome;
}

void Connection::refuse(const Refusal &refusal, ResponseTerms terms) {
  terms.keep_alive = false;
  client_->send_now(host::refusal(refusal.status, refusal.detail, terms));
  linger_(client_);
}

void Connection::stop() {
  if (idle_) {
    client_->cancel();
  }
}

void Connection::hang_up() {
  if (exchange_ != nullptr) {
    exchange_->hang_up();
  }
  client_->hang_up();
}

}  // namespace dirwell::host
