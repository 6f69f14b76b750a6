// The text of a listing request: what is refused, with which words, and what a request that is not refused becomes.
//
// Input: the request's text. The oracle reads the same JSON by its own plain rules, without the expressions and tables
// of the parser.
#include <grp.h>
#include <jansson.h>
#include <pwd.h>
#include <strings.h>
#include <unicode/locid.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "fuzz/support/check.h"
#include "fuzz/support/input.h"
#include "fuzz/support/quiet.h"
#include "listing/resource_query.h"
#include "listing/type_table.h"
#include "service/json.h"

namespace dirwell::fuzz {
namespace {

constexpr std::array<std::pair<std::string_view, std::string_view>, 23> locales{{
    {"ENG", "en_US"}, {"SCH", "zh_CN"}, {"TCH", "zh_TW"}, {"CZE", "cs_CZ"}, {"DAN", "da_DK"}, {"GER", "de_DE"},
    {"SPA", "es_ES"}, {"FRE", "fr_FR"}, {"ITA", "it_IT"}, {"JPN", "ja_JP"}, {"KOR", "ko_KR"}, {"NOR", "nb_NO"},
    {"POL", "pl_PL"}, {"RUS", "ru_RU"}, {"FIN", "fi_FI"}, {"SWE", "sv_SE"}, {"DUT", "nl_NL"}, {"TUR", "tr_TR"},
    {"THA", "th_TH"}, {"HUN", "hu_HU"}, {"POR", "pt_PT"}, {"GRK", "el_GR"}, {"ROM", "ro_RO"},
}};

// --- The plain rules

using Text = std::optional<std::string>;

// A text without a zero byte, or none.
Text text_at(const json_t *value) {
  if (!json_is_string(value)) {
    return std::nullopt;
  }
  const std::string text(json_string_value(value), json_string_length(value));
  return text.find('\0') == std::string::npos ? Text(text) : std::nullopt;
}

std::int64_t integer(const json_t *value) {
  if (json_is_integer(value)) {
    return json_integer_value(value);
  }
  if (json_is_string(value)) {
    return std::strtoll(json_string_value(value), nullptr, 10);
  }
  return json_is_true(value) ? 1 : 0;
}

// Cuts the first of `words` that `text` begins with off its front.
template <std::size_t Size>
std::string cut_word(std::string &text, const std::array<std::string_view, Size> &words) {
  for (const std::string_view word : words) {
    if (text.starts_with(word)) {
      text.erase(0, word.size());
      return std::string(word);
    }
  }
  return {};
}

struct Comparison {
  std::string operation;
  std::string digits;
  std::string unit;
};

std::optional<Comparison> comparison(const json_t *value, bool with_unit) {
  Text text = text_at(value);
  if (!text) {
    return std::nullopt;
  }
  Comparison result;
  result.operation = cut_word(*text, std::array<std::string_view, 5>{">=", ">", "==", "<=", "<"});
  const std::size_t end = std::min(text->find_first_not_of("0123456789"), text->size());
  result.digits = text->substr(0, end);
  result.unit = text->substr(end);
  const bool unit_fits =
      result.unit.empty() || (with_unit && result.unit.size() == 1 && std::strchr("KMGTP", result.unit[0]) != nullptr);
  if (result.operation.empty() || result.digits.empty() || !unit_fits) {
    return std::nullopt;
  }
  return result;
}

struct Order {
  std::string field;
  std::string direction;
};

std::optional<Order> order(const json_t *value) {
  Text text = text_at(value);
  if (!text) {
    return std::nullopt;
  }
  Order result;
  result.field =
      cut_word(*text, std::array<std::string_view, 7>{"name", "date", "type", "size", "owner", "group", "permission"});
  if (result.field.empty() || (!text->empty() && *text != ":asc" && *text != ":desc")) {
    return std::nullopt;
  }
  result.direction = text->empty() ? "" : text->substr(1);
  return result;
}

struct Kind {
  std::string word;
  std::string argument;
};

std::optional<Kind> kind(const json_t *value) {
  Text text = text_at(value);
  if (!text) {
    return std::nullopt;
  }
  Kind result;
  result.word =
      cut_word(*text, std::array<std::string_view, 6>{"music", "video", "photo", "file", "folder", "extname"});
  if (result.word.empty() || (!text->empty() && (text->front() != ':' || text->size() == 1))) {
    return std::nullopt;
  }
  result.argument = text->empty() ? "" : text->substr(1);
  return result;
}

bool is_account(const std::string &name) {
  std::array<char, 1024> buffer{};
  passwd record{};
  passwd *found = nullptr;
  return ::getpwnam_r(name.c_str(), &record, buffer.data(), buffer.size(), &found) == 0 && found != nullptr;
}

bool is_group(const std::string &name) {
  std::array<char, 1024> buffer{};
  group record{};
  group *found = nullptr;
  return ::getgrnam_r(name.c_str(), &record, buffer.data(), buffer.size(), &found) == 0 && found != nullptr;
}

// The locale of the request's language; none for a bad one.
std::optional<std::string_view> locale_of(const json_t *request) {
  const json_t *value = json_object_get(request, "lang");
  if (value == nullptr) {
    return "en_US";
  }
  std::string code = json_is_string(value) ? std::string(json_string_value(value), json_string_length(value)) : "";
  for (char &letter : code) {
    letter = letter >= 'a' && letter <= 'z' ? static_cast<char>(letter - 'a' + 'A') : letter;
  }
  const auto *const row = std::ranges::find(locales, code, [](const auto &each) { return each.first; });
  return row == locales.end() ? std::nullopt : std::optional(row->second);
}

std::string roots_refusal(const json_t *path) {
  if (path == nullptr) {
    return "invalid path";
  }
  if (!json_is_array(path)) {
    return "invalid path type";
  }
  std::size_t index = 0;
  const json_t *item = nullptr;
  json_array_foreach(path, index, item) {
    if (!json_is_object(item)) {
      return "invalid path array item";
    }
    if (!text_at(json_object_get(item, "full_path"))) {
      return "invalid full_path object format";
    }
    if (!text_at(json_object_get(item, "alias"))) {
      return "invalid alias object format";
    }
  }
  return {};
}

bool dates_are_good(const json_t *dates) {
  if (!json_is_array(dates)) {
    return false;
  }
  std::size_t index = 0;
  const json_t *item = nullptr;
  json_array_foreach(dates, index, item) {
    if (!comparison(item, false)) {
      return false;
    }
  }
  return true;
}

// What the request is refused with; empty for a good one. The first bad parameter counts.
std::string refusal(const json_t *request) {
  const auto member = [request](const char *key) { return json_object_get(request, key); };
  const auto bad = [](const json_t *value, auto &&reads) { return value != nullptr && !reads(value); };
  if (member("limit") != nullptr && (integer(member("limit")) < 50 || integer(member("limit")) > 2000)) {
    return "invalid limit";
  }
  if (!locale_of(request)) {
    return "invalid lang";
  }
  if (std::string roots = roots_refusal(member("path")); !roots.empty()) {
    return roots;
  }
  if (bad(member("name"), [](const json_t *value) { return text_at(value).has_value(); })) {
    return "invalid name";
  }
  if (bad(member("type"), [](const json_t *value) { return kind(value).has_value(); })) {
    return "invalid type";
  }
  if (bad(member("date"), dates_are_good)) {
    return "invalid date";
  }
  if (bad(member("size"), [](const json_t *value) { return comparison(value, true).has_value(); })) {
    return "invalid size";
  }
  if (bad(member("owner"), [](const json_t *value) { return text_at(value) && is_account(*text_at(value)); })) {
    return "invalid owner";
  }
  if (bad(member("group"), [](const json_t *value) { return text_at(value) && is_group(*text_at(value)); })) {
    return "invalid group";
  }
  if (bad(member("sort"), [](const json_t *value) { return order(value).has_value(); })) {
    return "invalid sort";
  }
  if (bad(member("cluster"), [](const json_t *value) { return order(value).has_value(); })) {
    return "invalid cluster";
  }
  return {};
}

// --- What a good request becomes

ResourceEntry entry_of(std::string_view name, std::int64_t size, std::int64_t time, mode_t mode = S_IFREG | 0644) {
  struct ::stat status {};
  status.st_mode = mode;
  status.st_size = size;
  status.st_mtime = time;
  return ResourceEntry::fromStatus("/share", name, status);
}

bool holds(const std::string &operation, std::int64_t one, std::int64_t other) {
  if (operation == ">") {
    return one > other;
  }
  if (operation == ">=") {
    return one >= other;
  }
  if (operation == "==") {
    return one == other;
  }
  return operation == "<=" ? one <= other : one < other;
}

std::int64_t saturating(const std::string &digits) {
  std::int64_t value = 0;
  for (const char digit : digits) {
    if (__builtin_mul_overflow(value, 10, &value) || __builtin_add_overflow(value, digit - '0', &value)) {
      return INT64_MAX;
    }
  }
  return value;
}

void check_size_filter(const Filter &filter, const Comparison &wanted) {
  std::uint64_t factor = 1;
  for (const char unit : std::string_view("KMGTP")) {
    factor *= wanted.unit.empty() ? 1 : 1024;
    if (wanted.unit.starts_with(unit)) {
      break;
    }
  }
  const auto bound = static_cast<std::int64_t>(static_cast<std::uint64_t>(saturating(wanted.digits)) * factor);
  for (const std::int64_t size : {std::int64_t{0}, std::int64_t{1}, bound, bound == INT64_MIN ? bound : bound - 1,
                                  bound == INT64_MAX ? bound : bound + 1, std::int64_t{INT64_MAX}}) {
    check(filter.match(entry_of("a", size, 0)) == holds(wanted.operation, size, bound),
          "the size filter compares as the request says", std::to_string(size));
  }
}

// The machine's zone is UTC here; a day is cut toward zero.
void check_date_filter(const Filter &filter, const Comparison &wanted) {
  const std::int64_t second = saturating(wanted.digits);
  const std::int64_t day = second / 86'400 * 86'400;
  for (const std::int64_t time : {std::int64_t{0}, std::int64_t{-1}, std::int64_t{1'700'000'000}, second, day,
                                  day == 0 ? 0 : day - 1, day > INT64_MAX - 86'400 ? INT64_MAX : day + 86'400}) {
    check(filter.match(entry_of("a", 0, time)) == holds(wanted.operation, time / 86'400 * 86'400, day),
          "the date filter compares days as the request says", std::to_string(time));
  }
}

void check_kind_filter(const Filter &filter, const Kind &wanted) {
  const auto keeps = [&filter](std::string_view name, mode_t mode) { return filter.match(entry_of(name, 0, 0, mode)); };
  const bool file = wanted.word == "file";
  const bool folder = wanted.word == "folder";
  if (file || folder) {
    check(keeps("a.mp3", S_IFREG) == file && keeps("a", S_IFDIR) == folder, "files are files and folders are folders");
    return;
  }
  const bool extension = wanted.word == "extname";
  for (const auto &[word, name] : {std::pair("music", "a.mp3"), {"video", "a.mkv"}, {"photo", "a.jpg"}}) {
    if (!extension) {
      check(keeps(name, S_IFREG) == (wanted.word == word), "a media class keeps its own kind", name);
    }
  }
  if (extension) {
    check(keeps("a." + wanted.argument, S_IFREG) == (wanted.argument.find('.') == std::string::npos),
          "an extension is compared as it is", wanted.argument);
    check(keeps("plain", S_IFREG) == wanted.argument.empty(), "no extension is the empty one");
  }
}

void check_filters(const ResourceQuery &query, const json_t *request) {
  auto next = query.filters.begin();
  const auto take = [&]() -> const Filter & {
    check(next != query.filters.end(), "each criterion of the request has its filter");
    return **next++;
  };
  const json_t *hidden = json_object_get(request, "hidden");
  const bool hides = hidden == nullptr || integer(hidden) != 0;
  const Filter &hiding = take();
  check(hiding.match(entry_of(".profile", 0, 0)) == !hides && hiding.match(entry_of("plain", 0, 0)),
        "hidden names are left out unless the request shows them");
  if (json_object_get(request, "name") != nullptr) {
    const bool all = *text_at(json_object_get(request, "name")) == "*";
    const Filter &names = take();
    check(!all || names.match(entry_of("any", 0, 0)), "a star keeps every name");
  }
  if (const json_t *type = json_object_get(request, "type")) {
    check_kind_filter(take(), *kind(type));
  }
  if (const json_t *dates = json_object_get(request, "date")) {
    for (std::size_t index = 0; index < json_array_size(dates); ++index) {
      check_date_filter(take(), *comparison(json_array_get(dates, index), false));
    }
  }
  if (const json_t *size = json_object_get(request, "size")) {
    check_size_filter(take(), *comparison(size, true));
  }
  for (const char *key : {"owner", "group"}) {
    if (json_object_get(request, key) != nullptr) {
      take();
    }
  }
  check(next == query.filters.end(), "there is no filter beside those of the request");
}

// Which of two entries with different names, groups and sizes comes first.
void check_orders(const ResourceQuery &query, const json_t *request) {
  check(query.sorter != nullptr, "a good request has an order");
  Order sort{"name", "asc"};
  if (const json_t *value = json_object_get(request, "sort")) {
    const Order given = *order(value);
    sort = {given.field, given.direction.empty() ? "asc" : given.direction};
  }
  ResourceEntry small = entry_of("a.b", 1, 1, S_IFREG | 0600);
  ResourceEntry large = entry_of("b.c", 1'000'000, 100'000'000, S_IFREG | 0700);
  large.stat.st_uid = 1;
  large.stat.st_gid = 1;
  const json_t *cluster = json_object_get(request, "cluster");
  check((query.cluster != nullptr) == (cluster != nullptr), "a listing is grouped when the request says so");
  std::string direction = sort.direction;
  if (cluster != nullptr) {
    const Order given = *order(cluster);
    direction = given.direction.empty() ? direction : given.direction;
    small.cluster = given.field == "size" ? "xs" : "1";
    large.cluster = given.field == "size" ? "m" : "2";
  }
  check(query.sorter->compare(small, large) == (direction == "asc"), "the order has the direction of the request");
  check(query.sorter->compare(large, small) == (direction == "desc"), "and its reverse");
  if (query.cluster) {
    check(!query.cluster->key(large).empty(), "a group has a key");
    large.cluster = small.cluster;
    check(query.sorter->compare(small, large) == (sort.direction == "asc"), "within a group the field decides");
  }
}

void check_query(const ResourceQuery &query, const json_t *request) {
  const json_t *limit = json_object_get(request, "limit");
  const json_t *offset = json_object_get(request, "offset");
  const json_t *recursive = json_object_get(request, "recursive");
  const json_t *time = json_object_get(request, "reach_time");
  check_equal(query.pageLimit, limit == nullptr ? std::int64_t{500} : integer(limit), "the page is as large as asked");
  check_equal(query.pageOffset, offset == nullptr ? std::int64_t{0} : integer(offset), "the page begins as asked");
  check_equal(query.scanLimit, limit == nullptr ? std::uint64_t{100'000} : static_cast<std::uint64_t>(integer(limit)),
              "no more is listed than the page holds");
  check_equal(query.reachTime, time == nullptr ? std::int64_t{0} : integer(time), "the time is as long as asked");
  const bool descends = json_is_true(recursive) || (json_is_integer(recursive) && integer(recursive) > 0) ||
                        (json_is_string(recursive) && ::strcasecmp(json_string_value(recursive), "true") == 0);
  check(query.recursive == descends, "folders are entered as asked");

  const json_t *path = json_object_get(request, "path");
  check_equal(query.roots.size(), json_array_size(path), "every path is a root");
  std::size_t index = 0;
  for (const ResourceEntry &root : query.roots) {
    const json_t *item = json_array_get(path, index++);
    check_equal(std::string(root.directory.view()), *text_at(json_object_get(item, "full_path")), "a root is its path");
    check_equal(std::string(root.displayDirectory.view()), *text_at(json_object_get(item, "alias")), "and its alias");
    check(root.name.empty() && root.subPath.empty() && root.cluster.empty() && root.extension.empty(), "and no more");
  }
  check_filters(query, request);
  check_orders(query, request);
}

void check_request(const json_t *request) {
  const JsonRef before(json_deep_copy(request));
  CacheQuery cache;
  ErrorRecord cache_record;
  parseCacheQuery(cache, request, cache_record);
  ResourceQuery query;
  ErrorRecord record;
  parseResourceQuery(query, request, record);
  const std::string expected = refusal(request);
  check_equal(std::string(record.message), expected, "the request is refused for its first bad parameter");
  check_equal(record.code, expected.empty() ? std::uint32_t{0} : std::uint32_t{2},
              "the code is that of a bad parameter");
  const json_t *index = json_object_get(request, "index");
  const bool good_index = index == nullptr || integer(index) == 1 || integer(index) == 2;
  check_equal(std::string(cache_record.message), good_index ? expected : "invalid index",
              "a cache has its index first");
  check(json_equal(request, before.get()) == 1, "the request stays as it was");
  if (record.code == error_none) {
    check_equal(std::string_view(icu::Locale::getDefault().getName()), *locale_of(request), "the language is set");
    check_query(query, request);
  }
}

}  // namespace
}  // namespace dirwell::fuzz

extern "C" int LLVMFuzzerInitialize(int * /*count*/, char *** /*arguments*/) {
  ::setenv("TZ", "UTC", 1);
  dirwell::fuzz::silence();
  dirwell::buildTypeIndex();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  using namespace dirwell;
  const std::string text(fuzz::text_of(data, size));
  const JsonRef request(json_loads(text.c_str(), 0, nullptr));  // as a request process reads it: up to a NUL
  if (json_is_object(request.get())) {
    fuzz::check_request(request.get());
  }
  return 0;
}
