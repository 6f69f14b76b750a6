// The folders that a lasting cache names, for the daemon.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace dirwell {

// Reads them, in row order, from the file of the session's cache `index`. The file lies in a folder open to everyone
// and may be anybody's work, so a process of its own reads it. What cannot be read gives no folders; a reading that
// takes too long, those that it got to. One W line without a default volume. Not inside a fork gate section.
std::vector<std::string> foldersOfCache(std::size_t index);

}  // namespace dirwell
