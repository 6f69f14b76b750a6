// Without log lines: a target runs thousands of inputs a second.
#pragma once

#include "service/log.h"

namespace dirwell::fuzz {

// For LLVMFuzzerInitialize.
inline void silence() {
  log_level = 0;
}

}  // namespace dirwell::fuzz
