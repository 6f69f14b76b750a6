#include "daemon/run.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "cache/cache_store.h"
#include "daemon/endpoints.h"
#include "daemon/options.h"
#include "daemon/pid_file.h"
#include "daemon/request_process.h"
#include "daemon/resident_memory.h"
#include "daemon/warm_up.h"
#include "daemon/watchers.h"
#include "listing/type_table.h"
#include "platform/include/hxrest.h"
#include "platform/include/hxservice.h"
#include "service/log.h"
#include "service/session.h"
#include "service/unique_fd.h"

namespace dirwell {

namespace {

// What the bus's callbacks and the signal handler reach; set before the bus loop starts, cleared after it has ended.
hx_rest *rest_table = nullptr;
std::atomic<hx_service *> bus_service = nullptr;
// A stop that arrives before there is a service to stop.
volatile std::sig_atomic_t stop_requested = 0;

void on_bus_request(hx_request *request, hx_io *io, int descriptor) {
  try {
    hx_rest_dispatch(rest_table, request, io, descriptor);
  } catch (...) {  // NOLINT(bugprone-empty-catch): the request ends here, the bus goes on
    close_if_valid(descriptor);
    hx_io_free(io);
  }
}

void on_worker_init(void * /*argument*/) {
  start_watchers();
  buildTypeIndex();
  prepareCacheFolder();
  start_thread_pool();
  warm_up();
}

void on_worker_fini(void * /*argument*/) {
  stop_watchers();
  stop_thread_pool();
}

void on_stop_signal(int /*signal_number*/) {
  stop_requested = 1;
  if (hx_service *service = bus_service; service != nullptr) {
    hx_stop(service);
  }
}

const char *last_error() {
  return std::strerror(errno);  // NOLINT(concurrency-mt-unsafe): each thread has a text of its own
}

int serve(const std::string &instance_name) {
  bus_service = hx_create(instance_name.c_str(), 2, 1, on_bus_request);
  if (bus_service == nullptr) {
    log_error("[%s] cannot create the bus service below \"%s/var/run\": %s", instance_name.c_str(), hx_root(),
              errno == ENAMETOOLONG ? "the socket's path is longer than the kernel allows" : last_error());
    return 1;
  }
  if (stop_requested != 0) {
    hx_stop(bus_service);
  }
  hx_worker_init(bus_service, on_worker_init, nullptr);
  hx_worker_fini(bus_service, on_worker_fini, nullptr);
  if (hx_start(bus_service) != 0) {
    log_error("[%s] the bus service ended: %s", instance_name.c_str(), last_error());
    return 1;
  }
  return 0;
}

}  // namespace

int run(int argc, char *argv[]) try {
  share_one_heap();
  Session &session = Session::instance();
  if (read_options(argc, argv) == StartUp::cleared) {
    return 0;
  }
  const std::string instance_name = session.instance_name();
  if (!session.alive()) {
    log_error("[%s] %s is not alive.", instance_name.c_str(), session.sid().c_str());
    return 1;
  }
  create_pid_file(instance_name);
  rest_table = hx_rest_create();
  log_info("[%s] startup service", instance_name.c_str());
  if (rest_table == nullptr) {
    throw std::bad_alloc();
  }
  register_endpoints(rest_table);
  hx_signal(SIGINT, on_stop_signal);
  hx_signal(SIGTERM, on_stop_signal);

  const int status = serve(instance_name);

  // A second stop signal must find no service any more.
  hx_free(bus_service.exchange(nullptr));
  hx_rest_destroy(std::exchange(rest_table, nullptr));
  cleanCacheFolder();
  remove_pid_file();
  log_info("[%s] shutdown service", instance_name.c_str());
  return status;
} catch (const std::bad_alloc &) {
  remove_pid_file();
  log_error("out of memory");
  return 1;
}

}  // namespace dirwell
