#include "service/session.h"

#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <memory>

#include "service/fork_gate.h"
#include "service/log.h"

namespace dirwell {

namespace {

constexpr unsigned liveness_period_seconds = 30;
constexpr int check_only = 1;  // the platform's flag for a look that does not prolong the session
constexpr int group_capacity = 65536;

// Where readers of trace output look for the switch of identity.
constexpr SourcePlace identity_place{"session", 97, "seteuser"};

std::mutex creation_mutex;

}  // namespace

Session &Session::instance() {
  // Threads of the daemon ask at any time, also while it forks: once the session is there they take no lock.
  static std::atomic<Session *> existing = nullptr;
  if (Session *session = existing; session != nullptr) {
    return *session;
  }
  const std::lock_guard lock(creation_mutex);
  static Session session;
  existing = &session;
  return session;
}

Session::Session() {
  liveness_.set_callback([this] {
    const fork_gate::Section section;
    if (!alive()) {
      log_error("[session] %s is not alive.", sid_.c_str());
      ::kill(::getpid(), SIGTERM);
    }
  });
  liveness_.start(liveness_period_seconds);
}

void Session::set_sid(const std::string &sid) {
  sid_ = sid;
  instance_name_ = "dirwell-" + sid;
  log_error("[session] %s be set.", sid_.c_str());
  if (!alive()) {
    return;
  }
  static std::array<char, 1024> buffer;
  passwd account{};
  passwd *found = nullptr;
  int error = 0;
  while ((error = ::getpwuid_r(record_.uid, &account, buffer.data(), buffer.size(), &found)) == EINTR) {
  }
  if (error == 0 && found != nullptr) {
    uid_ = account.pw_uid;
    gid_ = account.pw_gid;
  }
}

std::string Session::user_name() const {
  const std::lock_guard lock(mutex_);
  return record_.user;
}

bool Session::alive() {
  const std::lock_guard lock(mutex_);
  return auth_get_session_ex(sid_.c_str(), check_only, &record_) == 0;
}

Session::GroupArray Session::look_up_groups(int &count) const {
  // Zeroed only where all of it is told: few groups are the rule, and clearing the rest took longer than the look-up.
  auto array = log_enabled(Severity::trace) ? std::make_unique<gid_t[]>(group_capacity)
                                            : std::make_unique_for_overwrite<gid_t[]>(group_capacity);
  int capacity = group_capacity;
  count = ::getgrouplist(user_name().c_str(), gid_, array.get(), &capacity);
  return array;
}

std::vector<gid_t> Session::groups() const {
  int count = 0;
  const GroupArray array = look_up_groups(count);
  return {array.get(), array.get() + std::max(0, count)};
}

bool Session::seteuser(bool restore) {
  int count = 0;
  const GroupArray array = look_up_groups(count);
  // A failed lookup clears the supplementary groups. An ordinary user may not set them at all, and already has its own.
  const bool groups_set = ::setgroups(static_cast<std::size_t>(std::max(0, count)), array.get()) == 0 ||
                          (errno == EPERM && ::geteuid() != 0);
  if (log_enabled(Severity::trace)) {
    for (int index = 0; index < group_capacity; ++index) {
      log_trace(identity_place, "[session] gid = %d", static_cast<int>(array[static_cast<std::size_t>(index)]));
    }
  }
  const gid_t gid = restore ? ::getgid() : gid_;
  const uid_t uid = restore ? ::getuid() : uid_;
  const bool switched = ::setegid(gid) == 0 && ::seteuid(uid) == 0;
  // A session that was not there when its id was set has left the ids at 0, which are not its user's.
  const bool ids_are_the_users = restore || record_.uid == uid_;
  return groups_set && switched && ::getegid() == gid && ::geteuid() == uid && ids_are_the_users;
}

}  // namespace dirwell
