// Tables for a person at a terminal.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "client/reply.h"

namespace dirwell::client {

struct Column {
  const char *title;
  bool right = false;    // aligned to the right
  bool shrinks = false;  // may be cut when the terminal is too narrow
};

// The lines of a table, the titles first, columns aligned by the width of their characters in the current locale. A
// `width` of 0 cuts nothing. Cells must be safe to print (display_text). No rows give no lines.
std::vector<std::string> table_lines(const std::vector<Column> &columns,
                                     const std::vector<std::vector<std::string>> &rows, std::size_t width);

struct ListingLayout {
  std::size_t width = 0;    // of the terminal; 0 where nothing may be cut
  std::int64_t offset = 0;  // the place of the page's first entry in the listing
  bool clustered = false;   // a heading above the entries of each cluster
  bool paths = false;       // names with their folders
};

// The listing as lines of text, each ended by a line feed: the table, and how much of the listing it shows.
std::string render_listing(const Listing &listing, const ListingLayout &layout);

// What is kept as lines of text: the uuid alone, how many entries, and with `clustered` a table of the clusters, which
// a terminal of `width` may cut (0: none).
std::string render_created(const CreatedCache &created, bool clustered, std::size_t width);

// The width of the terminal that standard output is, or 0 when it is none.
std::size_t terminal_width();

}  // namespace dirwell::client
