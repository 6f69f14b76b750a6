// The directory walk: breadth first over the queue, filtered, grouped, bounded and finally sorted.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <vector>

#include "entry/resource_entry.h"
#include "listing/filters.h"
#include "ordering/clusters.h"
#include "ordering/sorters.h"

namespace dirwell {

// Appends to `results` what `queue` (consumed and extended) holds and every filter passes; returns the size of
// `results`. Stops at `scanLimit` entries and, when `reachTime` is positive, once more than that many whole seconds
// have passed. A directory that cannot be opened ends the walk with what was found so far, unsorted and without a
// message; a name whose status cannot be read is skipped. `sorter` and `cluster` may be null. Runs in the request's own
// process.
std::uint64_t walkDirectory(std::vector<ResourceEntry> &results, std::list<ResourceEntry> &queue,
                            const std::vector<std::shared_ptr<Filter>> &filters, const std::shared_ptr<Sorter> &sorter,
                            const std::shared_ptr<Cluster> &cluster, std::uint64_t scanLimit, bool recursive,
                            std::int64_t reachTime);

}  // namespace dirwell
