#include "fuzz/support/store_check.h"

#include <jansson.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "cache/cache_store.h"
#include "describe/formatter.h"
#include "fuzz/support/check.h"
#include "fuzz/support/quiet.h"
#include "fuzz/support/stand_ins.h"
#include "listing/type_table.h"
#include "service/error_record.h"
#include "service/json.h"
#include "service/session.h"
#include "support/private_root.h"
#include "support/temp_dir.h"

namespace dirwell::fuzz {
namespace {

using Row = std::vector<std::string>;

// A connection with the same caution that the store's has; what it cannot answer within a while it leaves open.
class Plain {
 public:
  Plain() {
    if (sqlite3_open_v2(store_file().c_str(), &connection_, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
      sqlite3_close(connection_);
      connection_ = nullptr;
      return;
    }
    sqlite3_db_config(connection_, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    sqlite3_db_config(connection_, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
    sqlite3_db_config(connection_, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
    sqlite3_db_config(connection_, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_limit(connection_, SQLITE_LIMIT_LENGTH, 1 << 20);
    sqlite3_exec(connection_, "PRAGMA automatic_index = OFF;", nullptr, nullptr, nullptr);
    sqlite3_progress_handler(
        connection_, 1'000'000, [](void *) { return 1; }, nullptr);
  }
  ~Plain() { sqlite3_close(connection_); }
  Plain(const Plain &) = delete;
  Plain &operator=(const Plain &) = delete;

  // The rows of a query, every column as its bytes; none when it fails.
  std::optional<std::vector<Row>> rows(std::string_view sql, const std::string &uuid = {}, std::int32_t limit = 0,
                                       std::int32_t offset = 0) {
    sqlite3_stmt *statement = nullptr;
    if (connection_ == nullptr ||
        sqlite3_prepare_v2(connection_, sql.data(), static_cast<int>(sql.size()), &statement, nullptr) != SQLITE_OK) {
      return std::nullopt;
    }
    const std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt *)> owner(statement, sqlite3_finalize);
    sqlite3_bind_text(statement, sqlite3_bind_parameter_index(statement, "@uuid"), uuid.data(),
                      static_cast<int>(uuid.size()), SQLITE_TRANSIENT);
    sqlite3_bind_int(statement, sqlite3_bind_parameter_index(statement, "@limit"), limit);
    sqlite3_bind_int(statement, sqlite3_bind_parameter_index(statement, "@offset"), offset);
    std::vector<Row> result;
    int step = SQLITE_ROW;
    while ((step = sqlite3_step(statement)) == SQLITE_ROW) {
      Row &row = result.emplace_back();
      for (int column = 0; column < sqlite3_column_count(statement); ++column) {
        // As the store reads them: the blob as a blob, all others as texts.
        const bool blob = column == 2;
        const auto *bytes = blob ? static_cast<const char *>(sqlite3_column_blob(statement, column))
                                 : reinterpret_cast<const char *>(sqlite3_column_text(statement, column));
        row.emplace_back(bytes != nullptr ? bytes : "",
                         static_cast<std::size_t>(bytes != nullptr ? sqlite3_column_bytes(statement, column) : 0));
      }
    }
    return step == SQLITE_DONE ? std::optional(std::move(result)) : std::nullopt;
  }

  bool is_sound() {
    const auto answer = rows("PRAGMA integrity_check");
    return answer && answer->size() == 1 && (*answer)[0][0] == "ok";
  }

 private:
  sqlite3 *connection_ = nullptr;
};

std::int64_t number(const std::optional<std::vector<Row>> &rows) {
  return rows && !rows->empty() ? std::stoll((*rows)[0][0]) : 0;
}

// Keeps what the store reads.
class Keeper final : public Formatter {
 public:
  json_t *format(const ResourceEntry &entry) override {
    entries.push_back(entry);
    return json_object();
  }
  std::vector<ResourceEntry> entries;
};

template <typename Number>
Number field(std::string_view blob, std::size_t at) {
  Number value = 0;
  if (at < blob.size()) {
    std::memcpy(&value, blob.data() + at, std::min(sizeof value, blob.size() - at));
  }
  return value;
}

// An entry is what its row says: the status by its places in the blob, the rest as texts.
void check_row(const ResourceEntry &entry, const Row &row) {
  check_equal(std::string(entry.directory.view()), row[0], "the folder is the row's");
  check_equal(entry.name, row[1], "the name is the row's");
  check_equal(std::string(entry.displayDirectory.view()), row[3], "the alias is the row's");
  const std::string blob = row[2].substr(0, 144);
  check_equal(static_cast<std::uint64_t>(entry.stat.st_mode), std::uint64_t{field<std::uint32_t>(blob, 24)}, "mode");
  check_equal(static_cast<std::uint64_t>(entry.stat.st_uid), std::uint64_t{field<std::uint32_t>(blob, 28)}, "owner");
  check_equal(static_cast<std::uint64_t>(entry.stat.st_gid), std::uint64_t{field<std::uint32_t>(blob, 32)}, "group");
  check_equal(std::int64_t{entry.stat.st_size}, field<std::int64_t>(blob, 48), "size");
  check_equal(std::int64_t{entry.stat.st_mtime}, field<std::int64_t>(blob, 88), "time");
}

// The description of what a stranger has written is a description like any other.
void check_described(const json_t *entry, const ResourceEntry &row) {
  const auto text = [entry](const char *key) {
    const json_t *value = json_object_get(entry, key);
    check(json_is_string(value), "a text is there", key);
    return std::string(json_string_value(value), json_string_length(value));
  };
  check_equal(text("filename"), well_formed_utf8(row.name), "the name is shown");
  check_equal(text("privilege").size(), std::size_t{3}, "permissions are three digits");
  check(text("mt").empty() || text("mt").size() == 19, "a time is shown whole or not at all", text("mt"));
  check_equal(std::int64_t{json_integer_value(json_object_get(entry, "epochmt"))}, std::int64_t{row.stat.st_mtime},
              "the time is the row's");
  if (!row.isLink()) {
    check_equal(std::int64_t{json_integer_value(json_object_get(entry, "filesize"))}, std::int64_t{row.stat.st_size},
                "the size is the row's");
  }
}

void check_page(const JsonRef &page, const ErrorRecord &record, const std::string &uuid) {
  if (!page) {
    // A page that breaks off is no page; of a sound file the plain queries tell below that this was not so.
    const std::string_view message = record.message;
    check((record.code == 2 && message == "invalid uuid") || (record.code == 3 && message == "cache failure"),
          "a listing that is not there, or cannot be read, is refused", uuid);
    return;
  }
  check_equal(record.code, std::uint32_t{0}, "a page is no error");
  check(json_is_array(json_object_get(page.get(), "datas")), "a page has entries");
  check(json_integer_value(json_object_get(page.get(), "total")) >= 0, "a listing has a size");
  const std::unique_ptr<char, void (*)(void *)> text(json_dumps(page.get(), reply_json_flags), ::free);
  check(text != nullptr, "a page can be written");
}

// Where the file is sound, what the store finds is what the plain queries find.
void check_against_queries(Plain &plain, CacheStore &store, const std::string &uuid, std::int64_t offset,
                           std::int64_t limit, const JsonRef &page, const Keeper &keeper) {
  const auto folders = plain.rows("SELECT COUNT(*) FROM cache WHERE uuid = @uuid", uuid);
  const auto total =
      plain.rows("SELECT COUNT(*) FROM cache, entry WHERE uuid = @uuid AND cache.rowid = entry.path", uuid);
  const auto rows = plain.rows(
      "SELECT cache.path, entry.name, entry.stat, cache.alias FROM cache, entry WHERE uuid = @uuid AND cache.rowid = "
      "entry.path LIMIT @limit OFFSET @offset",
      uuid, static_cast<std::int32_t>(limit), static_cast<std::int32_t>(offset));
  const auto paths = plain.rows("SELECT path FROM cache");
  if (!folders || !total || !rows || !paths) {
    return;
  }
  check((page != nullptr) == (number(folders) > 0), "a listing is there or not", uuid);
  check(store.hasUuid(uuid) == (number(folders) > 0), "and the store says so");
  check_equal(store.countEntries(uuid), number(total), "a listing has as many entries as are joined to it");
  CacheStore look(1, CacheStore::Unlocked{});
  const std::vector<std::string> followed = look.cachedPaths();
  check_equal(followed.size(), paths->size(), "every folder is followed");
  for (std::size_t index = 0; index < followed.size(); ++index) {
    check_equal(followed[index], (*paths)[index][0], "every folder is followed");
  }
  if (!page) {
    return;
  }
  check_equal(std::int64_t{json_integer_value(json_object_get(page.get(), "total"))}, number(total),
              "the total is the number of entries");
  check_equal(keeper.entries.size(), rows->size(), "a page has the rows of the plain query");
  for (std::size_t index = 0; index < rows->size(); ++index) {
    check_row(keeper.entries[index], (*rows)[index]);
  }
}

}  // namespace

void prepare_store() {
  silence();
  static const test::TempDir volume;
  volume.mkdir(".fs");
  test::write_below_root("etc/config/def_share.info", "[SHARE_DEF]\ndefVolMP = " + volume.path() + "\n");
  test::write_below_root("var/run/dirwell/sessions/fuzzed", "user = root\n");
  Session::instance().set_sid("fuzzed");
  buildTypeIndex();
}

const std::string &store_file() {
  static const std::string file = cacheFolder(defaultVolume()) + "/fuzzed.1";
  return file;
}

void write_store(const std::string &bytes) {
  ::unlink(store_file().c_str());
  ::unlink((store_file() + "-journal").c_str());
  ::unlink((store_file() + "-wal").c_str());
  ::unlink((store_file() + "-shm").c_str());
  std::ofstream(store_file(), std::ios::binary) << bytes;
}

std::string first_uuid() {
  const auto rows = Plain().rows("SELECT uuid FROM cache LIMIT 1");
  return rows && !rows->empty() ? (*rows)[0][0] : std::string();
}

void check_store(const std::string &uuid, std::int64_t offset, std::int64_t limit) {
  machine() = {};
  Plain plain;
  const bool sound = plain.is_sound();
  {
    CacheStore look(1, CacheStore::Unlocked{});
    look.begin();
    look.holdsOwnTable();
    look.cachedPaths();
  }
  CacheStore store(1, false);
  ErrorRecord record;
  const auto keeper = std::make_shared<Keeper>();
  const JsonRef page = store.fetch(uuid, offset, limit, keeper, record);
  check_page(page, record, uuid);
  if (sound) {
    check_against_queries(plain, store, uuid, offset, limit, page, *keeper);
  }
  ErrorRecord described_record;
  const JsonRef described = store.fetch(uuid, offset, limit, std::make_shared<LegacyFormatter>(), described_record);
  check_page(described, described_record, uuid);
  const json_t *datas = json_object_get(described.get(), "datas");
  if (sound && json_array_size(datas) == keeper->entries.size()) {
    for (std::size_t index = 0; index < keeper->entries.size(); ++index) {
      check_described(json_array_get(datas, index), keeper->entries[index]);
    }
  }
  const JsonRef summary = store.clusterSummary();
  check(json_is_array(summary.get()), "a summary is there whatever the file holds");
  ErrorRecord removal;
  store.remove(uuid, removal);
  check(removal.code == 0 || std::string_view(removal.message) == "uuid not found",
        "a listing is removed or not there");
  check(!sound || removal.code != 0 || !store.hasUuid(uuid), "a listing that is removed is gone");
}

}  // namespace dirwell::fuzz
