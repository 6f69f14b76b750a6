#include "cache/cache_folder.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "cache_support.h"
#include "service/log.h"
#include "support/private_root.h"

namespace dirwell {
namespace {

using test::exists;
using test::logged;

constexpr const char *no_volume_line = "STAMP [W] dirwell(PID): [cache] no default volume\n";

mode_t modeOf(const std::string &path) {
  struct ::stat status {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
}

void touch(const std::string &path) {
  std::ofstream(path) << "x";
}

class ScopedUmask {
 public:
  explicit ScopedUmask(mode_t mask) : before_(::umask(mask)) {}
  ~ScopedUmask() { ::umask(before_); }
  ScopedUmask(const ScopedUmask &) = delete;
  ScopedUmask &operator=(const ScopedUmask &) = delete;

 private:
  mode_t before_;
};

using DefaultVolume = test::CacheTest;
using PrepareCacheFolder = test::CacheTest;
using CleanCacheFolder = test::CacheTest;

TEST_F(DefaultVolume, IsTheConfiguredPathWithoutTheRootInFront) {
  configure("[Other]\ndefVolMP = /wrong\n[SHARE_DEF]\ndefVolMP = /share/CACHEDEV1_DATA\n");
  EXPECT_EQ(defaultVolume(), "/share/CACHEDEV1_DATA");
  EXPECT_EQ(cacheFolder("/share/CACHEDEV1_DATA"), "/share/CACHEDEV1_DATA/.fs");
}

TEST_F(DefaultVolume, IsReadAnewEachTime) {
  EXPECT_EQ(defaultVolume(), volume());
  configure("[SHARE_DEF]\ndefVolMP = /elsewhere\n");
  EXPECT_EQ(defaultVolume(), "/elsewhere");
}

TEST_F(DefaultVolume, IsCutToItsBuffer) {
  configure("[SHARE_DEF]\ndefVolMP = /" + std::string(5000, 'v') + "\n");
  EXPECT_EQ(defaultVolume(), "/" + std::string(4094, 'v'));
}

TEST_F(DefaultVolume, IsMissedWithAWarning) {
  std::string found = "unset";
  configure("[SHARE_DEF]\nother = /x\n");
  EXPECT_EQ(logged([&] { found = defaultVolume(); }), no_volume_line);
  EXPECT_EQ(found, "");
  configure("[SHARE_DEF]\ndefVolMP =\n");
  EXPECT_EQ(logged([&] { found = defaultVolume(); }), no_volume_line);
  configureNothing();
  EXPECT_EQ(logged([&] { found = defaultVolume(); }), no_volume_line);
  log_level = 4;
  EXPECT_EQ(logged([&] { found = defaultVolume(); }), no_volume_line);
  log_level = 3;
  EXPECT_EQ(logged([&] { found = defaultVolume(); }), "");
}

TEST_F(PrepareCacheFolder, MakesAFolderOpenToEveryoneWhateverTheUmask) {
  std::filesystem::remove(folder());
  const ScopedUmask narrow(0077);
  EXPECT_EQ(logged(prepareCacheFolder), "");
  EXPECT_EQ(modeOf(folder()), 0777U);
}

TEST_F(PrepareCacheFolder, OpensUpAnExistingFolderAndKeepsItsFiles) {
  touch(file(1));
  ::chmod(folder().c_str(), 0700);
  EXPECT_EQ(logged(prepareCacheFolder), "");
  EXPECT_EQ(modeOf(folder()), 0777U);
  EXPECT_TRUE(exists(file(1)));
}

TEST_F(PrepareCacheFolder, DoesNotOpenUpWhatAPlantedLinkNames) {
  const test::TempDir target;
  std::filesystem::remove(folder());
  std::filesystem::create_directory_symlink(target.path(), folder());
  EXPECT_EQ(logged(prepareCacheFolder), "");
  EXPECT_EQ(modeOf(target.path()), 0700U);
}

TEST_F(PrepareCacheFolder, IgnoresAVolumeThatIsNotThere) {
  configure("[SHARE_DEF]\ndefVolMP = " + volume() + "/missing\n");
  EXPECT_EQ(logged(prepareCacheFolder), "");
  EXPECT_FALSE(exists(volume() + "/missing"));
}

TEST_F(PrepareCacheFolder, OnlyWarnsWithoutADefaultVolume) {
  configureNothing();
  EXPECT_EQ(logged(prepareCacheFolder), no_volume_line);
  EXPECT_FALSE(exists("/.fs"));
}

TEST_F(CleanCacheFolder, RemovesTheFilesOfUnknownSessionsAndKeepsThoseOfLiveOnes) {
  const test::ScopedSession live("live");
  for (const char *name : {"deadbeef.3", "abc", "live.1", "live.2-journal.x", "live", "liv.1", "alive.1", "a b.1",
                           ".hidden", "..live.1", "dead.live", "ends."}) {
    touch(folder() + "/" + name);
  }
  EXPECT_EQ(logged(cleanCacheFolder), "");
  std::vector<std::string> left;
  for (const auto &found : std::filesystem::directory_iterator(folder())) {
    left.push_back(found.path().filename().string());
  }
  EXPECT_THAT(left, testing::UnorderedElementsAre("live.1", "live.2-journal.x", "live", ".hidden", "..live.1"));
}

TEST_F(CleanCacheFolder, ChecksAnExpiredSessionAsGone) {
  test::write_below_root("var/run/dirwell/sessions/old", "user = root\nexpires = 1\n");
  touch(folder() + "/old.1");
  cleanCacheFolder();
  EXPECT_FALSE(exists(folder() + "/old.1"));
  ::unlink((test::private_root() + "/var/run/dirwell/sessions/old").c_str());
}

TEST_F(CleanCacheFolder, LogsEachRemovalAboveLevelSix) {
  log_level = 7;
  touch(folder() + "/deadbeef.3");
  EXPECT_EQ(logged(cleanCacheFolder),
            "STAMP [D] dirwell(PID): (cache:LINE) [cache] remove " + folder() + "/deadbeef.3\n");
  touch(folder() + "/deadbeef.3");
  log_level = 6;
  EXPECT_EQ(logged(cleanCacheFolder), "");
  EXPECT_FALSE(exists(folder() + "/deadbeef.3"));
}

TEST_F(CleanCacheFolder, LeavesFoldersAndTheTargetsOfLinksAlone) {
  const test::TempDir elsewhere;
  const std::string target = elsewhere.write("target");
  std::filesystem::create_directory(folder() + "/dead.1");
  std::filesystem::create_symlink(target, folder() + "/dead.2");
  EXPECT_EQ(logged(cleanCacheFolder), "");
  EXPECT_TRUE(exists(folder() + "/dead.1"));
  EXPECT_FALSE(exists(folder() + "/dead.2"));
  EXPECT_TRUE(exists(target));
}

TEST_F(CleanCacheFolder, DoesNotFollowALinkInTheFoldersPlace) {
  const test::TempDir elsewhere;
  const std::string victim = elsewhere.write("deadbeef.1");
  std::filesystem::remove(folder());
  std::filesystem::create_directory_symlink(elsewhere.path(), folder());
  EXPECT_EQ(logged(cleanCacheFolder), "");
  EXPECT_TRUE(exists(victim));
}

TEST_F(CleanCacheFolder, HasNothingToDoWithoutAFolder) {
  std::filesystem::remove(folder());
  EXPECT_EQ(logged(cleanCacheFolder), "");
  touch(folder());
  EXPECT_EQ(logged(cleanCacheFolder), "");
  EXPECT_TRUE(exists(folder()));
}

TEST_F(CleanCacheFolder, OnlyWarnsWithoutADefaultVolume) {
  touch(folder() + "/deadbeef.3");
  configureNothing();
  EXPECT_EQ(logged(cleanCacheFolder), no_volume_line);
  log_level = 3;
  EXPECT_EQ(logged(cleanCacheFolder), "");
  EXPECT_TRUE(exists(folder() + "/deadbeef.3"));
}

}  // namespace
}  // namespace dirwell
