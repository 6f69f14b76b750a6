#include "support/refused_calls.h"

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstddef>

namespace dirwell::test {

void refuse_calls(long number, int error, std::optional<Argument> argument) {
  // The halves of an argument stand in the order of the machine, which is little-endian wherever this runs.
  const auto argument_at =
      static_cast<std::uint32_t>(offsetof(seccomp_data, args)) + 8 * (argument ? argument->place : 0);
  const std::uint32_t refused = SECCOMP_RET_ERRNO | (static_cast<std::uint32_t>(error) & SECCOMP_RET_DATA);
  std::array<sock_filter, 6> filter = {{
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(number), 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, argument_at),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, argument ? argument->value : 0, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, refused),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  }};
  if (!argument) {
    filter[2] = filter[4];
  }
  const sock_fprog program = {filter.size(), filter.data()};
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
    ::_exit(98);
  }
}

void refuse_poll(int error) {
#ifdef SYS_poll
  refuse_calls(SYS_poll, error);
#endif
  refuse_calls(SYS_ppoll, error);
}

void refuse_chmod(int error) {
#ifdef SYS_chmod
  refuse_calls(SYS_chmod, error);
#endif
  refuse_calls(SYS_fchmodat, error);
}

}  // namespace dirwell::test
