// How the paths of an entry are put together and tested.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

#include "entry/resource_entry.h"

namespace dirwell {

// The non-empty pieces in order, each with "/" in front unless it begins with one. Doubled slashes stay.
std::string joinPath(std::initializer_list<std::string_view> pieces);
// The same in the memory of a path that is not needed any more; none of the pieces may lie in it.
void joinPath(std::string &path, std::initializer_list<std::string_view> pieces);

std::string fullPath(const ResourceEntry &entry);          // directory, subPath, name
std::string displayPath(const ResourceEntry &entry);       // displayDirectory, subPath, name
std::string directoryPath(const ResourceEntry &entry);     // directory, subPath
std::string virtualDirectory(const ResourceEntry &entry);  // displayDirectory, subPath

// Whether `directory` joined with `name` exists; links are followed when `follow` is 1. Fills `path.stat` on success
// and leaves it alone on failure. Returns 1 or 0.
int pathExists(ResourceEntry &path, int follow);

}  // namespace dirwell
