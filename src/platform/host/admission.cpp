#include "platform/host/admission.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <vector>

#include "platform/include/strata_config.h"
#include "platform/include/strata_nasauth.h"

namespace dirwell::host {

namespace {

constexpr std::string_view service_prefix = "dirwell-";
constexpr std::size_t users_size = 16UL * 1024;

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
  std::string users(users_size, '\0');
  const int size = Get_Private_Profile_String("BUS", "users", "", users.data(), static_cast<int>(users.size()),
                                              "/etc/config/host-platform.conf");
  users.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
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
