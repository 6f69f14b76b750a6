#include "platform/host/brief_calls.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>

#include "platform/host/fork_guard.h"

#ifndef SO_PASSRIGHTS
#define SO_PASSRIGHTS 83  // of kernels later than the C library's headers
#endif

namespace dirwell::host {

namespace {

constexpr long longest_nanoseconds = 5'000'000;
// Nobody else sends it, and where no handler stands it does nothing.
constexpr int interruption = SIGURG;

thread_local const Interruptions *worker_interruptions = nullptr;

}  // namespace

Interruptions::Interruptions() : owner_(::getpid()) {
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  ::sigemptyset(&action.sa_mask);
  ::sigaction(interruption, &action, nullptr);  // without SA_RESTART: what waits is to end
  fork_guard::add_signal(interruption);
  sigevent event = {};
  event.sigev_notify = SIGEV_THREAD_ID;
  event.sigev_signo = interruption;
  event._sigev_un._tid = static_cast<pid_t>(::syscall(SYS_gettid));
  there_ = ::timer_create(CLOCK_MONOTONIC, &event, &timer_) == 0;
  worker_interruptions = this;
}

Interruptions::~Interruptions() {
  worker_interruptions = nullptr;
  if (there_ && owner_ == ::getpid()) {
    ::timer_delete(timer_);
  }
}

void Interruptions::every(long nanoseconds) const {
  const itimerspec times = {{0, nanoseconds}, {0, nanoseconds}};
  if (there_ && owner_ == ::getpid()) {
    const int error = errno;
    ::timer_settime(timer_, 0, &times, nullptr);
    errno = error;
  }
}

BriefCalls::BriefCalls() {
  if (worker_interruptions != nullptr) {
    worker_interruptions->every(longest_nanoseconds);
  }
}

BriefCalls::~BriefCalls() {
  if (worker_interruptions != nullptr) {
    worker_interruptions->every(0);
  }
}

void refuse_files(int listener) {
  const int off = 0;
  // An older kernel does not know the option; there the calls are kept brief.
  static_cast<void>(::setsockopt(listener, SOL_SOCKET, SO_PASSRIGHTS, &off, sizeof(off)));
}

}  // namespace dirwell::host
