// Starting a program in a process that has nothing of ours but what it is given.
#pragma once

#include <sys/types.h>

namespace dirwell::host {

struct ProgramStart {
  const char *file;              // what is executed
  const char *const *arguments;  // NULL-terminated; the first is the name that the program sees
  int input, output, error;      // become descriptors 0, 1 and 2; each is 3 or more
};

// Starts the program as the leader of a session and process group of its own, with the caller's effective ids as its
// only ones and, unless that is root, without any capability; it is killed when the calling thread ends. Returns its
// process id, which the caller waits for, or -1 with errno set (then nothing is left to wait for). Any thread of any
// process: no lock is taken and no handler of a fork runs.
pid_t start_program(const ProgramStart &start);

}  // namespace dirwell::host
