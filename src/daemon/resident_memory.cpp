#include "daemon/resident_memory.h"

#include <malloc.h>
#include <sys/mman.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace dirwell {

namespace {

struct Mapping {
  std::uintptr_t begin = 0;
  std::uintptr_t end = 0;
};

// The parts of files that are mapped read-only and of which no page has become the process's own, by relocation, by a
// debugger or otherwise.
std::vector<Mapping> unwritten_mappings() {
  std::vector<Mapping> found;
  std::ifstream file("/proc/self/smaps");
  Mapping mapping;
  bool of_file = false;
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line);
    std::string first;
    words >> first;
    unsigned long long begin = 0;
    unsigned long long end = 0;
    // NOLINTNEXTLINE(cert-err34-c): the kernel's own numbers, which are none too large
    if (std::sscanf(first.c_str(), "%llx-%llx", &begin, &end) == 2) {
      std::string rights;
      std::string offset;
      std::string device;
      std::string inode;
      std::string path;
      words >> rights >> offset >> device >> inode >> path;
      mapping = {static_cast<std::uintptr_t>(begin), static_cast<std::uintptr_t>(end)};
      of_file = rights.size() == 4 && rights[1] == '-' && rights[3] == 'p' && path.starts_with('/');
    } else if (first == "Anonymous:") {
      unsigned long own = 1;
      words >> own;
      if (of_file && own == 0) {
        found.push_back(mapping);
      }
    }
  }
  return found;
}

}  // namespace

void share_one_heap() {
  ::mallopt(M_ARENA_MAX, 1);  // NOLINT(concurrency-mt-unsafe): before there is a second thread
}

void release_unwritten_pages() {
  // Listed first: reading on while pages go would only bring some of them back.
  for (const Mapping &mapping : unwritten_mappings()) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the address was read as a number
    ::madvise(reinterpret_cast<void *>(mapping.begin), mapping.end - mapping.begin, MADV_DONTNEED);
  }
}

}  // namespace dirwell
