// Which thread is the bus worker.
#pragma once

#include "platform/host/brief_calls.h"

namespace dirwell::host {

// Whether the calling thread is running a service's loop now. It must not wait for what only the loop can do. A forked
// process has no worker.
bool on_worker();

// Makes the calling thread a worker for the length of a scope.
class WorkerScope {
 public:
  WorkerScope();
  ~WorkerScope();
  WorkerScope(const WorkerScope &) = delete;
  WorkerScope &operator=(const WorkerScope &) = delete;

 private:
  Interruptions interruptions_;
};

// The calling thread is a copy in a forked process.
void forget_worker();

}  // namespace dirwell::host
