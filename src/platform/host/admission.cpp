#include "platform/host/admission.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "platform/host/config.h"
#include "platform/include/strata_nasauth.h"

namespace dirwell::host {

namespace {

constexpr std::string_view service_prefix = "dirwell-";

bool is_account(const std::string &name, uid_t user) {
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
  return found != nullptr && found->pw_uid == user;
}

bool is_configured(uid_t user) {
  // Not through a buffer: a name that it cut could be another account's.
  const auto config = config_file("/etc/config/host-platform.conf");
  const std::string users(config ? config->value("BUS", "users").value_or("") : "");
  constexpr const char *blanks = " \t";
  for (std::size_t begin = users.find_first_not_of(blanks); begin != std::string::npos;) {
    const std::size_t end = users.find_first_of(blanks, begin);
    if (is_account(users.substr(begin, end - begin), user)) {
      return true;
    }
    begin = users.find_first_not_of(blanks, end);
  }
  return false;
}

}  // namespace

Admission::Admission(std::string_view service) : own_user_(::geteuid()) {
  if (service.starts_with(service_prefix)) {
    session_ = service.substr(service_prefix.size());
  }
}

bool Admission::admits(uid_t user) const {
  if (user == 0 || user == own_user_) {
    return true;
  }
  auth_session record = {};
  if (!session_.empty() && auth_get_session_ex(session_.c_str(), 1, &record) == 0 && record.uid == user) {
    return true;
  }
  return is_configured(user);
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
