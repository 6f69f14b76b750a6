// The least that a listing of a folder with the status of each entry costs on this machine: getdents64 and fstatat on
// every name, and nothing else. Prints how many entries it saw.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

// As the kernel writes it; the C library has no declaration.
struct Record {
  std::uint64_t inode;
  std::int64_t next;
  std::uint16_t length;
  unsigned char type;
  char name[1];  // NOLINT(*-avoid-c-arrays): the kernel's layout, as long as it takes
};

constexpr std::size_t buffer_size = 32'768;  // what the C library's readdir reads at once

[[noreturn]] void fail(const std::string &what) {
  std::perror(what.c_str());
  std::exit(1);
}

bool isDots(const char *name) {
  return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

// One buffer a depth: a folder's own is still being read while its subfolders are.
std::uint64_t scan(int parent, const char *name, bool recursive) {
  const int directory = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (directory < 0) {
    fail(name);
  }
  const auto buffer = std::make_unique_for_overwrite<std::byte[]>(buffer_size);
  std::uint64_t entries = 0;
  for (;;) {
    const long filled = ::syscall(SYS_getdents64, directory, buffer.get(), buffer_size);
    if (filled < 0) {
      fail(name);
    }
    if (filled == 0) {
      break;
    }
    for (long at = 0; at < filled;) {
      const auto *record = reinterpret_cast<const Record *>(buffer.get() + at);
      at += record->length;
      const char *child = static_cast<const char *>(record->name);
      struct ::stat status;
      if (isDots(child) || ::fstatat(directory, child, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        continue;
      }
      ++entries;
      if (recursive && S_ISDIR(status.st_mode)) {
        entries += scan(directory, child, recursive);
      }
    }
  }
  ::close(directory);
  return entries;
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app("Reads a folder with getdents64 and fstatat alone and prints how many entries it holds.");
  std::string folder;
  bool recursive = false;
  app.add_option("folder", folder)->required();
  app.add_flag("-r,--recursive", recursive, "subfolders too");
  CLI11_PARSE(app, argc, argv);
  std::printf("%ju\n", static_cast<std::uintmax_t>(scan(AT_FDCWD, folder.c_str(), recursive)));
}
