// The files that the stages work on: the same on every machine and in every run. A tenth of the names is accented, two
// in a hundred are folders. What cannot be made throws std::system_error.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <string>
#include <vector>

#include "entry/resource_entry.h"
#include "ordering/clusters.h"

namespace dirwell::bench {

struct File {
  std::string name;  // no two files of a set share one
  struct ::stat status {};
};

// So many made-up files, at most 100,000; a larger set begins with all of a smaller one.
std::vector<File> makeFiles(std::size_t count);

enum class Shape {
  flat,  // all in one folder
  tree,  // fifty to a folder
};

// Records as a walk of that many entries leaves them, cluster keys included where a cluster is given. There are no
// such files.
std::vector<ResourceEntry> listingOf(std::size_t count, Shape shape = Shape::flat, Cluster *cluster = nullptr);

// A real folder, made when it is asked for first.
struct Folder {
  std::string path;
  std::size_t visible = 0;  // entries in it, or below it, that are not hidden
};
const Folder &folderOf(std::size_t entries, Shape shape);

}  // namespace dirwell::bench
