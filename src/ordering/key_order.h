// Puts entries in the order of a chain of sorters with one key per entry instead of a comparison per step.
#pragma once

#include <cstdint>
#include <vector>

#include "entry/resource_entry.h"

namespace dirwell {

class Sorter;

// Element i is the index of the entry that belongs at place i. The keys decide where they can be trusted; every
// neighbouring pair with a key that cannot is checked with compare(), and what contradicts it is merged by compare().
// Any answers whatever of compare() are safe. Entries with equal keys keep their order. Throws only std::bad_alloc.
std::vector<std::uint32_t> keyOrder(const std::vector<ResourceEntry> &entries, Sorter &sorter);

// Moves each entry to its place, without a second set of them. `order` must be a permutation of the indices.
void arrange(std::vector<ResourceEntry> &entries, std::vector<std::uint32_t> order);

}  // namespace dirwell
