#include "listing/walk.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "entry/huge_pages.h"
#include "entry/paths.h"
#include "service/unique_fd.h"

namespace dirwell {
namespace {

// Address space for this many records is taken at once, so that a growing listing is never copied; its memory is used
// only as records come in.
constexpr std::uint64_t most_reserved = 100'000;

// A listing that has come to so many entries is likely to go on; a smaller one would pay for huge pages that it hardly
// fills.
constexpr std::size_t many_entries = 8'192;

struct DirectoryRelease {
  void operator()(DIR *directory) const { ::closedir(directory); }
};
using OpenDirectory = std::unique_ptr<DIR, DirectoryRelease>;

OpenDirectory openDirectory(const std::string &path) {
  UniqueFd descriptor;
  do {
    descriptor.reset(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  } while (!descriptor.valid() && errno == EINTR);
  if (!descriptor.valid()) {
    return nullptr;
  }
  OpenDirectory directory(::fdopendir(descriptor.get()));
  if (directory != nullptr) {
    descriptor.release();
  } else if (errno == ENOMEM) {
    throw std::bad_alloc();  // nothing is wrong with the folder, which must not look as if it could not be read
  }
  return directory;
}

class Deadline {
 public:
  explicit Deadline(std::int64_t seconds) : seconds_(seconds), start_(std::time(nullptr)) {}
  [[nodiscard]] bool passed() const { return seconds_ > 0 && std::time(nullptr) - start_ > seconds_; }

 private:
  std::int64_t seconds_;
  std::time_t start_;
};

// A folder inside `folder`, to be listed later.
ResourceEntry below(const ResourceEntry &folder, std::string_view name) {
  std::string subPath;
  subPath.reserve(folder.subPath.view().size() + 1 + name.size());
  subPath += folder.subPath.view();
  subPath += '/';
  subPath += name;
  return ResourceEntry::queuedDirectory(folder.directory, subPath, folder.displayDirectory);
}

// Every filter is asked, also after one has said no: each sees every entry once.
bool passesAll(const std::vector<std::shared_ptr<Filter>> &filters, const ResourceEntry &entry) {
  bool passes = true;
  for (const std::shared_ptr<Filter> &filter : filters) {
    passes &= filter->match(entry);
  }
  return passes;
}

}  // namespace

std::uint64_t walkDirectory(std::vector<ResourceEntry> &results, std::list<ResourceEntry> &queue,
                            const std::vector<std::shared_ptr<Filter>> &filters, const std::shared_ptr<Sorter> &sorter,
                            const std::shared_ptr<Cluster> &cluster, std::uint64_t scanLimit, bool recursive,
                            std::int64_t reachTime) {
  const VetoFilter veto;
  const Deadline deadline(reachTime);
  results.reserve(std::min(scanLimit, most_reserved));

  while (!queue.empty() && results.size() < scanLimit && !deadline.passed()) {
    const ResourceEntry folder = std::move(queue.front());
    queue.pop_front();
    const OpenDirectory directory = openDirectory(fullPath(folder));
    if (directory == nullptr) {
      return results.size();
    }
    const int descriptor = ::dirfd(directory.get());
    while (results.size() < scanLimit && !deadline.passed()) {
      const dirent *found = ::readdir(directory.get());
      if (found == nullptr) {
        break;  // the end, or a folder that cannot be read further
      }
      const char *name = found->d_name;
      struct ::stat status;
      if (veto.isVetoedName(name) || ::fstatat(descriptor, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        continue;
      }
      ResourceEntry entry = ResourceEntry::child(folder, name, status);
      const bool kept = passesAll(filters, entry);
      if (cluster != nullptr) {
        entry.cluster = cluster->key(entry);
      }
      if (kept) {
        results.push_back(std::move(entry));
        if (results.size() == many_entries && results.capacity() > many_entries) {
          preferHugePages(results.data() + results.size(),
                          (results.capacity() - results.size()) * sizeof(ResourceEntry));
        }
      }
      if (recursive && S_ISDIR(status.st_mode)) {
        queue.push_back(below(folder, name));
      }
    }
  }

  if (sorter != nullptr) {
    sorter->sort(results);
  }
  return results.size();
}

}  // namespace dirwell
