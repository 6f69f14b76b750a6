// The private DIRWELL_ROOT of a test binary: made before main(), removed at its end.
#pragma once

#include <string>
#include <string_view>

namespace dirwell::test {

// The root's path, without a slash at its end. Linking this function in is what sets the variable.
const std::string &private_root();

// Writes a file below the root, making its folders; returns its full path.
std::string write_below_root(std::string_view path, std::string_view content);

// Makes the session `sid` of the account `user` and ends it with the scope.
class ScopedSession {
 public:
  explicit ScopedSession(std::string_view sid, std::string_view user = "root");
  ~ScopedSession();
  ScopedSession(const ScopedSession &) = delete;
  ScopedSession &operator=(const ScopedSession &) = delete;

 private:
  std::string file_;
};

}  // namespace dirwell::test
