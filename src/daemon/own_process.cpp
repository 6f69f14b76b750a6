#include "daemon/own_process.h"

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
#include <utility>

#include "daemon/request_process.h"
#include "service/fork_gate.h"
#include "service/session.h"
#include "service/unique_fd.h"

namespace dirwell {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds longest{5};
constexpr std::size_t most_bytes = std::size_t{80} << 20;
constexpr rlim_t most_memory = rlim_t{256} << 20;  // beyond what the daemon has itself
// What stands behind the last text, without a NUL, when the work is done.
constexpr std::string_view done_mark = "\x01";

// Before it works on anything, the process is the session's user and nobody else, without a way back.
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

// To the daemon, with many short texts in one go.
class Output {
 public:
  bool text(std::string_view text) {
    bytes_.append(text.substr(0, text.find('\0'))).push_back('\0');
    return bytes_.size() < piece || flush();
  }
  bool end() {
    bytes_.append(done_mark);
    return flush();
  }

 private:
  static constexpr std::size_t piece = 64UL * 1024;

  bool flush() {
    std::string_view left = bytes_;
    while (!left.empty()) {
      const ssize_t written = ::write(STDOUT_FILENO, left.data(), left.size());
      if (written < 0 && errno != EINTR) {
        return false;
      }
      left.remove_prefix(written < 0 ? 0 : static_cast<std::size_t>(written));
    }
    bytes_.clear();
    return true;
  }

  std::string bytes_;
};

// The forked child's whole life; it ends with _exit as request processes do.
[[noreturn]] void become_worker(const OwnWork &work, int output, pid_t parent) {
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
    Output to_daemon;
    const bool done = work([&to_daemon](std::string_view text) { return to_daemon.text(text); });
    ::_exit(done && to_daemon.end() ? 0 : 1);
  } catch (...) {
    ::_exit(1);
  }
}

int milliseconds_until(Clock::time_point time) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(time - Clock::now()).count();
  return static_cast<int>(std::max<decltype(left)>(left, 0));
}

// Takes apart what a process writes, as it comes.
class Texts {
 public:
  void feed(std::string_view bytes) {
    for (std::size_t end = 0; (end = bytes.find('\0')) != std::string_view::npos; bytes.remove_prefix(end + 1)) {
      rest_.append(bytes.substr(0, end));
      whole_.push_back(std::exchange(rest_, {}));
    }
    rest_.append(bytes);
  }
  OwnResult take() { return {rest_ == done_mark, std::move(whole_)}; }

 private:
  std::vector<std::string> whole_;
  std::string rest_;
};

// What the process has written when it, or its time, is over.
OwnResult result_from(int worker) {
  const Clock::time_point deadline = Clock::now() + longest;
  Texts texts;
  std::array<char, 64UL * 1024> piece;
  for (std::size_t taken = 0; taken < most_bytes && Clock::now() < deadline;) {
    pollfd watched = {worker, POLLIN, 0};
    if (::poll(&watched, 1, milliseconds_until(deadline)) <= 0) {
      continue;  // interrupted, or out of time
    }
    const ssize_t got = ::read(worker, piece.data(), piece.size());
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
class Worker {
 public:
  explicit Worker(pid_t process) : process_(process) {}
  ~Worker() {
    ::kill(process_, SIGKILL);
    while (::waitpid(process_, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
  Worker(const Worker &) = delete;
  Worker &operator=(const Worker &) = delete;

 private:
  pid_t process_;
};

}  // namespace

OwnResult in_own_process(const OwnWork &work) {
  std::array<int, 2> ends = {-1, -1};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
    return {};
  }
  const UniqueFd output(ends[0]);
  UniqueFd input(ends[1]);
  const pid_t self = ::getpid();
  const pid_t process = fork_gate::fork();
  if (process == 0) {
    become_worker(work, input.get(), self);
  }
  input.reset();
  if (process < 0) {
    return {};
  }
  const Worker ended_with_scope(process);
  return result_from(output.get());
}

}  // namespace dirwell
