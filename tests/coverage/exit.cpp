// Counters of processes that leave by _exit, which drops them: the forked request processes above all.
//
// Linked in place of the library's _exit (ld's --wrap) into every program of the coverage build.
extern "C" {

#include <gcov.h>  // which, in g++ 12, does not say itself that it is C

[[noreturn]] void __real__exit(int status);  // NOLINT(bugprone-reserved-identifier): the linker's name

[[noreturn]] void __wrap__exit(int status) {  // NOLINT(bugprone-reserved-identifier): the linker's name
  __gcov_dump();
  __real__exit(status);
}

}  // extern "C"
