// Writing a listing into a store, counting its clusters, and reading pages of it.
#include <memory>
#include <string>
#include <vector>

#include "cache/cache_store.h"
#include "data.h"
#include "describe/formatter.h"
#include "service/json.h"
#include "stages.h"

namespace dirwell::bench {

namespace {

enum class Place { memory, file };

constexpr std::size_t file_index = 1;

// A row's listing. `grouping` is a field, or empty where the entries have no clusters.
struct CacheRow {
  Shape shape;
  const char *grouping = "";
};

std::vector<ResourceEntry> listingFor(const CacheRow &row, const benchmark::State &state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  if (*row.grouping == '\0') {
    return listingOf(count, row.shape);
  }
  return listingOf(count, row.shape, queryOf({{"cluster", row.grouping}}).cluster.get());
}

std::unique_ptr<CacheStore> freshStore(Place place) {
  return place == Place::memory ? std::make_unique<CacheStore>() : std::make_unique<CacheStore>(file_index, true);
}

json_int_t integerOf(const JsonRef &reply, const char *key) {
  return json_integer_value(json_object_get(reply.get(), key));
}

// Entries in all clusters of a summary.
json_int_t entriesIn(const json_t *summary) {
  json_int_t entries = 0;
  std::size_t place = 0;
  const json_t *cluster = nullptr;
  json_array_foreach(summary, place, cluster) {
    entries += json_integer_value(json_object_get(cluster, "count"));
  }
  return entries;
}

void measureSet(benchmark::State &state, const CacheRow &row, Place place) {
  const std::vector<ResourceEntry> entries = listingFor(row, state);
  std::unique_ptr<CacheStore> store;
  JsonRef reply;
  ErrorRecord error;
  while (state.KeepRunning()) {
    store = freshStore(place);
    reply = store->set(entries, error);
    state.PauseTiming();
    store.reset();  // a request ends without closing its store
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
  expect(state, integerOf(reply, "total") == state.range(0), "the store has not taken every entry");
  expect(state, entriesIn(json_object_get(reply.get(), "cluster")) == state.range(0), "rows are missing");
}

void measureSummary(benchmark::State &state, const CacheRow &row) {
  CacheStore store;
  ErrorRecord error;
  const JsonRef written = store.set(listingFor(row, state), error);
  JsonRef summary;
  while (state.KeepRunning()) {
    summary = store.clusterSummary();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.counters["clusters"] = static_cast<double>(json_array_size(summary.get()));
  expect(state, entriesIn(summary.get()) == state.range(0), "the summary does not count every entry");
  expect(state, (json_array_size(summary.get()) > 1) == (*row.grouping != '\0'), "the entries are not grouped");
}

// Takes the place of the description, which has a row of its own.
class NameFormatter final : public Formatter {
 public:
  json_t *format(const ResourceEntry &entry) override { return json_text(entry.name).release(); }
};

enum class End { first, last };

void measurePage(benchmark::State &state, Shape shape, Place place, End end) {
  const std::vector<ResourceEntry> entries = listingFor({shape}, state);
  const std::int64_t offset = end == End::first ? 0 : state.range(0) - page_size;
  const auto formatter = std::make_shared<NameFormatter>();
  ErrorRecord error;
  const std::unique_ptr<CacheStore> store = freshStore(place);
  const std::string uuid = json_string_value(json_object_get(store->set(entries, error).get(), "uuid"));
  JsonRef page;
  while (state.KeepRunning()) {
    if (place == Place::memory) {
      page = store->fetchOwn(offset, page_size, formatter, error);
    } else {
      page = CacheStore(file_index, false).fetch(uuid, offset, page_size, formatter, error);
    }
  }
  state.SetItemsProcessed(state.iterations() * page_size);
  const json_t *names = json_object_get(page.get(), "datas");
  expect(state, json_array_size(names) == page_size && integerOf(page, "total") == state.range(0), "not a whole page");
  const char *name = json_string_value(json_array_get(names, 0));
  expect(state, name != nullptr && name == entries[static_cast<std::size_t>(offset)].name, "not the page asked for");
}

}  // namespace

void registerCache() {
  for (const auto &[where, place] : {std::pair("memory", Place::memory), std::pair("file", Place::file)}) {
    const std::string set = std::string("set/") + where;
    addRows(set + "/flat", both_listings, measureSet, CacheRow{Shape::flat}, place);
    addRows(set + "/flat/grouped_by_name", both_listings, measureSet, CacheRow{Shape::flat, "name"}, place);
    addRows(set + "/tree", both_listings, measureSet, CacheRow{Shape::tree}, place);
  }
  addRows("summary/ungrouped", both_listings, measureSummary, CacheRow{Shape::flat});
  for (const char *field : {"name", "date", "type", "size", "owner", "group", "permission"}) {
    addRows(std::string("summary/") + field, both_listings, measureSummary, CacheRow{Shape::flat, field});
  }
  for (const auto &[where, place] : {std::pair("memory", Place::memory), std::pair("file", Place::file)}) {
    for (const auto &[what, shape] : {std::pair("flat", Shape::flat), std::pair("tree", Shape::tree)}) {
      const std::string page = std::string("page/") + where + "/" + what;
      addRows(page + "/first", both_listings, measurePage, shape, place, End::first);
      addRows(page + "/last", both_listings, measurePage, shape, place, End::last);
    }
  }
}

}  // namespace dirwell::bench
