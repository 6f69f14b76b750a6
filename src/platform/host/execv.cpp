// Running a program and capturing what it says.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <new>
#include <string>

#include "platform/host/io.h"
#include "platform/host/limits.h"
#include "platform/host/owned_fd.h"
#include "platform/host/program.h"
#include "platform/include/hxservice.h"

namespace dirwell::host {

namespace {

using Clock = std::chrono::steady_clock;

// Descriptors 0 to 2 may be free in the caller; the program's own must not be placed there before they are moved.
OwnedFd above_standard(int descriptor) {
  OwnedFd owned(descriptor);
  if (descriptor >= 0 && descriptor <= STDERR_FILENO) {
    owned.reset(::fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  }
  return owned;
}

// A stream of the program that is read into an io object.
class Capture {
 public:
  // Makes the pipe; without a sink there is none, and the stream goes where `nowhere` leads.
  bool open(hx_io *sink) {
    sink_ = sink;
    std::array<int, 2> ends = {-1, -1};
    if (sink != nullptr) {
      if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        return false;
      }
      read_end_ = above_standard(ends[0]);
      write_end_ = above_standard(ends[1]);
      return read_end_.valid() && write_end_.valid() && ::fcntl(read_end_.get(), F_SETFL, O_NONBLOCK) == 0;
    }
    return true;
  }

  [[nodiscard]] int write_end(int nowhere) const { return sink_ == nullptr ? nowhere : write_end_.get(); }
  [[nodiscard]] int read_end() const { return read_end_.get(); }
  void close_write_end() { write_end_.reset(); }

  // Reads once; at the end of the stream the pipe is closed.
  std::size_t read_some() {
    std::array<char, 16UL * 1024> chunk;
    ssize_t got = 0;
    do {
      got = ::read(read_end_.get(), chunk.data(), chunk.size());
    } while (got < 0 && errno == EINTR);
    if (got < 0) {
      if (errno != EAGAIN) {
        read_end_.reset();
      }
      return 0;
    }
    const auto size = static_cast<std::size_t>(got);
    if (size == 0) {
      read_end_.reset();
    }
    const std::size_t kept = std::min(size, limits().captured_bytes - taken_);
    taken_ += hx_io_write(sink_, chunk.data(), kept);
    return size;
  }

  // Reads what stands in the pipe now. Whoever else still holds it may go on writing for ever.
  void read_rest() {
    int left = 0;
    if (!read_end_.valid() || ::ioctl(read_end_.get(), FIONREAD, &left) != 0) {
      return;
    }
    while (left > 0) {
      const std::size_t got = read_some();
      if (got == 0) {
        return;
      }
      left -= static_cast<int>(got);
    }
  }

 private:
  hx_io *sink_ = nullptr;
  std::size_t taken_ = 0;
  OwnedFd read_end_;
  OwnedFd write_end_;
};

// What the program reads as its standard input.
OwnedFd input_of(const hx_io *input, int nothing) {
  if (input == nullptr) {
    return above_standard(::fcntl(nothing, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  }
  OwnedFd file = above_standard(::memfd_create("input", MFD_CLOEXEC));
  std::size_t written = 0;
  while (file.valid() && written < input->content.size()) {
    const ssize_t done = ::pwrite(file.get(), input->content.data() + written, input->content.size() - written,
                                  static_cast<off_t>(written));
    if (done < 0 && errno != EINTR) {
      return OwnedFd();
    }
    written += done < 0 ? 0 : static_cast<std::size_t>(done);
  }
  return file;
}

// The file that a fixed path stands for: the one below the root where there is one to run, else the path itself.
std::string program_file(const char *path) {
  std::string below_root = std::string(hx_root()) + path;
  struct stat status = {};
  const bool runnable = ::stat(below_root.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
                        ::faccessat(AT_FDCWD, below_root.c_str(), X_OK, AT_EACCESS) == 0;
  return runnable ? below_root : path;
}

int milliseconds_until(Clock::time_point time) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(time - Clock::now()).count();
  return static_cast<int>(std::clamp<decltype(left)>(left, 0, 60'000));
}

// Reads both streams until the program has ended, which a process that holds its pipes cannot delay. The program and
// all that it started are killed at the deadline.
void read_until_end(pid_t program, int program_descriptor, std::array<Capture, 2> &streams) {
  const Clock::time_point deadline = Clock::now() + limits().program;
  bool killed = false;
  while (true) {
    std::array<pollfd, 3> watched = {
        {{program_descriptor, POLLIN, 0}, {streams[0].read_end(), POLLIN, 0}, {streams[1].read_end(), POLLIN, 0}}};
    const int ready = ::poll(watched.data(), watched.size(), killed ? -1 : milliseconds_until(deadline));
    if (ready > 0) {
      if (watched[0].revents != 0) {
        return;
      }
      for (std::size_t index = 0; index < streams.size(); ++index) {
        if (watched[index + 1].revents != 0) {
          streams[index].read_some();
        }
      }
    }
    if (!killed && Clock::now() >= deadline) {
      killed = true;
      ::kill(-program, SIGKILL);
      ::kill(program, SIGKILL);
    }
  }
}

// The exit status; -1 when somebody else has taken it.
int reap(pid_t program) {
  int status = 0;
  while (::waitpid(program, &status, 0) < 0) {
    if (errno != EINTR) {
      return -1;
    }
  }
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

int run_program(const hx_io *input, hx_io *output, hx_io *error, const char *const arguments[]) {
  const std::string file = program_file(arguments[0]);
  int null_device = -1;
  do {
    null_device = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  } while (null_device < 0 && errno == EINTR);
  const OwnedFd nowhere = above_standard(null_device);
  if (!nowhere.valid()) {
    return -1;
  }
  const OwnedFd standard_input = input_of(input, nowhere.get());
  std::array<Capture, 2> streams;
  if (!standard_input.valid() || !streams[0].open(output) || !streams[1].open(error)) {
    return -1;
  }
  const pid_t program = start_program({file.c_str(), arguments, standard_input.get(),
                                       streams[0].write_end(nowhere.get()), streams[1].write_end(nowhere.get())});
  if (program < 0) {
    return -1;
  }
  const OwnedFd program_descriptor(static_cast<int>(::syscall(SYS_pidfd_open, program, 0)));
  if (!program_descriptor.valid()) {  // out of descriptors: nothing could tell us of its end in time
    const int reason = errno;
    ::kill(-program, SIGKILL);
    reap(program);
    errno = reason;
    return -1;
  }
  for (Capture &stream : streams) {
    stream.close_write_end();
  }
  read_until_end(program, program_descriptor.get(), streams);
  for (Capture &stream : streams) {
    stream.read_rest();
  }
  // Not reaped yet, so the group's number is still its own.
  ::kill(-program, SIGKILL);
  return reap(program);
}

}  // namespace

}  // namespace dirwell::host

int hx_io_execv(hx_io *input, hx_io *output, hx_io *error, const char *const arguments[]) {
  if (arguments == nullptr || arguments[0] == nullptr) {
    errno = EINVAL;
    return -1;
  }
  try {
    return dirwell::host::run_program(input, output, error, arguments);
  } catch (const std::bad_alloc &) {
    errno = ENOMEM;
    return -1;
  }
}
