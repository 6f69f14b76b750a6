// Parsing the query, the walk, and each filter.
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "data.h"
#include "instance.h"
#include "listing/filters.h"
#include "listing/type_table.h"
#include "listing/walk.h"
#include "stages.h"

namespace dirwell::bench {

namespace {

// --- query

void measureQuery(benchmark::State &state, const char *language, const char *grouping) {
  ResourceQuery query;
  while (state.KeepRunning()) {
    query = queryOf({{"lang", language}, {"sort", "name"}, {"cluster", grouping}});
  }
  state.SetItemsProcessed(state.iterations());
  expect(state, query.sorter != nullptr && query.cluster != nullptr, "no sorter or no cluster");
}

// --- walk

void measureWalk(benchmark::State &state, Shape shape) {
  const auto count = static_cast<std::size_t>(state.range(0));
  const Folder &folder = folderOf(count, shape);
  const ResourceQuery query = queryOf({});
  std::vector<ResourceEntry> entries;
  while (state.KeepRunning()) {
    state.PauseTiming();
    std::vector<ResourceEntry>().swap(entries);  // a request ends without freeing its entries
    std::list<ResourceEntry> roots{ResourceEntry::queuedDirectory(folder.path, {}, "/Files")};
    state.ResumeTiming();
    walkDirectory(entries, roots, query.filters, nullptr, nullptr, count, shape == Shape::tree, 0);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
  expect(state, entries.size() == folder.visible, "the walk did not find every entry");
}

// --- filters

struct FilterRow {
  const char *name;
  std::function<std::shared_ptr<Filter>()> make;
};

template <class Concrete, class... Arguments>
std::function<std::shared_ptr<Filter>()> making(Arguments... arguments) {
  return [=] { return std::make_shared<Concrete>(arguments...); };
}

constexpr std::int64_t some_day = 1'500'000'000;
constexpr std::int64_t some_size = 1 << 20;

std::vector<FilterRow> filterRows() {
  return {
      {"StringFilter", [] { return std::make_shared<StringFilter>(makeFiles(1).front().name); }},
      {"SubStringFilter", making<SubStringFilter>("report")},
      {"WildCardFilter/suffix", making<WildCardFilter>("*.jpg")},
      {"WildCardFilter/inside", making<WildCardFilter>("*report*")},
      {"WildCardFilter/accented", making<WildCardFilter>("*žluť*")},
      {"HiddenFilter", making<HiddenFilter>(true)},
      {"SizeFilter", making<SizeFilter>(">=", some_size)},
      {"ModifyDateFilter", making<ModifyDateFilter>(">=", some_day)},
      {"OwnerFilter", making<OwnerFilter>(1000U)},
      {"GroupFilter", making<GroupFilter>(1000U)},
      {"MIMEFilter/class", making<MIMEFilter>(class_photo)},
      {"MIMEFilter/extension", making<MIMEFilter>(extension_mask, "pdf")},
      {"StatModeFilter", making<StatModeFilter>(std::uint32_t{S_IFREG})},
  };
}

void measureFilter(benchmark::State &state, const FilterRow &row) {
  const std::vector<ResourceEntry> entries = listingOf(static_cast<std::size_t>(state.range(0)));
  const std::shared_ptr<Filter> filter = row.make();
  std::size_t kept = 0;
  while (state.KeepRunning()) {
    kept = 0;
    for (const ResourceEntry &entry : entries) {
      kept += filter->match(entry) ? 1 : 0;
    }
    benchmark::DoNotOptimize(kept);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.counters["kept"] = static_cast<double>(kept);
  expect(state, kept > 0 && kept < entries.size(), "the filter keeps none or all");
}

// The walk asks this one for the bare name, before it has an entry.
void measureVeto(benchmark::State &state, const char *list) {
  const std::vector<File> files = makeFiles(static_cast<std::size_t>(state.range(0)));
  const ScopedVetoList vetoed(list);
  const VetoFilter filter;
  std::size_t kept = 0;
  while (state.KeepRunning()) {
    kept = 0;
    for (const File &file : files) {
      kept += filter.isVetoedName(file.name.c_str()) ? 0 : 1;
    }
    benchmark::DoNotOptimize(kept);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.counters["kept"] = static_cast<double>(kept);
  expect(state, filter.isVetoedName("..") && kept > 0, "the filter vetoes all or nothing");
  expect(state, (kept == files.size()) == (*list == '\0'), "the filter does not go by its list");
}

}  // namespace

void registerListing() {
  addRows("query/ENG/name", {}, measureQuery, "ENG", "name");
  addRows("query/JPN/owner", {}, measureQuery, "JPN", "owner");
  addRows("walk/flat", {20, small_listing, 10'000, large_listing}, measureWalk, Shape::flat);
  addRows("walk/tree", both_listings, measureWalk, Shape::tree);
  for (const FilterRow &row : filterRows()) {
    addRows(std::string("filter/") + row.name, both_listings, measureFilter, row);
  }
  addRows("filter/VetoFilter/unconfigured", both_listings, measureVeto, "");
  addRows("filter/VetoFilter/listed", both_listings, measureVeto, "/.AppleDB/*.iso/Thumbs.db/lost+found/");
}

}  // namespace dirwell::bench
