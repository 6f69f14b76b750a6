// One result-cache database: a listing keyed by its uuid, in a file of the session's or in memory.
//
// A store belongs to the thread that made it. SQLite results of opening, pragmas, transactions and counts are not
// checked: a failure shows later as a failed statement or a count of zero. A store without a connection answers every
// operation as a failed statement would.
#pragma once

#include <jansson.h>
#include <sqlite3.h>
#include <unicode/translit.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "describe/formatter.h"
#include "entry/resource_entry.h"
#include "service/error_record.h"
#include "service/json.h"

namespace dirwell {

// Makes the cache folder on the default volume, open to everyone; without a default volume logs one W line.
void prepareCacheFolder();

// Removes the databases whose session is no longer alive.
void cleanCacheFolder();

class CacheStore {
 public:
  // The store of this session's cache `index`; `fresh` starts it anew, otherwise a missing file stays missing. Index 0 is
  // the in-memory form.
  CacheStore(std::size_t index, bool fresh);
  // The in-memory form: fresh, without transliterator.
  CacheStore();
  ~CacheStore();
  CacheStore(const CacheStore &) = delete;
  CacheStore &operator=(const CacheStore &) = delete;

  // TODO(cache): begin, commit, rollback, resetSchema, clear, cachedPaths, countEntries, hasUuid, removeFile,
  // set, fetch, fetchOwn, remove, clusterSummary.

 private:
  std::size_t index = 0;
  std::string uuid;
  sqlite3 *db = nullptr;
  UErrorCode status = U_ZERO_ERROR;
  std::shared_ptr<icu::Transliterator> transliterator;
};

}  // namespace dirwell
