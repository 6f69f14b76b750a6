#include "service/unique_fd.h"

#include <fcntl.h>

#include <cerrno>

namespace dirwell {

void close_if_valid(int descriptor) {
  // No other error says that it is not open.
  if (descriptor >= 0 && (::fcntl(descriptor, F_GETFD) != -1 || errno != EBADF)) {
    ::close(descriptor);
  }
}

}  // namespace dirwell
