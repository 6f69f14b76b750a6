// Who may connect.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <string>
#include <string_view>

namespace dirwell::host {

class Admission {
 public:
  // For the service of this name, made by a daemon that runs as the calling process's effective user.
  explicit Admission(std::string_view service);

  // Whether a process with this user id may connect now: root, the daemon's own user, the user of the session that the
  // service is named after, and the accounts that the configuration names. Session and configuration are asked each
  // time, so a change counts from the next connection on.
  [[nodiscard]] bool admits(uid_t user) const;

 private:
  std::string session_;  // empty: the service is named after none
  uid_t own_user_;
};

// The user that made the other end of a connection; false when the kernel does not tell.
bool peer_user(int connection, uid_t &user);

}  // namespace dirwell::host
