#include "data.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <map>
#include <system_error>
#include <utility>

#include "instance.h"
#include "names.h"
#include "service/unique_fd.h"

namespace dirwell::bench {

namespace {

constexpr std::uint64_t seed = 20240229;
constexpr std::size_t entries_per_folder = 50;  // of a tree, the subfolders among them
constexpr std::size_t top_folders = 20;
constexpr std::size_t subfolders = 9;

constexpr std::array<uid_t, 8> owners{0, 0, 0, 1, 33, 1000, 1001, 65534};  // not all of them have a name
constexpr std::array<mode_t, 6> modes{0644, 0644, 0664, 0600, 0755, 0444};
constexpr std::time_t oldest = 1'262'304'000;  // 2010
constexpr std::size_t span = std::size_t{14} * 365 * 86'400;
constexpr std::size_t largest_power = 33;  // of two, bytes: 8 GiB

// 0 to 131071 in another order: entries come in no order that a sort could profit from.
std::uint32_t scattered(std::size_t place) {
  return static_cast<std::uint32_t>(place * 40'503 % 131'072);
}

void demand(int result, const std::string &what) {
  if (result < 0) {
    throw std::system_error(errno, std::generic_category(), what);
  }
}

// A regular file is sparse: its size costs the disk nothing.
void create(int folder, const File &file) {
  const char *name = file.name.c_str();
  if (S_ISDIR(file.status.st_mode)) {
    demand(::mkdirat(folder, name, S_IRWXU), file.name);
  } else {
    const UniqueFd opened(::openat(folder, name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
    demand(opened.get(), file.name);
    demand(::ftruncate(opened.get(), file.status.st_size), file.name);
  }
  if (::geteuid() == 0) {
    demand(::fchownat(folder, name, file.status.st_uid, file.status.st_gid, 0), file.name);
  }
  demand(::fchmodat(folder, name, file.status.st_mode & ALLPERMS, 0), file.name);
  const std::array<timespec, 2> times{file.status.st_mtim, file.status.st_mtim};
  demand(::utimensat(folder, name, times.data(), 0), file.name);
}

UniqueFd opened(const std::string &path) {
  UniqueFd folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  demand(folder.get(), path);
  return folder;
}

void fillFlat(const std::string &path, const std::vector<File> &files) {
  const UniqueFd folder = opened(path);
  for (const File &file : files) {
    create(folder.get(), file);
  }
}

// The first of the files become folders, each below an earlier one, and hold the others in turn.
void fillTree(const std::string &path, std::vector<File> files) {
  const std::size_t folders = std::max<std::size_t>(files.size() / entries_per_folder, 1);
  std::vector<std::string> paths;
  for (std::size_t place = 0; place < files.size(); ++place) {
    File &file = files[place];
    const mode_t kind = place < folders ? S_IFDIR | S_IRWXU : S_IFREG;
    file.status.st_mode = (file.status.st_mode & ALLPERMS) | kind;
    if (place >= folders) {
      const UniqueFd folder = opened(paths[place % folders]);
      create(folder.get(), file);
      continue;
    }
    const std::string &parent = place < top_folders ? path : paths[(place - top_folders) / subfolders];
    create(opened(parent).get(), file);
    paths.push_back(parent + "/" + file.name);
  }
}

Folder madeFolder(std::size_t entries, Shape shape) {
  Folder folder;
  folder.path = shareFolder() + (shape == Shape::flat ? "/flat-" : "/tree-") + std::to_string(entries);
  std::filesystem::create_directory(folder.path);
  const std::vector<File> files = makeFiles(entries);
  folder.visible = static_cast<std::size_t>(
      std::ranges::count_if(files, [](const File &file) { return !file.name.starts_with('.'); }));
  if (shape == Shape::flat) {
    fillFlat(folder.path, files);
  } else {
    fillTree(folder.path, files);
  }
  return folder;
}

}  // namespace

std::vector<File> makeFiles(std::size_t count) {
  std::mt19937_64 random(seed);
  std::vector<File> files(count);
  for (std::size_t place = 0; place < count; ++place) {
    File &file = files[place];
    file.name = nameWith(scattered(place), random);
    file.status.st_ino = place;
    file.status.st_mode = (below(random, 50) == 0 ? S_IFDIR : S_IFREG) | modes[below(random, modes.size())];
    file.status.st_uid = owners[below(random, owners.size())];
    file.status.st_gid = owners[below(random, owners.size())];
    const std::size_t bound = std::size_t{1} << below(random, largest_power + 1);
    file.status.st_size = static_cast<off_t>(below(random, bound));
    file.status.st_mtime = oldest + static_cast<std::time_t>(below(random, span));
  }
  return files;
}

std::vector<ResourceEntry> listingOf(std::size_t count, Shape shape, Cluster *cluster) {
  const SharedText directory(shareFolder());
  const SharedText shown("/Files");
  std::vector<ResourceEntry> folders{ResourceEntry::queuedDirectory(directory, {}, shown)};
  if (shape == Shape::tree) {
    for (std::size_t number = 1; number < count / entries_per_folder; ++number) {
      const std::string name = "/" + std::to_string(number % top_folders) + "/" + std::to_string(number);
      folders.push_back(ResourceEntry::queuedDirectory(directory, name, shown));
    }
  }
  std::vector<ResourceEntry> entries;
  entries.reserve(count);
  for (const File &file : makeFiles(count)) {
    // Names come in no order, so this leaves next to no neighbours in one folder: as in a tree that is sorted by name.
    entries.push_back(ResourceEntry::child(folders[entries.size() % folders.size()], file.name, file.status));
    if (cluster != nullptr) {
      entries.back().cluster = cluster->key(entries.back());
    }
  }
  return entries;
}

const Folder &folderOf(std::size_t entries, Shape shape) {
  static std::map<std::pair<std::size_t, Shape>, Folder> made;
  const auto key = std::pair(entries, shape);
  const auto known = made.find(key);
  return known != made.end() ? known->second : made.emplace(key, madeFolder(entries, shape)).first->second;
}

}  // namespace dirwell::bench
