// Calling an endpoint of an instance.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace dirwell::client {

// One instance, as a command calls it.
struct Instance {
  std::string sid;
  std::string socket;
  std::chrono::milliseconds patience{};  // how long nothing may come before the call is given up
};

// Posts `body` to an endpoint and returns the reply's body, byte for byte. Anything but a whole 200 reply is a Failure
// (unreachable) whose text says what is wrong and, where it can, what to do.
std::string call(const Instance &instance, std::string_view endpoint, const std::string &body);

}  // namespace dirwell::client
