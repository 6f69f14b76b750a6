#include "fuzz/support/stand_ins.h"

#include <sys/types.h>

#include <cerrno>
#include <cstring>

#include "platform/include/hxservice.h"

namespace dirwell::fuzz {

Machine &machine() {
  static Machine only;
  return only;
}

}  // namespace dirwell::fuzz

using dirwell::fuzz::machine;

extern "C" {

// The linker gives wrapped calls these names.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
ssize_t __wrap_getxattr(const char *path, const char *name, void *value, size_t size);
int __wrap_setxattr(const char *path, const char *name, const void *value, size_t size, int flags);
int __wrap_hx_io_execv(hx_io *input, hx_io *output, hx_io *error, const char *const arguments[]);

ssize_t __wrap_getxattr(const char *path, const char *name, void *value, size_t size) {
  machine().asked.emplace_back(path);
  const auto found = machine().attributes.find(name);
  if (found == machine().attributes.end()) {
    errno = ENODATA;
    return -1;
  }
  if (size != 0 && found->second.size() > size) {
    errno = ERANGE;
    return -1;
  }
  if (size != 0) {
    std::memcpy(value, found->second.data(), found->second.size());
  }
  return static_cast<ssize_t>(found->second.size());
}

int __wrap_setxattr(const char *path, const char *name, const void *value, size_t size, int /*flags*/) {
  machine().set.emplace_back(std::string(path) + ":" + name, std::string(static_cast<const char *>(value), size));
  return 0;
}

int __wrap_hx_io_execv(hx_io * /*input*/, hx_io *output, hx_io *error, const char *const arguments[]) {
  std::vector<std::string> run;
  for (const char *const *argument = arguments; *argument != nullptr; ++argument) {
    run.emplace_back(*argument);
  }
  machine().runs.push_back(std::move(run));
  hx_io *stream = output != nullptr ? output : error;
  if (stream != nullptr) {
    hx_io_write(stream, machine().program_output.data(), machine().program_output.size());
  }
  return 0;
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
}
