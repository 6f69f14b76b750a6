#include "listing/walk.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <iterator>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "entry/paths.h"
#include "support/private_root.h"
#include "support/temp_dir.h"

using namespace std::chrono_literals;

namespace dirwell {
namespace {

// Calls `answer` for each entry that it is asked about.
class AskingFilter final : public Filter {
 public:
  explicit AskingFilter(std::function<bool(const ResourceEntry &)> answer)
      : Filter(&Filter::equal), answer_(std::move(answer)) {}
  bool equal(const ResourceEntry &entry) const override { return answer_(entry); }

 private:
  std::function<bool(const ResourceEntry &)> answer_;
};

// As for all sorters: destroyed by the shared pointer that made it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
// Sorts by name downward, and counts how often it is asked to.
class NamesDownward final : public Sorter {
 public:
  NamesDownward() : Sorter(true) {}
  void sort(std::vector<ResourceEntry> &entries) override {
    ++sorts;
    std::ranges::sort(entries, std::ranges::greater{}, &ResourceEntry::name);
  }
  int sorts = 0;
};
#pragma GCC diagnostic pop

// The name in brackets; counts the entries that it is asked about.
class BracketCluster final : public Cluster {
 public:
  std::string key(const ResourceEntry &entry) override {
    ++asked[entry.name];
    return "[" + entry.name + "]";
  }
  std::map<std::string, int> asked;
};

using Names = std::vector<std::string>;

class Walk : public testing::Test {
 protected:
  Walk() { std::filesystem::remove(test::private_root() + "/etc/config/wfm2.conf"); }

  void add_root(const std::string &path, const std::string &alias = "/Shown") {
    queue.push_back(ResourceEntry::queuedDirectory(path, "", alias));
  }
  void ask(std::function<bool(const ResourceEntry &)> answer) {
    filters.push_back(std::make_shared<AskingFilter>(std::move(answer)));
  }
  std::uint64_t run() {
    return walkDirectory(results, queue, filters, sorter, cluster, scan_limit, recursive, reach_time);
  }
  [[nodiscard]] Names names() const {
    Names all;
    std::ranges::transform(results, std::back_inserter(all), &ResourceEntry::name);
    return all;
  }
  [[nodiscard]] Names sorted_names() const {
    Names all = names();
    std::ranges::sort(all);
    return all;
  }

  test::TempDir folder;
  std::vector<ResourceEntry> results;
  std::list<ResourceEntry> queue;
  std::vector<std::shared_ptr<Filter>> filters;
  std::shared_ptr<Sorter> sorter;
  std::shared_ptr<Cluster> cluster;
  std::uint64_t scan_limit = 100000;
  bool recursive = false;
  std::int64_t reach_time = 0;
};

int open_descriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<int>(std::distance(begin(all), end(all)));
}

TEST_F(Walk, ListsAFolderWithTheStatusOfEachEntry) {
  folder.write("Photo.JPG", "12345");
  folder.write("a.tar.gz", "1");
  folder.write(".profile");
  folder.mkdir("x.d");
  add_root(folder.path(), "/Shown.e");
  EXPECT_EQ(run(), 4U);
  EXPECT_TRUE(queue.empty());
  std::map<std::string, ResourceEntry> by_name;
  for (const ResourceEntry &entry : results) {
    by_name[entry.name] = entry;
    EXPECT_EQ(entry.directory.view(), folder.path());
    EXPECT_EQ(entry.displayDirectory.view(), "/Shown.e");
    EXPECT_EQ(entry.subPath.view(), "");
    EXPECT_EQ(entry.cluster, "");
    EXPECT_NE(entry.stat.st_ino, 0U);
  }
  EXPECT_EQ(by_name.at("Photo.JPG").extension, "JPG");
  EXPECT_EQ(by_name.at("Photo.JPG").stat.st_size, 5);
  EXPECT_EQ(by_name.at("a.tar.gz").extension, "gz");
  EXPECT_EQ(by_name.at(".profile").extension, "");
  EXPECT_EQ(by_name.at("x.d").extension, "");
  EXPECT_TRUE(by_name.at("x.d").isDirectory());
}

TEST_F(Walk, KeepsNamesThatAreNoText) {
  folder.write("\xFF\xFE.txt");
  folder.write("a\nb");
  folder.write(std::string(255, 'n'));
  add_root(folder.path());
  run();
  EXPECT_EQ(sorted_names(), (Names{"a\nb", std::string(255, 'n'), "\xFF\xFE.txt"}));
}

TEST_F(Walk, ListsEveryKindOfFile) {
  folder.write("file");
  folder.mkdir("folder");
  ASSERT_EQ(::symlink("nowhere", folder.at("link").c_str()), 0);
  ASSERT_EQ(::mkfifo(folder.at("fifo").c_str(), 0600), 0);
  ASSERT_EQ(::mknod(folder.at("socket").c_str(), S_IFSOCK | 0600, 0), 0);
  add_root(folder.path());
  run();
  EXPECT_EQ(sorted_names(), (Names{"fifo", "file", "folder", "link", "socket"}));
}

TEST_F(Walk, ListsALinkToAFolderByItselfAndNeverFollowsIt) {
  folder.write("real/inside");
  ASSERT_EQ(::symlink("real", folder.at("link").c_str()), 0);
  ASSERT_EQ(::symlink("..", folder.at("real/up").c_str()), 0);
  recursive = true;
  add_root(folder.path());
  run();
  EXPECT_EQ(sorted_names(), (Names{"inside", "link", "real", "up"}));
  const auto link = std::ranges::find(results, "link", &ResourceEntry::name);
  EXPECT_TRUE(link->isLink());
  EXPECT_EQ(link->stat.st_size, 4) << "the length of its text";
}

TEST_F(Walk, FollowsARootThatIsALink) {
  folder.write("real/inside");
  ASSERT_EQ(::symlink("real", folder.at("link").c_str()), 0);
  add_root(folder.at("link"));
  run();
  EXPECT_EQ(names(), Names{"inside"});
}

TEST_F(Walk, LooksBelowOnlyWhenRecursive) {
  folder.write("a/b/c");
  add_root(folder.path());
  run();
  EXPECT_EQ(names(), Names{"a"});
  EXPECT_TRUE(queue.empty());
}

TEST_F(Walk, GoesBreadthFirstAndRootsInOrder) {
  folder.write("one/a/aa/aaa");
  folder.write("two/b/bb/bbb");
  recursive = true;
  add_root(folder.path() + "/one", "/One");
  add_root(folder.path() + "/two", "/Two");
  EXPECT_EQ(run(), 6U);
  EXPECT_EQ(names(), (Names{"a", "b", "aa", "bb", "aaa", "bbb"}));
  const Names sub_paths = {"", "", "/a", "/b", "/a/aa", "/b/bb"};
  for (std::size_t i = 0; i < results.size(); ++i) {
    EXPECT_EQ(results[i].subPath.view(), sub_paths[i]);
    EXPECT_EQ(results[i].displayDirectory.view(), i % 2 == 0 ? "/One" : "/Two");
    EXPECT_TRUE(std::filesystem::exists(fullPath(results[i]))) << fullPath(results[i]);
  }
}

TEST_F(Walk, SharesTheTextsOfAFolderAmongItsEntries) {
  folder.write("sub/a");
  folder.write("sub/b");
  recursive = true;
  add_root(folder.path());
  const SharedText root = queue.front().directory;
  const SharedText shown = queue.front().displayDirectory;
  ASSERT_EQ(run(), 3U);
  EXPECT_TRUE(results[1].subPath.same_object(results[2].subPath));
  EXPECT_FALSE(results[1].subPath.empty());
  for (const ResourceEntry &entry : results) {
    EXPECT_TRUE(entry.directory.same_object(root));
    EXPECT_TRUE(entry.displayDirectory.same_object(shown));
  }
}

TEST_F(Walk, PutsNewEntriesBehindThoseThatAreThere) {
  folder.write("new");
  results.emplace_back().name = "old";
  add_root(folder.path());
  EXPECT_EQ(run(), 2U);
  EXPECT_EQ(names(), (Names{"old", "new"}));
}

// --- Folders that cannot be read

TEST_F(Walk, FindsNothingUnderAMissingRoot) {
  sorter = std::make_shared<NamesDownward>();
  add_root(folder.path() + "/gone");
  EXPECT_EQ(run(), 0U);
  EXPECT_EQ(static_cast<NamesDownward &>(*sorter).sorts, 0);
}

TEST_F(Walk, EndsUnsortedAtASecondRootThatIsMissing) {
  for (const char *name : {"one/a", "one/b", "one/c", "three/d"}) {
    folder.write(name);
  }
  const auto counting = std::make_shared<NamesDownward>();
  sorter = counting;
  add_root(folder.path() + "/one");
  add_root(folder.path() + "/two");
  add_root(folder.path() + "/three");
  EXPECT_EQ(run(), 3U);
  EXPECT_EQ(sorted_names(), (Names{"a", "b", "c"}));
  EXPECT_EQ(counting->sorts, 0);
}

TEST_F(Walk, EndsAtARootThatIsNoFolder) {
  folder.write("file");
  ASSERT_EQ(::mkfifo(folder.at("fifo").c_str(), 0600), 0);
  for (const char *name : {"file", "fifo"}) {
    add_root(folder.at(name));
    EXPECT_EQ(run(), 0U) << name;
    queue.clear();
  }
  queue.push_back(ResourceEntry::queuedDirectory("", "", ""));
  EXPECT_EQ(run(), 0U) << "an empty path";
}

TEST_F(Walk, EndsUnsortedWhereASubFolderHasGoneMeanwhile) {
  folder.mkdir("root/sub");
  folder.write("other/a");
  const auto counting = std::make_shared<NamesDownward>();
  sorter = counting;
  recursive = true;
  ask([this](const ResourceEntry &entry) {
    std::filesystem::remove(folder.path() + "/root/" + entry.name);
    return true;
  });
  add_root(folder.path() + "/root");
  add_root(folder.path() + "/other");
  EXPECT_EQ(run(), 2U) << "the second root stands before the sub-folder of the first";
  EXPECT_EQ(names(), (Names{"sub", "a"}));
  EXPECT_EQ(counting->sorts, 0);
}

TEST_F(Walk, SkipsANameWhoseStatusCannotBeRead) {
  for (const char *name : {"a", "b", "c", "d"}) {
    folder.write(name);
  }
  // The folder is read as a whole before the first question, which removes everything else from it.
  ask([this](const ResourceEntry &entry) {
    for (const char *name : {"a", "b", "c", "d"}) {
      if (entry.name != name) {
        std::filesystem::remove(folder.at(name));
      }
    }
    return true;
  });
  const auto counting = std::make_shared<NamesDownward>();
  sorter = counting;
  add_root(folder.path());
  EXPECT_EQ(run(), 1U);
  EXPECT_EQ(counting->sorts, 1) << "a skipped name does not end the walk";
}

TEST_F(Walk, ClosesEveryFolderThatItOpens) {
  folder.write("a/b/c");
  recursive = true;
  const int before = open_descriptors();
  add_root(folder.path());
  add_root(folder.path() + "/missing");
  run();
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(Walk, OpensFoldersForItselfAlone) {
  folder.write("a");
  int seen = 0;
  ask([&](const ResourceEntry &) {
    for (const auto &link : std::filesystem::directory_iterator("/proc/self/fd")) {
      std::error_code ignored;
      if (std::filesystem::read_symlink(link, ignored) == folder.path()) {
        ++seen;
        EXPECT_EQ(::fcntl(std::stoi(link.path().filename()), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
      }
    }
    return true;
  });
  add_root(folder.path());
  run();
  EXPECT_EQ(seen, 1);
}

// --- Vetoed and filtered names

TEST_F(Walk, NeitherListsNorEntersWhatIsVetoed) {
  test::write_below_root("etc/config/wfm2.conf", "[global]\nveto files = /veto*/*.tmp/\n");
  folder.write("vetoed-folder/inside");
  folder.write("a.tmp");
  folder.write("kept/b");
  folder.write("kept/b.tmp");
  recursive = true;
  int asked = 0;
  ask([&asked](const ResourceEntry &) {
    ++asked;
    return true;
  });
  add_root(folder.path());
  EXPECT_EQ(run(), 2U);
  EXPECT_EQ(names(), (Names{"kept", "b"}));
  EXPECT_EQ(asked, 2) << "no filter sees a vetoed name";
}

TEST_F(Walk, ReadsTheVetoListAnew) {
  folder.write("a");
  folder.write("b");
  for (const char *vetoed : {"a", "b"}) {
    test::write_below_root("etc/config/wfm2.conf", "[global]\nveto files = /" + std::string(vetoed) + "/\n");
    results.clear();
    add_root(folder.path());
    EXPECT_EQ(run(), 1U);
    EXPECT_NE(names(), Names{vetoed});
  }
}

TEST_F(Walk, AsksEveryFilterOnceAboutEveryEntry) {
  folder.write("a/b");
  folder.write("c");
  recursive = true;
  std::map<std::string, std::string> asked;
  for (const char letter : {'1', '2', '3'}) {
    ask([&asked, letter](const ResourceEntry &entry) {
      asked[entry.name] += letter;
      return letter != '1' || entry.name == "c";
    });
  }
  add_root(folder.path());
  EXPECT_EQ(run(), 1U);
  EXPECT_EQ(names(), Names{"c"});
  EXPECT_EQ(asked, (std::map<std::string, std::string>{{"a", "123"}, {"b", "123"}, {"c", "123"}}));
}

TEST_F(Walk, KeepsOnlyWhatAllFiltersPass) {
  for (const char *name : {"ab", "a", "b", "x"}) {
    folder.write(name);
  }
  for (const char letter : {'a', 'b'}) {
    ask([letter](const ResourceEntry &entry) { return entry.name.find(letter) != std::string::npos; });
  }
  add_root(folder.path());
  run();
  EXPECT_EQ(names(), Names{"ab"});
}

TEST_F(Walk, SearchesFoldersThatTheFiltersLeaveOut) {
  folder.write(".hidden/.inner/shown");
  folder.write(".hidden/.secret");
  folder.write("plain");
  recursive = true;
  filters.push_back(std::make_shared<HiddenFilter>(true));
  add_root(folder.path());
  run();
  EXPECT_EQ(sorted_names(), (Names{"plain", "shown"}));
  results.clear();
  filters.push_back(std::make_shared<StatModeFilter>(0x8000));
  folder.write("folder/file");
  add_root(folder.path());
  run();
  EXPECT_EQ(sorted_names(), (Names{"file", "plain", "shown"}));
}

// --- Cluster keys

TEST_F(Walk, StoresTheClusterKeyAndComputesItForEveryEntry) {
  folder.write("a");
  folder.write("b");
  const auto brackets = std::make_shared<BracketCluster>();
  cluster = brackets;
  ask([](const ResourceEntry &entry) {
    EXPECT_EQ(entry.cluster, "") << "filters are asked first";
    return entry.name == "a";
  });
  add_root(folder.path());
  EXPECT_EQ(run(), 1U);
  EXPECT_EQ(results.front().cluster, "[a]");
  EXPECT_EQ(brackets->asked, (std::map<std::string, int>{{"a", 1}, {"b", 1}}));
}

// --- Bounds and order

TEST_F(Walk, SortsOnceAtTheEnd) {
  folder.write("b/c");
  folder.write("a/d");
  const auto counting = std::make_shared<NamesDownward>();
  sorter = counting;
  recursive = true;
  add_root(folder.path());
  run();
  EXPECT_EQ(names(), (Names{"d", "c", "b", "a"}));
  EXPECT_EQ(counting->sorts, 1);
}

TEST_F(Walk, SortsAnEmptyFolderToo) {
  const auto counting = std::make_shared<NamesDownward>();
  sorter = counting;
  add_root(folder.path());
  EXPECT_EQ(run(), 0U);
  EXPECT_EQ(counting->sorts, 1);
}

TEST_F(Walk, StopsAtTheScanLimitAndSortsWhatItHas) {
  for (int i = 0; i < 100; ++i) {
    folder.write("f" + std::to_string(i));
  }
  sorter = std::make_shared<NamesDownward>();
  scan_limit = 60;
  add_root(folder.path());
  add_root(folder.path());
  EXPECT_EQ(run(), 60U);
  EXPECT_TRUE(std::ranges::is_sorted(results, std::ranges::greater{}, &ResourceEntry::name));
  EXPECT_EQ(queue.size(), 1U) << "the second root is never opened";
}

TEST_F(Walk, CountsOnlyKeptEntriesAgainstTheScanLimit) {
  for (int i = 0; i < 50; ++i) {
    folder.write("f" + std::to_string(i));
  }
  int asked = 0;
  ask([&asked](const ResourceEntry &) { return ++asked % 10 == 0; });
  scan_limit = 4;
  add_root(folder.path());
  EXPECT_EQ(run(), 4U);
  EXPECT_EQ(asked, 40);
}

TEST_F(Walk, OpensNothingUnderAScanLimitOfZero) {
  folder.write("a");
  scan_limit = 0;
  add_root(folder.path());
  EXPECT_EQ(run(), 0U);
  EXPECT_EQ(queue.size(), 1U);
}

TEST_F(Walk, StopsAtTheScanLimitAcrossFolders) {
  for (const char *name : {"one/a", "one/b", "two/c", "two/d"}) {
    folder.write(name);
  }
  scan_limit = 3;
  add_root(folder.path() + "/one");
  add_root(folder.path() + "/two");
  EXPECT_EQ(run(), 3U);
}

TEST_F(Walk, EndsSortedOnceItsTimeIsUp) {
  for (int i = 0; i < 10; ++i) {
    folder.write("f" + std::to_string(i));
  }
  ask([](const ResourceEntry &) {
    std::this_thread::sleep_for(700ms);
    return true;
  });
  const auto counting = std::make_shared<NamesDownward>();
  sorter = counting;
  reach_time = 1;
  add_root(folder.path());
  add_root(folder.path());
  // More than one whole second has passed after 2 seconds at the latest, which is within the third question.
  const std::uint64_t found = run();
  // Exactly one second is not more than one, so the second question is always asked.
  EXPECT_GE(found, 2U);
  EXPECT_LE(found, 3U);
  EXPECT_EQ(counting->sorts, 1);
  EXPECT_EQ(queue.size(), 1U);
}

TEST_F(Walk, OverNoRootsFindsNothingAndSortsIt) {
  const auto counting = std::make_shared<NamesDownward>();
  sorter = counting;
  EXPECT_EQ(run(), 0U);
  EXPECT_EQ(counting->sorts, 1);
}

TEST_F(Walk, HasNoDeadlineWithoutAPositiveTime) {
  folder.write("a");
  folder.write("b");
  for (const std::int64_t seconds : {0, -1}) {
    results.clear();
    reach_time = seconds;
    filters.clear();
    int asked = 0;
    ask([&asked](const ResourceEntry &) {
      std::this_thread::sleep_for(asked++ == 0 ? 1050ms : 0ms);
      return true;
    });
    add_root(folder.path());
    EXPECT_EQ(run(), 2U) << seconds;
  }
}

TEST_F(Walk, ReadsAFolderLargerThanOneReadOfIt) {
  for (int i = 0; i < 3000; ++i) {
    folder.write("a-name-of-some-length-" + std::to_string(10000 + i));
  }
  add_root(folder.path());
  EXPECT_EQ(run(), 3000U);
  const Names all = sorted_names();
  EXPECT_EQ(all.front(), "a-name-of-some-length-10000");
  EXPECT_EQ(all.back(), "a-name-of-some-length-12999");
  EXPECT_EQ(std::ranges::adjacent_find(all), all.end());
}

}  // namespace
}  // namespace dirwell
