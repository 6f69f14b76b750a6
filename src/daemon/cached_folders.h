// The folders that a lasting cache names, for the daemon.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace dirwell {

// Reads them from the file of the session's cache `index`, in row order. The file lies in a folder open to everyone and
// may be anybody's work: what it costs to look at it, in time or memory, and what it does to the library that reads it,
// nobody knows beforehand. So a process of its own reads it, as the session's user for good, within seconds and a
// bounded memory; the daemon takes texts from it. What such a process cannot do gives no folders. One W line without a
// default volume. Not inside a fork gate section; the calling thread waits.
std::vector<std::string> foldersOfCache(std::size_t index);

}  // namespace dirwell
