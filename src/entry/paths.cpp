#include "entry/paths.h"

namespace dirwell {

void joinPath(std::string &path, std::initializer_list<std::string_view> pieces) {
  path.clear();
  std::size_t size = 0;
  for (const std::string_view piece : pieces) {
    size += piece.size() + 1;
  }
  path.reserve(size);
  for (const std::string_view piece : pieces) {
    if (piece.empty()) {
      continue;
    }
    if (piece.front() != '/') {
      path += '/';
    }
    path += piece;
  }
}

std::string joinPath(std::initializer_list<std::string_view> pieces) {
  std::string path;
  joinPath(path, pieces);
  return path;
}

std::string fullPath(const ResourceEntry &entry) {
  return joinPath({entry.directory, entry.subPath, entry.name});
}

std::string displayPath(const ResourceEntry &entry) {
  return joinPath({entry.displayDirectory, entry.subPath, entry.name});
}

std::string directoryPath(const ResourceEntry &entry) {
  return joinPath({entry.directory, entry.subPath});
}

std::string virtualDirectory(const ResourceEntry &entry) {
  return joinPath({entry.displayDirectory, entry.subPath});
}

int pathExists(ResourceEntry &path, int follow) {
  const std::string joined = joinPath({path.directory, path.name});
  struct ::stat status {};
  const int result = follow == 1 ? ::stat(joined.c_str(), &status) : ::lstat(joined.c_str(), &status);
  if (result != 0) {
    return 0;
  }
  path.stat = status;
  return 1;
}

}  // namespace dirwell
