// A real service in a process of its own, and a client that speaks to its socket.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "platform/include/hxservice.h"

namespace dirwell::test {

using namespace std::chrono_literals;

class ServiceProcess {
 public:
  // Serves `callback` under `name` in a forked process, once it listens. `prepare` runs in that process before, for
  // example to shorten limits.
  explicit ServiceProcess(hx_request_callback callback, const std::function<void()> &prepare = {},
                          std::string name = "bus-under-test");
  // Kills the process if it still runs.
  ~ServiceProcess();
  ServiceProcess(const ServiceProcess &) = delete;
  ServiceProcess &operator=(const ServiceProcess &) = delete;

  [[nodiscard]] pid_t pid() const { return pid_; }
  [[nodiscard]] const std::string &name() const { return name_; }
  [[nodiscard]] std::string path() const;
  // Sends SIGTERM, which the process answers with hx_stop.
  void ask_to_stop() const;
  // Waits for the end of the process; returns what hx_start returned, or -1 when it did not end by itself.
  int wait();
  // Number of the process's open descriptors.
  [[nodiscard]] std::size_t descriptors() const;

 private:
  std::string name_;
  pid_t pid_ = -1;
};

struct Response {
  int status = 0;                             // 0: the connection ended before a whole head
  std::string head;                           // status line and header lines
  std::string body;                           // without its framing
  bool whole = false;                         // the body came to the end that its framing announced
  std::map<std::string, std::string> fields;  // names in lower case
};

class Client {
 public:
  explicit Client(const std::string &path);
  explicit Client(const ServiceProcess &service) : Client(service.path()) {}
  ~Client();
  Client(Client &&other) noexcept : socket_(other.socket_), buffer_(std::move(other.buffer_)) { other.socket_ = -1; }
  Client &operator=(Client &&other) noexcept {
    std::swap(socket_, other.socket_);
    std::swap(buffer_, other.buffer_);
    return *this;
  }
  Client(const Client &) = delete;

  [[nodiscard]] int socket() const { return socket_; }
  // False when the other side has gone.
  bool send(std::string_view text);
  void end_sending();
  void close();
  // Reads one response; one that does not come within the time has status 0. `head_only`: the request was HEAD.
  Response receive(std::chrono::milliseconds limit = 5s, bool head_only = false);
  Response ask(std::string_view request) {
    send(request);
    return receive();
  }
  // Whether the other side ends the connection, with nothing more to read, within the time.
  bool ended(std::chrono::milliseconds limit = 3s);
  // Whether something (bytes or the end) can be read within the time.
  bool readable(std::chrono::milliseconds limit);
  // Up to `size` bytes as they come.
  std::string read_some(std::size_t size, std::chrono::milliseconds limit = 5s);

 private:
  bool fill(std::chrono::steady_clock::time_point deadline);

  int socket_ = -1;
  std::string buffer_;
};

// "POST /target HTTP/1.1" with a Host, a Content-Length and the further header lines, each ending in CR LF.
std::string post(std::string_view target, std::string_view body = "", std::string_view more = "");

// Runs `handler` in a request process, the way the daemon does: the process is nobody's child, and the caller's copies
// of io and descriptor are released.
void in_request_process(hx_io *io, int descriptor, const std::function<void()> &handler);

// Writes all of the text; false when that failed.
bool write_text(int descriptor, std::string_view text);

// Waits for a condition; false when it does not come true in time.
bool eventually(const std::function<bool()> &condition, std::chrono::milliseconds limit = 5s);

// Handlers for services under test: answers at once, on the worker, with the request text in an array; answers from a
// request process after 300 ms with ["late"]; never answers, until the client goes.
void echo(hx_request *request, hx_io *io, int descriptor);
void answer_late(hx_request *request, hx_io *io, int descriptor);
void answer_never(hx_request *request, hx_io *io, int descriptor);

// The header that replies of endpoints have.
inline constexpr std::string_view json_head = "Content-Type: application/json; charset=utf-8\r\n\r\n";

}  // namespace dirwell::test
