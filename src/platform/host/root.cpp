#include "platform/host/root.h"

#include <cstdlib>

#include "platform/include/hxservice.h"

namespace dirwell::host {

std::string root_from(const char *value) {
  std::string root = value == nullptr ? "" : value;
  while (root.ends_with('/')) {
    root.pop_back();
  }
  return root;
}

}  // namespace dirwell::host

const char *hx_root(void) {
  // Never destroyed: threads may still ask while the process ends.
  static const std::string *const root = new std::string(dirwell::host::root_from(std::getenv("DIRWELL_ROOT")));
  return root->c_str();
}
