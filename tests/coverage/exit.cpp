// Counters of processes that leave by _exit, which drops them: the forked request processes above all.
//
// Linked (by ld's --wrap) in place of the library's _exit, and of the fork that the compiler puts in the place of the
// library's, into every program of the coverage build.
#include <unistd.h>

extern "C" {

#include <gcov.h>  // which, in g++ 12, does not say itself that it is C

[[noreturn]] void __real__exit(int status);  // NOLINT(bugprone-reserved-identifier): the linker's name

// Of the library that makes calls fail (tests/faults/), where it is loaded: those that write the counters do not.
void fault_leave() __attribute__((weak));

[[noreturn]] void __wrap__exit(int status) {  // NOLINT(bugprone-reserved-identifier): the linker's name
  if (fault_leave != nullptr) {
    fault_leave();
  }
  __gcov_dump();
  __real__exit(status);
}

// The compiler's own would forget in the child what the handlers of the fork have counted there by then. Without it the
// child counts once more what its parent has counted before the fork, which no figure of the report depends on.
pid_t __wrap___gcov_fork() {  // NOLINT(bugprone-reserved-identifier): the linker's name
  return ::fork();
}

}  // extern "C"
