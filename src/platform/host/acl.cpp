// Access rights: the kernel is asked, so that ACLs, read-only mounts, supplementary groups and capabilities all count.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "platform/host/config.h"
#include "platform/include/strata_config.h"
#include "platform/include/strata_nasacl.h"

static_assert(R_OK == 4 && W_OK == 2 && X_OK == 1, "the rights are the kernel's own bits");

int Get_ACL_User_Group_Security_For_Share(const char *user, const char *path) {
  static_cast<void>(user);  // the calling process has taken on that user's identity
  const auto granted = [path](int rights) { return ::faccessat(AT_FDCWD, path, rights, AT_EACCESS) == 0; };
  if (path == nullptr) {
    return 0;
  }
  // Reading and writing are asked for together: two calls settle most files and folders.
  int rights = 0;
  if (granted(R_OK | W_OK)) {
    rights = R_OK | W_OK;
  } else if (errno == ENOENT || errno == ENOTDIR) {
    return 0;
  } else if (granted(R_OK)) {
    rights = R_OK;  // so it was the writing
  } else if (granted(W_OK)) {
    rights = W_OK;
  }
  return granted(X_OK) ? rights | X_OK : rights;
}

namespace {

int acl_switch(const char *key) {
  return Get_Private_Profile_Integer("ACL", key, 0, dirwell::host::platform_file);
}

}  // namespace

int Is_ACL_Enabled(void) {
  return acl_switch("enable");
}

int Is_RichACL_Enabled(void) {
  return acl_switch("rich");
}

int Is_Win_ACL_Enabled(void) {
  return acl_switch("win_enable");
}

int Is_Win_ACL_Supported(void) {
  return acl_switch("win_support");
}
