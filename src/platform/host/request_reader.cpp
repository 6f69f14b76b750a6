#include "platform/host/request_reader.h"

#include <boost/asio/buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <utility>

#include "platform/host/limits.h"
#include "platform/host/text.h"

namespace dirwell::host {

namespace http = boost::beast::http;

struct RequestReader::Parser : http::request_parser<http::string_body> {};

namespace {

std::string_view view(boost::beast::string_view text) {
  return {text.data(), text.size()};
}

// The framing of the body is beyond doubt: no coding but "chunked", and no length beside it.
bool is_framed_plainly(const http::request<http::string_body> &message) {
  const auto codings = message.count(http::field::transfer_encoding);
  if (codings == 0) {
    return message.count(http::field::content_length) <= 1;
  }
  return codings == 1 && message.version() == 11 && message.count(http::field::content_length) == 0 &&
         equal_ignoring_case(trimmed(view(message[http::field::transfer_encoding])), "chunked");
}

bool names_its_host(const http::request<http::string_body> &message) {
  const auto hosts = message.count(http::field::host);
  return hosts == 1 || (hosts == 0 && message.version() == 10);
}

}  // namespace

RequestReader::RequestReader() : parser_(std::make_unique<Parser>()) {
  parser_->header_limit(static_cast<std::uint32_t>(limits().header_bytes));
  parser_->body_limit(limits().body_bytes);
  parser_->eager(false);
}

RequestReader::~RequestReader() = default;
RequestReader::RequestReader(RequestReader &&) noexcept = default;
RequestReader &RequestReader::operator=(RequestReader &&) noexcept = default;

std::size_t RequestReader::feed(std::string_view buffer) {
  std::size_t taken = 0;
  // Some clients send an empty line after a body; it belongs to no request.
  while (!begun_ && buffer.substr(taken).starts_with("\r\n")) {
    taken += 2;
  }
  while (state_ == State::head || state_ == State::body) {
    const std::string_view rest = buffer.substr(taken);
    if (rest.empty() || (!begun_ && rest == "\r")) {
      break;
    }
    begun_ = true;
    boost::beast::error_code error;
    const std::size_t used = parser_->put(boost::asio::buffer(rest.data(), rest.size()), error);
    taken += used;
    head_bytes_ += state_ == State::head ? used : 0;
    if (error == http::error::need_more) {
      // Lines inside a chunked body count as header fields do; a head of this size has been refused already.
      if (rest.size() - used > limits().header_bytes) {
        refuse(431, "A line of the request body exceeds 16 KiB.");
      }
      break;
    }
    // The parser lets some heads pass that are a little longer than its limit.
    if (error == http::error::header_limit || head_bytes_ > limits().header_bytes) {
      refuse(431, "The request line and header fields exceed 16 KiB.");
    } else if (error == http::error::body_limit) {
      refuse(413, "The request body exceeds 1 MiB.");
    } else if (error) {
      refuse(400, "The request is malformed.");
    } else if (state_ == State::head && parser_->is_header_done()) {
      accept_head();
    }
    if (state_ == State::body && parser_->is_done()) {
      request_.body = std::move(parser_->get().body());
      state_ = State::complete;
    }
  }
  return taken;
}

void RequestReader::accept_head() {
  const auto &message = parser_->get();
  terms_.http_1_0 = message.version() == 10;
  terms_.head_only = message.method() == http::verb::head;
  terms_.keep_alive = message.keep_alive();
  if (!names_its_host(message)) {
    return refuse(400, "The request does not name exactly one host.");
  }
  if (!is_framed_plainly(message)) {
    return refuse(400, "The framing of the request body is not understood.");
  }
  auto target = parse_target(view(message.target()));
  if (!target) {
    return refuse(400, "The request target is malformed.");
  }
  request_.method = view(message.method_string());
  request_.target = std::move(*target);
  expects_continue_ =
      !terms_.http_1_0 && equal_ignoring_case(trimmed(view(message[http::field::expect])), "100-continue");
  state_ = State::body;
  parser_->eager(true);
}

void RequestReader::refuse(int status, std::string_view detail) {
  terms_.keep_alive = false;
  refusal_ = {status, detail};
  state_ = State::refused;
}

IncomingRequest RequestReader::take() {
  return std::move(request_);
}

}  // namespace dirwell::host
