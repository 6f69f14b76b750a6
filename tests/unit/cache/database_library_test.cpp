#include "cache/database_library.h"

#include <sqlite3.h>
#include <unistd.h>

#include <thread>

#include "cache_support.h"

namespace dirwell {
namespace {

using test::in_child;
using test::OtherConnection;
using test::rows;

constexpr const char *some_rows = "CREATE TABLE t (a); INSERT INTO t VALUES (zeroblob(100000)), (2);";
constexpr const char *lengths = "SELECT length(a) FROM t";

bool holdsRows(sqlite3 *connection) {
  return rows(connection, lengths) == std::vector<std::string>{"100000", "1"};
}

// Runs `check` in a process that has not used SQLite yet, the settings of the build in force; true when it gives true.
bool inFreshProcess(bool (*check)()) {
  return in_child([check] {
           // Nothing of this binary has a database open between tests.
           if (sqlite3_shutdown() != SQLITE_OK) {
             ::_exit(2);
           }
           ::_exit(check() ? 0 : 1);
         }) == 0;
}

TEST(DatabaseLibrary, HasLocksAndCountersUnlessItIsPrepared) {
  EXPECT_TRUE(inFreshProcess([] {
    OtherConnection connection(":memory:");
    connection.run(some_rows);
    return sqlite3_db_mutex(connection.handle()) != nullptr && sqlite3_memory_used() > 100000;
  }));
}

TEST(DatabaseLibrary, PreparedGivesConnectionsWithoutALock) {
  EXPECT_TRUE(inFreshProcess([] {
    prepare_database_library();
    OtherConnection connection(":memory:");
    connection.run(some_rows);
    return sqlite3_db_mutex(connection.handle()) == nullptr && holdsRows(connection.handle());
  }));
}

TEST(DatabaseLibrary, PreparedCountsNoMemory) {
  EXPECT_TRUE(inFreshProcess([] {
    const sqlite3_int64 before = sqlite3_memory_used();
    prepare_database_library();
    OtherConnection connection(":memory:");
    connection.run(some_rows);
    return sqlite3_memory_used() == before && holdsRows(connection.handle());
  }));
}

TEST(DatabaseLibrary, PreparedServesThreadsThatHaveAConnectionEach) {
  EXPECT_TRUE(inFreshProcess([] {
    prepare_database_library();
    bool whole[2] = {};
    const auto work = [](bool *result) {
      *result = true;
      for (int round = 0; round < 200; ++round) {
        OtherConnection connection(":memory:");
        connection.run(some_rows);
        *result = *result && holdsRows(connection.handle());
      }
    };
    std::thread first(work, &whole[0]);
    std::thread second(work, &whole[1]);
    first.join();
    second.join();
    return whole[0] && whole[1];
  }));
}

TEST(DatabaseLibrary, CanBePreparedTwice) {
  EXPECT_TRUE(inFreshProcess([] {
    prepare_database_library();
    prepare_database_library();
    OtherConnection connection(":memory:");
    connection.run(some_rows);
    return sqlite3_db_mutex(connection.handle()) == nullptr && holdsRows(connection.handle());
  }));
}

TEST(DatabaseLibrary, InUseStaysAsItIs) {
  EXPECT_TRUE(inFreshProcess([] {
    OtherConnection before(":memory:");
    before.run(some_rows);
    sqlite3_mutex *const mutex = sqlite3_db_mutex(before.handle());
    prepare_database_library();
    OtherConnection after(":memory:");
    after.run(some_rows);
    return mutex != nullptr && sqlite3_db_mutex(before.handle()) == mutex &&
           sqlite3_db_mutex(after.handle()) != nullptr && sqlite3_memory_used() > 200000 &&
           holdsRows(before.handle()) && holdsRows(after.handle());
  }));
}

}  // namespace
}  // namespace dirwell
