// How a command ends when it does not succeed.
#pragma once

#include <stdexcept>
#include <string>

namespace dirwell::client {

enum class Status : int {
  success = 0,
  refused = 1,      // the service or the machine said no: an error in the reply, a session that is not there
  unreachable = 2,  // no whole reply came: no instance, not admitted, a time limit
  usage = 64,       // the command line makes no sense
};

// The command ends with `status`; what() goes to standard error.
class Failure : public std::runtime_error {
 public:
  Failure(Status status, const std::string &message) : std::runtime_error(message), status_(status) {}
  [[nodiscard]] Status status() const { return status_; }

 private:
  Status status_;
};

}  // namespace dirwell::client
