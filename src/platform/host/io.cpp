#include "platform/host/io.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <new>
#include <stdexcept>

#include "platform/host/worker.h"

namespace dirwell::host {

namespace {

// Whether the number still leads to the request's socket: its owner may have closed it, and others get the number then.
bool holds_descriptor(const hx_request &request) {
  struct stat status = {};
  return request.descriptor >= 0 && ::fstat(request.descriptor, &status) == 0 && status.st_dev == request.device &&
         status.st_ino == request.inode;
}

bool send_all(int descriptor, std::string_view text, int flags) {
  while (!text.empty()) {
    const ssize_t sent = ::send(descriptor, text.data(), text.size(), MSG_NOSIGNAL | flags);
    if (sent < 0 && errno == EINTR) {
      continue;
    }
    if (sent <= 0) {
      return false;
    }
    text.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

// Sends `parts` and declares the reply complete when all of it went out. The end of the stream is seen by the bus at
// once, whoever else holds copies of the descriptor and whatever the handler does afterwards.
bool complete(hx_request &request, std::string_view head, std::string_view body) {
  if (request.replied.exchange(true) || !holds_descriptor(request)) {
    return false;
  }
  // The worker reads the other end itself: waiting for room there would be waiting for ever.
  const int flags = on_worker() ? MSG_DONTWAIT : 0;
  const bool sent = send_all(request.descriptor, head, flags) && send_all(request.descriptor, body, flags);
  if (sent) {
    request.mark.set();
  }
  ::shutdown(request.descriptor, SHUT_WR);
  return sent;
}

}  // namespace

bool answer(hx_io &io, std::string_view response) {
  return io.request != nullptr && complete(*io.request, response, {});
}

}  // namespace dirwell::host

hx_io *hx_io_create(void) {
  return new (std::nothrow) hx_io;
}

void hx_io_free(hx_io *io) {
  delete io;
}

size_t hx_io_size(const hx_io *io) {
  return io->content.size();
}

const char *hx_io_read(const hx_io *io, size_t offset) {
  return offset < io->content.size() ? io->content.c_str() + offset : "";
}

size_t hx_io_write(hx_io *io, const void *data, size_t size) {
  try {
    io->content.append(static_cast<const char *>(data), size);
    return size;
  } catch (const std::bad_alloc &) {
    return 0;
  } catch (const std::length_error &) {
    return 0;
  }
}

int hx_io_realloc(hx_io *io, size_t size) {
  try {
    io->content.resize(size);
    return 0;
  } catch (const std::bad_alloc &) {
    return -1;
  } catch (const std::length_error &) {
    return -1;
  }
}

int hx_io_alive(const hx_io *io) {
  if (io->request == nullptr) {
    return 1;
  }
  if (!dirwell::host::holds_descriptor(*io->request)) {
    return 0;
  }
  pollfd watched = {io->request->descriptor, POLLRDHUP, 0};
  int ready = 0;
  do {
    ready = ::poll(&watched, 1, 0);
  } while (ready < 0 && errno == EINTR);
  return (watched.revents & (POLLHUP | POLLRDHUP | POLLERR | POLLNVAL)) == 0 ? 1 : 0;
}

void hx_reply(hx_io *io) {
  if (io->request == nullptr) {
    return;
  }
  const bool own_content = !io->content.empty();
  dirwell::host::complete(*io->request, own_content ? "Content-Type: application/json; charset=utf-8\r\n\r\n" : "",
                          io->content);
}
