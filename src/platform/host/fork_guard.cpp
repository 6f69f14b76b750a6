#include "platform/host/fork_guard.h"

#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <mutex>
#include <vector>

#include "platform/host/worker.h"

namespace dirwell::host::fork_guard {

namespace {

// The number alone proves nothing: the handler closes its end by itself, and then others get the number.
struct Identity {
  dev_t device = 0;
  ino_t inode = 0;
  bool operator==(const Identity &) const = default;
};

Identity identity_of(int descriptor) {
  struct stat status = {};
  return ::fstat(descriptor, &status) == 0 ? Identity{status.st_dev, status.st_ino} : Identity{};
}

struct State {
  std::mutex opening;  // held while descriptors are opened that are not in the table yet, and across each fork
  std::mutex mutex;    // of the table; held across each fork, so that the child finds it whole
  std::vector<Identity> descriptors;  // by number; a plain array, so that the child forgets it without touching memory
  int dispatching = -1;
  sigset_t mask = {};  // of the forking thread
  std::array<std::atomic<bool>, 65> own_signals = {};

  // The place of an open descriptor; with the mutex held.
  Identity &at(int descriptor) {
    const auto place = static_cast<std::size_t>(descriptor);
    if (place >= descriptors.size()) {
      descriptors.resize(place + 1);
    }
    return descriptors[place];
  }
};

// Never destroyed: a fork may still happen while the process ends.
State &state() {
  static auto *const values = new State;
  return *values;
}

bool is_fault(int number) {
  return number == SIGSEGV || number == SIGBUS || number == SIGFPE || number == SIGILL;
}

// Between the fork and the reset of the handlers no signal may be handled in the child.
void prepare() {
  sigset_t all = {};
  sigset_t before = {};
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  state().opening.lock();
  state().mutex.lock();
  state().mask = before;
}

void release() {
  const sigset_t mask = state().mask;
  state().mutex.unlock();
  state().opening.unlock();
  ::pthread_sigmask(SIG_SETMASK, &mask, nullptr);
}

void become_request_process() {
  State &all = state();
  const int kept = on_worker() ? all.dispatching : -1;
  for (std::size_t place = 0; place < all.descriptors.size(); ++place) {
    const auto descriptor = static_cast<int>(place);
    const Identity &identity = all.descriptors[place];
    if (identity != Identity{} && descriptor != kept && identity_of(descriptor) == identity) {
      ::close(descriptor);
    }
  }
  all.descriptors.clear();
  for (int number = 1; number < static_cast<int>(all.own_signals.size()); ++number) {
    if (all.own_signals.at(static_cast<std::size_t>(number)) && !is_fault(number)) {
      // A write to a client that has gone must stay an error, not a death.
      ::signal(number, number == SIGPIPE ? SIG_IGN : SIG_DFL);
    }
  }
  forget_worker();
  release();
}

}  // namespace

void install() {
  static const int result = ::pthread_atfork(prepare, release, become_request_process);
  static_cast<void>(result);  // fails only for want of memory at the very start
}

void guard(int descriptor) {
  // Never taken out: an entry that leads to another file by now does nothing, and there are no more than descriptors.
  if (descriptor < 0) {
    return;
  }
  const Identity identity = identity_of(descriptor);
  const std::lock_guard lock(state().mutex);
  state().at(descriptor) = identity;
}

NoFork::NoFork() : lock_(state().opening) {}

Guarded::Guarded(int descriptor) : descriptor_(descriptor) {
  if (descriptor < 0) {
    return;
  }
  const Identity identity = identity_of(descriptor);
  device_ = identity.device;
  inode_ = identity.inode;
  const std::lock_guard lock(state().mutex);
  state().at(descriptor) = identity;
}

Guarded::~Guarded() {
  if (descriptor_ < 0) {
    return;
  }
  const std::lock_guard lock(state().mutex);
  // A child's table is empty.
  auto &descriptors = state().descriptors;
  const auto place = static_cast<std::size_t>(descriptor_);
  if (place < descriptors.size() && descriptors[place] == Identity{device_, inode_}) {
    descriptors[place] = {};
  }
}

Dispatching::Dispatching(int descriptor) {
  const std::lock_guard lock(state().mutex);
  state().dispatching = descriptor;
}

Dispatching::~Dispatching() {
  const std::lock_guard lock(state().mutex);
  state().dispatching = -1;
}

void add_signal(int number) {
  if (number > 0 && number < static_cast<int>(state().own_signals.size())) {
    state().own_signals.at(static_cast<std::size_t>(number)) = true;
  }
}

}  // namespace dirwell::host::fork_guard
