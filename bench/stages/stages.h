// What the measured stages of a listing share: their registration, their failures and the requests they begin with.
//
// One process, one thread. A stage that did not do its work is an error, never a fast row.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <utility>

#include "listing/resource_query.h"

namespace dirwell::bench {

// Each adds its rows to the library's list; once, before it runs.
void registerListing();   // query, walk, filter
void registerOrdering();  // sort, sort_by_compare, cluster
void registerCache();     // set, summary, page
void registerReply();     // describe, dump, reply

// The sizes of a listing that every stage is measured at. The end of a row's name tells the size.
inline constexpr std::int64_t small_listing = 1'000;
inline constexpr std::int64_t large_listing = 100'000;
inline constexpr std::int64_t page_size = 500;
inline constexpr std::initializer_list<std::int64_t> both_listings{small_listing, large_listing};

// A row for each size, or one without: `measure` finds the size in its state's range.
void addRows(const std::string &name, std::initializer_list<std::int64_t> sizes,
             std::function<void(benchmark::State &)> measure);

// The same with arguments behind the state.
template <class Measure, class... Arguments>
void addRows(const std::string &name, std::initializer_list<std::int64_t> sizes, Measure measure,
             const Arguments &...arguments) {
  addRows(name, sizes, std::function([=](benchmark::State &state) { measure(state, arguments...); }));
}

// Unless `done`, marks the row as an error with `message` and the whole run as failed.
void expect(benchmark::State &state, bool done, const char *message);
// Whether any row was so marked.
bool anyFailed();

// The parameters of a request, all of them texts.
using Parameters = std::initializer_list<std::pair<const char *, std::string>>;

// What a request with these parameters and no path asks for. Makes its language the process's. Throws
// std::invalid_argument with the request's error message.
ResourceQuery queryOf(Parameters parameters);

}  // namespace dirwell::bench
