#include "daemon/resident_memory.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <jansson.h>
#include <malloc.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <unicode/coll.h>
#include <unicode/translit.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <latch>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "service/json.h"
#include "support/environment.h"
#include "support/temp_dir.h"

namespace dirwell {
namespace {

using test::in_child;

// --- Pages that nobody wrote to --------------------------------------------------------------------------------------

long kilobytes(const std::string &key) {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    long value = 0;
    if (word == key + ":" && status >> value) {
      return value;
    }
  }
  return -1;
}

// What the libraries answer; each answer needs code, constant data and relocated data of theirs.
std::string answers() {
  std::string text;
  UErrorCode status = U_ZERO_ERROR;
  for (const char *locale : {"en_US", "sv_SE", "zh_CN", "cs_CZ"}) {
    const std::unique_ptr<icu::Collator> collator(icu::Collator::createInstance(icu::Locale(locale), status));
    text += std::to_string(collator->compareUTF8("\xC3\xB6l", "zeta", status)) + " ";
    text += std::to_string(collator->compareUTF8("chata", "hora", status)) + " ";
  }
  const std::unique_ptr<icu::Transliterator> fold(
      icu::Transliterator::createInstance("NFD; [:M:] Remove; NFC; Any-Lower;", UTRANS_FORWARD, status));
  icu::UnicodeString name = icu::UnicodeString::fromUTF8("\xC3\x89lan");
  fold->transliterate(name);
  name.toUTF8String(text);
  sqlite3 *database = nullptr;
  sqlite3_open(":memory:", &database);
  sqlite3_exec(
      database, "CREATE TABLE t (a); INSERT INTO t VALUES (3), (4); SELECT printf(' %d', sum(a * a)) FROM t",
      [](void *to, int, char **values, char **) {
        *static_cast<std::string *>(to) += values[0];
        return 0;
      },
      &text, nullptr);
  sqlite3_close(database);
  const JsonRef object(json_loads(R"({"b": [1, 2.5, "\u00e9"], "a": null})", 0, nullptr));
  char *dumped = json_dumps(object.get(), JSON_COMPACT);
  text += std::string(" ") + dumped;
  std::free(dumped);
  return text;
}

constexpr const char *right_answers = "-1 -1 1 -1 -1 -1 -1 1 elan 25 {\"b\":[1,2.5,\"\xC3\xA9\"],\"a\":null}";

// Data of this program that the loader relocates, and some that it does not.
class Shape {
 public:
  Shape() = default;
  Shape(const Shape &) = delete;
  Shape &operator=(const Shape &) = delete;
  virtual ~Shape() = default;
  [[nodiscard]] virtual int corners() const = 0;
};
class Triangle final : public Shape {
 public:
  [[nodiscard]] int corners() const override { return 3; }
};
class Square final : public Shape {
 public:
  [[nodiscard]] int corners() const override { return 4; }
};

int twice(int number) {
  return 2 * number;
}
int thrice(int number) {
  return 3 * number;
}

using Function = int (*)(int);
constexpr std::array<Function, 2> function_table{twice, thrice};
constexpr std::array<const char *, 3> text_table{"one", "two", "three"};
constexpr std::array<int, 4> number_table{1, 10, 100, 1000};
int changed_number = 5;  // in a page of the file that is written to
int zeroed_number;

// Read through here, so that no compiler computes them beforehand.
template <typename T>
const volatile T &opaque(const T &value) {
  const volatile T *volatile place = &value;
  return *place;
}

std::string ownAnswers() {
  std::string text;
  std::vector<std::unique_ptr<Shape>> shapes;
  shapes.push_back(std::make_unique<Triangle>());
  shapes.push_back(std::make_unique<Square>());
  for (const auto &shape : shapes) {
    text += std::to_string(shape->corners());
  }
  for (const Function &function : function_table) {
    text += " " + std::to_string(opaque(function)(7));
  }
  for (const char *const &word : text_table) {
    text += std::string(" ") + opaque(word);
  }
  for (const int &number : number_table) {
    text += " " + std::to_string(opaque(number));
  }
  return text + " " + std::to_string(opaque(changed_number)) + " " + std::to_string(opaque(zeroed_number));
}

TEST(ReleaseUnwrittenPages, LeavesLittleOfTheFilesInMemory) {
  EXPECT_EQ(in_child([] {
              answers();
              const long before = kilobytes("RssFile");
              release_unwritten_pages();
              const long after = kilobytes("RssFile");
              ::_exit(after > 0 && before > 6000 && after < before / 2 ? 0 : 1);
            }),
            0);
}

TEST(ReleaseUnwrittenPages, KeepsWhatTheProcessWrote) {
  EXPECT_EQ(in_child([] {
              const long before = kilobytes("RssAnon");
              std::vector<char> own(20'000'000, 'x');
              changed_number = 6;
              zeroed_number = 7;
              ::setenv("DIRWELL_TEST_VALUE", "kept", 1);
              release_unwritten_pages();
              const char *value = ::getenv("DIRWELL_TEST_VALUE");
              const bool content = std::count(own.begin(), own.end(), 'x') == 20'000'000;
              const bool resident = kilobytes("RssAnon") - before > 19'000;
              ::_exit(content && resident && changed_number == 6 && zeroed_number == 7 && value != nullptr &&
                              std::string(value) == "kept"
                          ? 0
                          : 1);
            }),
            0);
}

// As relocated data is, and code that a debugger has changed.
TEST(ReleaseUnwrittenPages, KeepsPagesThatWereWrittenBeforeTheyWereProtected) {
  const test::TempDir folder;
  const std::string path = folder.write("mapped", std::string(std::size_t{3} * 4096, 'f'));
  EXPECT_EQ(in_child([&path] {
              const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
              void *memory = ::mmap(nullptr, std::size_t{3} * 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE, file, 0);
              if (memory == MAP_FAILED) {
                ::_exit(2);
              }
              auto *bytes = static_cast<volatile char *>(memory);
              bytes[4096] = 'w';
              ::mprotect(memory, std::size_t{3} * 4096, PROT_READ);
              release_unwritten_pages();
              ::_exit(bytes[0] == 'f' && bytes[4096] == 'w' && bytes[4097] == 'f' && bytes[8192] == 'f' ? 0 : 1);
            }),
            0);
}

TEST(ReleaseUnwrittenPages, ChangesNoAnswerOfTheLibraries) {
  ASSERT_EQ(answers(), right_answers);
  EXPECT_EQ(in_child([] {
              for (int round = 0; round < 3; ++round) {
                release_unwritten_pages();
                if (answers() != right_answers) {
                  ::_exit(1);
                }
              }
            }),
            0);
}

// Nothing was called before: what is bound and built at the first use is so after the release.
TEST(ReleaseUnwrittenPages, LeavesTheFirstUseOfALibraryToBeMadeAfterIt) {
  EXPECT_EQ(in_child([] {
              release_unwritten_pages();
              void *library = ::dlopen("libm.so.6", RTLD_LAZY | RTLD_LOCAL);
              const auto cosine = reinterpret_cast<double (*)(double)>(::dlsym(library, "cos"));
              release_unwritten_pages();
              ::_exit(cosine(0.0) == 1.0 && answers() == right_answers ? 0 : 1);
            }),
            0);
}

TEST(ReleaseUnwrittenPages, LeavesRelocatedDataOfTheProgramRight) {
  constexpr const char *expected = "34 14 21 one two three 1 10 100 1000 5 0";
  ASSERT_EQ(ownAnswers(), expected);
  EXPECT_EQ(in_child([] {
              release_unwritten_pages();
              ::_exit(ownAnswers() == expected ? 0 : 1);
            }),
            0);
}

TEST(ReleaseUnwrittenPages, MayHappenWhileOtherThreadsWork) {
  EXPECT_EQ(in_child([] {
              bool right = true;
              std::latch started(2);
              std::thread other([&] {
                started.arrive_and_wait();
                for (int round = 0; round < 20; ++round) {
                  right = right && answers() == right_answers;
                }
              });
              started.arrive_and_wait();
              for (int round = 0; round < 50; ++round) {
                release_unwritten_pages();
              }
              other.join();
              ::_exit(right ? 0 : 1);
            }),
            0);
}

TEST(ReleaseUnwrittenPages, LeavesProcessesThatAreForkedLaterAsTheyWere) {
  EXPECT_EQ(
      in_child([] {
        answers();
        release_unwritten_pages();
        ::_exit(in_child([] { ::_exit(answers() == right_answers && ownAnswers()[0] == '3' ? 0 : 1); }) == 0 ? 0 : 1);
      }),
      0);
}

// --- One heap --------------------------------------------------------------------------------------------------------

std::size_t heaps() {
  char *text = nullptr;
  std::size_t size = 0;
  std::FILE *stream = ::open_memstream(&text, &size);
  ::malloc_info(0, stream);
  std::fclose(stream);
  const std::string info(text, size);
  std::free(text);
  std::size_t count = 0;
  for (std::size_t at = 0; (at = info.find("<heap nr=", at)) != std::string::npos; ++at) {
    ++count;
  }
  return count;
}

// How many heaps more there are while threads are there that have all allocated.
std::size_t heapsOfThreads() {
  constexpr std::ptrdiff_t count = 6;
  const std::size_t before = heaps();
  std::latch allocated(count + 1);
  std::latch counted(1);
  std::vector<std::thread> threads;
  for (std::ptrdiff_t i = 0; i < count; ++i) {
    threads.emplace_back([&] {
      const std::unique_ptr<void, decltype(&std::free)> block(std::malloc(5000), std::free);
      const volatile bool there = block != nullptr;
      allocated.arrive_and_wait();
      counted.wait();
      static_cast<void>(there);
    });
  }
  allocated.arrive_and_wait();
  const std::size_t during = heaps();
  counted.count_down();
  for (std::thread &thread : threads) {
    thread.join();
  }
  return during - before;
}

// A sanitizer brings an allocator of its own, which knows no such heaps.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool library_allocates = false;
#else
constexpr bool library_allocates = true;
#endif

TEST(ShareOneHeap, KeepsThreadsFromMakingMore) {
  EXPECT_EQ(in_child([] {
              share_one_heap();
              ::_exit(static_cast<int>(heapsOfThreads()));
            }),
            0);
}

TEST(ShareOneHeap, IsWhatKeepsThemFromIt) {
  EXPECT_EQ(in_child([] { ::_exit((heapsOfThreads() > 0) == library_allocates ? 0 : 1); }), 0);
}

TEST(ShareOneHeap, ServesThreadsThatAllocateAtTheSameTime) {
  EXPECT_EQ(in_child([] {
              share_one_heap();
              share_one_heap();
              std::array<std::size_t, 4> sums{};
              std::vector<std::thread> threads;
              threads.reserve(sums.size());
              for (std::size_t &sum : sums) {
                threads.emplace_back([&sum] {
                  for (std::size_t round = 1; round <= 20'000; ++round) {
                    const std::string text(round % 700, 'x');
                    sum += text.size();
                  }
                });
              }
              for (std::thread &thread : threads) {
                thread.join();
              }
              const std::size_t expected = 28 * (699 * 700 / 2) + 400 * 401 / 2;
              ::_exit(sums == std::array<std::size_t, 4>{expected, expected, expected, expected} ? 0 : 1);
            }),
            0);
}

}  // namespace
}  // namespace dirwell
