// Each sorter, as a request chains it, beside sorting by comparison alone; and each cluster.
#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "data.h"
#include "ordering/clusters.h"
#include "ordering/sorters.h"
#include "stages.h"

namespace dirwell::bench {

namespace {

constexpr std::array<const char *, 7> fields{"name", "date", "type", "size", "owner", "group", "permission"};

struct SortRow {
  std::string sort;
  std::string language = "ENG";
  std::string grouping{};  // empty: not grouped
};

ResourceQuery queryFor(const SortRow &row) {
  if (row.grouping.empty()) {
    return queryOf({{"sort", row.sort}, {"lang", row.language}});
  }
  return queryOf({{"sort", row.sort}, {"lang", row.language}, {"cluster", row.grouping}});
}

bool contradicted(const std::vector<ResourceEntry> &entries, Sorter &sorter) {
  return std::ranges::adjacent_find(entries, [&sorter](const ResourceEntry &left, const ResourceEntry &right) {
           return sorter.compare(right, left) && !sorter.compare(left, right);
         }) != entries.end();
}

bool sameEntries(const std::vector<ResourceEntry> &entries, std::size_t count) {
  std::vector<bool> seen(count);
  for (const ResourceEntry &entry : entries) {
    seen.at(entry.stat.st_ino) = true;
  }
  return entries.size() == count && std::ranges::find(seen, false) == seen.end();
}

using Sort = void (*)(Sorter &sorter, std::vector<ResourceEntry> &entries);

void sortAsRequestsDo(Sorter &sorter, std::vector<ResourceEntry> &entries) {
  sorter.sort(entries);
}

// The literal meaning of the order. This sort of the library stays within bounds with any comparison, unlike others:
// descending, two entries may each belong before the other.
void sortByCompare(Sorter &sorter, std::vector<ResourceEntry> &entries) {
  std::stable_sort(entries.begin(), entries.end(),
                   [&sorter](const ResourceEntry &a, const ResourceEntry &b) { return sorter.compare(a, b); });
}

void measureSort(benchmark::State &state, const SortRow &row, Sort sort) {
  const auto count = static_cast<std::size_t>(state.range(0));
  const std::vector<ResourceEntry> unsorted = listingOf(count, Shape::flat, queryFor(row).cluster.get());
  std::vector<ResourceEntry> entries;
  std::shared_ptr<Sorter> sorter;
  while (state.KeepRunning()) {
    state.PauseTiming();
    std::vector<ResourceEntry>().swap(entries);  // or the copy would have its texts in the order of the last sort
    entries = unsorted;
    sorter = queryFor(row).sorter;
    state.ResumeTiming();
    sort(*sorter, entries);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
  expect(state, sameEntries(entries, count), "the sort lost entries");
  expect(state, contradicted(unsorted, *sorter), "there was nothing to sort");
  expect(state, !contradicted(entries, *sorter), "the entries are not in order");
}

void measureCluster(benchmark::State &state, const char *field) {
  const std::vector<ResourceEntry> entries = listingOf(static_cast<std::size_t>(state.range(0)));
  std::unordered_set<std::string> distinct;
  std::vector<std::string> keys(entries.size());
  while (state.KeepRunning()) {
    state.PauseTiming();
    const std::shared_ptr<Cluster> cluster = queryOf({{"cluster", field}}).cluster;  // what it remembers goes with it
    state.ResumeTiming();
    std::ranges::transform(entries, keys.begin(), [&](const ResourceEntry &entry) { return cluster->key(entry); });
  }
  distinct.insert(keys.begin(), keys.end());
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.counters["clusters"] = static_cast<double>(distinct.size());
  expect(state, distinct.size() > 1 && distinct.size() < entries.size(), "the entries are not grouped");
}

}  // namespace

void registerOrdering() {
  for (const char *field : fields) {
    addRows(std::string("sort/") + field, both_listings, measureSort, SortRow{field}, sortAsRequestsDo);
  }
  addRows("sort/name:desc", both_listings, measureSort, SortRow{"name:desc"}, sortAsRequestsDo);
  for (const char *language : {"CZE", "JPN", "SCH", "THA"}) {
    addRows(std::string("sort/name/") + language, both_listings, measureSort, SortRow{"name", language},
            sortAsRequestsDo);
  }
  for (const char *field : fields) {
    addRows(std::string("sort/name/grouped_by_") + field, both_listings, measureSort, SortRow{"name", "ENG", field},
            sortAsRequestsDo);
  }
  addRows("sort_by_compare/name", both_listings, measureSort, SortRow{"name"}, sortByCompare);
  addRows("sort_by_compare/name:desc", both_listings, measureSort, SortRow{"name:desc"}, sortByCompare);
  addRows("sort_by_compare/size", both_listings, measureSort, SortRow{"size"}, sortByCompare);
  for (const char *field : fields) {
    addRows(std::string("cluster/") + field, both_listings, measureCluster, field);
  }
}

}  // namespace dirwell::bench
