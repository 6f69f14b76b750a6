// One parsed listing request: what to list, what to keep, how to order and group it, which page to show.
#pragma once

#include <jansson.h>

#include <cstdint>
#include <list>
#include <memory>
#include <vector>

#include "entry/resource_entry.h"
#include "listing/filters.h"
#include "ordering/clusters.h"
#include "ordering/sorters.h"
#include "service/error_record.h"
#include "service/parameters.h"

namespace dirwell {

struct ResourceQuery {
  std::int64_t pageLimit = 500;
  std::int64_t pageOffset = 0;
  bool recursive = false;
  std::int64_t reachTime = 0;         // seconds; 0 or less: no deadline
  std::uint64_t scanLimit = 100'000;  // entries kept
  std::vector<std::shared_ptr<Filter>> filters;
  std::shared_ptr<Sorter> sorter;
  std::shared_ptr<Cluster> cluster;  // none: not grouped
  std::list<ResourceEntry> roots;
};

// A "create.cache" request: a listing and the cache it goes to.
struct CacheQuery {
  std::uint64_t index = default_cache_index;
  ResourceQuery query;
};

// Fill the query from the request object. On failure the record holds code 2 and one fixed message, the query is partly
// filled and must not be walked. Sets the process's ICU default locale. The thread that serves the request.
void parseResourceQuery(ResourceQuery &query, const json_t *request, ErrorRecord &record);
void parseCacheQuery(CacheQuery &query, const json_t *request, ErrorRecord &record);

}  // namespace dirwell
