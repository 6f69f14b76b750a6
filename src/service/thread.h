// Threads of the daemon: system contention scope, round-robin scheduling, all signals blocked.
#pragma once

#include <pthread.h>

namespace dirwell {

// Starts `entry` (`argument`) on a new thread. Where the kernel refuses the scheduling policy the thread starts with
// the inherited one. Returns 0, or the error number with `thread` untouched.
int start_thread(pthread_t &thread, void *(*entry)(void *), void *argument);

}  // namespace dirwell
