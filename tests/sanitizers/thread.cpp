// What the thread sanitizer is told in every program of its build: settings, and what it may pass over.
//
// It watches the daemon, dirwellctl and the unit tests. In a process that was forked while other threads ran, which
// each request process is, it switches itself off.
#include <pthread.h>

#include <cstddef>

extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier): the names that the sanitizer looks for
const char *__tsan_default_options();
const char *__tsan_default_suppressions();
// NOLINTEND(bugprone-reserved-identifier)

const char *__tsan_default_options() {
  // Without the first it ends request processes at the start of their one further thread. The second would have each
  // forked process join the threads of its parent, which it does not have.
  return "die_after_fork=0:report_thread_leaks=0";
}

const char *__tsan_default_suppressions() {
  return
      // The report of a crash allocates, in a process that has no other way on than to its end; an alarm ends it where
      // the heap is in no state for that.
      "signal:dirwell::on_crash_signal\n"
      // The C library guards its time zone with a lock of its own, which is not seen.
      "race:tzset\n";
}

}  // extern "C"

namespace {

// In the forked process the sanitizer still knows the threads of the daemon by their ids, and ends the process when a
// new thread gets one of them, which happens when the library gives it the stack of one that is gone. None of those is
// large enough for what a new thread is given here.
void give_larger_stacks() {
  pthread_attr_t attributes;
  std::size_t size = 0;
  if (::pthread_getattr_default_np(&attributes) == 0) {
    ::pthread_attr_getstacksize(&attributes, &size);
    ::pthread_attr_setstacksize(&attributes, size + (std::size_t{1} << 20U));
    ::pthread_setattr_default_np(&attributes);
    ::pthread_attr_destroy(&attributes);
  }
}

[[gnu::constructor]] void prepare_forks() {
  ::pthread_atfork(nullptr, nullptr, give_larger_stacks);
}

}  // namespace
