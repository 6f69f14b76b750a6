// The root of fixed paths.
#pragma once

#include <string>

namespace dirwell::host {

// The root that a value of the environment variable (null when unset) stands for: without slashes at its end.
std::string root_from(const char *value);

}  // namespace dirwell::host
