#include "platform/host/worker.h"

namespace dirwell::host {

namespace {

thread_local bool is_worker = false;

}  // namespace

bool on_worker() {
  return is_worker;
}

WorkerScope::WorkerScope() {
  is_worker = true;
}

WorkerScope::~WorkerScope() {
  is_worker = false;
}

void forget_worker() {
  is_worker = false;
}

}  // namespace dirwell::host
