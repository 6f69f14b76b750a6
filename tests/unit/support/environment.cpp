#include "support/environment.h"

#include <fcntl.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <utility>

namespace dirwell::test {

ScopedEnvironment::ScopedEnvironment(std::string name, const std::string &value) : name_(std::move(name)) {
  const char *before = ::getenv(name_.c_str());
  was_set_ = before != nullptr;
  before_ = was_set_ ? before : "";
  ::setenv(name_.c_str(), value.c_str(), 1);
  ::tzset();
}

ScopedEnvironment::~ScopedEnvironment() {
  if (was_set_) {
    ::setenv(name_.c_str(), before_.c_str(), 1);
  } else {
    ::unsetenv(name_.c_str());
  }
  ::tzset();
}

std::string captured_stderr(const std::function<void()> &action) {
  std::fflush(stderr);
  const int file = ::memfd_create("stderr", MFD_CLOEXEC);
  const int before = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
  if (file < 0 || before < 0) {
    throw std::runtime_error("cannot capture standard error");
  }
  ::fcntl(file, F_SETFL, O_APPEND);  // writers of several threads and processes share one position
  ::dup2(file, STDERR_FILENO);
  try {
    action();
  } catch (...) {
    ::dup2(before, STDERR_FILENO);
    ::close(before);
    ::close(file);
    throw;
  }
  std::fflush(stderr);
  ::dup2(before, STDERR_FILENO);
  ::close(before);
  std::string text(static_cast<std::size_t>(::lseek(file, 0, SEEK_END)), '\0');
  const ssize_t got = ::pread(file, text.data(), text.size(), 0);
  ::close(file);
  text.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
  return text;
}

int in_child(const std::function<void()> &action) {
  const pid_t child = ::fork();
  if (child < 0) {
    throw std::runtime_error("cannot fork");
  }
  if (child == 0) {
    ::alarm(180);
    action();
    ::_exit(0);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return status;
}

void use_account_files(const std::string &accounts, const std::string &groups) {
  if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      ::mount(accounts.c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr) != 0 ||
      ::mount(groups.c_str(), "/etc/group", nullptr, MS_BIND, nullptr) != 0) {
    ::_exit(2);
  }
}

}  // namespace dirwell::test
