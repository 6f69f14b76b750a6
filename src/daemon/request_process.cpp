#include "daemon/request_process.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>

#include "daemon/handlers.h"
#include "daemon/own_process.h"
#include "service/fork_gate.h"
#include "service/json.h"
#include "service/session.h"
#include "service/unique_fd.h"

namespace dirwell {

namespace {

std::unique_ptr<ThreadPool> thread_pool;  // written by the worker hooks, used by the bus worker in between

// The request text as an object, with the bus's parameters over it. Text that is no JSON object counts as an empty one.
JsonRef build_request_object(hx_io *io, json_t *parameters) {
  JsonRef request = json_parsed(hx_io_read(io, 0));
  if (!json_is_object(request.get())) {
    request.reset(json_object());
  }
  if (json_object_update(request.get(), parameters) != 0) {
    throw std::bad_alloc();  // both are objects
  }
  hx_io_realloc(io, 0);
  return request;
}

// The same for a job of the daemon's own. A text may make a hundred times its size of memory, which the daemon would
// hardly ever give back: a long one is read in a process of its own, and what the endpoint knows of it is kept.
json_t *prepare_job(hx_io *io, json_t *parameters) {
  constexpr std::size_t harmless = 4096;  // far more than any real request of the kind
  if (hx_io_size(io) > harmless) {
    const OwnResult known = in_own_process(
        [io](const TextOutput &output) { return output(watch_text(json_parsed(hx_io_read(io, 0)).get())); });
    if (!known.done || known.texts.size() != 1) {
      throw std::runtime_error("the request's text cannot be read");
    }
    const std::string &text = known.texts.front();
    // A text that is kept in part would be another request.
    if (hx_io_realloc(io, 0) != 0 || hx_io_write(io, text.data(), text.size()) != text.size()) {
      throw std::bad_alloc();
    }
  }
  return build_request_object(io, parameters).release();
}

void release(hx_io *io, int descriptor) {
  close_if_valid(descriptor);
  hx_io_free(io);
}

void run_request(hx_request *request, hx_rest_handler handler, hx_io *io, json_t *parameters, int descriptor) {
  // With any other identity than the session user's no file may be touched.
  if (!Session::instance().seteuser(false)) {
    ::_exit(1);
  }
  // A time zone that changed after the daemon's start holds for the whole request.
  ::tzset();
  const JsonRef object = build_request_object(io, parameters);
  handler(request, io, object.get(), descriptor);
}

// The forked child's whole life. It ends with _exit whatever happens: the destructors of the daemon's objects are not
// its to run, and its way back would lead into the daemon's bus loop.
[[noreturn]] void become_request_process(hx_request *request, hx_rest_handler handler, hx_io *io, json_t *parameters,
                                         int descriptor) {
  try {
    close_inherited_fds();
    if (::fork() != 0) {
      ::_exit(0);  // forked or not: the request process belongs to init and is never a zombie of the daemon
    }
    run_request(request, handler, io, parameters, descriptor);
  } catch (...) {
    ::_exit(1);  // the bus tells the client that there was no whole reply
  }
  ::_exit(0);
}

}  // namespace

void fork_prehandler(hx_request *request, hx_rest_handler handler, hx_io *io, json_t *parameters, int descriptor) {
  const pid_t child = fork_gate::fork();
  if (child == 0) {
    become_request_process(request, handler, io, parameters, descriptor);
  }
  if (child > 0) {
    while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
  release(io, descriptor);
}

void watch_prehandler(hx_request *request, hx_rest_handler handler, hx_io *io, json_t *parameters, int descriptor) {
  if (!thread_pool) {
    release(io, descriptor);
    return;
  }
  JsonRef brought_along(json_deep_copy(parameters));
  thread_pool->submit(handler, request, io, brought_along.get(), descriptor);
  static_cast<void>(brought_along.release());  // the pool's now, and perhaps gone already
}

void close_inherited_fds() {
  DIR *directory = ::opendir("/proc/self/fd");
  if (directory == nullptr) {
    return;
  }
  constexpr int first_inherited = 3;
  // The stream's own descriptor is one of those that are closed: its entries have been read by then.
  while (const dirent *entry = ::readdir(directory)) {
    const int descriptor = std::atoi(entry->d_name);  // NOLINT(cert-err34-c): "." and ".." are to give 0
    struct ::stat status {};
    if (descriptor < first_inherited || ::fstat(descriptor, &status) != 0 || S_ISSOCK(status.st_mode)) {
      continue;
    }
    std::array<char, 4096> target;
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    const ssize_t length = ::readlink(link.c_str(), target.data(), target.size());
    if (length <= 0) {
      continue;
    }
    if (std::string_view(target.data(), static_cast<std::size_t>(length)).find("(deleted)") == std::string_view::npos) {
      ::close(descriptor);
    }
  }
  ::closedir(directory);
}

void start_thread_pool() {
  thread_pool = std::make_unique<ThreadPool>(1, prepare_job);
}

void stop_thread_pool() {
  if (thread_pool) {
    thread_pool->stop();
    thread_pool.reset();
  }
}

}  // namespace dirwell
