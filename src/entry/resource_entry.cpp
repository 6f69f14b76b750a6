#include "entry/resource_entry.h"

#include <type_traits>
#include <utility>

#include "entry/paths.h"

namespace dirwell {

// A listing that outgrows its vector, and the sort after it, must move records and never copy their texts.
static_assert(std::is_nothrow_move_constructible_v<ResourceEntry> && std::is_nothrow_move_assignable_v<ResourceEntry>);

ResourceEntry ResourceEntry::queuedDirectory(SharedText directory, SharedText subPath, SharedText displayDirectory) {
  ResourceEntry entry;
  entry.directory = std::move(directory);
  entry.displayDirectory = std::move(displayDirectory);
  entry.subPath = std::move(subPath);
  return entry;
}

ResourceEntry ResourceEntry::fromPath(SharedText directory, std::string_view name) {
  ResourceEntry entry;
  entry.directory = std::move(directory);
  entry.name = name;
  pathExists(entry, 0);  // a path that gives no status leaves it zero
  entry.extension = extensionOf(name, entry.stat.st_mode);
  return entry;
}

ResourceEntry ResourceEntry::fromStatus(SharedText directory, std::string_view name, const struct ::stat &status,
                                        SharedText displayDirectory) {
  ResourceEntry entry;
  entry.directory = std::move(directory);
  entry.displayDirectory = std::move(displayDirectory);
  entry.name = name;
  entry.stat = status;
  entry.extension = extensionOf(name, status.st_mode);
  return entry;
}

ResourceEntry ResourceEntry::child(const ResourceEntry &parent, std::string_view name, const struct ::stat &status) {
  ResourceEntry entry;
  entry.directory = parent.directory;
  entry.displayDirectory = parent.displayDirectory;
  entry.subPath = parent.subPath;
  entry.name = name;
  entry.stat = status;
  entry.extension = extensionOf(name, status.st_mode);
  return entry;
}

ResourceEntry ResourceEntry::fromName(SharedText directory, SharedText subPath, std::string_view name,
                                      SharedText displayDirectory) {
  ResourceEntry entry;
  entry.directory = std::move(directory);
  entry.displayDirectory = std::move(displayDirectory);
  entry.subPath = std::move(subPath);
  entry.name = name;
  entry.extension = extensionOf(name, entry.stat.st_mode);
  return entry;
}

std::string_view extensionOf(std::string_view name, mode_t mode) {
  if (S_ISDIR(mode)) {
    return {};
  }
  const std::size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0) {
    return {};
  }
  return name.substr(dot + 1);
}

}  // namespace dirwell
