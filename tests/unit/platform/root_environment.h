// The private root of this test binary: made before main(), removed at its end.
#pragma once

#include "support/private_root.h"

namespace dirwell::test {

// The folder that DIRWELL_ROOT names while this binary runs. Files go below it with write_below_root().
inline const std::string &test_root() {
  return private_root();
}

}  // namespace dirwell::test
