// What the tests of the cache stand on: a default volume and a live session of their own below the private root,
// entries, a formatter that remembers, and ways to look into a database past the store.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <jansson.h>
#include <sqlite3.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "cache/cache_store.h"
#include "describe/formatter.h"
#include "entry/resource_entry.h"
#include "entry/shared_text.h"
#include "service/json.h"
#include "support/environment.h"
#include "support/temp_dir.h"

namespace dirwell::test {

inline const std::string session_id = "cachetest";

// Each test has a volume, a log level of 6 and a zone 5 hours 30 minutes east.
class CacheTest : public testing::Test {
 protected:
  CacheTest();
  ~CacheTest() override;

  // The content of the configuration file that names the default volume.
  static void configure(std::string_view content);
  static void configureNothing();

  [[nodiscard]] std::string volume() const { return volume_.path(); }
  [[nodiscard]] std::string folder() const { return volume_.path() + "/.fs"; }
  // The session's database of an index.
  [[nodiscard]] std::string file(std::size_t index) const;

 private:
  TempDir volume_;
  ScopedEnvironment zone_{"TZ", "IST-05:30"};
};

// What `action` logs, with the stamp, the process and the source line of each whole line replaced by STAMP, PID and
// LINE.
std::string logged(const std::function<void()> &action);

// Every row of a query, its columns joined with "|"; NULL shows as "NULL", a failure as one row "error: TEXT".
std::vector<std::string> rows(sqlite3 *connection, const std::string &sql);
// The same through a connection of its own.
std::vector<std::string> rowsOf(const std::string &file, const std::string &sql);

// A second connection to a database file, made when missing.
class OtherConnection {
 public:
  explicit OtherConnection(const std::string &file);
  ~OtherConnection();
  OtherConnection(const OtherConnection &) = delete;
  OtherConnection &operator=(const OtherConnection &) = delete;
  void run(const std::string &sql);
  [[nodiscard]] sqlite3 *handle() const { return handle_; }

 private:
  sqlite3 *handle_ = nullptr;
};

ResourceEntry entry(const SharedText &directory, std::string_view name, std::string_view cluster = {});

// Describes an entry as {"name": its name}, remembers it, and adds the settings "first" and "second".
class RememberingFormatter final : public Formatter {
 public:
  json_t *format(const ResourceEntry &described) override;
  void formatSettings(json_t *object) override;

  [[nodiscard]] std::vector<std::string> names() const;
  std::vector<ResourceEntry> entries;
};

// Compact JSON text with the keys in their order; "null" for none.
std::string dump(const JsonRef &value);

std::int64_t threadCount();

bool exists(const std::string &path);
std::string uuidIn(const JsonRef &reply);

}  // namespace dirwell::test
