#include "cache/cache_store.h"

#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "cache/plain_files.h"
#include "cache/schema.h"
#include "cache/statement.h"
#include "service/log.h"
#include "service/session.h"

namespace dirwell {

namespace {

constexpr const char *storage_options =
    "PRAGMA page_size = 32768; PRAGMA temp_store = MEMORY; PRAGMA synchronous = OFF; PRAGMA auto_vacuum = FULL; "
    "PRAGMA journal_mode = OFF;";

// No link is followed: one that somebody planted in the folder, even between our removal of a file and the making of
// the next one, would have us write to whatever file of the user's it names.
constexpr int open_existing = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW;
constexpr int open_fresh = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOFOLLOW;
constexpr int open_unlocked = SQLITE_OPEN_READONLY | SQLITE_OPEN_URI | SQLITE_OPEN_NOFOLLOW;
constexpr int busy_timeout_ms = 3000;

// What reading a file of unknown origin may cost: no text of ours comes near the length, no listing near the rest.
constexpr int longest_foreign_value = 1 << 20;
constexpr std::chrono::seconds longest_path_reading{2};
constexpr std::size_t most_paths = 200'000;
constexpr std::size_t most_path_bytes = std::size_t{64} << 20;

// The way to the volume may hold links all the same. As it is where it cannot be resolved.
std::string withoutLinks(const std::string &folder) {
  struct Free {
    void operator()(char *text) const { ::free(text); }
  };
  const std::unique_ptr<char, Free> resolved(::realpath(folder.c_str(), nullptr));
  return resolved ? resolved.get() : folder;
}

// The name under which SQLite takes a file for one that nobody changes, and so locks nothing.
std::string unchangingFile(const std::string &path) {
  std::string name = "file:";
  for (const char character : path) {
    constexpr std::string_view special = "%?#";
    if (special.find(character) != std::string_view::npos) {
      std::array<char, 4> escaped{};
      std::snprintf(escaped.data(), escaped.size(), "%%%02X", static_cast<unsigned char>(character));
      name += escaped.data();
    } else {
      name += character;
    }
  }
  return name + "?immutable=1";
}

int neverWait(void * /*store*/, int /*calls*/) {
  return 0;
}

// Ends a statement that runs beyond a time limit.
class TimeLimit {
 public:
  TimeLimit(sqlite3 *connection, std::chrono::seconds limit)
      : connection_(connection), end_(std::chrono::steady_clock::now() + limit) {
    if (connection_ != nullptr) {
      sqlite3_progress_handler(connection_, instructions_between_looks, &TimeLimit::reached, this);
    }
  }
  ~TimeLimit() {
    if (connection_ != nullptr) {
      sqlite3_progress_handler(connection_, 0, nullptr, nullptr);
    }
  }
  TimeLimit(const TimeLimit &) = delete;
  TimeLimit &operator=(const TimeLimit &) = delete;

  [[nodiscard]] bool reached() const { return std::chrono::steady_clock::now() >= end_; }

 private:
  static constexpr int instructions_between_looks = 1000;
  static int reached(void *self) { return static_cast<const TimeLimit *>(self)->reached() ? 1 : 0; }

  sqlite3 *connection_;
  std::chrono::steady_clock::time_point end_;
};

// DEDIACRITICAL(text): without accents and in lower case; NULL for all that is not text. `sqlite3_user_data` is the
// transliterator of the store, which outlives the connection.
void dediacritical(sqlite3_context *context, int count, sqlite3_value **values) {
  const auto *transliterator = static_cast<const icu::Transliterator *>(sqlite3_user_data(context));
  const bool is_text = count == 1 && sqlite3_value_type(values[0]) == SQLITE_TEXT;
  const auto *text = is_text ? reinterpret_cast<const char *>(sqlite3_value_text(values[0])) : nullptr;
  if (text == nullptr || transliterator == nullptr) {
    sqlite3_result_null(context);
    return;
  }
  icu::UnicodeString converted = icu::UnicodeString::fromUTF8(icu::StringPiece(text, sqlite3_value_bytes(values[0])));
  transliterator->transliterate(converted);
  std::string result;
  converted.toUTF8String(result);
  sqlite3_result_text(context, result.data(), static_cast<int>(result.size()), SQLITE_TRANSIENT);
}

}  // namespace

CacheStore::CacheStore(std::size_t cacheIndex, bool fresh) : index(cacheIndex) {
  transliterator.reset(
      icu::Transliterator::createInstance("NFD; [:M:] Remove; NFC; Any-Lower;", UTRANS_FORWARD, status));
  open(fresh ? Opening::fresh : Opening::existing);
}

CacheStore::CacheStore() {
  open(Opening::fresh);
}

CacheStore::CacheStore(std::size_t cacheIndex, Unlocked /*unlocked*/) : index(cacheIndex) {
  open(Opening::unlocked);
}

CacheStore::~CacheStore() {
  sqlite3_close(db);
}

void CacheStore::open(Opening opening) {
  const bool fresh = opening == Opening::fresh;
  std::string name = ":memory:";
  if (index != 0) {
    const std::string volume = defaultVolume();
    if (volume.empty()) {
      return;
    }
    const std::string folder = cacheFolder(volume);
    const std::string file = '/' + Session::instance().sid() + '.' + std::to_string(index);
    name = folder + file;
    if (fresh) {
      log_debug(SourcePlace::here("cache"), "[cache] initial db %s", name.c_str());
      ::unlink(name.c_str());
    }
    name = withoutLinks(folder) + file;
  }
  int flags = fresh ? open_fresh : open_existing;
  if (opening == Opening::unlocked) {
    name = unchangingFile(name);
    flags = open_unlocked;
  }
  open_plain_files_only();
  if (sqlite3_open_v2(name.c_str(), &db, flags, nullptr) != SQLITE_OK) {
    // SQLite hands out a handle that can only tell the error; every use of it would be a misuse.
    sqlite3_close(db);
    db = nullptr;
    return;
  }
  sqlite3_busy_timeout(db, busy_timeout_ms);
  // Takes the place of the time-out: of two requests for one file the loser fails at once.
  sqlite3_busy_handler(db, neverWait, nullptr);
  // The folder is open to everyone, so the file may be anybody's: what its schema brings along is not run.
  sqlite3_db_config(db, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  sqlite3_db_config(db, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
  sqlite3_db_config(db, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
  if (!fresh) {
    sqlite3_db_config(db, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);  // would forbid a fresh file to go without journal
    sqlite3_limit(db, SQLITE_LIMIT_LENGTH, longest_foreign_value);
  }
  // Pages come in the order of the entries' rows; an index made for one statement would bring an order of its own.
  execute("PRAGMA automatic_index = OFF;");
  sqlite3_create_function_v2(db, "DEDIACRITICAL", 1, SQLITE_UTF8, transliterator.get(), dediacritical, nullptr, nullptr,
                             nullptr);
  if (fresh) {
    execute(storage_options);
  }
}

const char *CacheStore::lastError() const {
  return db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(SQLITE_CANTOPEN);
}

// The result is not checked, as the header says.
void CacheStore::execute(const char *sql) {
  if (db != nullptr) {
    sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
  }
}

void CacheStore::begin() {
  execute("BEGIN TRANSACTION;");
}

void CacheStore::commit() {
  if (db == nullptr || sqlite3_exec(db, "COMMIT;", nullptr, nullptr, nullptr) != SQLITE_OK) {
    log_debug(SourcePlace::here("cache"), "[cache] commit failed: %s", lastError());
  }
}

void CacheStore::rollback() {
  execute("ROLLBACK;");
}

void CacheStore::resetSchema() {
  written.reset();
  begin();
  if (db == nullptr || sqlite3_exec(db, schema, nullptr, nullptr, nullptr) != SQLITE_OK) {
    log_error("[cache] %s", lastError());
  }
  commit();
}

void CacheStore::clear() {
  begin();
  execute("DELETE FROM cache; DELETE FROM entry;");
  commit();
}

bool CacheStore::holdsOwnTable() {
  const TimeLimit limit(db, longest_path_reading);
  Statement statement(db,
                      "SELECT count(*), sum(type = 'table' AND name = 'cache' AND sql = @sql) FROM sqlite_master WHERE "
                      "name = 'cache' COLLATE NOCASE");
  statement.bind(statement.parameter("@sql"), recorded_cache_table);
  return statement.step() == SQLITE_ROW && statement.number(0) == 1 && statement.number(1) == 1;
}

std::vector<std::string> CacheStore::cachedPaths() {
  std::vector<std::string> paths;
  const TimeLimit limit(db, longest_path_reading);
  Statement statement(db, "SELECT path FROM cache");
  std::size_t bytes = 0;
  while (paths.size() < most_paths && bytes < most_path_bytes && statement.step() == SQLITE_ROW) {
    bytes += paths.emplace_back(statement.text(0)).size();
  }
  return paths;
}

std::int64_t CacheStore::countEntries(const std::string &listing) {
  return entryRows(db, listing);
}

bool CacheStore::hasUuid(const std::string &listing) {
  return folderRows(db, listing) != 0;
}

void CacheStore::removeFile() {
  const char *file = db != nullptr ? sqlite3_db_filename(db, "main") : nullptr;
  if (file != nullptr) {
    ::unlink(file);
  }
}

}  // namespace dirwell
