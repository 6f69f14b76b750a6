// The descriptors that an event loop makes for itself.
#pragma once

#include <set>
#include <vector>

namespace dirwell::host {

// Open descriptors of this process that lead to an epoll, event or timer object.
std::set<int> event_descriptors();

}  // namespace dirwell::host
