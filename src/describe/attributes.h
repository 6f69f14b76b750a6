// Extended attributes, as the probes read them.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace dirwell {

// The bytes of attribute `name` of `path`, links followed. None, with errno as getxattr sets it, when the attribute is
// missing or cannot be read or is longer than `capacity` bytes. Read as a C text (c_str()), the value ends at a NUL
// that it may hold. Any thread.
std::optional<std::string> readAttribute(const std::string &path, const char *name, std::size_t capacity);

}  // namespace dirwell
