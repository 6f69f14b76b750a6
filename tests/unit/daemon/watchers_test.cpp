#include "daemon/watchers.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "cache/cache_store.h"
#include "service/fork_gate.h"
#include "service/log.h"
#include "service/session.h"
#include "support/environment.h"
#include "support/private_root.h"
#include "support/temp_dir.h"

namespace dirwell {
namespace {

using namespace std::chrono_literals;
using test::TempDir;
using test::write_below_root;

// A watcher whose last change has been moved into the past, so that a new one shows although both are whole seconds.
class WatcherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    write_below_root("etc/config/wfm2.conf", "[global]\nveto files = /.DS_Store/*.tmp/\n");
    ASSERT_TRUE(watcher_.start());
  }

  void watch(const std::vector<std::string> &folders) {
    EXPECT_EQ(watcher_.add(folders), 0U);
    forget();
  }
  void forget() { times_.lastChange = 0; }
  bool changes_within(std::chrono::milliseconds limit) const {
    for (const auto end = std::chrono::steady_clock::now() + limit; std::chrono::steady_clock::now() < end;) {
      if (times_.lastChange != 0) {
        return true;
      }
      std::this_thread::sleep_for(10ms);
    }
    return times_.lastChange != 0;
  }
  bool changed() const { return changes_within(3s); }
  bool stays() const { return !changes_within(300ms); }

  WatchTimes times_;
  CacheWatcher watcher_{times_};
  TempDir folder_;
};

TEST_F(WatcherTest, SetsBothTimesWhenItStarts) {
  EXPECT_NEAR(static_cast<double>(times_.lastChange), static_cast<double>(std::time(nullptr)), 2);
  EXPECT_EQ(times_.lastChange, times_.lastReload);
}

// The daemon stops its watchers while its pool may still be busy with a "watch" request.
TEST_F(WatcherTest, MayBeStoppedWhileFoldersAreAdded) {
  std::thread pool([this] {
    const std::vector<std::string> folders(50, folder_.path());
    for (int i = 0; i < 50; ++i) {
      watcher_.clear();
      watcher_.add(folders);
    }
  });
  watcher_.stop();
  pool.join();
  EXPECT_EQ(watcher_.add({folder_.path(), "/"}), 2U) << "a stopped watcher watches nothing";
  ASSERT_TRUE(watcher_.start());
  watch({folder_.path()});
  folder_.write("file");
  EXPECT_TRUE(changed());
}

TEST_F(WatcherTest, NoticesEachKindOfChange) {
  const std::string inside = folder_.mkdir("inside");
  const std::string file = folder_.write("inside/file", "x");
  const std::string elsewhere = folder_.mkdir("elsewhere");
  const struct {
    const char *what;
    std::function<void()> action;
  } changes[] = {
      {"create", [&] { folder_.write("inside/new"); }},
      {"modify", [&] { folder_.write("inside/file", "longer"); }},
      {"attributes", [&] { ::chmod(file.c_str(), 0600); }},
      {"moved away", [&] { std::filesystem::rename(inside + "/new", elsewhere + "/new"); }},
      {"moved in", [&] { std::filesystem::rename(elsewhere + "/new", inside + "/new"); }},
      {"delete", [&] { std::filesystem::remove(inside + "/new"); }},
      {"folder made", [&] { folder_.mkdir("inside/sub"); }},
      {"moved itself", [&] { std::filesystem::rename(inside, elsewhere + "/inside"); }},
      {"deleted itself", [&] { std::filesystem::remove_all(elsewhere + "/inside"); }},
  };
  watch({inside});
  for (const auto &change : changes) {
    EXPECT_TRUE(stays()) << "before " << change.what;
    change.action();
    EXPECT_TRUE(changed()) << change.what;
    std::this_thread::sleep_for(50ms);  // the change may come in several events
    forget();
  }
}

TEST_F(WatcherTest, DoesNotCountReads) {
  const std::string file = folder_.write("file", "content");
  watch({folder_.path()});
  std::ifstream(file).get();
  EXPECT_TRUE(std::filesystem::exists(file));
  EXPECT_TRUE(stays());
}

TEST_F(WatcherTest, IgnoresVetoedNamesAndNoticesAnyOther) {
  watch({folder_.path()});
  folder_.write(".DS_Store");
  folder_.write("half.tmp");
  EXPECT_TRUE(stays());
  folder_.write(".ds_store");
  EXPECT_TRUE(changed());
}

TEST_F(WatcherTest, FollowsSeveralFoldersAndNotTheirSubfolders) {
  const std::string a = folder_.mkdir("a");
  const std::string b = folder_.mkdir("b");
  folder_.mkdir("a/sub");
  watch({a, b, a});
  folder_.write("a/sub/file");
  EXPECT_TRUE(stays());
  folder_.write("b/file");
  EXPECT_TRUE(changed());
}

TEST_F(WatcherTest, DoesNotFollowALinkToAFolder) {
  const std::string target = folder_.mkdir("target");
  std::filesystem::create_directory_symlink(target, folder_.at("link"));
  watch({folder_.at("link")});
  folder_.write("target/file");
  EXPECT_TRUE(stays());
}

TEST_F(WatcherTest, CountsWhatItCannotWatch) {
  EXPECT_EQ(watcher_.add({folder_.at("missing"), folder_.path(), folder_.at("missing too")}), 2U);
  forget();
  folder_.write("file");
  EXPECT_TRUE(changed());
}

TEST_F(WatcherTest, ForgetsReplacedWatchesAndIsFreshUntilTheNextEvent) {
  const std::string old_folder = folder_.mkdir("old");
  const std::string new_folder = folder_.mkdir("new");
  watch({old_folder});
  folder_.write("old/file");
  ASSERT_TRUE(changed());
  watcher_.clear();
  EXPECT_EQ(watcher_.add({new_folder}), 0U);
  EXPECT_EQ(times_.lastChange, times_.lastReload);
  forget();
  folder_.write("old/another");
  EXPECT_TRUE(stays());
  folder_.write("new/file");
  EXPECT_TRUE(changed());
}

TEST_F(WatcherTest, SurvivesEventsThatArriveWhileTheListIsReplaced) {
  const std::string a = folder_.mkdir("a");
  const std::string b = folder_.mkdir("b");
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    while (!stop) {
      folder_.write("a/file", "x");
      folder_.write("b/file", "x");
    }
  });
  for (int i = 0; i < 500; ++i) {
    watcher_.clear();
    EXPECT_EQ(watcher_.add({i % 2 == 0 ? a : b}), 0U);
  }
  stop = true;
  writer.join();
  std::this_thread::sleep_for(100ms);
  forget();
  folder_.write("a/late");
  EXPECT_TRUE(stays()) << "the last list holds b alone";
}

// A fork that waits for an open section keeps the poll thread from reading on, so that the kernel's queue overflows
// with events of names that do not count by themselves.
TEST_F(WatcherTest, TakesLostEventsForAChange) {
  int limit = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
  ASSERT_GT(limit, 0);
  const std::string first = folder_.write("first.tmp");
  const std::string second = folder_.write("second.tmp");
  watch({folder_.path()});
  pid_t child = -1;
  std::thread forker;
  {
    const fork_gate::Section section;
    forker = std::thread([&child] {
      child = fork_gate::fork();
      if (child == 0) {
        ::_exit(0);
      }
    });
    std::this_thread::sleep_for(200ms);
    // Alternating names: equal events in a row are merged into one.
    for (int i = 0; i < limit + 1000; ++i) {
      ::chmod((i % 2 == 0 ? first : second).c_str(), 0600);
    }
    EXPECT_EQ(times_.lastChange, 0);
  }
  forker.join();
  ::waitpid(child, nullptr, 0);
  EXPECT_TRUE(changed());
}

TEST_F(WatcherTest, StopsAtOnceAndStartsAnew) {
  const auto start = std::chrono::steady_clock::now();
  watcher_.stop();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 300ms);
  watcher_.stop();
  ASSERT_TRUE(watcher_.start());
  watch({folder_.path()});
  folder_.write("file");
  EXPECT_TRUE(changed());
}

TEST_F(WatcherTest, StartsOnce) {
  watch({folder_.path()});
  ASSERT_TRUE(watcher_.start());
  EXPECT_EQ(times_.lastChange, 0);
  folder_.write("file");
  EXPECT_TRUE(changed()) << "the watches of before hold";
}

// A cache of the session whose folders the daemon is asked to watch.
class ReloadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    write_below_root("etc/config/def_share.info", "[SHARE_DEF]\ndefVolMP = " + volume_.path() + "\n");
    ::chmod(volume_.path().c_str(), 0755);
    prepareCacheFolder();
  }

  void create_cache(std::size_t index, const std::vector<std::string> &folders) const {
    CacheStore store(index, true);
    std::vector<ResourceEntry> entries;
    for (const std::string &folder : folders) {
      entries.push_back(ResourceEntry::fromPath(folder, "name"));
    }
    ErrorRecord record;
    ASSERT_TRUE(store.set(entries, record));
  }

  TempDir volume_;
  TempDir share_;
};

TEST_F(ReloadTest, WatchesTheFoldersOfEachIndexByItself) {
  const test::ScopedSession session("reload1");
  EXPECT_EQ(test::in_child([this] {
              log_level = 3;
              Session::instance().set_sid("reload1");
              const std::string one = share_.mkdir("one");
              const std::string two = share_.mkdir("two");
              create_cache(1, {one});
              create_cache(2, {two});
              start_watchers();
              reload_watches(1);
              reload_watches(2);
              watchTimes(1)->lastChange = 0;
              watchTimes(2)->lastChange = 0;
              share_.write("two/file");
              for (int i = 0; i < 200 && watchTimes(2)->lastChange == 0; ++i) {
                std::this_thread::sleep_for(10ms);
              }
              const bool second_alone = watchTimes(2)->lastChange != 0 && watchTimes(1)->lastChange == 0;
              stop_watchers();
              ::_exit(second_alone ? 0 : 1);
            }),
            0);
}

TEST_F(ReloadTest, OfAnInvalidIndexTouchesNothing) {
  watchTimes(1)->lastReload = 7;
  watchTimes(2)->lastReload = 7;
  for (const std::size_t index : {std::size_t{0}, std::size_t{3}, ~std::size_t{0}}) {
    reload_watches(index);
  }
  EXPECT_EQ(watchTimes(1)->lastReload, 7);
  EXPECT_EQ(watchTimes(2)->lastReload, 7);
}

// The daemon is root, the session's user is not: a folder that the user cannot read is not watched for them.
TEST_F(ReloadTest, WatchesWithTheUsersRights) {
  const test::ScopedSession session("reload2", "nobody");
  std::string said;
  int status = -1;
  said = test::captured_stderr([&] {
    status = test::in_child([this] {
      log_level = 7;
      Session::instance().set_sid("reload2");
      ::chmod(share_.path().c_str(), 0755);
      const std::string open_folder = share_.mkdir("open");
      const std::string closed_folder = share_.mkdir("closed");
      ::chmod(closed_folder.c_str(), 0700);
      create_cache(1, {open_folder, closed_folder});
      start_watchers();
      reload_watches(1);
      watchTimes(1)->lastChange = 0;
      share_.write("closed/file");
      std::this_thread::sleep_for(300ms);
      const bool blind = watchTimes(1)->lastChange == 0;
      share_.write("open/file");
      for (int i = 0; i < 200 && watchTimes(1)->lastChange == 0; ++i) {
        std::this_thread::sleep_for(10ms);
      }
      const bool sees = watchTimes(1)->lastChange != 0;
      stop_watchers();
      ::_exit(blind && sees ? 0 : 1);
    });
  });
  EXPECT_EQ(status, 0);
  EXPECT_NE(said.find("[cache] 1 of 2 folders of cache 1 cannot be watched\n"), std::string::npos) << said;
}

// What the pool thread does for "watch", in a tight loop, against the forks of requests.
TEST_F(ReloadTest, LeavesNothingLockedInRequestProcesses) {
  const test::ScopedSession session("reload4", "nobody");
  EXPECT_EQ(test::in_child([this] {
              log_level = 0;
              Session::instance().set_sid("reload4");
              create_cache(1, {share_.path()});
              start_watchers();
              std::atomic<bool> stop{false};
              std::thread pool([&stop] {
                while (!stop) {
                  reload_watches(1);
                }
              });
              bool all_ended = true;
              for (int i = 0; i < 1500 && all_ended; ++i) {
                const pid_t request = fork_gate::fork();
                if (request == 0) {
                  ::alarm(10);
                  const bool switched = Session::instance().seteuser(false);
                  CacheStore store;
                  ErrorRecord record;
                  ::_exit(switched && store.set({}, record) ? 0 : 1);
                }
                int status = -1;
                ::waitpid(request, &status, 0);
                all_ended = status == 0;
              }
              stop = true;
              pool.join();
              stop_watchers();
              ::_exit(all_ended ? 0 : 1);
            }),
            0);
}

TEST_F(ReloadTest, OfAMissingCacheForgetsTheOldWatchesAndIsFresh) {
  const test::ScopedSession session("reload3");
  EXPECT_EQ(test::in_child([this] {
              log_level = 0;
              Session::instance().set_sid("reload3");
              create_cache(1, {share_.path()});
              start_watchers();
              reload_watches(1);
              std::filesystem::remove(volume_.path() + "/.fs/reload3.1");
              reload_watches(1);
              const bool fresh = watchTimes(1)->lastChange == watchTimes(1)->lastReload;
              watchTimes(1)->lastChange = 0;
              share_.write("file");
              std::this_thread::sleep_for(300ms);
              const bool blind = watchTimes(1)->lastChange == 0;
              stop_watchers();
              ::_exit(fresh && blind ? 0 : 1);
            }),
            0);
}

}  // namespace
}  // namespace dirwell
