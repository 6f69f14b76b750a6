#include "client/bus_client.h"

#include <boost/asio/error.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>

#include "client/failure.h"
#include "client/json.h"
#include "client/text.h"
#include "client/unix_socket.h"

namespace dirwell::client {
namespace {

namespace http = boost::beast::http;
using boost::system::error_code;

[[noreturn]] void unreachable(const std::string &message) {
  throw Failure(Status::unreachable, message);
}

std::string seconds(std::chrono::milliseconds time) {
  return std::to_string(std::chrono::ceil<std::chrono::seconds>(time).count()) + " s";
}

[[noreturn]] void cannot_connect(const Instance &instance, const error_code &error) {
  const std::string place = display_text(instance.socket);
  if (error == boost::system::errc::no_such_file_or_directory || error == boost::system::errc::connection_refused) {
    unreachable("no instance runs for session " + instance.sid + " (" + place + ": " + error.message() +
                "); start it with: dirwell --sid " + instance.sid);
  }
  unreachable(place + ": " + error.message());
}

// What a refusal of the bus says about itself.
std::string reason(const http::response<http::string_body> &reply) {
  const JsonRef problem = parse_json(reply.body());
  const std::string title = display_text(text_member(problem.get(), "title"));
  const std::string detail = display_text(text_member(problem.get(), "detail"));
  if (title.empty() && detail.empty()) {
    return std::string(reply.reason());
  }
  return title.empty() || detail.empty() ? title + detail : title + ": " + detail;
}

}  // namespace

std::string call(const Instance &instance, std::string_view endpoint, const std::string &body) {
  error_code error;
  UnixSocket socket(instance.socket, instance.patience, error);
  if (error) {
    cannot_connect(instance, error);
  }

  http::request<http::string_body> request(http::verb::post, "/" + std::string(endpoint), 11, body);
  request.set(http::field::host, "localhost");
  request.set(http::field::content_type, "application/json");
  request.keep_alive(false);
  request.prepare_payload();
  http::write(socket, request, error);
  // A caller that is refused is answered before the request is read: the answer may be there although writing failed.
  const error_code write_error = error;

  boost::beast::flat_buffer buffer;
  http::response_parser<http::string_body> parser;
  parser.body_limit(boost::none);
  http::read(socket, buffer, parser, error);
  if (error == boost::system::errc::timed_out) {
    unreachable("no answer from " + display_text(instance.socket) + " within " + seconds(instance.patience));
  }
  if (error) {
    unreachable("no whole answer from " + display_text(instance.socket) + ": " +
                (write_error ? write_error : error).message());
  }
  const http::response<http::string_body> &reply = parser.get();
  if (reply.result() == http::status::forbidden) {
    unreachable("the service of session " + instance.sid + " does not admit this user (" + reason(reply) + ")");
  }
  if (reply.result() != http::status::ok) {
    unreachable("the service answered " + std::to_string(reply.result_int()) + " (" + reason(reply) + ")");
  }
  return reply.body();
}

}  // namespace dirwell::client
