#include "listing/filters.h"

#include <fnmatch.h>
#include <time.h>

#include <algorithm>
#include <array>

#include "listing/type_table.h"
#include "platform/include/strata_config.h"

namespace dirwell {
namespace {

constexpr std::int64_t day_seconds = 86'400;

constexpr std::size_t veto_list_size = 4096;  // a longer list is cut
constexpr const char *veto_file = "/etc/config/wfm2.conf";

struct OperatorRow {
  std::string_view text;
  Filter::Operation operation;
};

constexpr std::array<OperatorRow, 6> operators{{
    {">", &Filter::greater},
    {">=", &Filter::greaterEqual},
    {"==", &Filter::equal},
    {"!=", &Filter::notEqual},
    {"<=", &Filter::lessEqual},
    {"<", &Filter::less},
}};
static_assert(std::ranges::all_of(operators, [](const OperatorRow &row) {
  return std::ranges::count(operators, row.text, &OperatorRow::text) == 1;
}));

}  // namespace

// --- Filter

bool Filter::match(const ResourceEntry &entry) const {
  return matcher != nullptr && (this->*matcher)(entry);
}

bool Filter::greater(const ResourceEntry & /*entry*/) const {
  return false;
}
bool Filter::greaterEqual(const ResourceEntry & /*entry*/) const {
  return false;
}
bool Filter::equal(const ResourceEntry & /*entry*/) const {
  return false;
}
bool Filter::notEqual(const ResourceEntry & /*entry*/) const {
  return false;
}
bool Filter::lessEqual(const ResourceEntry & /*entry*/) const {
  return false;
}
bool Filter::less(const ResourceEntry & /*entry*/) const {
  return false;
}

Filter::Operation Filter::operationOf(std::string_view text) {
  const auto *row = std::ranges::find(operators, text, &OperatorRow::text);
  return row != operators.end() ? row->operation : nullptr;
}

// --- VetoFilter

VetoFilter::VetoFilter() : Filter(&Filter::notEqual), patterns{".", ".."} {
  std::array<char, veto_list_size> buffer{};
  Get_Private_Profile_String("global", "veto files", "", buffer.data(), static_cast<int>(buffer.size()), veto_file);
  std::string_view list(buffer.data());
  while (!list.empty()) {
    const std::size_t slash = list.find('/');
    const std::string_view piece = list.substr(0, slash);
    if (!piece.empty()) {
      patterns.emplace_back(piece);
    }
    list.remove_prefix(slash == std::string_view::npos ? list.size() : slash + 1);
  }
}

bool VetoFilter::equal(const ResourceEntry &entry) const {
  return isVetoedName(entry.name.c_str());
}

bool VetoFilter::isVetoedName(const char *name) const {
  return std::ranges::any_of(
      patterns, [name](const std::string &pattern) { return ::fnmatch(pattern.c_str(), name, FNM_NOESCAPE) == 0; });
}

// --- StringFilter and its kind

StringFilter::StringFilter(std::string_view wanted) : Filter(&Filter::equal), text(wanted) {}

bool StringFilter::equal(const ResourceEntry &entry) const {
  return entry.name == text;
}

bool SubStringFilter::equal(const ResourceEntry &entry) const {
  return entry.name.find(text) != std::string::npos;
}

bool WildCardFilter::equal(const ResourceEntry &entry) const {
  return text.find('\0') == std::string::npos &&
         ::fnmatch(text.c_str(), entry.name.c_str(), FNM_NOESCAPE | FNM_CASEFOLD) == 0;
}

// --- HiddenFilter

HiddenFilter::HiddenFilter(bool hide_them)
    : Filter(&Filter::notEqual),
      hide(hide_them),
      hiddenNames{"desktop.ini", "$Recycle.Bin", "System Volume Information"} {}

bool HiddenFilter::notEqual(const ResourceEntry &entry) const {
  const bool hidden = entry.name.empty() || entry.name.front() == '.' ||
                      std::ranges::find(hiddenNames, entry.name) != hiddenNames.end();
  return !hidden || !hide;
}

// --- SizeFilter

SizeFilter::SizeFilter(std::string_view operation, std::int64_t value) : Filter(operationOf(operation)), size(value) {}

bool SizeFilter::greater(const ResourceEntry &entry) const {
  return entry.stat.st_size > size;
}
bool SizeFilter::greaterEqual(const ResourceEntry &entry) const {
  return entry.stat.st_size >= size;
}
bool SizeFilter::equal(const ResourceEntry &entry) const {
  return entry.stat.st_size == size;
}
bool SizeFilter::notEqual(const ResourceEntry &entry) const {
  return entry.stat.st_size != size;
}
bool SizeFilter::lessEqual(const ResourceEntry &entry) const {
  return entry.stat.st_size <= size;
}
bool SizeFilter::less(const ResourceEntry &entry) const {
  return entry.stat.st_size < size;
}

// --- ModifyDateFilter

namespace {

// Unsigned where it could overflow: a file system may hold any 64-bit time, and the difference wraps.
std::int64_t dayOf(const ResourceEntry &entry) {
  const auto local = static_cast<std::int64_t>(static_cast<std::uint64_t>(entry.stat.st_mtim.tv_sec) -
                                               static_cast<std::uint64_t>(::timezone));
  return local / day_seconds * day_seconds;
}

}  // namespace

ModifyDateFilter::ModifyDateFilter(std::string_view operation, std::int64_t value)
    : Filter(operationOf(operation)),
      day(static_cast<std::int64_t>(static_cast<std::uint64_t>(value) / day_seconds * day_seconds)) {
  ::tzset();
}

bool ModifyDateFilter::greater(const ResourceEntry &entry) const {
  return dayOf(entry) > day;
}
bool ModifyDateFilter::greaterEqual(const ResourceEntry &entry) const {
  return dayOf(entry) >= day;
}
bool ModifyDateFilter::equal(const ResourceEntry &entry) const {
  return dayOf(entry) == day;
}
bool ModifyDateFilter::notEqual(const ResourceEntry &entry) const {
  return dayOf(entry) != day;
}
bool ModifyDateFilter::lessEqual(const ResourceEntry &entry) const {
  return dayOf(entry) <= day;
}
bool ModifyDateFilter::less(const ResourceEntry &entry) const {
  return dayOf(entry) < day;
}

// --- The rest, each asking whether one thing is so

OwnerFilter::OwnerFilter(uid_t owner) : Filter(&Filter::equal), uid(owner) {}

bool OwnerFilter::equal(const ResourceEntry &entry) const {
  return entry.stat.st_uid == uid;
}

GroupFilter::GroupFilter(gid_t group) : Filter(&Filter::equal), gid(group) {}

bool GroupFilter::equal(const ResourceEntry &entry) const {
  return entry.stat.st_gid == gid;
}

MIMEFilter::MIMEFilter(std::uint32_t class_mask, std::string_view wanted)
    : Filter(&Filter::equal), mask(class_mask), extension(wanted) {}

bool MIMEFilter::equal(const ResourceEntry &entry) const {
  return mask == extension_mask ? entry.extension == extension : mediaClassEquals(entry.extension, mask);
}

StatModeFilter::StatModeFilter(std::uint32_t mode_mask) : Filter(&Filter::equal), mask(mode_mask) {}

bool StatModeFilter::equal(const ResourceEntry &entry) const {
  return (entry.stat.st_mode & mask) != 0;
}

}  // namespace dirwell
