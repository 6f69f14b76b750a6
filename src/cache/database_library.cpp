#include "cache/database_library.h"

#include <sqlite3.h>

namespace dirwell {

void prepare_database_library() {
  sqlite3_config(SQLITE_CONFIG_MULTITHREAD);
  sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
}

}  // namespace dirwell
