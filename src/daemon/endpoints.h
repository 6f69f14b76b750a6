// The endpoints that the daemon offers on the bus: one row each feeds registration and usage text.
#pragma once

#include <string>

#include "platform/include/hxrest.h"

namespace dirwell {

// Adds every endpoint, in the order of the table. The usage texts live as long as the process. Start-up only.
void register_endpoints(hx_rest *rest);

// The usage text of an endpoint as the bus hands it out; empty for an unknown name.
const std::string &usage_text(const std::string &endpoint_name);

}  // namespace dirwell
