#include "cache/plain_files.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace dirwell {

namespace {

int open_plain_file(const char *path, int flags, int mode) {
  // Neither flag means anything to a regular file.
  const int descriptor = ::open(path, flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode);
  if (descriptor < 0) {
    return descriptor;
  }
  struct ::stat status {};
  if (::fstat(descriptor, &status) == 0 && (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode))) {
    return descriptor;
  }
  ::close(descriptor);
  errno = ENXIO;
  return -1;
}

bool replace_open() {
  sqlite3_vfs *system = sqlite3_vfs_find(nullptr);
  return system != nullptr && system->iVersion >= 3 &&
         system->xSetSystemCall(system, "open", reinterpret_cast<sqlite3_syscall_ptr>(open_plain_file)) == SQLITE_OK;
}

}  // namespace

void open_plain_files_only() {
  [[maybe_unused]] static const bool replaced = replace_open();
}

}  // namespace dirwell
