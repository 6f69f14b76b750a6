#include "daemon/cached_folders.h"

#include <utility>

#include "cache/cache_folder.h"
#include "cache/cache_store.h"
#include "daemon/own_process.h"
#include "service/fork_gate.h"

namespace dirwell {

namespace {

bool has_default_volume() {
  const fork_gate::Section section;
  return !defaultVolume().empty();
}

bool hand_out_folders(std::size_t index, const TextOutput &output) {
  // The next request may be writing the next listing already, and would fail at a lock. What is read of it then does
  // not matter: it is read again for the request's own sake.
  CacheStore store(index, CacheStore::Unlocked{});
  store.begin();  // keeps what has been read of the file, so that the table that is looked at is the one that is read
  if (!store.holdsOwnTable()) {
    return true;
  }
  for (const std::string &path : store.cachedPaths()) {
    if (!output(path)) {
      return false;
    }
  }
  return true;
}

}  // namespace

std::vector<std::string> foldersOfCache(std::size_t index) {
  if (!has_default_volume()) {
    return {};
  }
  return std::move(in_own_process([index](const TextOutput &output) { return hand_out_folders(index, output); }).texts);
}

}  // namespace dirwell
