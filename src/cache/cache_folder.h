// Where the result caches lie: a folder on the machine's default volume that is open to everyone.
#pragma once

#include <string>

namespace dirwell {

// The default volume as configured, used as it is and read anew at each call; empty, after one W line, when there is
// none. Any thread, inside a fork gate section where the process has several.
std::string defaultVolume();

// The cache folder of a volume.
std::string cacheFolder(const std::string &volume);

// Makes the cache folder on the default volume, open to everyone whatever the umask; an existing one is opened up. A
// link in its place is left alone, and so is what it names. Failures are ignored; without a default volume one W line.
// In the daemon, when a worker starts.
void prepareCacheFolder();

// Removes the databases whose session is no longer alive, each with a D line; failures are ignored. Names that begin
// with
// "." and folders stay. Without a default volume one W line. In the daemon, before or after the bus loop.
void cleanCacheFolder();

}  // namespace dirwell
