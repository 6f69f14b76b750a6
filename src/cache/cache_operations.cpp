// What requests do with a store: write a listing, read a page of it, forget it, count its clusters.
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cache/cache_store.h"
#include "cache/cluster_counts.h"
#include "cache/page_plan.h"
#include "cache/statement.h"
#include "cache/watch_times.h"
#include "entry/paths.h"
#include "service/client_watchdog.h"
#include "service/log.h"
#include "service/parameters.h"

namespace dirwell {

namespace {

// A file status is stored as the kernel's own record on x86-64; a machine with another layout needs a conversion here.
using Status = struct ::stat;
constexpr std::size_t status_size = 144;
static_assert(sizeof(Status) == status_size && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__);
static_assert(offsetof(Status, st_dev) == 0 && sizeof(Status::st_dev) == 8);
static_assert(offsetof(Status, st_ino) == 8 && sizeof(Status::st_ino) == 8);
static_assert(offsetof(Status, st_nlink) == 16 && sizeof(Status::st_nlink) == 8);
static_assert(offsetof(Status, st_mode) == 24 && sizeof(Status::st_mode) == 4);
static_assert(offsetof(Status, st_uid) == 28 && sizeof(Status::st_uid) == 4);
static_assert(offsetof(Status, st_gid) == 32 && sizeof(Status::st_gid) == 4);
static_assert(offsetof(Status, st_rdev) == 40 && sizeof(Status::st_rdev) == 8);
static_assert(offsetof(Status, st_size) == 48 && sizeof(Status::st_size) == 8);
static_assert(offsetof(Status, st_blksize) == 56 && sizeof(Status::st_blksize) == 8);
static_assert(offsetof(Status, st_blocks) == 64 && sizeof(Status::st_blocks) == 8);
static_assert(offsetof(Status, st_atim) == 72 && sizeof(Status::st_atim) == 16);
static_assert(offsetof(Status, st_mtim) == 88 && sizeof(Status::st_mtim) == 16);
static_assert(offsetof(Status, st_ctim) == 104 && sizeof(Status::st_ctim) == 16);

// A blob of another length is read as far as it goes.
Status statusOf(std::string_view blob) {
  Status status{};
  blob.copy(reinterpret_cast<char *>(&status), status_size);
  return status;
}

// A time that the C library cannot break down shows as 0-0-0.
void traceEntry(const std::string &folder, const ResourceEntry &entry) {
  SourcePlace place = SourcePlace::here("cache");
  place.function = "set";
  std::tm modified{};
  const bool broken_down = ::localtime_r(&entry.stat.st_mtime, &modified) != nullptr;
  log_trace(place, "[cache] %s/%s isdir=%d, size=%jd, modify=%ld-%d-%d", folder.c_str(), entry.name.c_str(),
            entry.isDirectory() ? 1 : 0, static_cast<std::intmax_t>(entry.stat.st_size),
            broken_down ? modified.tm_year + 1900L : 0L,  // the last of such years are beyond int
            broken_down ? modified.tm_mon + 1 : 0, broken_down ? modified.tm_mday : 0);
}

// Writes the rows of one listing: a folder row for each run of entries of one folder, a row for each entry. Results are
// SQLITE_DONE or the error of the row that could not be written.
class RowWriter {
 public:
  explicit RowWriter(sqlite3 *connection)
      : folders_(connection, "INSERT INTO cache ( uuid, path, alias ) VALUES ( @uuid, @path, @alias );",
                 SQLITE_PREPARE_PERSISTENT),
        entries_(connection,
                 "INSERT INTO entry ( path, name, stat, cluster ) VALUES ( @path, @name, @stat, @cluster );",
                 SQLITE_PREPARE_PERSISTENT) {}

  // The first row, which makes the uuid known even when the listing is empty. `listing` must outlive the writer.
  int addPlaceholder(const std::string &listing) {
    folders_.bind(1, listing);
    entries_.bind(1, folder_row_);
    return addFolder({}, {});
  }

  // `entry` must stay until the next one has been added.
  int addEntry(const ResourceEntry &entry) {
    const bool new_run = startsRun(entry);
    previous_ = &entry;
    if (log_enabled(Severity::trace)) {
      traceEntry(new_run ? next_folder_ : folder_, entry);
    }
    entries_.reset();
    if (new_run) {
      joinPath(alias_, {entry.displayDirectory, entry.subPath});
      if (const int result = addFolder(next_folder_, alias_); result != SQLITE_DONE) {
        return result;
      }
      folder_.swap(next_folder_);
      entries_.bind(1, ++folder_row_);
    }
    entries_.bind(2, entry.name);
    entries_.bindBlob(3, &entry.stat, status_size);
    entries_.bind(4, entry.cluster);
    return entries_.step();
  }

 private:
  // Whether the entry's folder differs from the last one's; its path is then in next_folder_. Siblings share the texts
  // of their folder, so that most entries need no path.
  bool startsRun(const ResourceEntry &entry) {
    if (previous_ != nullptr && entry.directory.same_object(previous_->directory) &&
        entry.subPath.same_object(previous_->subPath)) {
      return false;
    }
    joinPath(next_folder_, {entry.directory, entry.subPath});
    return next_folder_ != folder_;
  }

  int addFolder(std::string_view path, std::string_view alias) {
    folders_.reset();
    folders_.bind(2, path);
    folders_.bind(3, alias);
    return folders_.step();
  }

  Statement folders_;
  Statement entries_;
  std::int32_t folder_row_ = 1;
  std::string folder_;  // path of folder_row_
  std::string next_folder_;
  std::string alias_;  // of the folder added last
  const ResourceEntry *previous_ = nullptr;
};

constexpr std::size_t names_ahead = 4;

int writeEntries(RowWriter &writer, const std::vector<ResourceEntry> &entries, ClusterCounts &clusters) {
  for (std::size_t place = 0; place < entries.size(); ++place) {
    // Sorted names lie all over the memory: they are called for some rows ahead.
    if (place + names_ahead < entries.size()) {
      __builtin_prefetch(entries[place + names_ahead].name.data());
    }
    const ResourceEntry &entry = entries[place];
    if (const int result = writer.addEntry(entry); result != SQLITE_DONE) {
      return result;
    }
    clusters.add(entry.cluster);
  }
  return SQLITE_DONE;
}

// Both give the same rows where the entries' numbers are their places in the listing; the second need not step over
// the rows before the page.
constexpr std::string_view page_by_count =
    "SELECT cache.path, entry.name, entry.stat, cache.alias FROM cache, entry WHERE uuid = @uuid AND "
    "cache.rowid = entry.path LIMIT @limit OFFSET @offset";
constexpr std::string_view page_by_number =
    "SELECT cache.path, entry.name, entry.stat, cache.alias FROM cache, entry WHERE uuid = @uuid AND "
    "cache.rowid = entry.path AND entry.rowid > max(@offset, 0) LIMIT @limit";

void logFailure(int result) {
  log_error("[cache] %s", sqlite3_errstr(result));
}

// Keeps the text of the row above where the bytes are the same, as they are for most rows.
void follow(SharedText &text, std::string_view bytes) {
  if (text.view() != bytes) {
    text = bytes;
  }
}

}  // namespace

JsonRef CacheStore::set(const std::vector<ResourceEntry> &entries, ErrorRecord &error) {
  if (error.code != error_none) {
    return nullptr;
  }
  ClientWatchdog::instance().stop();
  resetSchema();
  // For writing only: reading a mapped file that is cut off, or has a hole on a full disk, would end the process.
  execute("PRAGMA mmap_size = 518348800;");
  ClusterCounts clusters;
  int result = SQLITE_DONE;
  {
    RowWriter writer(db);
    uuid = new_uuid();
    begin();
    result = writer.addPlaceholder(uuid);
    if (result != SQLITE_DONE) {
      logFailure(result);
      return nullptr;
    }
    // Another request may have filled the tables since they were made: the folders' row numbers would be its own.
    result = sqlite3_last_insert_rowid(db) == 1 ? writeEntries(writer, entries, clusters) : SQLITE_BUSY;
  }
  if (result != SQLITE_DONE) {
    logFailure(result);
    rollback();
    set_error(error, error_failed_operation, "cache failure");
    return nullptr;
  }
  commit();
  if (index == 0) {
    const PagePlan plan{.folders = 1, .total = static_cast<std::int64_t>(entries.size()), .by_number = true};
    written = Written{plan, sqlite3_total_changes(db)};
  }
  log_info("[cache] uuid %s created", uuid.c_str());
  JsonRef reply(json_object());
  json_put(reply.get(), "cluster", clusters.summary().release());
  json_put(reply.get(), "uuid", json_text(uuid).release());
  json_put(reply.get(), "total", json_integer(static_cast<json_int_t>(entries.size())));
  return reply;
}

JsonRef CacheStore::fetch(const std::string &listing, std::int64_t offset, std::int64_t limit,
                          const std::shared_ptr<Formatter> &formatter, ErrorRecord &error) {
  if (error.code != error_none) {
    return nullptr;
  }
  // What has just been written to memory need not be counted again.
  const bool known = written && listing == uuid && sqlite3_total_changes(db) == written->changes;
  const PagePlan plan = known ? written->plan : planPage(db, listing);
  if (plan.folders == 0) {
    log_warning("[cache] uuid %s invalid", listing.c_str());
    set_error(error, error_invalid_parameter, "invalid uuid");
    return nullptr;
  }
  JsonRef datas(json_array());
  {
    Statement page(db, plan.by_number ? page_by_number : page_by_count);
    page.bind(page.parameter("@uuid"), listing);
    page.bind(page.parameter("@limit"), static_cast<std::int32_t>(limit));
    page.bind(page.parameter("@offset"), static_cast<std::int32_t>(offset));
    SharedText folder;
    SharedText alias;
    int result = SQLITE_ROW;
    while ((result = page.step()) == SQLITE_ROW) {
      if (!formatter) {
        continue;
      }
      follow(folder, page.text(0));
      follow(alias, page.text(3));
      json_append(datas.get(),
                  formatter->format(ResourceEntry::fromStatus(folder, page.text(1), statusOf(page.blob(2)), alias)));
    }
    if (result != SQLITE_DONE) {  // rows are missing, and nobody could tell
      logFailure(result);
      set_error(error, error_failed_operation, "cache failure");
      return nullptr;
    }
  }
  JsonRef reply(json_object());
  json_put(reply.get(), "datas", datas.release());
  json_put(reply.get(), "total", json_integer(plan.total));
  json_put(reply.get(), "changed", json_boolean(cacheChanged(index)));
  if (formatter) {
    formatter->formatSettings(reply.get());
  }
  return reply;
}

JsonRef CacheStore::fetchOwn(std::int64_t offset, std::int64_t limit, const std::shared_ptr<Formatter> &formatter,
                             ErrorRecord &error) {
  return fetch(uuid, offset, limit, formatter, error);
}

void CacheStore::remove(const std::string &listing, ErrorRecord &error) {
  if (error.code != error_none) {
    return;
  }
  Statement statement(db, "DELETE FROM cache WHERE @uuid = uuid;");
  begin();
  statement.bind(statement.parameter("@uuid"), listing);
  const bool removed = statement.step() == SQLITE_DONE && sqlite3_changes(db) > 0;
  commit();
  if (!removed) {
    set_error(error, error_failed_operation, "uuid not found");
  }
  log_info("[cache] uuid %s deleted", listing.c_str());
}

JsonRef CacheStore::clusterSummary() {
  JsonRef summary(json_array());
  Statement statement(db,
                      "SELECT GROUP_CONCAT(DISTINCT cluster), count(*) FROM ( SELECT rowid id, cluster FROM entry ) "
                      "GROUP BY cluster ORDER BY MIN(id)");
  while (statement.step() == SQLITE_ROW) {
    json_append(summary.get(), clusterItem(statement.text(0), statement.number(1)).release());
  }
  return summary;
}

}  // namespace dirwell
