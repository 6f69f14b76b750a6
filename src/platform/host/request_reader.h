// Reading one HTTP request out of the bytes of a connection.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "platform/host/response_head.h"
#include "platform/host/target.h"

namespace dirwell::host {

struct Refusal {
  int status = 0;
  std::string_view detail;  // static text
};

struct IncomingRequest {
  std::string method;
  Target target;
  std::string body;
};

class RequestReader {
 public:
  RequestReader();
  ~RequestReader();
  RequestReader(RequestReader &&) noexcept;
  RequestReader &operator=(RequestReader &&) noexcept;

  enum class State { head, body, complete, refused };

  // Takes bytes from the front of `buffer` and returns how many; the rest is given again with what has come after it.
  // The head is taken whole or not at all.
  std::size_t feed(std::string_view buffer);

  [[nodiscard]] State state() const { return state_; }
  // A byte of the request has come.
  [[nodiscard]] bool begun() const { return begun_; }
  // The head is accepted and asks for an interim response before the body comes.
  [[nodiscard]] bool expects_continue() const { return state_ == State::body && expects_continue_; }
  // Why the request is refused, in State::refused. What follows it on the connection cannot be told apart any more.
  [[nodiscard]] const Refusal &refusal() const { return refusal_; }
  // What the response has to look like; as far as the head was understood.
  [[nodiscard]] const ResponseTerms &terms() const { return terms_; }
  // The request, in State::complete; once.
  IncomingRequest take();

 private:
  struct Parser;
  void accept_head();
  void refuse(int status, std::string_view detail);

  std::unique_ptr<Parser> parser_;
  State state_ = State::head;
  bool begun_ = false;
  std::size_t head_bytes_ = 0;
  bool expects_continue_ = false;
  Refusal refusal_;
  ResponseTerms terms_;
  IncomingRequest request_;
};

}  // namespace dirwell::host
