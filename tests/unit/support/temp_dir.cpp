#include "support/temp_dir.h"

#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>

namespace dirwell::test {

TempDir::TempDir() : owner_(::getpid()) {
  std::string pattern = (std::filesystem::temp_directory_path() / "dirwell-test-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("cannot make a test folder at " + pattern);
  }
  path_ = pattern;
}

TempDir::~TempDir() {
  if (owner_ != ::getpid()) {
    return;
  }
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::at(std::string_view name) const {
  const std::filesystem::path path = path_ / name;
  std::filesystem::create_directories(path.parent_path());
  return path.string();
}

std::string TempDir::write(std::string_view name, std::string_view content) const {
  std::string path = at(name);
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << content;
  if (!file.flush()) {
    throw std::runtime_error("cannot write " + path);
  }
  return path;
}

std::string TempDir::mkdir(std::string_view name) const {
  const std::filesystem::path path = path_ / name;
  std::filesystem::create_directories(path);
  return path.string();
}

}  // namespace dirwell::test
