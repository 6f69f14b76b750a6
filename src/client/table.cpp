#include "client/table.h"

#include <libsmartcols.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <new>
#include <string_view>

#include "client/text.h"

namespace dirwell::client {
namespace {

struct TableRelease {
  void operator()(libscols_table *table) const { scols_unref_table(table); }
};
using TableRef = std::unique_ptr<libscols_table, TableRelease>;

// The table library fails for want of memory only.
void check(bool done) {
  if (!done) {
    throw std::bad_alloc();
  }
}

std::vector<std::string> split_lines(std::string_view text) {
  std::vector<std::string> lines;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    std::string_view line = text.substr(0, end);
    line = line.substr(0, line.find_last_not_of(' ') + 1);
    lines.emplace_back(line);
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

const std::vector<Column> listing_columns = {
    {"NAME", false, true}, {"SIZE", true}, {"TYPE"}, {"OWNER"}, {"GROUP"}, {"MODE", true}, {"MODIFIED"}, {"MARKS"},
};

std::vector<std::string> cells(const Entry &entry, bool paths) {
  std::string marks;
  for (const std::string &mark : entry.marks) {
    marks += (marks.empty() ? "" : ",") + mark;
  }
  return {display_text(paths ? entry.path : entry.name),
          human_size(entry.size),
          entry.folder ? "folder" : "file",
          display_text(entry.owner),
          display_text(entry.group),
          display_text(entry.permissions),
          display_text(entry.modified),
          marks};
}

std::string counted(std::int64_t count) {
  return std::to_string(count) + (count == 1 ? " entry" : " entries");
}

std::string title(const Cluster &cluster) {
  return cluster.value.empty() ? "(none)" : display_text(cluster.value);
}

// Walks through the clusters of a listing alongside its entries.
class Headings {
 public:
  explicit Headings(const std::vector<Cluster> &clusters) : clusters_(clusters) {}

  // The heading that stands above the entry at `place` of the listing, or "" when it belongs to the cluster of the
  // entry asked for before. Places are asked for in rising order.
  std::string above(std::int64_t place) {
    bool entered = !begun_;
    begun_ = true;
    while (current_ < clusters_.size() && place >= end()) {
      start_ = end();
      ++current_;
      entered = true;
    }
    if (!entered || current_ == clusters_.size()) {
      return {};
    }
    const Cluster &cluster = clusters_[current_];
    return title(cluster) + ": " + counted(cluster.count) + (place > start_ ? ", continued" : "");
  }

 private:
  [[nodiscard]] std::int64_t end() const { return start_ + clusters_[current_].count; }

  const std::vector<Cluster> &clusters_;
  std::size_t current_ = 0;
  std::int64_t start_ = 0;  // place of the current cluster's first entry
  bool begun_ = false;
};

}  // namespace

std::vector<std::string> table_lines(const std::vector<Column> &columns,
                                     const std::vector<std::vector<std::string>> &rows, std::size_t width) {
  if (rows.empty()) {
    return {};
  }
  const TableRef table(scols_new_table());
  check(table != nullptr);
  scols_table_set_termforce(table.get(), width > 0 ? SCOLS_TERMFORCE_ALWAYS : SCOLS_TERMFORCE_NEVER);
  if (width > 0) {
    scols_table_set_termwidth(table.get(), width);
  }
  scols_table_enable_noencoding(table.get(), 1);  // cells are safe already, and would be escaped twice
  for (const Column &column : columns) {
    check(scols_table_new_column(table.get(), column.title, 0,
                                 (column.right ? SCOLS_FL_RIGHT : 0) | (column.shrinks ? SCOLS_FL_TRUNC : 0)) !=
          nullptr);
  }
  for (const std::vector<std::string> &row : rows) {
    libscols_line *line = scols_table_new_line(table.get(), nullptr);
    check(line != nullptr);
    for (std::size_t i = 0; i < row.size(); ++i) {
      check(scols_line_set_data(line, i, row[i].c_str()) == 0);
    }
  }
  char *text = nullptr;
  check(scols_print_table_to_string(table.get(), &text) == 0);
  const std::unique_ptr<char, decltype(&std::free)> owned(text, &std::free);
  return split_lines(text);
}

std::string render_listing(const Listing &listing, const ListingLayout &layout) {
  const std::string indent = layout.clustered ? "  " : "";
  std::vector<std::vector<std::string>> rows;
  rows.reserve(listing.entries.size());
  for (const Entry &entry : listing.entries) {
    rows.push_back(cells(entry, layout.paths));
  }
  const std::size_t width = layout.width > indent.size() ? layout.width - indent.size() : layout.width;

  std::string result;
  Headings headings(listing.clusters);
  std::int64_t place = std::max<std::int64_t>(layout.offset, 0);
  bool titles = true;
  for (const std::string &line : table_lines(listing_columns, rows, width)) {
    if (!titles && layout.clustered) {
      if (const std::string heading = headings.above(place); !heading.empty()) {
        result += heading + "\n";
      }
      ++place;
    }
    result += indent + line + "\n";
    titles = false;
  }
  return result + std::to_string(listing.entries.size()) + " of " + std::to_string(listing.total) + " entries\n";
}

std::string render_created(const CreatedCache &created, bool clustered, std::size_t width) {
  std::string result = display_text(created.uuid) + "\n" + counted(created.total) + "\n";
  if (!clustered) {
    return result;
  }
  std::vector<std::vector<std::string>> rows;
  rows.reserve(created.clusters.size());
  for (const Cluster &cluster : created.clusters) {
    rows.push_back({title(cluster), std::to_string(cluster.count)});
  }
  for (const std::string &line : table_lines({{"CLUSTER", false, true}, {"ENTRIES", true}}, rows, width)) {
    result += line + "\n";
  }
  return result;
}

std::size_t terminal_width() {
  if (::isatty(STDOUT_FILENO) == 0) {
    return 0;
  }
  winsize size{};
  constexpr std::size_t usual = 80;
  return ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : usual;
}

}  // namespace dirwell::client
