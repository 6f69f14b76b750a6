#include "platform/host/admission.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>

#include "platform/host/config.h"
#include "platform/include/hxservice.h"
#include "platform/include/strata_nasauth.h"

namespace dirwell::host {

namespace {

constexpr std::string_view service_prefix = "dirwell-";

// For accounts that no file of this machine tells of.
constexpr std::chrono::seconds longest_known{2};

std::optional<uid_t> id_of(const std::string &name) {
  std::vector<char> buffer(4096);
  passwd entry = {};
  passwd *found = nullptr;
  int error = 0;
  while ((error = ::getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found)) == ERANGE ||
         error == EINTR) {
    if (error == ERANGE) {
      buffer.resize(buffer.size() * 2);
    }
  }
  return found != nullptr ? std::optional(found->pw_uid) : std::nullopt;
}

std::vector<uid_t> configured_users() {
  // Not through a buffer: a name that it cut could be another account's.
  const auto config = config_file(platform_file);
  const std::string users(config ? config->value("BUS", "users").value_or("") : "");
  std::vector<uid_t> ids;
  constexpr const char *blanks = " \t";
  for (std::size_t begin = users.find_first_not_of(blanks); begin != std::string::npos;) {
    const std::size_t end = users.find_first_of(blanks, begin);
    if (const auto id = id_of(users.substr(begin, end - begin))) {
      ids.push_back(*id);
    }
    begin = users.find_first_not_of(blanks, end);
  }
  return ids;
}

FileState state_of(const std::string &path, bool follow) {
  struct stat status = {};
  const bool there = (follow ? ::stat(path.c_str(), &status) : ::lstat(path.c_str(), &status)) == 0;
  return there ? FileState(status) : FileState();
}

}  // namespace

Admission::Admission(std::string_view service) : own_user_(::geteuid()) {
  if (service.starts_with(service_prefix)) {
    session_ = service.substr(service_prefix.size());
    record_ = std::string(hx_root()) + "/var/run/dirwell/sessions/" + session_;
  }
}

Admission::Sources Admission::sources_now() const {
  return {record_.empty() ? FileState() : state_of(record_, false),
          state_of(std::string(hx_root()) + platform_file, true), state_of("/etc/passwd", true)};
}

void Admission::look_up_if_changed() {
  const auto now = std::chrono::steady_clock::now();
  const Sources sources = sources_now();  // before the look-up: what changes meanwhile shows the next time
  if (settled_ && sources == sources_ && now - looked_up_ < longest_known) {
    return;
  }
  sources_ = sources;
  settled_ = std::ranges::all_of(sources, &FileState::settled);
  looked_up_ = now;
  auth_session record = {};
  has_session_user_ = !session_.empty() && auth_get_session_ex(session_.c_str(), 1, &record) == 0;
  session_user_ = record.uid;
  named_ = configured_users();
}

// Asked anew for the one caller that says so: a session ends by itself when its time is over.
bool Admission::is_session_user(uid_t user) const {
  auth_session record = {};
  return has_session_user_ && session_user_ == user && auth_get_session_ex(session_.c_str(), 1, &record) == 0 &&
         record.uid == user;
}

bool Admission::admits(uid_t user) {
  if (user == 0 || user == own_user_) {
    return true;
  }
  look_up_if_changed();
  return is_session_user(user) || std::ranges::find(named_, user) != named_.end();
}

bool peer_user(int connection, uid_t &user) {
  ucred credentials = {};
  socklen_t size = sizeof(credentials);
  if (::getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
    return false;
  }
  user = credentials.uid;
  return true;
}

}  // namespace dirwell::host
