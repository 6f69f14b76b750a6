#include "platform/host/regular_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "platform/host/owned_fd.h"

namespace dirwell::host {
std::optional<std::string> read_regular_file(const std::string &path, Links links, std::size_t limit,
                                             struct stat &status) {
  // Without O_NONBLOCK the open itself would wait for the other end of a fifo.
  const int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | (links == Links::refuse ? O_NOFOLLOW : 0);
  OwnedFd file;
  do {
    file.reset(::open(path.c_str(), flags));
  } while (!file.valid() && errno == EINTR);
  struct stat before {};
  if (!file.valid() || ::fstat(file.get(), &before) != 0) {
    return std::nullopt;
  }
  if (!S_ISREG(before.st_mode) || static_cast<std::size_t>(before.st_size) > limit) {
    errno = EINVAL;
    return std::nullopt;
  }
  // One byte more than the status tells: the last read then meets the end of the file in the common case, and a file
  // that grows meanwhile, or one of a file system that tells no sizes, is still read to its end.
  std::string content(static_cast<std::size_t>(before.st_size) + 1, '\0');
  std::size_t filled = 0;
  for (;;) {
    if (filled == content.size()) {
      content.resize(content.size() * 2);
    }
    const ssize_t got = ::read(file.get(), content.data() + filled, content.size() - filled);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got < 0) {
      return std::nullopt;
    }
    if (got == 0) {
      break;
    }
    filled += static_cast<std::size_t>(got);
    if (filled > limit) {
      errno = EINVAL;
      return std::nullopt;
    }
  }
  content.resize(filled);
  status = before;
  return content;
}

}  // namespace dirwell::host
