#include "describe/attributes.h"

#include <sys/xattr.h>

namespace dirwell {

std::optional<std::string> readAttribute(const std::string &path, const char *name, std::size_t capacity) {
  std::string value(capacity, '\0');
  const ssize_t size = ::getxattr(path.c_str(), name, value.data(), value.size());
  if (size < 0) {
    return std::nullopt;
  }
  value.resize(static_cast<std::size_t>(size));
  return value;
}

}  // namespace dirwell
