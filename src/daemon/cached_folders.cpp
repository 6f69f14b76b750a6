#include "daemon/cached_folders.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <string_view>
#include <utility>

#include "cache/cache_folder.h"
#include "cache/cache_store.h"
#include "daemon/request_process.h"
#include "service/fork_gate.h"
#include "service/session.h"
#include "service/unique_fd.h"

namespace dirwell {

namespace {

using Clock = std::chrono::steady_clock;

// The store's own limits, twice 2 seconds and 64 MiB of texts, end an honest reading; these end any other.
constexpr std::chrono::seconds longest_reading{5};
constexpr std::size_t most_bytes = std::size_t{80} << 20;
constexpr rlim_t most_memory = rlim_t{256} << 20;  // beyond what the daemon has itself

// Before it reads anything, the process is the session's user and nobody else, without a way back.
bool become_user_for_good() {
  const Session &session = Session::instance();
  const std::vector<gid_t> groups = session.groups();
  // An ordinary user may not set groups at all, and already has its own.
  const bool groups_set = ::setgroups(groups.size(), groups.data()) == 0 || (errno == EPERM && ::geteuid() != 0);
  const uid_t user = session.uid();
  const gid_t group = session.gid();
  return groups_set && ::setresgid(group, group, group) == 0 && ::setresuid(user, user, user) == 0;
}

// Counted from what was inherited: tools that look into memory reserve much of it.
void bound_memory() {
  std::ifstream file("/proc/self/statm");
  rlim_t pages = 0;
  for (int field = 0; field < 6; ++field) {  // the sixth: data and stack
    file >> pages;
  }
  const rlim_t most = pages * static_cast<rlim_t>(::sysconf(_SC_PAGESIZE)) + most_memory;
  const rlimit limit = {most, most};
  ::setrlimit(RLIMIT_DATA, &limit);
}

bool write_all(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(STDOUT_FILENO, bytes.data(), bytes.size());
    if (written < 0 && errno != EINTR) {
      return false;
    }
    bytes.remove_prefix(written < 0 ? 0 : static_cast<std::size_t>(written));
  }
  return true;
}

// Each path and a NUL. A path that holds one itself names no folder beyond it.
bool write_folders(std::size_t index) {
  CacheStore store(index, false);
  store.begin();  // so that the table that is looked at is the one that is read
  if (!store.holdsOwnTable()) {
    return true;
  }
  std::string bytes;
  constexpr std::size_t piece = 64UL * 1024;
  for (const std::string &path : store.cachedPaths()) {
    bytes.append(path.c_str()).push_back('\0');
    if (bytes.size() >= piece) {
      if (!write_all(bytes)) {
        return false;
      }
      bytes.clear();
    }
  }
  return write_all(bytes);
}

// The forked child's whole life; it ends with _exit as request processes do. Its parent reads what it writes.
[[noreturn]] void become_reader(std::size_t index, int output, pid_t parent) {
  try {
    const sched_param ordinary{};
    ::sched_setscheduler(0, SCHED_OTHER, &ordinary);  // the pool's policy would put it before every request
    if (::dup2(output, STDOUT_FILENO) < 0) {
      ::_exit(1);
    }
    close_inherited_fds();
    bound_memory();
    // The change of user clears the death signal, so it comes after; the parent may have died before it counted.
    if (!become_user_for_good() || ::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != parent) {
      ::_exit(1);
    }
    ::_exit(write_folders(index) ? 0 : 1);
  } catch (...) {
    ::_exit(1);
  }
}

int milliseconds_until(Clock::time_point time) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(time - Clock::now()).count();
  return static_cast<int>(std::max<decltype(left)>(left, 0));
}

// Takes apart what a reader writes, as it comes. A text whose NUL never comes has been cut off and is dropped.
class Texts {
 public:
  void feed(std::string_view bytes) {
    for (std::size_t end = 0; (end = bytes.find('\0')) != std::string_view::npos; bytes.remove_prefix(end + 1)) {
      rest_.append(bytes.substr(0, end));
      whole_.push_back(std::move(rest_));
      rest_.clear();
    }
    rest_.append(bytes);
  }
  std::vector<std::string> take() { return std::move(whole_); }

 private:
  std::vector<std::string> whole_;
  std::string rest_;
};

// What the reader has written when it, or its time, is over.
std::vector<std::string> texts_from(int reader) {
  const Clock::time_point deadline = Clock::now() + longest_reading;
  Texts texts;
  std::array<char, 64UL * 1024> piece;
  for (std::size_t taken = 0; taken < most_bytes && Clock::now() < deadline;) {
    pollfd watched = {reader, POLLIN, 0};
    if (::poll(&watched, 1, milliseconds_until(deadline)) <= 0) {
      continue;  // interrupted, or out of time
    }
    const ssize_t got = ::read(reader, piece.data(), piece.size());
    if (got == 0 || (got < 0 && errno != EINTR)) {
      break;
    }
    const auto size = static_cast<std::size_t>(std::max<ssize_t>(got, 0));
    texts.feed({piece.data(), size});
    taken += size;
  }
  return texts.take();
}

// Ends the process with its scope, whether it has ended by itself or not.
class Reader {
 public:
  explicit Reader(pid_t process) : process_(process) {}
  ~Reader() {
    ::kill(process_, SIGKILL);
    while (::waitpid(process_, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
  Reader(const Reader &) = delete;
  Reader &operator=(const Reader &) = delete;

 private:
  pid_t process_;
};

bool has_default_volume() {
  const fork_gate::Section section;
  return !defaultVolume().empty();
}

}  // namespace

std::vector<std::string> foldersOfCache(std::size_t index) {
  std::array<int, 2> ends = {-1, -1};
  if (!has_default_volume() || ::pipe2(ends.data(), O_CLOEXEC) != 0) {
    return {};
  }
  const UniqueFd output(ends[0]);
  UniqueFd input(ends[1]);
  const pid_t self = ::getpid();
  const pid_t reader = fork_gate::fork();
  if (reader == 0) {
    become_reader(index, input.get(), self);
  }
  input.reset();
  if (reader < 0) {
    return {};
  }
  const Reader ended_with_scope(reader);
  return texts_from(output.get());
}

}  // namespace dirwell
