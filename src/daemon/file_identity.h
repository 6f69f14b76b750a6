// The session user's file-system identity for one thread of the daemon.
#pragma once

#include <sys/types.h>

#include <vector>

namespace dirwell {

// While it stands, the calling thread opens and watches files with the rights of the session's user and of that user's
// groups alone; other threads keep the daemon's. held() is false when the kernel refused the switch: then no file may
// be touched. Not inside a fork gate section.
class SessionFileIdentity {
 public:
  SessionFileIdentity();
  ~SessionFileIdentity();
  SessionFileIdentity(const SessionFileIdentity &) = delete;
  SessionFileIdentity &operator=(const SessionFileIdentity &) = delete;

  [[nodiscard]] bool held() const { return held_; }

 private:
  uid_t previous_uid_;
  gid_t previous_gid_;
  std::vector<gid_t> previous_groups_;
  bool held_ = false;
};

}  // namespace dirwell
