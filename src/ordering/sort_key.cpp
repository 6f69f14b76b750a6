#include "ordering/sort_key.h"

#include <unicode/ustring.h>

#include <algorithm>

#include "entry/huge_pages.h"

namespace dirwell {
namespace {

constexpr std::size_t usual_length = 64;           // of a key, in bytes
constexpr std::size_t memo_limit = 4096;           // texts remembered per collator: beyond it they are hardly "shared"
constexpr UChar32 replacement_character = 0xFFFD;  // what compareUTF8 takes an ill-formed sequence for

// Whether keys and comparison of ICU agree on texts of such units. They differ in one case that is known: in a tailored
// locale, compareUTF8 skips the prefix that two texts share without noticing that it ends inside a number, when the
// number is written in digits other than 0-9. The ranges below hold no such digit and are what file names are mostly
// made of (Latin, Greek, Cyrillic, combining marks; kana, Han, Hangul); every other text is checked.
constexpr bool agreed(char16_t unit) {
  return unit < 0x0660 || (unit >= 0x3000 && unit < 0xA000) || (unit >= 0xAC00 && unit < 0xD7A4);
}

void invert(unsigned char *first, unsigned char *last) {
  std::transform(first, last, first, [](unsigned char byte) { return static_cast<unsigned char>(~byte); });
}

}  // namespace

SortKey::SortKey(std::size_t expected) {
  arena_.reserve(expected * usual_length);
  preferHugePages(arena_.data(), arena_.capacity());
}

void SortKey::start() {
  start_ = arena_.size();
  trusted_ = true;
}

void SortKey::fixed(unsigned char value) {
  arena_.push_back(value);
}

void SortKey::number(std::int64_t value, bool descending) {
  constexpr int width = 8;
  constexpr std::uint64_t sign_bit = std::uint64_t{1} << 63U;
  std::uint64_t bits = static_cast<std::uint64_t>(value) ^ sign_bit;  // negative numbers first
  if (descending) {
    bits = ~bits;
  }
  for (int shift = 8 * (width - 1); shift >= 0; shift -= 8) {
    arena_.push_back(static_cast<unsigned char>(bits >> static_cast<unsigned>(shift)));
  }
}

std::int32_t SortKey::toUtf16(std::string_view text) {
  if (units_.size() < text.size()) {
    units_.resize(text.size());  // never more units than bytes
  }
  const auto *const non_ascii =
      std::find_if(text.begin(), text.end(), [](char byte) { return static_cast<unsigned char>(byte) >= 0x80; });
  if (non_ascii == text.end()) {
    std::copy(text.begin(), text.end(), units_.begin());
    return static_cast<std::int32_t>(text.size());
  }
  std::int32_t count = 0;
  UErrorCode error = U_ZERO_ERROR;
  u_strFromUTF8WithSub(units_.data(), static_cast<std::int32_t>(units_.size()), &count, text.data(),
                       static_cast<std::int32_t>(text.size()), replacement_character, nullptr, &error);
  if (U_FAILURE(error) || !std::all_of(units_.begin(), units_.begin() + count, agreed)) {
    distrust();
  }
  return U_FAILURE(error) ? 0 : count;
}

void SortKey::collated(const icu::Collator *collator, std::string_view text, bool descending) {
  const std::size_t at = arena_.size();
  if (collator == nullptr) {
    raw(text);
  } else {
    const std::int32_t units = toUtf16(text);
    std::int32_t room = 64 + 3 * units;  // mostly enough
    std::int32_t length = 0;
    for (;;) {
      arena_.resize(at + static_cast<std::size_t>(room));
      length = collator->getSortKey(units_.data(), units, arena_.data() + at, room);
      if (length <= room) {
        break;
      }
      room = length;
    }
    arena_.resize(at + static_cast<std::size_t>(length));
    if (length == 0) {  // ICU had no key to give, which is not the empty text's
      arena_.push_back(0);
      distrust();
    }
  }
  if (descending) {
    invert(arena_.data() + at, arena_.data() + arena_.size());
  }
}

void SortKey::sharedCollated(const icu::Collator *collator, std::string_view text, bool descending) {
  Memo &memo = memos_[collator];
  const auto known = memo.find(text);
  if (known != memo.end()) {
    arena_.insert(arena_.end(), known->second.bytes.begin(), known->second.bytes.end());
    trusted_ = trusted_ && known->second.trusted;
    return;
  }
  const std::size_t at = arena_.size();
  const bool trusted_before = trusted_;
  trusted_ = true;
  collated(collator, text, descending);
  // Without a collator sorters of both directions would meet in one memo.
  if (collator != nullptr && memo.size() < memo_limit) {
    memo.emplace(text, Remembered{{arena_.begin() + static_cast<std::ptrdiff_t>(at), arena_.end()}, trusted_});
  }
  trusted_ = trusted_ && trusted_before;
}

void SortKey::raw(std::string_view text) {
  arena_.insert(arena_.end(), text.begin(), text.end());
  arena_.push_back(0);
}

}  // namespace dirwell
