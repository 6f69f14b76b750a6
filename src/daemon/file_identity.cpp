#include "daemon/file_identity.h"

#include <sys/fsuid.h>

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

}  // namespace

SessionFileIdentity::SessionFileIdentity() : previous_uid_(current_fsuid()), previous_gid_(current_fsgid()) {
  const uid_t uid = Session::instance().uid();
  const gid_t gid = Session::instance().gid();
  // The group first: without the root user's capabilities it could not be changed any more.
  ::setfsgid(gid);
  ::setfsuid(uid);
  held_ = current_fsgid() == gid && current_fsuid() == uid;
}

SessionFileIdentity::~SessionFileIdentity() {
  ::setfsuid(previous_uid_);
  ::setfsgid(previous_gid_);
}

}  // namespace dirwell
