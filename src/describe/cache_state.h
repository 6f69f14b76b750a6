// The cloud-cache facts of one entry, as its description shows them.
#pragma once

#include <cstdint>
#include <string>

namespace dirwell {

// All 0 for an entry that lies on no cloud-cache mount.
struct CacheState {
  std::int32_t fileStatus = 0;
  std::int32_t priority = 0;
  std::int32_t uploadProgress = 0;
  std::int32_t folderIsEncrypted = 0;
  std::int32_t folderIsLocked = 0;
  std::int32_t rootStatus = 0;
  std::int32_t failedCount = 0;
};

// Asks all probes of storage_state.h about an entry on a cloud-cache mount; a folder (or a link to one) is looked up
// with the mount tool too. Logs one E line when the entry's state cannot be asked for. Runs in the request's own
// process, one thread.
CacheState readCacheState(const std::string &fullPath, bool isFolder);

}  // namespace dirwell
