// Which thread is the bus worker.
#pragma once

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
};

// The calling thread is a copy in a forked process.
void forget_worker();

}  // namespace dirwell::host
