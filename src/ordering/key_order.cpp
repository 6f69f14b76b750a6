#include "ordering/key_order.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <utility>

#include "entry/huge_pages.h"
#include "ordering/sort_key.h"
#include "ordering/sorters.h"

namespace dirwell {
namespace {

using Indices = std::vector<std::uint32_t>;

// A key in the arena, its first bytes pulled out as a number: most comparisons end there, without touching the arena.
struct Slot {
  std::uint64_t prefix;
  std::size_t rest;
  std::uint32_t rest_length;
  std::uint32_t index;
};

constexpr std::size_t prefix_width = sizeof(Slot::prefix);

Slot slotOf(const SortKey &key, std::uint32_t index) {
  const std::size_t taken = std::min(key.length(), prefix_width);
  std::uint64_t prefix = 0;
  for (std::size_t byte = 0; byte < prefix_width; ++byte) {
    prefix = (prefix << 8U) | (byte < taken ? key.arena()[key.offset() + byte] : 0U);
  }
  return {prefix, key.offset() + taken, static_cast<std::uint32_t>(key.length() - taken), index};
}

// Total and strict whatever the keys are, so that the library's sort is safe with it.
struct SlotLess {
  const unsigned char *arena;

  bool operator()(const Slot &a, const Slot &b) const {
    if (a.prefix != b.prefix) {
      return a.prefix < b.prefix;
    }
    const int rest = std::memcmp(arena + a.rest, arena + b.rest, std::min(a.rest_length, b.rest_length));
    if (rest != 0) {
      return rest < 0;
    }
    return a.rest_length != b.rest_length ? a.rest_length < b.rest_length : a.index < b.index;
  }
};

// The indices in the order of the keys, and which of the keys can be trusted. The arena is gone when this returns.
Indices byKeys(const std::vector<ResourceEntry> &entries, Sorter &sorter, std::vector<bool> &trusted) {
  std::vector<Slot> slots;
  slots.reserve(entries.size());
  preferHugePages(slots.data(), slots.capacity() * sizeof(Slot));
  SortKey key(entries.size());
  for (const ResourceEntry &entry : entries) {
    key.start();
    sorter.appendKey(entry, key);
    slots.push_back(slotOf(key, static_cast<std::uint32_t>(slots.size())));
    trusted.push_back(key.trusted());
  }
  std::sort(slots.begin(), slots.end(), SlotLess{key.arena().data()});
  Indices order(slots.size());
  std::transform(slots.begin(), slots.end(), order.begin(), [](const Slot &slot) { return slot.index; });
  return order;
}

// compare() made strict: a pair that it puts before each other is not ordered.
class StrictlyBefore {
 public:
  StrictlyBefore(const std::vector<ResourceEntry> &entries, Sorter &sorter) : entries_(entries), sorter_(sorter) {}

  bool operator()(std::uint32_t a, std::uint32_t b) const {
    return sorter_.compare(entries_[a], entries_[b]) && !sorter_.compare(entries_[b], entries_[a]);
  }

 private:
  const std::vector<ResourceEntry> &entries_;
  Sorter &sorter_;
};

// Where the runs begin that compare() does not contradict, and the end behind the last.
std::vector<std::size_t> runsOf(const Indices &order, const std::vector<bool> &trusted, const StrictlyBefore &before) {
  std::vector<std::size_t> runs{0};
  for (std::size_t place = 1; place < order.size(); ++place) {
    const std::uint32_t left = order[place - 1];
    const std::uint32_t right = order[place];
    if (!(trusted[left] && trusted[right]) && before(right, left)) {
      runs.push_back(place);
    }
  }
  runs.push_back(order.size());
  return runs;
}

// The library's merge asks for a consistent relation; this one is in bounds with any, and leaves no neighbours that
// contradict it.
void mergeRuns(const Indices &from, std::size_t left, std::size_t middle, std::size_t end, const StrictlyBefore &before,
               Indices &to) {
  std::size_t right = middle;
  while (left < middle && right < end) {
    to.push_back(before(from[right], from[left]) ? from[right++] : from[left++]);
  }
  to.insert(to.end(), from.begin() + static_cast<std::ptrdiff_t>(left),
            from.begin() + static_cast<std::ptrdiff_t>(middle));
  to.insert(to.end(), from.begin() + static_cast<std::ptrdiff_t>(right),
            from.begin() + static_cast<std::ptrdiff_t>(end));
}

Indices merged(Indices order, std::vector<std::size_t> runs, const StrictlyBefore &before) {
  Indices wider;
  wider.reserve(order.size());
  while (runs.size() > 2) {
    wider.clear();
    std::vector<std::size_t> wider_runs{0};
    std::size_t run = 0;
    for (; run + 2 < runs.size(); run += 2) {
      mergeRuns(order, runs[run], runs[run + 1], runs[run + 2], before, wider);
      wider_runs.push_back(wider.size());
    }
    if (run + 1 < runs.size()) {  // the odd one at the end
      wider.insert(wider.end(), order.begin() + static_cast<std::ptrdiff_t>(runs[run]), order.end());
      wider_runs.push_back(wider.size());
    }
    order.swap(wider);
    runs.swap(wider_runs);
  }
  return order;
}

// An entry lies on several lines of the processor's cache.
void prefetch(const ResourceEntry &entry) {
  constexpr std::size_t line = 64;
  for (std::size_t offset = 0; offset < sizeof entry; offset += line) {
    __builtin_prefetch(reinterpret_cast<const char *>(&entry) + offset);
  }
}

}  // namespace

Indices keyOrder(const std::vector<ResourceEntry> &entries, Sorter &sorter) {
  std::vector<bool> trusted;
  trusted.reserve(entries.size());
  Indices order = byKeys(entries, sorter, trusted);
  const StrictlyBefore before(entries, sorter);
  std::vector<std::size_t> runs = runsOf(order, trusted, before);
  return merged(std::move(order), std::move(runs), before);
}

void arrange(std::vector<ResourceEntry> &entries, Indices order) {
  for (std::uint32_t start = 0; start < order.size(); ++start) {
    if (order[start] == start) {
      continue;
    }
    // A cycle: the first entry waits outside while each of the others moves into the place that became free.
    ResourceEntry first = std::move(entries[start]);
    std::uint32_t place = start;
    std::uint32_t ahead = order[order[place]];
    while (order[place] != start) {
      const std::uint32_t source = std::exchange(order[place], place);
      ahead = order[ahead];
      prefetch(entries[ahead]);
      entries[place] = std::move(entries[source]);
      place = source;
    }
    order[place] = place;
    entries[place] = std::move(first);
  }
}

}  // namespace dirwell
