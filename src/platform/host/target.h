// Request targets: "/fetch.resource?limit=50&path=%2FPublic".
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace dirwell::host {

struct Target {
  std::string path;                                             // percent-decoded
  std::vector<std::pair<std::string, std::string>> parameters;  // percent-decoded, in order, repeated names included
};

// Takes a target apart: a path with an optional query, an absolute URL of scheme http (its authority does not matter on
// a local socket), or "*". A parameter without '=' has the empty value, '+' stands for itself. Nothing when the target
// is none of these, or when a path, name or value has a bad percent escape, a NUL or bytes that are not UTF-8.
std::optional<Target> parse_target(std::string_view text);

}  // namespace dirwell::host
