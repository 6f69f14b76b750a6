// What the address sanitizer of g++ 12 lacks in every program of its build: a fork beside other threads.
//
// Its allocator's locks are not taken for a fork. One that another thread holds at that moment stays locked in the
// forked process, which waits for it for ever. So a fork waits, for a moment, until no other thread runs.
#include <fcntl.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

// The kernel is called by number: tests make the library's calls fail, and count them.
long open_file(const char *path, int flags) {
  return ::syscall(SYS_openat, AT_FDCWD, path, flags | O_CLOEXEC);
}

bool runs(long thread) {
  std::array<char, 64> path{};
  std::snprintf(path.data(), path.size(), "/proc/self/task/%ld/stat", thread);
  const long file = open_file(path.data(), O_RDONLY);
  if (file < 0) {
    return false;
  }
  std::array<char, 256> text{};
  const long size = ::syscall(SYS_read, file, text.data(), text.size() - 1);
  ::syscall(SYS_close, file);
  const char *const behind_name = size > 0 ? std::strrchr(text.data(), ')') : nullptr;
  return behind_name != nullptr && behind_name[1] == ' ' && behind_name[2] == 'R';
}

struct FolderEntry {
  std::uint64_t inode;
  std::int64_t offset;
  std::uint16_t size;
  std::uint8_t kind;
  char name[1];  // NOLINT(cppcoreguidelines-avoid-c-arrays): as the kernel writes it, of any length
};

bool another_thread_runs() {
  const long folder = open_file("/proc/self/task", O_RDONLY | O_DIRECTORY);
  if (folder < 0) {
    return false;
  }
  const long self = ::syscall(SYS_gettid);
  bool found = false;
  alignas(FolderEntry) std::array<char, 4096> entries{};
  long size = 0;
  while (!found && (size = ::syscall(SYS_getdents64, folder, entries.data(), entries.size())) > 0) {
    for (long at = 0; at < size && !found;) {
      const auto *entry = reinterpret_cast<const FolderEntry *>(entries.data() + at);
      const long thread = std::atol(entry->name);  // NOLINT(cert-err34-c): "." and ".." are to give 0
      found = thread > 0 && thread != self && runs(thread);
      at += entry->size;
    }
  }
  ::syscall(SYS_close, folder);
  return found;
}

void wait_for_the_others() {
  constexpr int most_looks = 100;
  const timespec pause = {0, 100'000};
  for (int looks = 0; looks < most_looks && another_thread_runs(); ++looks) {
    ::syscall(SYS_nanosleep, &pause, nullptr);
  }
}

[[gnu::constructor]] void prepare_forks() {
  ::pthread_atfork(wait_for_the_others, nullptr, nullptr);
}

}  // namespace
