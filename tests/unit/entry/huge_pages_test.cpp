#include "entry/huge_pages.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace dirwell {
namespace {

using testing::Each;

constexpr std::size_t page = 4096;
constexpr std::size_t huge_page = std::size_t{2} << 20U;

// Fresh memory that begins at a multiple of a huge page.
class Mapping {
 public:
  explicit Mapping(std::size_t bytes) : whole_size_(bytes + 2 * huge_page) {
    whole_ = ::mmap(nullptr, whole_size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(whole_, MAP_FAILED);
    const auto address = reinterpret_cast<std::uintptr_t>(whole_);
    begin_ = static_cast<char *>(whole_) + (huge_page - address % huge_page);
  }
  ~Mapping() { ::munmap(whole_, whole_size_); }
  Mapping(const Mapping &) = delete;
  Mapping &operator=(const Mapping &) = delete;

  [[nodiscard]] char *begin() const { return begin_; }

 private:
  std::size_t whole_size_;
  void *whole_;
  char *begin_;
};

// A kernel built without huge pages takes the request for nothing.
bool kernelKnowsHugePages() {
  return std::ifstream("/sys/kernel/mm/transparent_hugepage/enabled").good();
}

// Whether the mapping of an address carries the wish for huge pages.
bool wantsHugePages(const char *address) {
  std::ifstream maps("/proc/self/smaps");
  const auto wanted = reinterpret_cast<std::uintptr_t>(address);
  bool inside = false;
  for (std::string line; std::getline(maps, line);) {
    std::istringstream words(line);
    std::uintptr_t first = 0;
    std::uintptr_t last = 0;
    char dash = 0;
    if (words >> std::hex >> first >> dash >> last && dash == '-') {
      inside = first <= wanted && wanted < last;
    } else if (inside && line.starts_with("VmFlags:")) {
      return (line + " ").find(" hg ") != std::string::npos;
    }
  }
  ADD_FAILURE() << "no mapping";
  return false;
}

std::vector<bool> wantsAtHugePages(const char *begin, std::size_t count) {
  std::vector<bool> wants;
  for (std::size_t place = 0; place < count; ++place) {
    const char *first = begin + place * huge_page;
    wants.push_back(wantsHugePages(first));
    EXPECT_EQ(wantsHugePages(first + huge_page - page), wants.back());
  }
  return wants;
}

TEST(HugePages, AreWantedForTheWholeOnesInsideALargeBuffer) {
  const bool known = kernelKnowsHugePages();
  const Mapping memory(4 * huge_page);
  preferHugePages(memory.begin() + 16, 3 * huge_page);
  EXPECT_EQ(wantsAtHugePages(memory.begin(), 4), (std::vector{false, known, known, false}));
}

TEST(HugePages, AreWantedForABufferThatFitsThemExactly) {
  const bool known = kernelKnowsHugePages();
  const Mapping memory(4 * huge_page);
  preferHugePages(memory.begin() + huge_page, 2 * huge_page);
  EXPECT_EQ(wantsAtHugePages(memory.begin(), 4), (std::vector{false, known, known, false}));
}

TEST(HugePages, AreNotWantedWhereNoneFitsInside) {
  const Mapping memory(3 * huge_page);
  preferHugePages(memory.begin(), huge_page - 1);
  preferHugePages(memory.begin() + 1, huge_page);
  preferHugePages(memory.begin() + 1, 2 * huge_page - 2);
  preferHugePages(memory.begin() + huge_page / 2, huge_page);
  preferHugePages(memory.begin() + 2 * huge_page - 64, 128);
  preferHugePages(memory.begin() + 100, 100);
  EXPECT_THAT(wantsAtHugePages(memory.begin(), 3), Each(false));
}

TEST(HugePages, OfNoBytesOrNoMemoryAreHarmless) {
  const Mapping memory(2 * huge_page);
  preferHugePages(nullptr, 0);
  preferHugePages(nullptr, 100);
  preferHugePages(memory.begin(), 0);
  preferHugePages(memory.begin() + huge_page, 0);
  preferHugePages(memory.begin() + huge_page + 1, 0);
  EXPECT_THAT(wantsAtHugePages(memory.begin(), 2), Each(false));
  // Memory that is not there: the kernel refuses.
  preferHugePages(nullptr, 2 * huge_page);
}

TEST(HugePages, LeaveTheContents) {
  constexpr std::size_t size = 3 * huge_page;
  const Mapping memory(size);
  std::vector<char> content(size);
  for (std::size_t place = 0; place < size; ++place) {
    content[place] = static_cast<char>(place * 31 + place / page);
  }
  std::memcpy(memory.begin(), content.data(), size);
  preferHugePages(memory.begin(), size);
  EXPECT_EQ(std::memcmp(memory.begin(), content.data(), size), 0);
  std::memset(memory.begin() + huge_page, 7, huge_page);
  std::memset(content.data() + huge_page, 7, huge_page);
  EXPECT_EQ(std::memcmp(memory.begin(), content.data(), size), 0);
}

TEST(HugePages, ServeTheBufferOfAVector) {
  std::vector<std::uint64_t> numbers;
  numbers.reserve(2'000'000);
  numbers.push_back(1);
  preferHugePages(numbers.data() + numbers.size(), (numbers.capacity() - numbers.size()) * sizeof numbers[0]);
  for (std::uint64_t number = 2; number <= 2'000'000; ++number) {
    numbers.push_back(number);
  }
  std::uint64_t sum = 0;
  for (const std::uint64_t number : numbers) {
    sum += number;
  }
  EXPECT_EQ(sum, 2'000'001'000'000U);
  EXPECT_EQ(wantsHugePages(reinterpret_cast<const char *>(numbers.data() + 1'000'000)), kernelKnowsHugePages());
}

}  // namespace
}  // namespace dirwell
