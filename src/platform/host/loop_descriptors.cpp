#include "platform/host/loop_descriptors.h"

#include <charconv>
#include <filesystem>
#include <string>
#include <system_error>

namespace dirwell::host {

std::set<int> event_descriptors() {
  namespace fs = std::filesystem;
  std::set<int> found;
  std::error_code error;
  for (fs::directory_iterator entry("/proc/self/fd", error), end; !error && entry != end; entry.increment(error)) {
    std::error_code unreadable;
    const std::string link = fs::read_symlink(entry->path(), unreadable).string();
    const std::string name = entry->path().filename().string();
    int number = -1;
    std::from_chars(name.data(), name.data() + name.size(), number);
    if (number >= 0 &&
        (link == "anon_inode:[eventpoll]" || link == "anon_inode:[eventfd]" || link == "anon_inode:[timerfd]")) {
      found.insert(number);
    }
  }
  return found;
}

}  // namespace dirwell::host
