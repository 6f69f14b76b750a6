// The bytes that stand for an entry while a listing is sorted: compared as unsigned bytes, a key orders its entry as
// the chain of sorters does.
#pragma once

#include <unicode/coll.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace dirwell {

// Writes the keys of one sort one behind the other into a single arena. Every piece it appends is either of fixed width
// or ends in a byte that its content cannot hold, so that two keys always line up piece by piece. The texts given must
// hold no NUL (no file name can) and must live as long as the writer. One thread at a time; throws only std::bad_alloc.
class SortKey {
 public:
  using Bytes = std::vector<unsigned char>;

  // Starts with an empty key. `expected` is the number of keys to come.
  explicit SortKey(std::size_t expected);
  SortKey(const SortKey &) = delete;
  SortKey &operator=(const SortKey &) = delete;

  // Begins the key of the next entry.
  void start();

  // A byte that stands as it is in either direction: a class that comes first or last whatever the direction.
  void fixed(unsigned char value);
  // A number, or its reverse.
  void number(std::int64_t value, bool descending);
  // A text as `collator` orders it (as bytes where there is none), or its reverse; ill-formed bytes count as U+FFFD.
  // Distrusts the key where collation keys and comparison of ICU may differ.
  void collated(const icu::Collator *collator, std::string_view text, bool descending);
  // The same for a text that many entries share: ICU is asked once per collator and text. A collator must always come
  // with the same direction.
  void sharedCollated(const icu::Collator *collator, std::string_view text, bool descending);
  // The bytes of a text as they are: keeps texts apart that collate equal.
  void raw(std::string_view text);

  // Says that the present key is only a good guess and the place of its entry has to be checked by comparison.
  void distrust() { trusted_ = false; }

  // Of the key begun last.
  [[nodiscard]] bool trusted() const { return trusted_; }
  [[nodiscard]] std::size_t offset() const { return start_; }
  [[nodiscard]] std::size_t length() const { return arena_.size() - start_; }

  // All keys, by offset. Valid until the next append.
  [[nodiscard]] const Bytes &arena() const { return arena_; }

 private:
  struct Remembered {
    Bytes bytes;
    bool trusted = true;
  };
  using Memo = std::unordered_map<std::string_view, Remembered>;

  // Fills units_; returns how many there are. Clears trusted_ where ICU's keys are not relied upon.
  std::int32_t toUtf16(std::string_view text);

  Bytes arena_;
  std::size_t start_ = 0;
  bool trusted_ = true;
  std::vector<char16_t> units_;
  std::unordered_map<const icu::Collator *, Memo> memos_;
};

}  // namespace dirwell
