#include "service/thread.h"

#include <sched.h>
#include <signal.h>

#include <initializer_list>

namespace dirwell {

namespace {

class ThreadAttributes {
 public:
  ThreadAttributes() { ::pthread_attr_init(&attributes_); }
  ~ThreadAttributes() { ::pthread_attr_destroy(&attributes_); }
  ThreadAttributes(const ThreadAttributes &) = delete;
  ThreadAttributes &operator=(const ThreadAttributes &) = delete;
  pthread_attr_t *get() { return &attributes_; }

 private:
  pthread_attr_t attributes_{};
};

// Signals are the business of the start-up thread: a new thread starts with all of them blocked, except the faults,
// which belong to the thread that causes them.
class BlockedSignals {
 public:
  BlockedSignals() {
    sigset_t blocked;
    ::sigfillset(&blocked);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) {
      ::sigdelset(&blocked, fault);
    }
    ::pthread_sigmask(SIG_SETMASK, &blocked, &before_);
  }
  ~BlockedSignals() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  BlockedSignals(const BlockedSignals &) = delete;
  BlockedSignals &operator=(const BlockedSignals &) = delete;

 private:
  sigset_t before_{};
};

}  // namespace

int start_thread(pthread_t &thread, void *(*entry)(void *), void *argument) {
  ThreadAttributes attributes;
  ::pthread_attr_setscope(attributes.get(), PTHREAD_SCOPE_SYSTEM);
  ::pthread_attr_setschedpolicy(attributes.get(), SCHED_RR);
  sched_param priority{};
  priority.sched_priority = ::sched_get_priority_min(SCHED_RR);
  ::pthread_attr_setschedparam(attributes.get(), &priority);
  ::pthread_attr_setinheritsched(attributes.get(), PTHREAD_EXPLICIT_SCHED);

  const BlockedSignals blocked;
  int result = ::pthread_create(&thread, attributes.get(), entry, argument);
  if (result != 0) {
    // Real-time scheduling is a privilege, and some kernels have none to give: the work matters more than the policy.
    ::pthread_attr_setinheritsched(attributes.get(), PTHREAD_INHERIT_SCHED);
    result = ::pthread_create(&thread, attributes.get(), entry, argument);
  }
  return result;
}

}  // namespace dirwell
