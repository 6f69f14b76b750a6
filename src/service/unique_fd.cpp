#include "service/unique_fd.h"

#include <fcntl.h>

namespace dirwell {

void close_if_valid(int descriptor) {
  if (descriptor >= 0 && ::fcntl(descriptor, F_GETFD) != -1) {
    ::close(descriptor);
  }
}

}  // namespace dirwell
