#include "daemon/warm_up.h"

#include <grp.h>
#include <pwd.h>
#include <sqlite3.h>

#include <array>
#include <ctime>
#include <memory>
#include <vector>

#include "ordering/clusters.h"
#include "ordering/sorters.h"
#include "platform/include/strata_nas.h"
#include "service/languages.h"
#include "service/session.h"

namespace dirwell {

namespace {

void warm_collation() {
  for (const Language &language : LanguageTable) {
    set_default_language(language);
    // One comparison beyond ASCII makes the collator fill its tables.
    std::vector<ResourceEntry> pair(2);
    pair[0].name = "\xC3\xA9";  // é
    pair[1].name = "e2";
    std::make_shared<NameSorter>(false)->sort(pair);
  }
  set_default_language(LanguageTable.front());
}

// The first use of the rules builds tables that all later ones share.
void warm_case_and_accents() {
  ResourceEntry entry;
  entry.name = "\xC3\x89lan";  // Élan
  NameCluster().key(entry);
}

void warm_database() {
  sqlite3 *database = nullptr;
  if (sqlite3_open(":memory:", &database) == SQLITE_OK) {
    sqlite3_exec(database, "CREATE TABLE warm (x TEXT)", nullptr, nullptr, nullptr);
  }
  sqlite3_close(database);
}

void warm_name_service() {
  std::array<char, 1024> buffer;
  passwd account{};
  passwd *account_found = nullptr;
  ::getpwuid_r(Session::instance().uid(), &account, buffer.data(), buffer.size(), &account_found);
  group members{};
  group *group_found = nullptr;
  ::getgrgid_r(Session::instance().gid(), &members, buffer.data(), buffer.size(), &group_found);
}

}  // namespace

void warm_up() {
  warm_collation();
  warm_case_and_accents();
  warm_database();
  warm_name_service();
  SMB_Free_Share_Info(SMB_Get_Share_Info());
  ::tzset();
}

}  // namespace dirwell
