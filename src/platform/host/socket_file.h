// The socket file of a service.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "platform/host/owned_fd.h"

namespace dirwell::host {

// Where the service of this name listens: below the root, "/var/run/NAME.sock".
std::string socket_path(std::string_view service);

// Connects `socket`, an AF_UNIX stream socket. Returns 0, or -1 with errno set; ENAMETOOLONG when the kernel cannot
// hold the path.
int connect_to(int socket, const std::string &path);

// Whether the kernel can hold the path of a socket.
bool is_socket_path(const std::string &path);

class SocketFile {
 public:
  // Listens at `path`, for everybody; admission is decided by credentials, not by the file's mode. The folder is made
  // when missing; a socket file that nobody listens at is replaced. False with errno set on failure: EADDRINUSE when
  // somebody does listen there or when the path is something else than a socket.
  bool open(const std::string &path);
  // Closes the listener and removes the file, unless another one stands at its path by now.
  void close();
  ~SocketFile() { close(); }
  SocketFile() = default;
  SocketFile(const SocketFile &) = delete;
  SocketFile &operator=(const SocketFile &) = delete;

  // The listening socket, not blocking; -1 while closed.
  [[nodiscard]] int descriptor() const { return listener_.get(); }

 private:
  std::string path_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
  OwnedFd listener_;
};

}  // namespace dirwell::host
