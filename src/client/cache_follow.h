// Waiting for a kept listing to go stale.
#pragma once

#include <chrono>
#include <iosfwd>
#include <string_view>

#include "client/bus_client.h"
#include "client/request.h"

namespace dirwell::client {

struct FollowOptions {
  CacheOptions cache;
  double interval = 1;  // seconds between two questions
  bool keep = false;    // go on after the listing has gone stale
};

// How a person is told whether something has changed in the folders of a kept listing.
std::string_view freshness(bool changed);

// Asks the service about the listing until it says "changed", writes a line about that to `out` and returns. With
// `keep` it goes on, with a line whenever the answer turns. Failures are those of call() and read_listing(), as when
// the listing is no longer kept. While it runs, SIGINT and SIGTERM end the process with 0.
void follow_cache(const Instance &instance, const FollowOptions &options, std::ostream &out);

}  // namespace dirwell::client
