// One prepared statement, finalized with its scope.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <string_view>

namespace dirwell {

// A statement that cannot be prepared, for want of a connection too, takes no bindings and answers every step with the
// error of its preparation. Belongs to the thread of its connection, which must outlive it.
class Statement {
 public:
  // `flags` as for sqlite3_prepare_v3.
  Statement(sqlite3 *connection, std::string_view sql, unsigned flags = 0) {
    if (connection != nullptr) {
      prepared_ = sqlite3_prepare_v3(connection, sql.data(), static_cast<int>(sql.size()), flags, &statement_, nullptr);
    }
  }
  ~Statement() { finalize(); }
  Statement(const Statement &) = delete;
  Statement &operator=(const Statement &) = delete;

  void finalize() {
    sqlite3_finalize(statement_);
    statement_ = nullptr;
  }

  // SQLITE_ROW, SQLITE_DONE or an error.
  int step() { return statement_ != nullptr ? sqlite3_step(statement_) : prepared_; }
  // Needed between a step and the next binding; bindings stay. The result repeats that of the last step, which its
  // caller has seen.
  void reset() { sqlite3_reset(statement_); }

  // The number of a named parameter.
  [[nodiscard]] int parameter(const char *name) const { return sqlite3_bind_parameter_index(statement_, name); }

  // Bytes are bound without a copy: they must stay as they are until the parameter is bound again or the statement is
  // finalized. A failed binding leaves NULL, which no column of ours takes: the step reports it.
  void bind(int parameter, std::string_view text) {
    if (statement_ != nullptr) {
      sqlite3_bind_text(statement_, parameter, text.data() != nullptr ? text.data() : "", static_cast<int>(text.size()),
                        SQLITE_STATIC);
    }
  }
  void bind(int parameter, std::int32_t number) {
    if (statement_ != nullptr) {
      sqlite3_bind_int(statement_, parameter, number);
    }
  }
  void bind(int parameter, std::int64_t number) {
    if (statement_ != nullptr) {
      sqlite3_bind_int64(statement_, parameter, number);
    }
  }
  void bindBlob(int parameter, const void *bytes, int size) {
    if (statement_ != nullptr) {
      sqlite3_bind_blob(statement_, parameter, bytes, size, SQLITE_STATIC);
    }
  }

  // Columns of the current row, good until the next step; NULL gives no bytes and 0.
  [[nodiscard]] std::string_view text(int column) {
    const auto *bytes = reinterpret_cast<const char *>(sqlite3_column_text(statement_, column));
    return bytes != nullptr ? std::string_view(bytes, size(column)) : std::string_view();
  }
  [[nodiscard]] std::string_view blob(int column) {
    const auto *bytes = static_cast<const char *>(sqlite3_column_blob(statement_, column));
    return bytes != nullptr ? std::string_view(bytes, size(column)) : std::string_view();
  }
  [[nodiscard]] std::int64_t number(int column) { return sqlite3_column_int64(statement_, column); }

 private:
  [[nodiscard]] std::size_t size(int column) {
    return static_cast<std::size_t>(sqlite3_column_bytes(statement_, column));
  }

  sqlite3_stmt *statement_ = nullptr;
  int prepared_ = SQLITE_CANTOPEN;
};

}  // namespace dirwell
