#include "daemon/pid_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>

#include "platform/include/hxservice.h"
#include "service/log.h"
#include "service/unique_fd.h"

namespace dirwell {

namespace {

// Of the running instance; the descriptor carries the lock.
std::string pid_file_path;
UniqueFd pid_file;

constexpr std::size_t pid_capacity = 32;

}  // namespace

void create_pid_file(const std::string &instance_name) {
  pid_file_path = std::string(hx_root()) + "/var/run/" + instance_name + ".pid";
  std::error_code ignored;  // a folder that cannot be made shows in the open below
  std::filesystem::create_directories(std::filesystem::path(pid_file_path).parent_path(), ignored);
  pid_file.reset(::open(pid_file_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
  if (!pid_file.valid()) {
    log_error("[%s] create pid file %s fail.", instance_name.c_str(), pid_file_path.c_str());
    std::exit(1);  // NOLINT(concurrency-mt-unsafe): start-up, before any thread of ours uses what exit destroys
  }
  if (::flock(pid_file.get(), LOCK_EX | LOCK_NB) != 0) {
    std::array<char, pid_capacity> other{};
    // An unreadable file leaves the text empty.
    [[maybe_unused]] const ssize_t got = ::read(pid_file.get(), other.data(), other.size());
    log_error("[%s] daemon is running (%.*s).", instance_name.c_str(), static_cast<int>(other.size()), other.data());
    std::exit(1);  // NOLINT(concurrency-mt-unsafe): as above
  }
  // What cannot be written costs the reader of the file the number, not the instance its lock.
  [[maybe_unused]] const int cut = ::ftruncate(pid_file.get(), 0);
  dirwell::dprintf(pid_file.get(), "%d", static_cast<int>(::getpid()));
}

void remove_pid_file() {
  if (!pid_file.valid()) {
    return;
  }
  ::unlink(pid_file_path.c_str());
  ::flock(pid_file.get(), LOCK_UN);
  pid_file.reset();
}

}  // namespace dirwell
