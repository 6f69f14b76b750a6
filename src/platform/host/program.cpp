#include "platform/host/program.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>

namespace dirwell::host {

namespace {

// The kernel's own signal set: the C library's calls leave out the two signals that it uses between threads.
using SignalMask = std::uint64_t;
constexpr int last_signal = 64;

long set_signal_mask(const SignalMask &mask, SignalMask *before) {
  return ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &mask, before, sizeof(mask));
}

// What the new process works with. It runs in the caller's memory until it executes the program, so it calls nothing
// but the kernel: no allocation, no lock, no library call that would signal other threads.
struct Launch {
  const ProgramStart *start;
  pid_t parent;
  uid_t user;
  gid_t group;
  int error = 0;  // why the program was not executed
};

void default_all_signals() {
  struct {
    void (*handler)(int);
    unsigned long flags;
    void (*restorer)();
    SignalMask mask;
  } action = {SIG_DFL, 0, nullptr, 0};
  for (int number = 1; number <= last_signal; ++number) {
    ::syscall(SYS_rt_sigaction, number, &action, nullptr, sizeof(SignalMask));  // refused for SIGKILL and SIGSTOP
  }
}

// The effective ids become the only ones. Group first: the right to set it goes with the user.
bool take_identity(const Launch &launch) {
  if (::syscall(SYS_setresgid, launch.group, launch.group, launch.group) != 0 ||
      ::syscall(SYS_setresuid, launch.user, launch.user, launch.user) != 0) {
    return false;
  }
  if (launch.user == 0) {
    return true;
  }
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
  return ::prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0) == 0 && ::syscall(SYS_capset, &header, none) == 0 &&
         ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0;
}

bool take_descriptors(const ProgramStart &start) {
  return ::syscall(SYS_dup3, start.input, STDIN_FILENO, 0) >= 0 &&
         ::syscall(SYS_dup3, start.output, STDOUT_FILENO, 0) >= 0 &&
         ::syscall(SYS_dup3, start.error, STDERR_FILENO, 0) >= 0 && ::syscall(SYS_close_range, 3U, UINT_MAX, 0U) == 0;
}

int become_program(void *argument) {
  auto &launch = *static_cast<Launch *>(argument);
  default_all_signals();
  errno = 0;  // after the signals that were refused
  // A change of identity clears the death signal, so it comes after; the parent may have died before it counted.
  if (::syscall(SYS_setsid) >= 0 && take_identity(launch) && ::prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0) == 0 &&
      ::syscall(SYS_getppid) == launch.parent && take_descriptors(*launch.start)) {
    const SignalMask none = 0;
    set_signal_mask(none, nullptr);
    ::syscall(SYS_execve, launch.start->file, launch.start->arguments, environ);
  }
  launch.error = errno != 0 ? errno : ECHILD;
  ::syscall(SYS_exit_group, 127);
  return 0;
}

// The stack of the new process until it executes the program.
class ScratchStack {
 public:
  ScratchStack()
      : memory_(::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0)) {}
  ~ScratchStack() {
    if (valid()) {
      ::munmap(memory_, size);
    }
  }
  ScratchStack(const ScratchStack &) = delete;
  ScratchStack &operator=(const ScratchStack &) = delete;

  [[nodiscard]] bool valid() const { return memory_ != MAP_FAILED; }
  [[nodiscard]] void *top() const { return static_cast<std::byte *>(memory_) + size; }

 private:
  static constexpr std::size_t size = 64UL * 1024;
  void *memory_;
};

}  // namespace

pid_t start_program(const ProgramStart &start) {
  const ScratchStack stack;
  if (!stack.valid()) {
    return -1;
  }
  Launch launch = {&start, ::getpid(), ::geteuid(), ::getegid()};
  // No handler of ours may run in the new process while it shares our memory.
  SignalMask before = 0;
  set_signal_mask(~SignalMask{0}, &before);
  const pid_t child = ::clone(become_program, stack.top(), CLONE_VM | CLONE_VFORK | SIGCHLD, &launch);
  const int clone_error = errno;
  set_signal_mask(before, nullptr);
  if (child < 0) {
    errno = clone_error;
    return -1;
  }
  if (launch.error != 0) {
    while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    errno = launch.error;
    return -1;
  }
  return child;
}

}  // namespace dirwell::host
