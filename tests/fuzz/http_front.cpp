// The HTTP front of the bus: raw bytes from a client into a connection, with a callback in the place of the request
// process.
//
// Input: a letter that says how the bytes arrive (see Arrival), then the bytes. What the client gets back is read by a
// strict reader of responses; which requests the handler must have seen is worked out by a strict reader of requests.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/support/check.h"
#include "fuzz/support/input.h"
#include "platform/host/connection.h"
#include "platform/host/io.h"
#include "platform/host/limits.h"
#include "platform/host/text.h"
#include "platform/host/worker.h"
#include "platform/include/hxrest.h"

namespace dirwell::fuzz {
namespace {

// --- The handler's side

struct Seen {
  std::string method;
  std::string path;
  std::vector<std::pair<std::string, std::string>> parameters;
  std::string body;
  bool whole = true;      // the handler gave a whole reply
  bool by_table = false;  // the table of endpoints was asked
};

struct Handler {
  hx_io *io;
  int descriptor;
  std::string rest;  // still to be written
};

std::vector<Seen> seen;
std::vector<Handler> at_work;  // handlers that go on after the callback

std::string reply_of(std::size_t number) {
  return "{\"request\":" + std::to_string(number) + "}";
}

void put(int descriptor, std::string_view text) {
  check(::send(descriptor, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT) >= 0 || errno == EPIPE,
        "a handler can write its reply");
}

void finish(const Handler &handler) {
  ::close(handler.descriptor);
  hx_io_free(handler.io);
}

// "/cut" ends within the reply, "/none" without a word, "/long" writes more than any buffer holds, "/late" goes on
// after its reply; all others answer at once.
void reply(std::string_view path, hx_io *io, int descriptor) {
  const std::string head = "Content-Type: application/json\r\nX-Number: " + std::to_string(seen.size()) + "\r\n\r\n";
  const std::string text = reply_of(seen.size());
  hx_io_realloc(io, 0);
  if (path == "/none") {
    seen.back().whole = false;
    return finish({io, descriptor, {}});
  }
  if (path == "/long") {
    at_work.push_back({io, descriptor, head + "[" + std::string(200'000, ' ') + text + "]"});
    return;
  }
  put(descriptor, head);
  put(descriptor, path == "/cut" ? text.substr(1, 5) : text);
  if (path == "/cut") {
    seen.back().whole = false;
    return finish({io, descriptor, {}});
  }
  hx_reply(io);
  if (path == "/late") {
    at_work.push_back({io, descriptor, {}});
    return;
  }
  finish({io, descriptor, {}});
}

void handle_endpoint(hx_request *request, hx_rest_handler /*handler*/, hx_io *io, json_t *parameters, int descriptor) {
  for (const auto &[name, value] : request->parameters) {
    check(json_is_string(json_object_get(parameters, name.c_str())), "each parameter is handed on", name);
  }
  check(json_object_size(parameters) <= request->parameters.size(), "and nothing else");
  seen.back().by_table = false;
  reply("/endpoint", io, descriptor);
}

hx_rest *table() {
  static hx_rest *const only = [] {
    hx_rest *made = hx_rest_create();
    hx_rest_endpoint(made, nullptr, "watch", handle_endpoint, "watch cached path\n\n");
    hx_rest_endpoint(made, nullptr, "fetch.cache", handle_endpoint, "fetch\n\n");
    return made;
  }();
  return only;
}

// What begins with "/rest" goes to the table of endpoints, without it.
void handle(hx_request *request, hx_io *io, int descriptor) {
  const std::string body(hx_io_read(io, 0), hx_io_size(io));
  seen.push_back({request->method, request->path, request->parameters, body});
  if (!request->path.starts_with("/rest")) {
    return reply(request->path, io, descriptor);
  }
  seen.back().by_table = true;
  request->path.erase(0, 5);
  hx_rest_dispatch(table(), request, io, descriptor);
}

// Goes on with the long replies; true when something was done.
bool work() {
  bool worked = false;
  for (std::size_t index = 0; index < at_work.size();) {
    Handler &handler = at_work[index];
    if (handler.rest.empty()) {
      ++index;  // has replied, and runs on
      continue;
    }
    const ssize_t sent =
        ::send(handler.descriptor, handler.rest.data(), handler.rest.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && errno == EAGAIN) {
      ++index;
      continue;
    }
    worked = true;
    handler.rest.erase(0, sent < 0 ? handler.rest.size() : static_cast<std::size_t>(sent));
    if (handler.rest.empty()) {
      hx_reply(handler.io);
      finish(handler);
      at_work.erase(at_work.begin() + static_cast<std::ptrdiff_t>(index));
    } else {
      ++index;
    }
  }
  return worked;
}

// --- The strict reader of requests: the requests of a stream as far as there is no doubt about it

bool is_visible(std::string_view text) {
  return !text.empty() && std::ranges::all_of(text, [](char byte) { return byte > 0x20 && byte < 0x7F; });
}

bool is_token(std::string_view text) {
  return is_visible(text) && text.find_first_of("\"(),/:;<=>?@[\\]{}") == std::string_view::npos;
}

struct Expected {
  std::string method;
  std::string target;
  std::string body;
  bool keeps_alive = true;
};

std::optional<std::size_t> number(std::string_view digits, int base, std::size_t most_digits) {
  std::size_t value = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value, base);
  const bool fits = !digits.empty() && digits.size() <= most_digits && error == std::errc();
  return fits && end == digits.data() + digits.size() ? std::optional(value) : std::nullopt;
}

std::optional<std::string_view> take_crlf_line(std::string_view &text) {
  const std::size_t end = text.find("\r\n");
  if (end == std::string_view::npos) {
    return std::nullopt;
  }
  const std::string_view line = text.substr(0, end);
  text.remove_prefix(end + 2);
  return line;
}

// A chunked body without extensions and trailers.
std::optional<std::string> take_chunks(std::string_view &text) {
  std::string body;
  while (true) {
    const auto line = take_crlf_line(text);
    const auto size = line ? number(*line, 16, 6) : std::nullopt;
    if (!size || text.size() < *size + 2 || text.substr(*size, 2) != "\r\n") {
      return std::nullopt;
    }
    body += text.substr(0, *size);
    text.remove_prefix(*size + 2);
    if (*size == 0) {
      return body;
    }
  }
}

// The next request, if it is plain beyond doubt and whole; everything about it is within all limits.
std::optional<Expected> take_plain_request(std::string_view &text) {
  const std::size_t head_end = text.find("\r\n\r\n");
  if (head_end > 8'000) {  // or nowhere
    return std::nullopt;
  }
  std::string_view head = text.substr(0, head_end + 2);
  std::string_view rest = text.substr(head_end + 4);
  std::string_view line = *take_crlf_line(head);
  Expected request;
  request.method = take_until(line, ' ');
  request.target = take_until(line, ' ');
  if (!is_token(request.method) || !is_visible(request.target) || !request.target.starts_with('/') ||
      line != "HTTP/1.1") {
    return std::nullopt;
  }
  std::size_t hosts = 0;
  std::size_t length = 0;
  bool chunked = false;
  bool sized = false;
  while (!head.empty()) {
    const std::string_view field = *take_crlf_line(head);
    const std::size_t colon = field.find(": ");
    const std::string_view value = colon == std::string_view::npos ? "" : field.substr(colon + 2);
    if (!is_token(field.substr(0, colon)) || !is_visible(value)) {
      return std::nullopt;
    }
    const std::string_view name = field.substr(0, colon);
    if (host::equal_ignoring_case(name, "host")) {
      ++hosts;
    } else if (host::equal_ignoring_case(name, "content-length")) {
      const auto size = number(value, 10, 5);
      if (!size || sized) {
        return std::nullopt;
      }
      sized = true;
      length = *size;
    } else if (host::equal_ignoring_case(name, "transfer-encoding")) {
      if (value != "chunked" || chunked) {
        return std::nullopt;
      }
      chunked = true;
    } else if (host::equal_ignoring_case(name, "connection")) {
      if (value != "close" && value != "keep-alive") {
        return std::nullopt;
      }
      request.keeps_alive = request.keeps_alive && value != "close";
    } else if (host::equal_ignoring_case(name, "expect") || host::equal_ignoring_case(name, "upgrade") ||
               host::equal_ignoring_case(name, "proxy-connection")) {
      return std::nullopt;
    }
  }
  if (hosts != 1 || (chunked && sized)) {
    return std::nullopt;
  }
  if (chunked) {
    auto body = take_chunks(rest);
    if (!body) {
      return std::nullopt;
    }
    request.body = *body;
  } else {
    if (rest.size() < length) {
      return std::nullopt;
    }
    request.body = rest.substr(0, length);
    rest.remove_prefix(length);
  }
  text = rest;
  return request;
}

struct Named {
  std::string path;
  std::vector<std::pair<std::string, std::string>> parameters;
};

// Without escapes; none where one is broken or stands for anything but a character of ASCII.
std::optional<std::string> unescaped(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    char byte = text.front();
    text.remove_prefix(1);
    if (byte == '%') {
      const auto code = number(text.substr(0, 2), 16, 2);
      if (text.size() < 2 || !code || *code == 0 || *code > 0x7E) {
        return std::nullopt;
      }
      byte = static_cast<char>(*code);
      text.remove_prefix(2);
    }
    result += byte;
  }
  return result;
}

// What a target names, as far as there is no doubt about it.
std::optional<Named> named_by(std::string_view target) {
  if (target.find('#') != std::string_view::npos) {
    return std::nullopt;
  }
  const auto path = unescaped(take_until(target, '?'));
  if (!path) {
    return std::nullopt;
  }
  Named named{*path, {}};
  while (!target.empty()) {
    std::string_view pair = take_until(target, '&');
    if (pair.empty()) {
      continue;
    }
    const auto name = unescaped(take_until(pair, '='));
    const auto value = unescaped(pair);
    if (!name || !value) {
      return std::nullopt;
    }
    named.parameters.emplace_back(*name, *value);
  }
  return named;
}

// The handler has seen what the client has sent: no request more, none less, none taken apart at another place.
// True when each byte is one of such a request, so that there was nothing to refuse.
bool check_requests(std::string_view sent) {
  for (const Seen &each : seen) {
    check(each.path == "*" || host::is_clean_utf8(each.path), "paths are text", each.path);
    check(is_token(each.method), "methods are tokens", each.method);
    check(each.body.size() <= std::size_t{1} << 20, "bodies are bounded");
    for (const auto &[name, value] : each.parameters) {
      check(host::is_clean_utf8(name) && host::is_clean_utf8(value), "parameters are text", name);
    }
  }
  std::size_t number = 0;
  while (!sent.empty()) {
    const auto request = take_plain_request(sent);
    const auto named = request ? named_by(request->target) : std::nullopt;
    if (!named) {
      return false;
    }
    check(number < seen.size(), "a plain request reaches the handler", request->target);
    const Seen &each = seen[number++];
    check_equal(each.method, request->method, "with its method");
    check_equal(each.path, named->path, "with its path");
    check(each.parameters == named->parameters, "with its parameters", request->target);
    check_equal(each.body, request->body, "with its body");
    if (!request->keeps_alive) {
      check_equal(seen.size(), number, "nothing is taken after the last request");
      return true;
    }
  }
  check_equal(seen.size(), number, "no request comes out of nothing");
  return true;
}

// --- The strict reader of responses

struct Response {
  int status = 0;
  std::string fields;  // in lower case, each after a line feed
  std::string body;
};

std::string field(const Response &response, std::string_view name) {
  const std::string start = "\n" + std::string(name) + ": ";
  const std::size_t at = response.fields.find(start);
  if (at == std::string::npos) {
    return {};
  }
  check(response.fields.find(start, at + 1) == std::string::npos, "a field stands once", name);
  const std::size_t begin = at + start.size();
  return response.fields.substr(begin, response.fields.find('\n', begin) - begin);
}

std::string lower(std::string_view text) {
  std::string result(text);
  std::ranges::transform(result, result.begin(),
                         [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
  return result;
}

// The head of a response; every line of it must be one.
Response take_head(std::string_view &text) {
  Response response;
  const auto line = take_crlf_line(text);
  check(line && line->starts_with("HTTP/1.1 ") && line->size() > 13 && (*line)[12] == ' ', "a response begins as one",
        line.value_or(text));
  response.status = static_cast<int>(number(line->substr(9, 3), 10, 3).value_or(0));
  while (true) {
    const auto next = take_crlf_line(text);
    check(next.has_value(), "a head has an end");
    if (next->empty()) {
      return response;
    }
    const std::size_t colon = next->find(": ");
    check(colon != std::string_view::npos && is_token(next->substr(0, colon)), "a head is fields", *next);
    response.fields += "\n" + lower(next->substr(0, colon)) + ": " + lower(next->substr(colon + 2));
  }
}

// The next response; `head_only` when it answers HEAD. None at the end of the stream.
std::optional<Response> take_response(std::string_view &text, bool head_only) {
  while (text.starts_with("HTTP/1.1 100 Continue\r\n\r\n")) {
    text.remove_prefix(25);
  }
  if (text.empty()) {
    return std::nullopt;
  }
  Response response = take_head(text);
  const std::string length = field(response, "content-length");
  const bool chunked = field(response, "transfer-encoding") == "chunked";
  if (head_only) {
    return response;
  }
  if (chunked) {
    check(length.empty(), "a body is framed in one way");
    auto body = take_chunks(text);
    check(body.has_value(), "the chunks of a body are whole");
    response.body = *body;
    return response;
  }
  if (!length.empty()) {
    const auto size = number(length, 10, 9);
    check(size && *size <= text.size(), "a body has its length", length);
    response.body = text.substr(0, *size);
    text.remove_prefix(*size);
    return response;
  }
  check_equal(field(response, "connection"), std::string("close"), "a body without an end ends with the connection");
  response.body = text;
  text = {};
  return response;
}

// Each request has its response, in order; what comes after these is one refusal and the end.
void check_responses(std::string_view received, bool all_plain) {
  bool open = true;
  for (std::size_t number = 1; number <= seen.size(); ++number) {
    const Seen &request = seen[number - 1];
    check(open, "nothing is answered after the end");
    const auto response = take_response(received, request.method == "HEAD");
    check(response.has_value(), "each request is answered", request.path);
    open = field(*response, "connection") != "close";
    if (request.by_table) {
      check(response->status == 200 || response->status == 404 || response->status == 405,
            "the table answers what is no endpoint", request.path);
      continue;
    }
    if (!request.whole) {
      check_equal(response->status, 502, "a reply that is not whole is a bad gateway");
      continue;
    }
    check_equal(response->status, 200, "a whole reply is passed on");
    check_equal(field(*response, "x-number"), std::to_string(number), "replies come in the order of their requests");
    check(request.method == "HEAD" || response->body.find(reply_of(number)) != std::string::npos,
          "a reply has its body", response->body);
  }
  if (received.empty()) {
    return;
  }
  check(open && !all_plain, "nothing is answered but requests, and nothing after the end", received);
  const std::string_view before = received;
  while (received.starts_with("HTTP/1.1 100 Continue\r\n\r\n")) {
    received.remove_prefix(25);
  }
  if (received.empty()) {
    return;
  }
  const Response refusal = take_head(received);
  check(refusal.status == 400 || refusal.status == 413 || refusal.status == 431, "what is no request is refused",
        before);
  check_equal(field(refusal, "content-type"), std::string("application/problem+json"), "with a problem");
  check_equal(field(refusal, "connection"), std::string("close"), "and the end of the connection");
  check(received.empty() || field(refusal, "content-length") == std::to_string(received.size()), "and nothing after it",
        received);
}

// --- One client

// How the bytes come, in the low bits of the first byte: in pieces of some size, and what the client does at the end.
struct Arrival {
  std::size_t piece;
  bool leaves;      // the client goes away without reading what is left
  bool reads_late;  // the client reads only at the end
  bool stops;       // the service stops before the client has ended
};

Arrival arrival_of(std::uint8_t letter) {
  constexpr std::array<std::size_t, 8> pieces{std::size_t{1} << 24, 1, 2, 5, 17, 100, 1'000, 10'000};
  return {pieces[letter & 7U], (letter & 8U) != 0, (letter & 16U) != 0, (letter & 32U) != 0};
}

class Client {
 public:
  explicit Client(const Arrival &arrival) : arrival_(arrival) {
    std::array<int, 2> ends{};
    check(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) == 0, "there are sockets");
    socket_ = ends[0];
    auto stream =
        std::make_shared<host::Stream>(loop_.get_executor(), host::fork_guard::GuardedFd(host::OwnedFd(ends[1])));
    connection_ =
        std::make_shared<host::Connection>(bus_, std::move(stream), [this](const std::shared_ptr<host::Stream> &left) {
          left->finish();
          lingering_ = left;  // what it has sent beyond its last request is left unread
        });
    boost::asio::co_spawn(loop_, connection_->serve(), [this](const std::exception_ptr &error) {
      check(!error, "a connection ends without an exception");
      ended_ = true;
      connection_.reset();
    });
  }
  ~Client() {
    bus_.kept.clear();
    if (socket_ >= 0) {
      ::close(socket_);
    }
  }
  Client(const Client &) = delete;
  Client &operator=(const Client &) = delete;

  void run(std::string_view bytes) {
    pump();
    while (!bytes.empty() && !ended_) {
      const std::string_view piece = bytes.substr(0, arrival_.piece);
      const ssize_t sent = ::send(socket_, piece.data(), piece.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent < 0 && errno == EAGAIN) {
        arrival_.reads_late = false;  // what nobody reads holds up what is sent
        check(pump(), "a connection whose client reads goes on");
        continue;
      }
      if (sent < 0) {
        break;
      }
      bytes.remove_prefix(static_cast<std::size_t>(sent));
      pump();
    }
    if (arrival_.stops) {
      stop();
    }
    if (arrival_.leaves) {
      ::close(socket_);
      socket_ = -1;
    } else {
      ::shutdown(socket_, SHUT_WR);
      arrival_.reads_late = false;
    }
    pump();
    check(ended_, "a connection ends when its client has sent all");
    for (const Handler &handler : at_work) {
      check(hx_io_alive(handler.io) == 0, "a handler that goes on learns that its client has left");
    }
  }

  [[nodiscard]] const std::string &received() const { return received_; }

 private:
  // As the service does it: what is idle ends at once, what is at work is hung up in the end.
  void stop() {
    bus_.stopping = true;
    if (connection_ != nullptr) {
      connection_->stop();
    }
    pump();
    if (connection_ != nullptr) {
      connection_->hang_up();
    }
    pump();
    check(ended_, "a connection ends with its service");
  }

  bool read() {
    if (socket_ < 0 || arrival_.reads_late) {
      return false;
    }
    std::array<char, 65536> buffer;
    const ssize_t got = ::recv(socket_, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (got <= 0) {
      return false;
    }
    received_.append(buffer.data(), static_cast<std::size_t>(got));
    return true;
  }

  // Lets everything happen that can happen without a new byte.
  bool pump() {
    bool any = false;
    for (bool moved = true; moved;) {
      moved = false;
      loop_.restart();
      moved = loop_.poll() > 0;
      moved = work() || moved;
      moved = read() || moved;
      any = any || moved;
    }
    return any;
  }

  Arrival arrival_;
  int socket_ = -1;
  host::Bus bus_{handle, 16};
  boost::asio::io_context loop_{1};
  std::shared_ptr<host::Connection> connection_;
  std::shared_ptr<host::Stream> lingering_;
  bool ended_ = false;
  std::string received_;
};

int lowest_free_descriptor() {
  const int descriptor = ::dup(STDERR_FILENO);
  ::close(descriptor);
  return descriptor;
}

}  // namespace
}  // namespace dirwell::fuzz

extern "C" int LLVMFuzzerInitialize(int * /*count*/, char *** /*arguments*/) {
  // The clock must not decide what becomes of an input.
  using namespace std::chrono_literals;
  dirwell::host::limits().first_request = 1h;
  dirwell::host::limits().request = 1h;
  dirwell::host::limits().idle = 1h;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  using namespace dirwell;
  using namespace dirwell::fuzz;
  if (size == 0) {
    return 0;
  }
  const host::WorkerScope worker;
  const int free_before = lowest_free_descriptor();
  const Arrival arrival = arrival_of(data[0]);
  const std::string_view bytes = text_of(data + 1, size - 1);
  seen.clear();
  {
    Client client(arrival);
    client.run(bytes);
    if (!arrival.leaves && !arrival.stops) {
      const bool all_plain = check_requests(bytes);
      check_responses(client.received(), all_plain);
    }
  }
  for (const Handler &handler : at_work) {
    finish(handler);
  }
  at_work.clear();
  check_equal(lowest_free_descriptor(), free_before, "no descriptor is left behind");
  return 0;
}
