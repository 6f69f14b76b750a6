#include "client/instance.h"

#include <stdlib.h>
#include <sys/random.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>

#include "client/failure.h"
#include "client/text.h"
#include "client/unix_socket.h"

namespace dirwell::client {
namespace {

constexpr std::size_t longest_sid = 64;
constexpr std::string_view socket_head = "dirwell-";
constexpr std::string_view socket_tail = ".sock";

std::string environment(const char *name) {
  const char *value = ::getenv(name);
  return value != nullptr ? value : "";
}

}  // namespace

std::string find_root(const std::string &option) {
  std::string root = option.empty() ? environment("DIRWELL_ROOT") : option;
  while (root.ends_with('/')) {
    root.pop_back();
  }
  return root;
}

bool is_sid(std::string_view sid) {
  return !sid.empty() && sid.size() <= longest_sid && std::all_of(sid.begin(), sid.end(), [](char letter) {
    return (letter >= 'A' && letter <= 'Z') || (letter >= 'a' && letter <= 'z') || (letter >= '0' && letter <= '9') ||
           letter == '_' || letter == '-';
  });
}

std::string session_folder(const std::string &root) {
  return root + "/var/run/dirwell/sessions";
}

std::string socket_path(const std::string &root, std::string_view sid) {
  return root + "/var/run/" + std::string(socket_head) + std::string(sid) + std::string(socket_tail);
}

std::string new_sid() {
  std::uint64_t number = 0;
  // So few bytes come whole or not at all.
  if (::getrandom(&number, sizeof number, 0) != sizeof number) {
    throw Failure(Status::refused, "the machine gives no random numbers");
  }
  std::array<char, 17> text{};
  std::snprintf(text.data(), text.size(), "%016llx", static_cast<unsigned long long>(number));
  return text.data();
}

bool is_running(const std::string &root, std::string_view sid) {
  boost::system::error_code error;
  const UnixSocket socket(socket_path(root, sid), std::chrono::seconds(1), error);
  return !error || error == boost::system::errc::permission_denied || error == boost::system::errc::timed_out;
}

std::vector<std::string> running_instances(const std::string &root) {
  std::vector<std::string> sids;
  std::error_code error;
  for (std::filesystem::directory_iterator each(root + "/var/run", error), end; !error && each != end;
       each.increment(error)) {
    const std::string name = each->path().filename().string();
    if (!name.starts_with(socket_head) || !name.ends_with(socket_tail) ||
        name.size() <= socket_head.size() + socket_tail.size()) {
      continue;
    }
    std::string sid = name.substr(socket_head.size(), name.size() - socket_head.size() - socket_tail.size());
    if (is_sid(sid) && is_running(root, sid)) {
      sids.push_back(std::move(sid));
    }
  }
  std::sort(sids.begin(), sids.end());
  return sids;
}

std::string find_sid(const std::string &root, const std::string &option) {
  std::string sid = option.empty() ? environment("DIRWELL_SID") : option;
  if (!sid.empty()) {
    if (!is_sid(sid)) {
      throw Failure(Status::usage, "\"" + display_text(sid) + "\" is no session id");
    }
    return sid;
  }
  const std::vector<std::string> sids = running_instances(root);
  if (sids.empty()) {
    throw Failure(Status::unreachable, "no instance runs under " + display_text(root) + "/var/run");
  }
  if (sids.size() > 1) {
    std::string message = "several instances run; choose one with --sid:";
    for (const std::string &each : sids) {
      message += " " + each;
    }
    throw Failure(Status::unreachable, message);
  }
  return sids.front();
}

}  // namespace dirwell::client
