#include "platform/host/file_state.h"

#include <time.h>
#include <unistd.h>

namespace dirwell::host {

namespace {

constexpr std::int64_t settling_nanoseconds = 100'000'000;

std::int64_t nanoseconds(const timespec &time) {
  return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

}  // namespace

FileState::FileState(const struct stat &status)
    : device_(status.st_dev),
      inode_(status.st_ino),
      size_(status.st_size),
      modified_(nanoseconds(status.st_mtim)),
      changed_(nanoseconds(status.st_ctim)),
      reader_(::geteuid()),
      reader_group_(::getegid()) {}

bool FileState::settled() const {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  const std::int64_t age = nanoseconds(now) - changed_;
  return age > settling_nanoseconds || age < -settling_nanoseconds;
}

}  // namespace dirwell::host
