#include "platform/host/limits.h"

namespace dirwell::host {

Limits &limits() {
  static Limits values;
  return values;
}

}  // namespace dirwell::host
