// How a page of a listing is best read.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <string>

namespace dirwell {

struct PagePlan {
  std::int64_t folders = 0;  // rows that carry the listing's uuid; 0 for a listing that the store does not hold
  std::int64_t total = 0;    // entries of the listing
  bool by_number = false;    // the n-th entry of the listing is entry row n, so that no row before a page is read
};

// Looks at how the rows of `listing` lie. A store that set() wrote holds one listing and nothing else, its rows
// numbered from 1 on; that is looked up and not taken for granted, since a store may be anybody's file, and where it is
// not so the rows are counted and stepped over one by one. Holds for every store whose file is sound; of a damaged one
// nobody can tell which rows it has.
PagePlan planPage(sqlite3 *connection, const std::string &listing);

// Rows that carry the uuid, and entries that belong to one of them.
std::int64_t folderRows(sqlite3 *connection, const std::string &listing);
std::int64_t entryRows(sqlite3 *connection, const std::string &listing);

// All of them belong to the connection's thread; a statement that fails finds nothing.

}  // namespace dirwell
