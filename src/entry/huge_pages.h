// Memory for listings of many entries.
#pragma once

#include <cstddef>

namespace dirwell {

// Asks the kernel to fill the memory of a large buffer that has not been used yet with huge pages: touching it page by
// page costs a listing of 100,000 entries a tenth of its time. Whole huge pages inside `memory` are meant, so that a
// small buffer stays as it is; contents stay. A kernel that has none to give changes nothing. Any thread.
void preferHugePages(void *memory, std::size_t bytes);

}  // namespace dirwell
