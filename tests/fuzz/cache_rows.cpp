// Rows that a stranger has put into the tables of a store: texts for numbers, blobs of any length for a status, folders
// that are not there.
//
// Input: a line a row, its columns between tabs: "cache ROWID UUID PATH ALIAS", "entry ROWID FOLDER NAME STATUS
// CLUSTER"; "page UUID OFFSET LIMIT" tells what is asked for. A column is "#1" a whole number, "~1.5" a real one,
// "%00ff" a blob,
// "!" NULL, any other a text.
#include <sqlite3.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "cache/schema.h"
#include "fuzz/support/check.h"
#include "fuzz/support/input.h"
#include "fuzz/support/store_check.h"

namespace dirwell::fuzz {
namespace {

constexpr std::size_t most_rows = 200;

int digit(char letter) {
  return letter >= '0' && letter <= '9' ? letter - '0' : (letter >= 'a' && letter <= 'f' ? letter - 'a' + 10 : 0);
}

void bind(sqlite3_stmt *statement, int parameter, std::string_view column) {
  const char kind = column.empty() ? ' ' : column.front();
  const std::string rest(column.empty() ? column : column.substr(1));
  if (kind == '#') {
    sqlite3_bind_int64(statement, parameter, std::strtoll(rest.c_str(), nullptr, 10));
  } else if (kind == '~') {
    sqlite3_bind_double(statement, parameter, std::strtod(rest.c_str(), nullptr));
  } else if (kind == '!') {
    sqlite3_bind_null(statement, parameter);
  } else if (kind == '%') {
    std::string blob;
    for (std::size_t at = 0; at + 1 < rest.size(); at += 2) {
      blob += static_cast<char>(digit(rest[at]) * 16 + digit(rest[at + 1]));
    }
    sqlite3_bind_blob(statement, parameter, blob.data(), static_cast<int>(blob.size()), SQLITE_TRANSIENT);
  } else {
    sqlite3_bind_text(statement, parameter, column.data() != nullptr ? column.data() : "",
                      static_cast<int>(column.size()), SQLITE_TRANSIENT);
  }
}

// A row that the schema does not take is not there.
void insert(sqlite3 *connection, const char *sql, const std::vector<std::string_view> &columns) {
  sqlite3_stmt *statement = nullptr;
  check(sqlite3_prepare_v2(connection, sql, -1, &statement, nullptr) == SQLITE_OK, "the tables are those of a store");
  for (int parameter = 1; parameter <= sqlite3_bind_parameter_count(statement); ++parameter) {
    const auto column = static_cast<std::size_t>(parameter);
    bind(statement, parameter, column < columns.size() ? columns[column] : std::string_view());
  }
  sqlite3_step(statement);
  sqlite3_finalize(statement);
}

// The file of an empty store, made once.
const std::string &empty_store() {
  static const std::string bytes = [] {
    sqlite3 *connection = nullptr;
    sqlite3_open(":memory:", &connection);
    check(sqlite3_exec(connection, "PRAGMA page_size = 4096;", nullptr, nullptr, nullptr) == SQLITE_OK &&
              sqlite3_exec(connection, schema, nullptr, nullptr, nullptr) == SQLITE_OK,
          "the tables can be made");
    sqlite3_int64 size = 0;
    unsigned char *image = sqlite3_serialize(connection, "main", &size, 0);
    std::string result(reinterpret_cast<const char *>(image), static_cast<std::size_t>(size));
    sqlite3_free(image);
    sqlite3_close(connection);
    return result;
  }();
  return bytes;
}

struct Page {
  std::string uuid = "11111111-2222-4333-8444-555555555555";
  std::int64_t offset = 0;
  std::int64_t limit = 50;
};

Page fill(std::string_view lines) {
  Page page;
  sqlite3 *connection = nullptr;
  check(sqlite3_open(store_file().c_str(), &connection) == SQLITE_OK, "the file can be opened");
  sqlite3_exec(connection, "PRAGMA synchronous = OFF; PRAGMA journal_mode = OFF; BEGIN;", nullptr, nullptr, nullptr);
  for (const std::string_view line : split(lines, '\n', most_rows)) {
    const std::vector<std::string_view> columns = split(line, '\t', 6);
    const std::string_view table = columns.empty() ? std::string_view() : columns[0];
    if (table == "cache" && columns.size() <= 5) {
      insert(connection, "INSERT INTO cache (rowid, uuid, path, alias) VALUES (?, ?, ?, ?)", columns);
    } else if (table == "entry") {
      insert(connection, "INSERT INTO entry (rowid, path, name, stat, cluster) VALUES (?, ?, ?, ?, ?)", columns);
    } else if (table == "page" && columns.size() >= 4) {
      page = {std::string(columns[1]), std::strtoll(std::string(columns[2]).c_str(), nullptr, 10),
              std::strtoll(std::string(columns[3]).c_str(), nullptr, 10)};
    }
  }
  sqlite3_exec(connection, "COMMIT;", nullptr, nullptr, nullptr);
  sqlite3_close(connection);
  return page;
}

}  // namespace
}  // namespace dirwell::fuzz

extern "C" int LLVMFuzzerInitialize(int * /*count*/, char *** /*arguments*/) {
  dirwell::fuzz::prepare_store();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  using namespace dirwell::fuzz;
  write_store(empty_store());
  const Page page = fill(text_of(data, size));
  check_store(page.uuid, page.offset, page.limit);
  return 0;
}
