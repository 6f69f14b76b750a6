// How a page of a listing is best read.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <string>

namespace dirwell {

struct PagePlan {
  std::int64_t folders = 0;  // rows that carry the listing's uuid; 0 for a listing that the store does not hold
  std::int64_t total = 0;    // entries of the listing
  bool by_number = false;    // the n-th entry of the listing is the entry row n, so that no row before a page is read
};

// Looks at how the rows of `listing` lie. A store that set() wrote holds one listing and nothing else, its rows
// numbered from 1 on; that is looked up and not taken for granted, since a store may be anybody's file. A failing
// statement counts as nothing found. Belongs to the connection's thread.
PagePlan planPage(sqlite3 *connection, const std::string &listing);

}  // namespace dirwell
