#include "platform/bus_service.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "support/private_root.h"

namespace dirwell::test {

namespace {

using Clock = std::chrono::steady_clock;

hx_service *running_service = nullptr;
int started_pipe = -1;

void stop_service(int) {
  hx_stop(running_service);
}

void report_start(void *) {
  const char byte = 1;
  if (::write(started_pipe, &byte, 1) == 1) {
    ::close(started_pipe);
  }
}

int milliseconds_until(Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::max<decltype(left)>(left, 0));
}

[[noreturn]] void serve(const std::string &name, hx_request_callback callback) {
  running_service = hx_create(name.c_str(), 2, 1, callback);
  if (running_service == nullptr) {
    ::_exit(100);
  }
  hx_signal(SIGTERM, stop_service);
  hx_worker_init(running_service, report_start, nullptr);
  const int result = hx_start(running_service);
  hx_free(running_service);
  ::_exit(result == 0 ? 0 : 101);
}

}  // namespace

ServiceProcess::ServiceProcess(hx_request_callback callback, const std::function<void()> &prepare, std::string name)
    : name_(std::move(name)) {
  std::array<int, 2> started = {-1, -1};
  if (::pipe2(started.data(), O_CLOEXEC) != 0) {
    throw std::runtime_error("no pipe");
  }
  pid_ = ::fork();
  if (pid_ < 0) {
    throw std::runtime_error("cannot fork");
  }
  if (pid_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::close(started[0]);
    started_pipe = started[1];
    if (prepare) {
      prepare();
    }
    serve(name_, callback);
  }
  ::close(started[1]);
  char byte = 0;
  const ssize_t got = ::read(started[0], &byte, 1);
  ::close(started[0]);
  if (got != 1) {
    throw std::runtime_error("the service does not start");
  }
}

ServiceProcess::~ServiceProcess() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    wait();
    ::unlink(path().c_str());
  }
}

std::string ServiceProcess::path() const {
  return private_root() + "/var/run/" + name_ + ".sock";
}

void ServiceProcess::ask_to_stop() const {
  ::kill(pid_, SIGTERM);
}

int ServiceProcess::wait() {
  int status = 0;
  const pid_t ended = ::waitpid(pid_, &status, 0);
  pid_ = -1;
  return ended > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::size_t ServiceProcess::descriptors() const {
  const std::filesystem::directory_iterator entries("/proc/" + std::to_string(pid_) + "/fd");
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

Client::Client(const std::string &path) : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  if (::connect(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
    close();
  }
}

Client::~Client() {
  close();
}

bool Client::send(std::string_view text) {
  while (!text.empty()) {
    const ssize_t sent = ::send(socket_, text.data(), text.size(), MSG_NOSIGNAL);
    if (sent < 0) {
      return false;
    }
    text.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

void Client::end_sending() {
  ::shutdown(socket_, SHUT_WR);
}

void Client::close() {
  if (socket_ >= 0) {
    ::close(socket_);
  }
  socket_ = -1;
}

bool Client::readable(std::chrono::milliseconds limit) {
  pollfd watched = {socket_, POLLIN, 0};
  return !buffer_.empty() || ::poll(&watched, 1, static_cast<int>(limit.count())) > 0;
}

// False at the end of the stream or of the time.
bool Client::fill(Clock::time_point deadline) {
  pollfd watched = {socket_, POLLIN, 0};
  if (::poll(&watched, 1, milliseconds_until(deadline)) <= 0) {
    return false;
  }
  std::array<char, 65536> chunk;
  const ssize_t got = ::recv(socket_, chunk.data(), chunk.size(), 0);
  if (got <= 0) {
    return false;
  }
  buffer_.append(chunk.data(), static_cast<std::size_t>(got));
  return true;
}

bool Client::ended(std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  const bool more = !buffer_.empty() || fill(deadline);
  return !more && Clock::now() < deadline;
}

std::string Client::read_some(std::size_t size, std::chrono::milliseconds limit) {
  if (buffer_.empty()) {
    fill(Clock::now() + limit);
  }
  std::string text = buffer_.substr(0, size);
  buffer_.erase(0, size);
  return text;
}

Response Client::receive(std::chrono::milliseconds limit, bool head_only) {
  const auto deadline = Clock::now() + limit;
  Response response;
  std::size_t head_end = 0;
  while ((head_end = buffer_.find("\r\n\r\n")) == std::string::npos) {
    if (!fill(deadline)) {
      return response;
    }
  }
  response.head = buffer_.substr(0, head_end + 2);
  buffer_.erase(0, head_end + 4);
  response.status = std::stoi(response.head.substr(9, 3));
  for (std::size_t at = response.head.find("\r\n") + 2; at < response.head.size();) {
    const std::size_t end = response.head.find("\r\n", at);
    const std::string line = response.head.substr(at, end - at);
    std::string name = line.substr(0, line.find(": "));
    std::ranges::transform(name, name.begin(), [](unsigned char letter) { return std::tolower(letter); });
    response.fields[name] = line.substr(line.find(": ") + 2);
    at = end + 2;
  }
  if (head_only || response.status < 200) {
    response.whole = true;
    return response;
  }
  const auto take = [&](std::size_t size) {
    while (buffer_.size() < size) {
      if (!fill(deadline)) {
        return false;
      }
    }
    response.body.append(buffer_, 0, size);
    buffer_.erase(0, size);
    return true;
  };
  if (response.fields.contains("content-length")) {
    response.whole = take(std::stoul(response.fields["content-length"]));
  } else if (response.fields.contains("transfer-encoding")) {
    while (true) {
      std::size_t line_end = 0;
      while ((line_end = buffer_.find("\r\n")) == std::string::npos) {
        if (!fill(deadline)) {
          return response;
        }
      }
      const std::size_t size = std::stoul(buffer_.substr(0, line_end), nullptr, 16);
      buffer_.erase(0, line_end + 2);
      if (!take(size + 2)) {
        return response;
      }
      response.body.resize(response.body.size() - 2);
      if (size == 0) {
        response.whole = true;
        return response;
      }
    }
  } else {
    while (fill(deadline)) {
    }
    response.body = std::exchange(buffer_, {});
    response.whole = Clock::now() < deadline;
  }
  return response;
}

std::string post(std::string_view target, std::string_view body, std::string_view more) {
  std::string request = "POST ";
  request.append(target).append(" HTTP/1.1\r\nHost: localhost\r\n").append(more);
  return request.append("Content-Length: " + std::to_string(body.size()) + "\r\n\r\n").append(body);
}

void in_request_process(hx_io *io, int descriptor, const std::function<void()> &handler) {
  const pid_t child = ::fork();
  if (child == 0) {
    if (::fork() != 0) {
      ::_exit(0);
    }
    ::alarm(30);
    handler();
    ::_exit(0);
  }
  ::waitpid(child, nullptr, 0);
  ::close(descriptor);
  hx_io_free(io);
}

bool write_text(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written < 0 && errno != EINTR) {
      return false;
    }
    text.remove_prefix(written < 0 ? 0 : static_cast<std::size_t>(written));
  }
  return true;
}

bool eventually(const std::function<bool()> &condition, std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  while (!condition()) {
    if (Clock::now() >= deadline) {
      return false;
    }
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

void echo(hx_request *, hx_io *io, int descriptor) {
  const std::string text = "[\"" + std::string(hx_io_read(io, 0)) + "\"]";
  hx_io_realloc(io, 0);
  hx_io_write(io, text.data(), text.size());
  hx_reply(io);
  ::close(descriptor);
  hx_io_free(io);
}

void answer_late(hx_request *, hx_io *io, int descriptor) {
  in_request_process(io, descriptor, [&] {
    std::this_thread::sleep_for(300ms);
    write_text(descriptor, std::string(json_head) + "[\"late\"]");
    hx_reply(io);
  });
}

void answer_never(hx_request *, hx_io *io, int descriptor) {
  in_request_process(io, descriptor, [&] { eventually([&] { return hx_io_alive(io) == 0; }, 20s); });
}

}  // namespace dirwell::test
