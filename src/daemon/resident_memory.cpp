#include "daemon/resident_memory.h"

#include <link.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <span>

namespace dirwell {

namespace {

int release_segments(dl_phdr_info *object, std::size_t /*size*/, void * /*argument*/) {
  const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  const std::span<const ElfW(Phdr)> headers(object->dlpi_phdr, object->dlpi_phnum);
  for (const ElfW(Phdr) & header : headers) {
    // What the loader writes to, and protects afterwards, lies in writable segments.
    if (header.p_type != PT_LOAD || (header.p_flags & PF_W) != 0) {
      continue;
    }
    const std::uintptr_t begin = (object->dlpi_addr + header.p_vaddr) & ~(page - 1);
    const std::uintptr_t end = object->dlpi_addr + header.p_vaddr + header.p_filesz;
    ::madvise(reinterpret_cast<void *>(begin), end - begin, MADV_DONTNEED);
  }
  return 0;
}

}  // namespace

void share_one_heap() {
  ::mallopt(M_ARENA_MAX, 1);
}

void release_unwritten_pages() {
  ::dl_iterate_phdr(release_segments, nullptr);
}

}  // namespace dirwell
