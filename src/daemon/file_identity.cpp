#include "daemon/file_identity.h"

#include <sys/fsuid.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "service/fork_gate.h"
#include "service/session.h"

namespace dirwell {

namespace {

// The calls report the previous id only; an id that cannot be is refused and so tells the one in force.
uid_t current_fsuid() {
  return static_cast<uid_t>(::setfsuid(static_cast<uid_t>(-1)));
}
gid_t current_fsgid() {
  return static_cast<gid_t>(::setfsgid(static_cast<gid_t>(-1)));
}

// Of the calling thread alone: the library's call would change every thread of the daemon.
bool set_thread_groups(const std::vector<gid_t> &groups) {
  return ::syscall(SYS_setgroups, groups.size(), groups.data()) == 0;
}

std::vector<gid_t> current_groups() {
  std::vector<gid_t> groups(static_cast<std::size_t>(std::max(0, ::getgroups(0, nullptr))));
  const int count = ::getgroups(static_cast<int>(groups.size()), groups.data());
  groups.resize(static_cast<std::size_t>(std::max(0, count)));
  return groups;
}

}  // namespace

SessionFileIdentity::SessionFileIdentity()
    : previous_uid_(current_fsuid()), previous_gid_(current_fsgid()), previous_groups_(current_groups()) {
  const Session &session = Session::instance();
  std::vector<gid_t> groups;
  {
    const fork_gate::Section section;
    groups = session.groups();
  }
  // An ordinary user may not set groups at all, and already has its own.
  const bool groups_set = set_thread_groups(groups) || (errno == EPERM && ::geteuid() != 0);
  // The group first: without the root user's capabilities it could not be changed any more.
  ::setfsgid(session.gid());
  ::setfsuid(session.uid());
  held_ = groups_set && current_fsgid() == session.gid() && current_fsuid() == session.uid();
}

SessionFileIdentity::~SessionFileIdentity() {
  ::setfsuid(previous_uid_);
  ::setfsgid(previous_gid_);
  set_thread_groups(previous_groups_);  // refused where it was refused before, and then nothing had changed
}

}  // namespace dirwell
