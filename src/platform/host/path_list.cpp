#include "platform/host/path_list.h"

#include <algorithm>

namespace dirwell::host {

std::vector<std::string> split_list(std::string_view value) {
  std::vector<std::string> pieces;
  while (!value.empty()) {
    const std::size_t end = std::min(value.find(':'), value.size());
    if (end > 0) {
      pieces.emplace_back(value.substr(0, end));
    }
    value.remove_prefix(std::min(end + 1, value.size()));
  }
  return pieces;
}

std::string_view without_trailing_slashes(std::string_view directory) {
  while (directory.ends_with('/')) {
    directory.remove_suffix(1);
  }
  return directory;
}

bool lies_within(std::string_view path, std::string_view directory) {
  return path.starts_with(directory) && (path.size() == directory.size() || path[directory.size()] == '/');
}

}  // namespace dirwell::host
