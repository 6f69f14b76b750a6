#include "fake_service.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace dirwell::test {
namespace {

bool is_whole(const std::string &request) {
  const std::size_t head = request.find("\r\n\r\n");
  if (head == std::string::npos) {
    return false;
  }
  const std::size_t length = request.find("Content-Length: ");
  return length < head && request.size() >= head + 4 + std::stoul(request.substr(length + 16));
}

}  // namespace

FakeService::FakeService(const std::string &path, const std::string &reply, Reads reads)
    : FakeService(path, std::vector<std::string>{reply}, reads) {}

FakeService::FakeService(std::string path, std::vector<std::string> replies, Reads reads)
    : path_(std::move(path)),
      replies_(std::move(replies)),
      reads_(reads),
      listener_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)),
      stop_(::eventfd(0, EFD_CLOEXEC)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
  if (::bind(listener_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
      ::listen(listener_, 8) != 0) {
    throw std::runtime_error("cannot listen at " + path_);
  }
  thread_ = std::thread([this] { serve(); });
}

FakeService::~FakeService() {
  if (thread_.joinable()) {
    requests();
  }
  ::unlink(path_.c_str());
  ::close(listener_);
  ::close(stop_);
}

std::string FakeService::request() {
  const std::vector<std::string> all = requests();
  return all.empty() ? std::string() : all.back();
}

std::vector<std::string> FakeService::requests() {
  ::eventfd_write(stop_, 1);
  thread_.join();
  return requests_;
}

void FakeService::serve() {
  const auto readable = [this](int descriptor) {
    std::array<pollfd, 2> both = {{{descriptor, POLLIN, 0}, {stop_, POLLIN, 0}}};
    return ::poll(both.data(), both.size(), 10'000) > 0 && (both[0].revents & (POLLIN | POLLHUP)) != 0;
  };
  std::size_t next = 0;
  while (readable(listener_)) {
    const int caller = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    std::array<char, 4096> buffer{};
    std::string request;
    ssize_t got = 1;
    while (reads_ == Reads::whole_request && got > 0 && !is_whole(request) && readable(caller)) {
      got = ::recv(caller, buffer.data(), buffer.size(), 0);
      request.append(buffer.data(), got > 0 ? static_cast<std::size_t>(got) : 0);
    }
    const std::string &reply = replies_[next];
    if (got > 0) {
      requests_.push_back(std::move(request));
      next = std::min(next + 1, replies_.size() - 1);
      ::send(caller, reply.data(), reply.size(), MSG_NOSIGNAL);
    }
    if (reply.empty()) {
      readable(-1);  // silent, until the end
    }
    ::close(caller);
  }
}

std::string http_reply(const std::string &status, const std::string &type, const std::string &body) {
  return "HTTP/1.1 " + status + "\r\nContent-Type: " + type + "\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\nConnection: close\r\n\r\n" + body;
}

std::string json_reply(const std::string &body) {
  return http_reply("200 OK", "application/json; charset=utf-8", body);
}

std::string body_of(const std::string &request) {
  return request.substr(request.find("\r\n\r\n") + 4);
}

}  // namespace dirwell::test
