// Lists in configuration values, and places in a tree of paths.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace dirwell::host {

// The pieces between the ':' of `value`; empty ones are left out, blanks are kept (a name may hold them).
std::vector<std::string> split_list(std::string_view value);

// `directory` without the slashes at its end; "/" becomes "".
std::string_view without_trailing_slashes(std::string_view directory);

// Whether `path` is `directory` (without slashes at its end) or lies below it. Whole components are compared: "/a/bc"
// is not below "/a/b". Everything absolute is below "".
bool lies_within(std::string_view path, std::string_view directory);

}  // namespace dirwell::host
