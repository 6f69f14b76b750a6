#include "listing/resource_query.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "listing/type_table.h"
#include "service/json.h"
#include "service/pattern.h"

namespace dirwell {
namespace {

constexpr std::uint64_t highest_scan_limit = 100'000;
constexpr std::size_t account_record_size = 1024;  // accounts and groups whose record needs more are not found

// --- The words of a request, each vocabulary beside the expression that admits it

constexpr const char *date_expression = "^(>|>=|==|<=|<)([0-9]+)$";
constexpr const char *size_expression = "^(>|>=|==|<=|<)([0-9]+)(K|M|G|T|P)?$";
constexpr const char *type_expression = "^(music|video|photo|file|folder|extname)(:(.+))?$";
constexpr const char *order_expression = "^(name|date|type|size|owner|group|permission)(:(asc|desc))?$";

// Compiled before the first fork, so that every request process has them ready.
const Pattern date_pattern(date_expression);    // NOLINT(cert-err58-cpp): a failure ends the process, as it should
const Pattern size_pattern(size_expression);    // NOLINT(cert-err58-cpp)
const Pattern type_pattern(type_expression);    // NOLINT(cert-err58-cpp)
const Pattern order_pattern(order_expression);  // NOLINT(cert-err58-cpp)

// Whether `expression` holds just the words of `table`, in its order, as one group of alternatives.
template <class Table>
constexpr bool admits(std::string_view expression, const Table &table) {
  const std::size_t first = expression.find(table.front().word);
  if (first == 0 || first == std::string_view::npos) {
    return false;
  }
  std::string_view rest = expression.substr(first - 1);
  char before = '(';
  for (const auto &row : table) {
    if (!rest.starts_with(before) || !rest.substr(1).starts_with(row.word)) {
      return false;
    }
    rest.remove_prefix(1 + row.word.size());
    before = '|';
  }
  return rest.starts_with(')');
}

struct UnitRow {
  std::string_view word;
  std::uint64_t bytes;
};

constexpr std::array<UnitRow, 5> units{{
    {"K", 1'024},
    {"M", 1'048'576},
    {"G", 1'073'741'824},
    {"T", 1'099'511'627'776},
    {"P", 1'125'899'906'842'624},
}};
static_assert(admits(size_expression, units));

struct KindRow {
  std::string_view word;
  std::shared_ptr<Filter> (*make)(std::uint32_t mask, std::string_view argument);
  std::uint32_t mask;
};

std::shared_ptr<Filter> ofMediaClass(std::uint32_t mask, std::string_view /*argument*/) {
  return std::make_shared<MIMEFilter>(mask);
}

std::shared_ptr<Filter> ofMode(std::uint32_t mask, std::string_view /*argument*/) {
  return std::make_shared<StatModeFilter>(mask);
}

std::shared_ptr<Filter> ofExtension(std::uint32_t mask, std::string_view argument) {
  return std::make_shared<MIMEFilter>(mask, argument);
}

constexpr std::array<KindRow, 6> kinds{{
    {"music", ofMediaClass, class_music},
    {"video", ofMediaClass, class_video},
    {"photo", ofMediaClass, class_photo},
    {"file", ofMode, S_IFREG},
    {"folder", ofMode, S_IFDIR},
    {"extname", ofExtension, extension_mask},
}};
static_assert(admits(type_expression, kinds));

// What a listing can be sorted by and grouped by.
struct FieldRow {
  std::string_view word;
  std::shared_ptr<Sorter> (*sorter)(bool descending);
  std::shared_ptr<Cluster> (*cluster)();
  std::shared_ptr<Sorter> (*clusterSorter)(bool descending);
};

template <class Concrete>
std::shared_ptr<Sorter> makeSorter(bool descending) {
  return std::make_shared<Concrete>(descending);
}

template <class Concrete>
std::shared_ptr<Cluster> makeCluster() {
  return std::make_shared<Concrete>();
}

constexpr std::array<FieldRow, 7> fields{{
    {"name", makeSorter<NameSorter>, makeCluster<NameCluster>, makeSorter<ClusterSorter>},
    {"date", makeSorter<DateSorter>, makeCluster<DateCluster>, makeSorter<ClusterSorter>},
    {"type", makeSorter<TypeSorter>, makeCluster<TypeCluster>, makeSorter<ClusterSorter>},
    {"size", makeSorter<SizeSorter>, makeCluster<SizeCluster>, makeSorter<SizeClusterSorter>},
    {"owner", makeSorter<OwnerSorter>, makeCluster<OwnerCluster>, makeSorter<ClusterSorter>},
    {"group", makeSorter<GroupSorter>, makeCluster<GroupCluster>, makeSorter<ClusterSorter>},
    {"permission", makeSorter<PermissionSorter>, makeCluster<PermissionCluster>, makeSorter<ClusterSorter>},
}};
static_assert(admits(order_expression, fields));

// The row of a word that its pattern has admitted.
template <class Table>
const auto &rowOf(const Table &table, std::string_view word) {
  return *std::ranges::find(table, word, [](const auto &row) { return row.word; });
}

// --- Values

void refuse(ErrorRecord &record, const char *message) {
  set_error(record, error_invalid_parameter, "%s", message);
}

// The text of a JSON string, terminated. A text with a zero byte in it is none: it names nothing on this machine, and
// what stands before that byte is not what the client sent.
std::optional<std::string_view> textOf(const json_t *value) {
  if (!json_is_string(value)) {
    return std::nullopt;
  }
  const std::string_view text(json_string_value(value), json_string_length(value));
  if (text.find('\0') != std::string_view::npos) {
    return std::nullopt;
  }
  return text;
}

// The groups of a JSON string that matches; their views last as long as the value.
std::optional<Pattern::Groups> matchOf(const Pattern &pattern, const json_t *value) {
  const auto text = textOf(value);
  return text ? pattern.groups(text->data()) : std::nullopt;
}

// Decimal digits of a pattern's group; what follows them in the text ends the number, and too many saturate.
std::int64_t numberOf(std::string_view digits) {
  return std::strtoll(digits.data(), nullptr, 10);
}

std::optional<uid_t> accountId(std::string_view name) {
  std::array<char, account_record_size> buffer{};
  passwd account{};
  passwd *found = nullptr;
  if (::getpwnam_r(name.data(), &account, buffer.data(), buffer.size(), &found) != 0 || found == nullptr) {
    return std::nullopt;
  }
  return found->pw_uid;
}

std::optional<gid_t> groupId(std::string_view name) {
  std::array<char, account_record_size> buffer{};
  group account{};
  group *found = nullptr;
  if (::getgrnam_r(name.data(), &account, buffer.data(), buffer.size(), &found) != 0 || found == nullptr) {
    return std::nullopt;
  }
  return found->gr_gid;
}

// --- Readers, one a parameter; each refuses or fills its part of the query

void readRoots(ResourceQuery &query, const json_t *request, ErrorRecord &record) {
  const json_t *path = json_object_get(request, "path");
  if (path == nullptr) {
    return refuse(record, "invalid path");
  }
  if (!json_is_array(path)) {
    return refuse(record, "invalid path type");
  }
  for (std::size_t i = 0; i < json_array_size(path); ++i) {
    const json_t *item = json_array_get(path, i);
    if (!json_is_object(item)) {
      return refuse(record, "invalid path array item");
    }
    const auto directory = textOf(json_object_get(item, "full_path"));
    if (!directory) {
      return refuse(record, "invalid full_path object format");
    }
    const auto alias = textOf(json_object_get(item, "alias"));
    if (!alias) {
      return refuse(record, "invalid alias object format");
    }
    query.roots.push_back(ResourceEntry::queuedDirectory(*directory, {}, *alias));
  }
}

void readBounds(ResourceQuery &query, const json_t *request, ErrorRecord & /*record*/) {
  query.recursive = json_as_bool(json_object_get(request, "recursive"));
  query.reachTime = json_as_int(json_object_get(request, "reach_time"));
}

void readHidden(ResourceQuery &query, const json_t *request, ErrorRecord & /*record*/) {
  const json_t *hidden = json_object_get(request, "hidden");
  query.filters.push_back(std::make_shared<HiddenFilter>(hidden == nullptr || json_as_int(hidden) != 0));
}

void readName(ResourceQuery &query, const json_t *request, ErrorRecord &record) {
  const json_t *value = json_object_get(request, "name");
  if (value == nullptr) {
    return;
  }
  const auto pattern = textOf(value);
  if (!pattern) {
    return refuse(record, "invalid name");
  }
  query.filters.push_back(std::make_shared<WildCardFilter>(*pattern));
}

void readType(ResourceQuery &query, const json_t *request, ErrorRecord &record) {
  const json_t *value = json_object_get(request, "type");
  if (value == nullptr) {
    return;
  }
  const auto groups = matchOf(type_pattern, value);
  if (!groups) {
    return refuse(record, "invalid type");
  }
  const KindRow &kind = rowOf(kinds, (*groups)[1]);
  query.filters.push_back(kind.make(kind.mask, (*groups)[3]));
}

void readDates(ResourceQuery &query, const json_t *request, ErrorRecord &record) {
  const json_t *value = json_object_get(request, "date");
  if (value == nullptr) {
    return;
  }
  if (!json_is_array(value)) {
    return refuse(record, "invalid date");
  }
  for (std::size_t i = 0; i < json_array_size(value); ++i) {
    const auto groups = matchOf(date_pattern, json_array_get(value, i));
    if (!groups) {
      return refuse(record, "invalid date");
    }
    query.filters.push_back(std::make_shared<ModifyDateFilter>((*groups)[1], numberOf((*groups)[2])));
  }
}

void readSize(ResourceQuery &query, const json_t *request, ErrorRecord &record) {
  const json_t *value = json_object_get(request, "size");
  if (value == nullptr) {
    return;
  }
  const auto groups = matchOf(size_pattern, value);
  if (!groups) {
    return refuse(record, "invalid size");
  }
  const std::string_view unit = (*groups)[3];
  const std::uint64_t multiplier = unit.empty() ? 1 : rowOf(units, unit).bytes;
  // Unsigned, because a product beyond 64 bits wraps.
  const std::uint64_t size = static_cast<std::uint64_t>(numberOf((*groups)[2])) * multiplier;
  query.filters.push_back(std::make_shared<SizeFilter>((*groups)[1], static_cast<std::int64_t>(size)));
}

void readOwner(ResourceQuery &query, const json_t *request, ErrorRecord &record) {
  const json_t *value = json_object_get(request, "owner");
  if (value == nullptr) {
    return;
  }
  const auto name = textOf(value);
  const auto uid = name ? accountId(*name) : std::nullopt;
  if (!uid) {
    return refuse(record, "invalid owner");
  }
  query.filters.push_back(std::make_shared<OwnerFilter>(*uid));
}

void readGroup(ResourceQuery &query, const json_t *request, ErrorRecord &record) {
  const json_t *value = json_object_get(request, "group");
  if (value == nullptr) {
    return;
  }
  const auto name = textOf(value);
  const auto gid = name ? groupId(*name) : std::nullopt;
  if (!gid) {
    return refuse(record, "invalid group");
  }
  query.filters.push_back(std::make_shared<GroupFilter>(*gid));
}

struct Order {
  std::string_view field;      // empty: none
  std::string_view direction;  // "asc" or "desc"

  [[nodiscard]] bool descending() const { return direction != "asc"; }
};

// Fills `order` from the parameter `key`, if it is there; a direction that it leaves out stays. False when it is bad.
bool readOrder(Order &order, const json_t *request, const char *key) {
  const json_t *value = json_object_get(request, key);
  if (value == nullptr) {
    return true;
  }
  const auto groups = matchOf(order_pattern, value);
  if (!groups) {
    return false;
  }
  order.field = (*groups)[1];
  if (!(*groups)[3].empty()) {
    order.direction = (*groups)[3];
  }
  return true;
}

// "sort" and "cluster": entries are grouped first and ordered within their group.
void readOrders(ResourceQuery &query, const json_t *request, ErrorRecord &record) {
  Order sort{"name", "asc"};
  if (!readOrder(sort, request, "sort")) {
    return refuse(record, "invalid sort");
  }
  Order grouping{"", sort.direction};
  if (!readOrder(grouping, request, "cluster")) {
    return refuse(record, "invalid cluster");
  }
  query.sorter = std::make_shared<Sorter>(sort.descending());
  if (!grouping.field.empty()) {
    const FieldRow &field = rowOf(fields, grouping.field);
    query.cluster = field.cluster();
    query.sorter->append(field.clusterSorter(grouping.descending()));
  }
  query.sorter->append(rowOf(fields, sort.field).sorter(sort.descending()));
}

// A client that asks for a page of some size is listed no more than that page.
void readScanLimit(ResourceQuery &query, const json_t *request, ErrorRecord & /*record*/) {
  if (const json_t *limit = json_object_get(request, "limit"); limit != nullptr) {
    query.scanLimit =
        std::min(static_cast<std::uint64_t>(static_cast<std::int32_t>(json_as_int(limit))), highest_scan_limit);
  }
}

// In the order in which a request with several bad parameters is refused.
constexpr std::array readers{readRoots, readBounds, readHidden, readName,   readType,     readDates,
                             readSize,  readOwner,  readGroup,  readOrders, readScanLimit};

}  // namespace

void parseResourceQuery(ResourceQuery &query, const json_t *request, ErrorRecord &record) {
  query = ResourceQuery{};
  Paging paging;
  read_paging(paging, request, record);
  query.pageLimit = paging.limit;
  query.pageOffset = paging.offset;
  read_lang(request, record);
  for (const auto reader : readers) {
    if (record.code != error_none) {
      return;
    }
    reader(query, request, record);
  }
}

void parseCacheQuery(CacheQuery &query, const json_t *request, ErrorRecord &record) {
  read_index(query.index, request, record);
  parseResourceQuery(query.query, request, record);
}

}  // namespace dirwell
