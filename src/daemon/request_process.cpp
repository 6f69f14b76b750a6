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
#include <string>
#include <string_view>

#include "service/fork_gate.h"
#include "service/json.h"
#include "service/session.h"
#include "service/unique_fd.h"

namespace dirwell {

namespace {

std::unique_ptr<ThreadPool> thread_pool;  // written by the worker hooks, used by the bus worker in between

// The request text as an object, with the bus's parameters over it. Text that is no JSON object counts as an empty one.
JsonRef build_request_object(hx_io *io, json_t *parameters) {
  json_error_t ignored;
  JsonRef request(json_loads(hx_io_read(io, 0), 0, &ignored));
  if (!json_is_object(request.get())) {
    request.reset(json_object());
  }
  json_object_update(request.get(), parameters);
  hx_io_realloc(io, 0);
  return request;
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
  JsonRef object = build_request_object(io, parameters);
  if (!thread_pool) {
    release(io, descriptor);
    return;
  }
  thread_pool->submit(handler, request, io, object.release(), descriptor);
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
  thread_pool = std::make_unique<ThreadPool>(1);
}

void stop_thread_pool() {
  if (thread_pool) {
    thread_pool->stop();
    thread_pool.reset();
  }
}

}  // namespace dirwell
