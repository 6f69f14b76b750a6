#include "entry/huge_pages.h"

#include <sys/mman.h>

#include <cstdint>

namespace dirwell {
namespace {

// Of the machines that we run on; on one with larger ones the request is for less than a page and does nothing.
constexpr std::uintptr_t huge_page = std::uintptr_t{2} << 20U;

}  // namespace

void preferHugePages(void *memory, std::size_t bytes) {
  const auto address = reinterpret_cast<std::uintptr_t>(memory);
  const std::uintptr_t begin = (address + huge_page - 1) & ~(huge_page - 1);
  const std::uintptr_t end = (address + bytes) & ~(huge_page - 1);
  if (begin < end) {
    ::madvise(static_cast<char *>(memory) + (begin - address), end - begin, MADV_HUGEPAGE);
  }
}

}  // namespace dirwell
