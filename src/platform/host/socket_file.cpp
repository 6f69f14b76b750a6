#include "platform/host/socket_file.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "platform/host/brief_calls.h"
#include "platform/include/hxservice.h"

namespace dirwell::host {

namespace {

bool fill(const std::string &path, sockaddr_un &address) {
  if (!is_socket_path(path)) {
    errno = ENAMETOOLONG;
    return false;
  }
  address = {};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return true;
}

// Whether the file is a socket that no process listens at any more.
bool is_stale(const std::string &path) {
  struct stat status = {};
  if (::lstat(path.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode)) {
    return false;
  }
  // Not blocking: a listener with a full queue is alive.
  const OwnedFd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  return probe.valid() && connect_to(probe.get(), path) != 0 && errno == ECONNREFUSED;
}

}  // namespace

std::string socket_path(std::string_view service) {
  std::string path = hx_root();
  path.append("/var/run/").append(service).append(".sock");
  return path;
}

bool is_socket_path(const std::string &path) {
  return path.size() < sizeof(sockaddr_un::sun_path);
}

int connect_to(int socket, const std::string &path) {
  sockaddr_un address = {};
  if (!fill(path, address)) {
    return -1;
  }
  int result = 0;
  do {
    result = ::connect(socket, reinterpret_cast<const sockaddr *>(&address), sizeof(address));
  } while (result != 0 && errno == EINTR);
  return result;
}

bool SocketFile::open(const std::string &path) {
  sockaddr_un address = {};
  if (!fill(path, address)) {
    return false;
  }
  std::string own_path = path;  // now: without memory for it later, the file would stay
  std::error_code ignored;      // what stands in the way is told by bind
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
  OwnedFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!listener.valid()) {
    return false;
  }
  const auto bind_here = [&] {
    return ::bind(listener.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0;
  };
  if (!bind_here()) {
    if (errno != EADDRINUSE) {
      return false;
    }
    if (!is_stale(path)) {
      errno = EADDRINUSE;
      return false;
    }
    if (::unlink(path.c_str()) != 0 || !bind_here()) {
      return false;
    }
  }
  refuse_files(listener.get());
  // Nobody can connect before listen, so the mode is right for the first who can.
  struct stat status = {};
  if (::chmod(path.c_str(), 0666) != 0 || ::lstat(path.c_str(), &status) != 0 ||
      ::listen(listener.get(), SOMAXCONN) != 0) {
    const int reason = errno;
    ::unlink(path.c_str());
    errno = reason;
    return false;
  }
  path_ = std::move(own_path);
  device_ = status.st_dev;
  inode_ = status.st_ino;
  listener_ = std::move(listener);
  return true;
}

void SocketFile::close() {
  if (!listener_.valid()) {
    return;
  }
  struct stat status = {};
  if (::lstat(path_.c_str(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_) {
    ::unlink(path_.c_str());
  }
  const BriefCalls brief;  // those who wait in its queue may have sent something
  listener_.reset();
}

}  // namespace dirwell::host
