#include "ordering/clusters.h"

#include <time.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <string_view>

#include "entry/names.h"
#include "entry/text.h"
#include "ordering/size_bands.h"

namespace dirwell {
namespace {

constexpr const char *fold_rules = "NFD; [:M:] Remove; NFC; Any-Lower;";
constexpr std::size_t folded_limit =
    8192;  // initials of a large mixed folder fit; a hostile one cannot take the memory

// The record that months are broken down into, one for the process.
struct ::tm broken_down {};

bool isAscii(std::string_view text) {
  return std::ranges::all_of(text, [](char byte) { return static_cast<unsigned char>(byte) < 0x80; });
}

std::string asciiLower(std::string_view text) {
  std::string lower(text);
  for (char &byte : lower) {
    if (byte >= 'A' && byte <= 'Z') {
      byte = static_cast<char>(byte - 'A' + 'a');
    }
  }
  return lower;
}

icu::UnicodeString toUnicode(std::string_view text) {
  return icu::UnicodeString::fromUTF8({text.data(), static_cast<std::int32_t>(text.size())});
}

std::string toUtf8(const icu::UnicodeString &text) {
  std::string bytes;
  text.toUTF8String(bytes);
  return bytes;
}

std::string_view initialOf(std::string_view name) {
  const std::string_view first = utf8Substring(name, 0, 1);
  return first == "." ? utf8Substring(name, 0, 2) : first;
}

}  // namespace

NameCluster::NameCluster()
    : transliterator(
          icu::Transliterator::createInstance(icu::UnicodeString::fromUTF8(fold_rules), UTRANS_FORWARD, status)) {}

std::string NameCluster::key(const ResourceEntry &entry) {
  const std::string_view initial = initialOf(entry.name);
  if (transliterator == nullptr) {
    return toUtf8(toUnicode(initial));
  }
  if (isAscii(initial)) {  // the rules do nothing else to it
    return asciiLower(initial);
  }
  std::string text(initial);
  const auto known = folded_.find(text);
  if (known != folded_.end()) {
    return known->second;
  }
  icu::UnicodeString unicode = toUnicode(initial);
  transliterator->transliterate(unicode);
  std::string folded = toUtf8(unicode);
  if (folded_.size() < folded_limit) {
    folded_.emplace(std::move(text), folded);
  }
  return folded;
}

std::string DateCluster::key(const ResourceEntry &entry) {
  if (::localtime_r(&entry.stat.st_mtime, &broken_down) == nullptr) {
    return {};
  }
  std::array<char, 32> text{};
  const std::int64_t year = std::int64_t{broken_down.tm_year} + 1900;  // the last years do not fit an int
  const int length = std::snprintf(text.data(), text.size(), "%04" PRId64 "/%02d", year, broken_down.tm_mon + 1);
  return {text.data(), static_cast<std::size_t>(length)};
}

std::string SizeCluster::key(const ResourceEntry &entry) {
  return std::string(size_bands[sizeBandOf(entry.stat.st_size)].label);
}

std::string TypeCluster::key(const ResourceEntry &entry) {
  if (entry.isDirectory()) {
    return "folder";
  }
  // Of the ASCII letters, only the capital I has languages that disagree on its lower case.
  if (isAscii(entry.extension) && entry.extension.find('I') == std::string::npos) {
    return asciiLower(entry.extension);
  }
  return toUtf8(toUnicode(entry.extension).toLower());
}

std::string OwnerCluster::key(const ResourceEntry &entry) {
  return ownerName(entry);
}

std::string GroupCluster::key(const ResourceEntry &entry) {
  return groupName(entry);
}

std::string PermissionCluster::key(const ResourceEntry &entry) {
  constexpr mode_t permission_bits = 0x1FF;
  std::array<char, 8> text{};
  const int length = std::snprintf(text.data(), text.size(), "%03o", entry.stat.st_mode & permission_bits);
  return {text.data(), static_cast<std::size_t>(length)};
}

}  // namespace dirwell
