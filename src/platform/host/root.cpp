#include <cstdlib>
#include <string>

#include "platform/include/hxservice.h"

namespace {

std::string root_of_environment() {
  const char *value = std::getenv("DIRWELL_ROOT");
  std::string root = value == nullptr ? "" : value;
  while (!root.empty() && root.back() == '/') {
    root.pop_back();
  }
  return root;
}

}  // namespace

const char *hx_root(void) {
  // Never destroyed: threads may still ask while the process ends.
  static const std::string *const root = new std::string(root_of_environment());
  return root->c_str();
}
