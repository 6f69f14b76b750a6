// Process state that a test changes and puts back.
#pragma once

#include <functional>
#include <string>

namespace dirwell::test {

// An environment variable for the length of a scope. A change of TZ takes effect at once.
class ScopedEnvironment {
 public:
  ScopedEnvironment(std::string name, const std::string &value);
  ~ScopedEnvironment();
  ScopedEnvironment(const ScopedEnvironment &) = delete;
  ScopedEnvironment &operator=(const ScopedEnvironment &) = delete;

 private:
  std::string name_;
  std::string before_;
  bool was_set_;
};

// What `action` writes to standard error.
std::string captured_stderr(const std::function<void()> &action);

// Runs `action` in a forked process, with a time limit of 180 seconds, and returns its wait status; the child ends with
// status 0 when `action` returns. A child that hangs is killed, which the status shows.
int in_child(const std::function<void()> &action);

// Puts the files in the place of the machine's accounts and groups, for this process alone. Only in a child of
// in_child, which ends with another status than 0 where the kernel refuses.
void use_account_files(const std::string &accounts, const std::string &groups);

}  // namespace dirwell::test
