// One result-cache database: a listing keyed by its uuid, in a file of the session's or in memory.
//
// A store belongs to the thread that made it; in a process of several threads that forks, it is used inside fork gate
// sections. SQLite results of opening, pragmas, transactions and counts are not checked: a failure shows later as a
// failed statement or a count of zero. A store without a connection (no default volume, a file that is missing or
// cannot be opened) answers every operation as a failed statement would. Texts are bytes: names need not be valid
// UTF-8.
#pragma once

#include <jansson.h>
#include <sqlite3.h>
#include <unicode/translit.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cache/cache_folder.h"
#include "cache/page_plan.h"
#include "describe/formatter.h"
#include "entry/resource_entry.h"
#include "service/error_record.h"
#include "service/json.h"

namespace dirwell {

class CacheStore {
 public:
  // The store of this session's cache `index`; `fresh` starts it anew, otherwise a missing file stays missing. Index 0
  // is the in-memory form. Without a default volume one W line.
  CacheStore(std::size_t index, bool fresh);
  // The in-memory form: fresh, without transliterator.
  CacheStore();
  // A look at the existing store of cache `index` that is in no request's way: no statement can write, and no lock is
  // taken. What a request writes meanwhile may be seen in part, and a journal is not looked at.
  struct Unlocked {};
  CacheStore(std::size_t index, Unlocked unlocked);
  ~CacheStore();
  CacheStore(const CacheStore &) = delete;
  CacheStore &operator=(const CacheStore &) = delete;

  // Replaces the store's content by `entries`, in their order and with their cluster keys, under a new uuid. Stops the
  // ClientWatchdog: from here on the request runs to its end. Returns {"cluster", "uuid", "total"}. Returns null
  // without an error in the record when not even the uuid can be written, and null with "cache failure" when a row
  // cannot be written, which leaves the store without a listing.
  JsonRef set(const std::vector<ResourceEntry> &entries, ErrorRecord &error);

  // One page of the listing `uuid`: {"datas", "total", "changed"} and, with a formatter, its settings keys. `formatter`
  // describes each row; without one "datas" stays empty. `offset` and `limit` count by their low 32 bits; an offset
  // below 0 is 0, a limit below 0 is none. Null and "invalid uuid" for a listing that the store does not hold.
  JsonRef fetch(const std::string &listing, std::int64_t offset, std::int64_t limit,
                const std::shared_ptr<Formatter> &formatter, ErrorRecord &error);
  // The same for the listing that this object's last set() wrote.
  JsonRef fetchOwn(std::int64_t offset, std::int64_t limit, const std::shared_ptr<Formatter> &formatter,
                   ErrorRecord &error);

  // Forgets the listing `uuid`; "uuid not found" when nothing was removed. Its entries stay in the file until the next
  // set().
  void remove(const std::string &listing, ErrorRecord &error);

  // The operations above do nothing and return null when the record already holds an error.

  // [{"value": cluster key, "count": entries with it}, ...] in the order of each cluster's first entry. Never null.
  JsonRef clusterSummary();

  // Whether the table of the paths is one that resetSchema() made. Of another make, a virtual table or one with columns
  // that are computed, even reading it may cost any amount of time that no limit stops. False on failure.
  bool holdsOwnTable();

  // Every folder of the listing in row order, the placeholder's empty text included. Stops, with what it has, after
  // 2 seconds, 200,000 paths or 64 MiB of them, since the file may be anybody's.
  std::vector<std::string> cachedPaths();

  // Entries of the listing, folders' rows considered; 0 on failure.
  std::int64_t countEntries(const std::string &listing);
  bool hasUuid(const std::string &listing);

  // A failed commit leaves one D line.
  void begin();
  void commit();
  void rollback();
  // Drops and makes both tables; a failure leaves one E line.
  void resetSchema();
  // Empties both tables.
  void clear();
  // Removes the database's file; the connection stays usable.
  void removeFile();

  // For statements beyond these, which may call DEDIACRITICAL(text); null without a connection. Stays the store's.
  [[nodiscard]] sqlite3 *connection() const { return db; }

 private:
  enum class Opening : std::uint8_t { fresh, existing, unlocked };
  void open(Opening opening);
  void execute(const char *sql);
  [[nodiscard]] const char *lastError() const;

  std::size_t index = 0;
  std::string uuid;
  // How the listing lies that set() wrote to memory, for as long as no row has been changed since; tables are only
  // changed by resetSchema().
  struct Written {
    PagePlan plan;
    int changes = 0;
  };
  std::optional<Written> written;
  sqlite3 *db = nullptr;
  UErrorCode status = U_ZERO_ERROR;
  std::shared_ptr<icu::Transliterator> transliterator;
};

}  // namespace dirwell
