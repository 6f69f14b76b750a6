#include "service/fork_gate.h"

#include <unistd.h>

#include <condition_variable>
#include <memory>
#include <mutex>

namespace dirwell::fork_gate {

namespace {

struct Gate {
  std::mutex mutex;
  std::condition_variable changed;
  unsigned open_sections = 0;
  unsigned waiting_forks = 0;
};

Gate first_gate;
// A forked child takes a new gate: the mutex of the old one is held by the fork itself.
Gate *gate = &first_gate;
thread_local unsigned depth = 0;

}  // namespace

Section::Section() {
  if (depth++ > 0) {
    return;
  }
  std::unique_lock lock(gate->mutex);
  gate->changed.wait(lock, [] { return gate->waiting_forks == 0; });
  ++gate->open_sections;
}

Section::~Section() {
  if (--depth > 0) {
    return;
  }
  const std::lock_guard lock(gate->mutex);
  --gate->open_sections;
  if (gate->open_sections == 0) {
    gate->changed.notify_all();
  }
}

pid_t fork() {
  auto childs_gate = std::make_unique<Gate>();
  std::unique_lock lock(gate->mutex);
  ++gate->waiting_forks;
  gate->changed.wait(lock, [] { return gate->open_sections == 0; });
  const pid_t child = ::fork();
  if (child == 0) {
    lock.release();
    gate = childs_gate.release();
    return 0;
  }
  --gate->waiting_forks;
  lock.unlock();
  gate->changed.notify_all();
  return child;
}

}  // namespace dirwell::fork_gate
