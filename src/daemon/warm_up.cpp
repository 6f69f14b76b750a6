#include "daemon/warm_up.h"

#include <grp.h>
#include <pwd.h>

#include <array>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <vector>

#include "cache/cache_store.h"
#include "cache/database_library.h"
#include "cache/page_plan.h"
#include "daemon/resident_memory.h"
#include "describe/formatter.h"
#include "ordering/clusters.h"
#include "ordering/sorters.h"
#include "platform/include/strata_nas.h"
#include "service/json.h"
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
  prepare_database_library();
  CacheStore store;
  store.resetSchema();
  planPage(store.connection(), {});
}

// Binds what the libraries below bind at their first call. A record without mode and extension starts no program.
void warm_description() {
  ResourceEntry entry = ResourceEntry::queuedDirectory("/", {}, "/");
  // No account has this id, so that no name is remembered before its time.
  entry.stat.st_uid = static_cast<uid_t>(-1);
  entry.stat.st_gid = static_cast<gid_t>(-1);
  const auto formatter = std::make_shared<LegacyFormatter>();
  const JsonRef described(formatter->format(entry));
  formatter->formatSettings(described.get());
  std::free(json_dumps(described.get(), JSON_COMPACT));
}

// An id without a name is asked of every source that the machine has, which loads them all. Each request's groups are
// asked of them too, so a source that does not answer would hold up the requests as it holds up the start.
void warm_name_service() {
  constexpr id_t nobodys_id = 0xFFFFFFF0;
  std::array<char, 1024> buffer;
  passwd account{};
  passwd *account_found = nullptr;
  ::getpwuid_r(nobodys_id, &account, buffer.data(), buffer.size(), &account_found);
  group members{};
  group *group_found = nullptr;
  ::getgrgid_r(nobodys_id, &members, buffer.data(), buffer.size(), &group_found);
  static_cast<void>(Session::instance().groups());
}

}  // namespace

void warm_up() {
  warm_collation();
  warm_case_and_accents();
  warm_database();
  warm_name_service();
  warm_description();
  SMB_Free_Share_Info(SMB_Get_Share_Info());
  ::tzset();
  release_unwritten_pages();
}

}  // namespace dirwell
