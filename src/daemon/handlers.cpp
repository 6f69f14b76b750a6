#include "daemon/handlers.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "cache/cache_store.h"
#include "daemon/watchers.h"
#include "describe/formatter.h"
#include "listing/resource_query.h"
#include "listing/walk.h"
#include "service/client_watchdog.h"
#include "service/fork_gate.h"
#include "service/json.h"
#include "service/parameters.h"
#include "service/reply.h"
#include "service/session.h"

namespace dirwell {

namespace {

constexpr unsigned watchdog_seconds = 5;
constexpr int watch_seconds = 5;

std::vector<ResourceEntry> walk(ResourceQuery &query) {
  std::vector<ResourceEntry> entries;
  walkDirectory(entries, query.roots, query.filters, query.sorter, query.cluster, query.scanLimit, query.recursive,
                query.reachTime);
  return entries;
}

// Asks the daemon, which owns the watchers, to follow the folders of the cache. The reply has been sent already, so the
// outcome changes nothing for the client.
void request_watch(std::uint64_t index) {
  constexpr int reply_into_io = -1;
  hx_io *io = hx_io_create();
  const JsonRef body(json_pack("{si}", "index", static_cast<int>(index)));
  if (io != nullptr && dump_json(body.get(), io)) {
    hx_call(Session::instance().instance_name().c_str(), "watch", io, watch_seconds, reply_into_io);
  }
  hx_io_free(io);
}

}  // namespace

std::string watch_text(const json_t *object) {
  const json_t *index = json_object_get(object, "index");
  return index == nullptr ? "{}" : "{\"index\":" + std::to_string(json_as_int(index)) + "}";
}

void watch_handler(hx_request * /*request*/, hx_io *io, json_t *object, int descriptor) {
  ErrorRecord record;
  std::uint64_t index = default_cache_index;
  {
    const fork_gate::Section section;
    read_index(index, object, record);
    json_object_clear(object);
    write_reply(io, descriptor, object, record);
  }
  reload_watches(index);
}

void fetch_cache_handler(hx_request * /*request*/, hx_io *io, json_t *object, int descriptor) {
  ErrorRecord record;
  CachePage page;
  read_cache_page(page, object, record);
  json_object_clear(object);
  if (record.code == error_none) {
    ClientWatchdog::instance().start(io, watchdog_seconds);
    CacheStore store(page.index, false);
    const auto formatter = std::make_shared<LegacyFormatter>();
    json_merge(object, store.fetch(page.uuid, page.paging.offset, page.paging.limit, formatter, record));
  }
  write_reply(io, descriptor, object, record);
}

void delete_cache_handler(hx_request * /*request*/, hx_io *io, json_t *object, int descriptor) {
  ErrorRecord record;
  CacheReference cache;
  read_cache_reference(cache, object, record);
  json_object_clear(object);
  if (record.code == error_none) {
    CacheStore store(cache.index, false);
    store.remove(cache.uuid, record);
  }
  write_reply(io, descriptor, object, record);
}

void create_cache_handler(hx_request * /*request*/, hx_io *io, json_t *object, int descriptor) {
  ErrorRecord record;
  CacheQuery cache;
  parseCacheQuery(cache, object, record);
  json_object_clear(object);
  if (record.code != error_none) {
    write_reply(io, descriptor, object, record);
    return;
  }
  ClientWatchdog::instance().start(io, watchdog_seconds);
  const std::vector<ResourceEntry> entries = walk(cache.query);
  CacheStore store(cache.index, true);
  json_merge(object, store.set(entries, record));
  write_reply(io, descriptor, object, record);
  request_watch(cache.index);
}

void fetch_resource_handler(hx_request * /*request*/, hx_io *io, json_t *object, int descriptor) {
  ErrorRecord record;
  ResourceQuery query;
  parseResourceQuery(query, object, record);
  json_object_clear(object);
  std::vector<ResourceEntry> entries;  // taken apart behind the reply: only the client's wait counts
  if (record.code == error_none) {
    ClientWatchdog::instance().start(io, watchdog_seconds);
    entries = walk(query);
    CacheStore store;
    json_merge(object, store.set(entries, record));
    const auto formatter = std::make_shared<LegacyFormatter>();
    json_merge(object, store.fetchOwn(query.pageOffset, query.pageLimit, formatter, record));
  }
  write_reply(io, descriptor, object, record);
}

}  // namespace dirwell
