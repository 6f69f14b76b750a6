#include "host_files.h"

#include <chrono>
#include <filesystem>
#include <thread>

#include "root_environment.h"

namespace dirwell::test {

std::string below_root(std::string_view fixed_path) {
  return test_root() + std::string(fixed_path);
}

std::string put(std::string_view fixed_path, std::string_view content) {
  return write_below_root(fixed_path.substr(1), content);
}

void remove(std::string_view fixed_path) {
  std::filesystem::remove_all(below_root(fixed_path));
}

void let_settle() {
  std::this_thread::sleep_for(std::chrono::milliseconds(150));
}

}  // namespace dirwell::test
