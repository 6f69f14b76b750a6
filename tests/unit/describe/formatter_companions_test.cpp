// Thumbnails, transcoded copies and audio copies: what stands beside the entries of a listed directory.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "describe/formatter.h"
#include "describe_support.h"
#include "support/environment.h"

namespace dirwell::test {
namespace {

using ::testing::ElementsAre;

// The three answers that come from the companion folders of the listed directory.
std::vector<json_int_t> companionsOf(Formatter &formatter, const ResourceEntry &entry) {
  const JsonRef object = described(formatter, entry);
  return {integerOf(object, "has_thumbnail"), integerOf(object, "mp3"), integerOf(object, "mp4_720")};
}

std::vector<json_int_t> companionsOf(const ResourceEntry &entry) {
  const std::shared_ptr<Formatter> formatter = std::make_shared<LegacyFormatter>();
  return companionsOf(*formatter, entry);
}

// What belongs to "clip.mkv" in a folder's ".@__thumb" and "Video2audio".
void writeThumbnails(const PlacedDir &folder, const std::string &below = "") {
  folder.write(below + ".@__thumb/s100clip.mkv");
  folder.write(below + ".@__thumb/transcode/clip.mkv.ipad720p");
}
void writeAudio(const PlacedDir &folder, const std::string &below = "") {
  folder.write(below + "Video2audio/clip.mkv.mp3");
}

class CompanionFolders : public testing::Test {
 protected:
  CompanionFolders() { folder.write("clip.mkv"); }

  const ScopedTool tool{ffmpeg, "", ""};
  const PlacedDir folder;
};

TEST_F(CompanionFolders, ThatAreMissingHoldNothing) {
  EXPECT_THAT(companionsOf(entryOf(folder.path(), "clip.mkv")), ElementsAre(0, 0, 0));
  EXPECT_THAT(companionsOf(ResourceEntry::fromName(folder.path() + "/none", "", "clip.mkv", "/Pub")),
              ElementsAre(0, 0, 0));
}

TEST_F(CompanionFolders, AreFoundEachAlone) {
  writeAudio(folder);
  EXPECT_THAT(companionsOf(entryOf(folder.path(), "clip.mkv")), ElementsAre(0, 1, 0));
  const PlacedDir other;
  other.write("clip.mkv");
  writeThumbnails(other);
  EXPECT_THAT(companionsOf(entryOf(other.path(), "clip.mkv")), ElementsAre(1, 0, 1));
  writeAudio(other);
  EXPECT_THAT(companionsOf(entryOf(other.path(), "clip.mkv")), ElementsAre(1, 1, 1));
}

TEST_F(CompanionFolders, HoldNothingOfOtherEntries) {
  writeThumbnails(folder);
  writeAudio(folder);
  for (const char *name : {"clip.mp4", "Clip.mkv", "clip", "clip.mkv2"}) {
    folder.write(name);
    EXPECT_THAT(companionsOf(entryOf(folder.path(), name)), ElementsAre(0, 0, 0)) << name;
  }
}

TEST_F(CompanionFolders, ThatAreFilesHoldNothing) {
  folder.write(".@__thumb", "no folder");
  folder.write("Video2audio", "no folder");
  EXPECT_THAT(companionsOf(entryOf(folder.path(), "clip.mkv")), ElementsAre(0, 0, 0));
}

TEST_F(CompanionFolders, AreFollowedWhereTheyAreLinks) {
  writeThumbnails(folder, "elsewhere/");
  writeAudio(folder, "elsewhere/");
  folder.link(".@__thumb", "elsewhere/.@__thumb");
  folder.link("Video2audio", "elsewhere/Video2audio");
  EXPECT_THAT(companionsOf(entryOf(folder.path(), "clip.mkv")), ElementsAre(1, 1, 1));
  const PlacedDir dangling;
  dangling.write("clip.mkv");
  dangling.link(".@__thumb", "none");
  dangling.link("Video2audio", "Video2audio");
  EXPECT_THAT(companionsOf(entryOf(dangling.path(), "clip.mkv")), ElementsAre(0, 0, 0));
}

TEST_F(CompanionFolders, AreThoseOfEachDirectoryOfARequest) {
  for (const char *below : {"thumb/", "audio/", "both/", "none/"}) {
    folder.write(below + std::string("clip.mkv"));
  }
  writeThumbnails(folder, "thumb/");
  writeAudio(folder, "audio/");
  writeThumbnails(folder, "both/");
  writeAudio(folder, "both/");
  const std::shared_ptr<Formatter> formatter = std::make_shared<LegacyFormatter>();
  const auto in = [&](const std::string &directory) {
    return companionsOf(*formatter, entryOf(folder.path() + directory, "clip.mkv"));
  };
  for (int round = 0; round < 2; ++round) {
    EXPECT_THAT(in("/none"), ElementsAre(0, 0, 0));
    EXPECT_THAT(in("/thumb"), ElementsAre(1, 0, 1));
    EXPECT_THAT(in("/audio"), ElementsAre(0, 1, 0));
    EXPECT_THAT(in("/both"), ElementsAre(1, 1, 1));
    EXPECT_THAT(in(""), ElementsAre(0, 0, 0));
    EXPECT_THAT(in("/both/"), ElementsAre(1, 1, 1));
  }
}

TEST_F(CompanionFolders, OfTheListedDirectoryServeItsSubfolders) {
  folder.write("sub/clip.mkv");
  writeThumbnails(folder, "sub/");
  writeAudio(folder, "sub/");
  const std::shared_ptr<Formatter> formatter = std::make_shared<LegacyFormatter>();
  EXPECT_THAT(companionsOf(*formatter, entryBelow(folder.path(), "/sub", "clip.mkv")), ElementsAre(0, 0, 0));
  EXPECT_THAT(companionsOf(*formatter, entryOf(folder.path() + "/sub", "clip.mkv")), ElementsAre(1, 1, 1));
  writeThumbnails(folder);
  writeAudio(folder);
  EXPECT_THAT(companionsOf(entryBelow(folder.path(), "/sub", "clip.mkv")), ElementsAre(1, 1, 1));
  folder.write("plain/clip.mkv");
  EXPECT_THAT(companionsOf(entryBelow(folder.path(), "/plain", "clip.mkv")), ElementsAre(1, 1, 1));
}

TEST_F(CompanionFolders, OfADirectoryBehindALinkAreItsOwn) {
  writeThumbnails(folder);
  writeAudio(folder);
  const PlacedDir other;
  other.link("link", folder.path());
  other.link("twice", "link");
  const std::shared_ptr<Formatter> formatter = std::make_shared<LegacyFormatter>();
  EXPECT_THAT(companionsOf(*formatter, entryOf(other.path() + "/link", "clip.mkv")), ElementsAre(1, 1, 1));
  EXPECT_THAT(companionsOf(*formatter, entryOf(other.path() + "/twice", "clip.mkv")), ElementsAre(1, 1, 1));
  EXPECT_THAT(companionsOf(*formatter, ResourceEntry::fromName(other.path(), "", "clip.mkv", "/Pub")),
              ElementsAre(0, 0, 0));
}

TEST_F(CompanionFolders, AreLookedAtAnewByTheNextRequest) {
  EXPECT_THAT(companionsOf(entryOf(folder.path(), "clip.mkv")), ElementsAre(0, 0, 0));
  writeThumbnails(folder);
  writeAudio(folder);
  EXPECT_THAT(companionsOf(entryOf(folder.path(), "clip.mkv")), ElementsAre(1, 1, 1));
}

TEST_F(CompanionFolders, CountForTheEntriesAndNotForThemselves) {
  writeThumbnails(folder);
  writeAudio(folder);
  for (const char *name : {".@__thumb", "Video2audio"}) {
    const JsonRef object = described(entryOf(folder.path(), name));
    EXPECT_EQ(integerOf(object, "isfolder"), 1);
    EXPECT_EQ(integerOf(object, "has_thumbnail"), 0);
    EXPECT_EQ(integerOf(object, "mp3"), 0);
  }
}

TEST_F(CompanionFolders, MayBeClosedToTheCaller) {
  writeThumbnails(folder);
  writeAudio(folder);
  ::chmod(folder.path().c_str(), 0755);
  ::chmod((folder.path() + "/.@__thumb").c_str(), 0700);
  ::chmod((folder.path() + "/Video2audio").c_str(), 0755);
  const int status = in_child([this] {
    if (::setegid(65534) != 0 || ::seteuid(65534) != 0) {
      ::_exit(100);
    }
    ::_exit(companionsOf(entryOf(folder.path(), "clip.mkv")) == std::vector<json_int_t>{0, 1, 0} ? 0 : 1);
  });
  EXPECT_EQ(status, 0);
}

// The media library knows transcoded videos by itself.
TEST_F(CompanionFolders, AreNotAskedWhatTheMediaLibraryKnows) {
  const ScopedConfig config("etc/config/host-platform.conf", "[MEDIA]\ntranscoded = " + folder.path() + "/clip.mkv\n");
  const JsonRef without = described(entryOf(folder.path(), "clip.mkv"));
  EXPECT_EQ(integerOf(without, "trans"), 1);
  EXPECT_EQ(integerOf(without, "mp4_720"), 0);
  writeThumbnails(folder);
  const JsonRef with = described(entryOf(folder.path(), "clip.mkv"));
  EXPECT_EQ(integerOf(with, "trans"), 1);
  EXPECT_EQ(integerOf(with, "mp4_720"), 1);
  EXPECT_EQ(integerOf(with, "mp4_360"), 0);
}

}  // namespace
}  // namespace dirwell::test
