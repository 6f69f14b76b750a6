#include "daemon/handlers.h"

#include <memory>
#include <utility>
#include <vector>

#include "cache/cache_store.h"
#include "describe/formatter.h"
#include "listing/resource_query.h"
#include "listing/walk.h"
#include "service/client_watchdog.h"
#include "service/parameters.h"
#include "service/reply.h"

namespace dirwell {

namespace {

constexpr unsigned watchdog_seconds = 5;

std::vector<ResourceEntry> walk(ResourceQuery &query) {
  std::vector<ResourceEntry> entries;
  walkDirectory(entries, query.roots, query.filters, query.sorter, query.cluster, query.scanLimit, query.recursive,
                query.reachTime);
  return entries;
}

}  // namespace

void fetch_resource_handler(hx_request * /*request*/, hx_io *io, json_t *object, int descriptor) {
  ErrorRecord record;
  ResourceQuery query;
  parseResourceQuery(query, object, record);
  json_object_clear(object);
  if (record.code == error_none) {
    ClientWatchdog::instance().start(io, watchdog_seconds);
    CacheStore store;
    json_merge(object, store.set(walk(query), record));
    const auto formatter = std::make_shared<LegacyFormatter>();
    json_merge(object, store.fetchOwn(query.pageOffset, query.pageLimit, formatter, record));
  }
  write_reply(io, descriptor, object, record);
}

}  // namespace dirwell
