// The login session that this instance serves, and the switch to its user.
#pragma once

#include <sys/types.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/include/strata_nasauth.h"
#include "service/interval_timer.h"

namespace dirwell {

class Session {
 public:
  // The process's session, created at the first call, which also starts the liveness timer: every 30 seconds it checks
  // the session and ends the process with SIGTERM once it is gone. Any thread.
  static Session &instance();

  // Stores the id, names the instance "dirwell-" + sid and, if the session is alive, takes over its user's ids. Logs
  // one E line. Start-up only.
  void set_sid(const std::string &sid);

  [[nodiscard]] std::string sid() const { return sid_; }
  [[nodiscard]] std::string instance_name() const { return instance_name_; }
  // The account name in the session's record; empty before the first successful check.
  [[nodiscard]] std::string user_name() const;
  [[nodiscard]] uid_t uid() const { return uid_; }
  [[nodiscard]] gid_t gid() const { return gid_; }

  // Asks the platform whether the session is valid now, and refills the record. Any thread.
  bool alive();

  // The supplementary groups of the session's user; none when the lookup fails. In the daemon inside a fork gate
  // section.
  [[nodiscard]] std::vector<gid_t> groups() const;

  // Takes on the session user's groups, group and user as the effective ones, in this order; with `restore` goes back
  // to the real group and user. Returns false when the process does not hold the wanted identity afterwards, or when
  // the ids taken over with the sid are not those of the session's user now; the caller must then touch no file. Only
  // in a process of its own.
  bool seteuser(bool restore);

  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;

 private:
  Session();
  ~Session() = default;

  using GroupArray = std::unique_ptr<gid_t[]>;
  // The groups in an array of full size, undefined beyond `count` unless traces are logged; it is negative when the
  // lookup fails.
  GroupArray look_up_groups(int &count) const;

  uid_t uid_ = 0;
  gid_t gid_ = 0;
  std::string sid_;
  std::string instance_name_;
  auth_session record_{};
  mutable std::mutex mutex_;  // guards the platform's lookup and record_
  IntervalTimer liveness_;    // last: its thread uses all that stands above
};

}  // namespace dirwell
