// One admitted client: its requests, one after the other.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/host/exchange.h"
#include "platform/host/request_reader.h"
#include "platform/host/stream.h"

namespace dirwell::host {

// What a client whose connection the bus ends may still do: read its answer.
using Linger = std::function<void(const std::shared_ptr<Stream> &)>;

// Worker only; held by shared_ptr.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(Bus &bus, std::shared_ptr<Stream> client, Linger linger)
      : bus_(bus), client_(std::move(client)), linger_(std::move(linger)) {}
  ~Connection();
  Connection(const Connection &) = delete;
  Connection &operator=(const Connection &) = delete;

  // Serves the client until it leaves or must leave.
  asio::awaitable<void> serve();
  // The service stops: ends the connection at once when nothing of a request is here, else after its response.
  void stop();
  // Ends the connection and what it waits for.
  void hang_up();

 private:
  asio::awaitable<bool> read_request(RequestReader &reader, bool first);
  asio::awaitable<Exchange::Outcome> answer(RequestReader &reader);
  void refuse(const Refusal &refusal, ResponseTerms terms);

  Bus &bus_;
  std::shared_ptr<Stream> client_;
  Linger linger_;
  std::string buffer_;  // read, and not yet part of a request
  bool idle_ = true;
  Exchange *exchange_ = nullptr;
};

}  // namespace dirwell::host
