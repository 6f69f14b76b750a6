// Services as the daemon holds them, and the signals that end them.

#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <system_error>

#include "platform/host/fork_guard.h"
#include "platform/host/owned_fd.h"
#include "platform/host/server.h"
#include "platform/host/socket_file.h"
#include "platform/host/worker.h"
#include "platform/include/hxservice.h"

struct hx_service {
  struct Hook {
    hx_worker_hook function = nullptr;
    void *argument = nullptr;

    void run() const {
      if (function != nullptr) {
        function(argument);
      }
    }
  };

  std::string name;
  std::string path;
  hx_request_callback callback = nullptr;
  Hook init;
  Hook fini;
  dirwell::host::fork_guard::GuardedFd stop_event;
  pid_t owner = ::getpid();
};

namespace dirwell::host {

namespace {

// -1 with errno set when the service cannot listen or its loop fails.
int serve(hx_service &service) {
  const WorkerScope worker;
  std::unique_ptr<Server> server;
  try {
    const fork_guard::NoFork no_fork;
    server = std::make_unique<Server>(service.name, service.callback, service.stop_event.get());
    if (!server->listen(service.path)) {
      const int reason = errno;
      server.reset();
      errno = reason;
      return -1;
    }
  } catch (const std::exception &) {
    errno = ENOMEM;
    return -1;
  }
  int failure = 0;
  try {
    service.init.run();
    server->run();
  } catch (const std::bad_alloc &) {
    failure = ENOMEM;
  } catch (const std::system_error &error) {
    failure = error.code().category() == std::generic_category() ? error.code().value() : EIO;
  } catch (const std::exception &) {
    failure = EIO;
  }
  service.fini.run();
  if (failure != 0) {
    server.reset();
    errno = failure;
    return -1;
  }
  return 0;
}

}  // namespace

}  // namespace dirwell::host

hx_service *hx_create(const char *name, int /*backlog_class*/, int /*workers*/, hx_request_callback callback) {
  using namespace dirwell::host;
  if (name == nullptr || *name == '\0' || std::string_view(name).find('/') != std::string_view::npos ||
      callback == nullptr) {
    errno = EINVAL;
    return nullptr;
  }
  try {
    auto service = std::make_unique<hx_service>();
    service->name = name;
    service->path = socket_path(name);
    service->callback = callback;
    if (!is_socket_path(service->path)) {
      errno = ENAMETOOLONG;
      return nullptr;
    }
    fork_guard::install();
    {
      const fork_guard::NoFork no_fork;
      service->stop_event = fork_guard::GuardedFd(OwnedFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)));
    }
    if (!service->stop_event.valid()) {
      return nullptr;
    }
    // Clients go away while they are written to, in the daemon and in its request processes.
    ::signal(SIGPIPE, SIG_IGN);
    return service.release();
  } catch (const std::bad_alloc &) {
    errno = ENOMEM;
    return nullptr;
  }
}

void hx_worker_init(hx_service *service, hx_worker_hook hook, void *argument) {
  service->init = {hook, argument};
}

void hx_worker_fini(hx_service *service, hx_worker_hook hook, void *argument) {
  service->fini = {hook, argument};
}

int hx_start(hx_service *service) {
  return dirwell::host::serve(*service);
}

void hx_stop(hx_service *service) {
  // A forked process may inherit the handler that calls this for as long as its fork takes; the event is shared memory
  // of the kernel's, so only its owner may raise it.
  if (service == nullptr || service->owner != ::getpid()) {
    return;
  }
  const int interrupted = errno;
  const std::uint64_t one = 1;
  static_cast<void>(!::write(service->stop_event.get(), &one, sizeof(one)));  // full means that it is raised already
  errno = interrupted;
}

void hx_free(hx_service *service) {
  if (service != nullptr && service->owner == ::getpid()) {
    delete service;
  }
}

void hx_signal(int signal_number, hx_signal_handler handler) {
  struct sigaction action = {};
  action.sa_handler = handler;
  ::sigemptyset(&action.sa_mask);
  dirwell::host::fork_guard::add_signal(signal_number);
  ::sigaction(signal_number, &action, nullptr);
}
