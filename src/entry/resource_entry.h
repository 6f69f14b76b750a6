// The record of one file or folder, from the walk that finds it to the JSON that describes it.
#pragma once

#include <sys/stat.h>

#include <string>
#include <string_view>

#include "entry/shared_text.h"

namespace dirwell {

struct ResourceEntry {
  SharedText directory;         // real path of the root that the listing started from
  SharedText displayDirectory;  // the same root as the user sees it
  SharedText subPath;           // from the root down to the folder that holds the entry: empty, or "/a/b"
  std::string name;             // as the folder gives it, any bytes; empty in a root or queued-directory record
  std::string cluster;          // cluster key; empty unless the listing is grouped
  std::string extension;        // after the last dot of the name, case kept; see extensionOf
  struct ::stat stat {};        // the entry's own status, links not followed; zero in a root or queued-directory record

  // A root, or a directory queued for descent.
  static ResourceEntry queuedDirectory(SharedText directory, SharedText subPath, SharedText displayDirectory);
  // A name in a directory, with the status that lstat gives for it (zero when it gives none).
  static ResourceEntry fromPath(SharedText directory, std::string_view name);
  // A name in a directory with a known status and, where the user sees the directory elsewhere, that place.
  static ResourceEntry fromStatus(SharedText directory, std::string_view name, const struct ::stat &status,
                                  SharedText displayDirectory = {});
  // A child found in the directory that `parent` stands for.
  static ResourceEntry child(const ResourceEntry &parent, std::string_view name, const struct ::stat &status);
  // A name without a status.
  static ResourceEntry fromName(SharedText directory, SharedText subPath, std::string_view name,
                                SharedText displayDirectory);

  [[nodiscard]] bool isDirectory() const { return (stat.st_mode & S_IFMT) == S_IFDIR; }
  [[nodiscard]] bool isLink() const { return (stat.st_mode & S_IFMT) == S_IFLNK; }
};

// What follows the last dot of `name`; empty where there is no dot, where the dot is the first character, and for the
// mode of a directory.
std::string_view extensionOf(std::string_view name, mode_t mode);

}  // namespace dirwell
