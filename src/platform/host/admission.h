// Who may connect.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <array>
#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "platform/host/file_state.h"

namespace dirwell::host {

// Used by one thread.
class Admission {
 public:
  // For the service of this name, made by a daemon that runs as the calling process's effective user.
  explicit Admission(std::string_view service);

  // Whether a process with this user id may connect now: root, the daemon's own user, the user of the session that the
  // service is named after, and the accounts that the configuration names. A change of session, configuration or local
  // accounts counts from the next connection on, one of accounts that the machine looks up elsewhere within seconds.
  [[nodiscard]] bool admits(uid_t user);

 private:
  // The session's record, the configuration, the local accounts.
  using Sources = std::array<FileState, 3>;
  [[nodiscard]] Sources sources_now() const;
  void look_up_if_changed();
  [[nodiscard]] bool is_session_user(uid_t user) const;

  std::string session_;  // empty: the service is named after none
  std::string record_;   // the session's file
  uid_t own_user_;

  // Who is admitted, as it was looked up when the sources were so. Strangers may knock thousands of times a second, and
  // each look-up reads files and asks the name service, while all clients wait.
  std::vector<uid_t> named_;
  bool has_session_user_ = false;
  uid_t session_user_ = 0;
  Sources sources_;
  bool settled_ = false;
  std::chrono::steady_clock::time_point looked_up_;
};

// The user that made the other end of a connection; false when the kernel does not tell.
bool peer_user(int connection, uid_t &user);

}  // namespace dirwell::host
