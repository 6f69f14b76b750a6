// One request and its response: hands the request to the service's callback and relays what the handler writes.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "platform/host/cgi.h"
#include "platform/host/io.h"
#include "platform/host/kept_handlers.h"
#include "platform/host/owned_fd.h"
#include "platform/host/reply_mark.h"
#include "platform/host/request_reader.h"
#include "platform/host/stream.h"

namespace dirwell::host {

// What the connections of a service share.
struct Bus {
  Bus(hx_request_callback on_request, std::size_t most_kept) : callback(on_request), kept(most_kept) {}

  hx_request_callback callback;
  ReplyMarks marks;
  KeptHandlers kept;
  bool stopping = false;
};

// Worker only.
class Exchange {
 public:
  Exchange(Bus &bus, std::shared_ptr<Stream> client) : bus_(bus), client_(std::move(client)) {}
  ~Exchange();
  Exchange(const Exchange &) = delete;
  Exchange &operator=(const Exchange &) = delete;

  // Makes the handler's socket and calls the callback. False when there is no socket or no memory to be had; then
  // nothing was called.
  bool dispatch(IncomingRequest request);

  enum class Outcome {
    reusable,  // the response is out, another request may follow
    finished,  // the response is out and was the last one
    aborted,   // the client has gone, or must see that the response was cut off
  };
  // Sends the client what the handler writes, or a refusal in place of a response that is not whole.
  asio::awaitable<Outcome> relay(ResponseTerms terms);

  // After relay(): the bus's end of the handler's socket when a handler that has replied still holds its own, else
  // null. As long as it is open the handler's client counts as being there.
  std::shared_ptr<Stream> take_handler() { return std::move(handler_); }

  void hang_up();

 private:
  std::unique_ptr<hx_io> open(IncomingRequest request, OwnedFd &handler_end);
  asio::awaitable<void> copy();
  asio::awaitable<bool> pass_on(std::string_view body);
  asio::awaitable<bool> send_piece(std::string_view body);
  asio::awaitable<bool> end_response(bool whole);

  Bus &bus_;
  std::shared_ptr<Stream> client_;
  std::shared_ptr<Stream> handler_;  // the bus's end
  ReplyMark mark_;
  ResponseTerms terms_;
  CgiReader reader_;
  std::string pending_;     // body, as long as nothing was sent
  bool streaming_ = false;  // the head is out
  bool cut_off_ = false;    // the client has not taken what was sent
};

}  // namespace dirwell::host
