// The media facts of a description: streams, transcoded copies, projections, thumbnails, audio copies.
#include "describe/formatter.h"
#include "describe_support.h"

namespace dirwell::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char *hevc = "Stream #0:0: Video: hevc (Main), yuv420p\n";
constexpr const char *projected = R"(<media-info projection-type="1")";
constexpr const char *copies = ".@__thumb/transcode/";

// --- H.265 -----------------------------------------------------------------------------------------------------------

TEST(LegacyFormatterH265, ProbesVideosOnNoShareAndOnOrdinaryShares) {
  const PlacedDir folder;
  folder.write("clip.MKV");
  const struct {
    int type;
    int answer;
  } rows[] = {{-1, 1}, {0, 1}, {1, 0}, {2, 0},  {3, 1},  {4, 1},  {5, 1}, {6, 1},
              {7, 1},  {8, 0}, {9, 1}, {10, 1}, {11, 1}, {12, 1}, {16, 1}};
  for (const auto &row : rows) {
    const ScopedShares shares({{folder.path(), row.type}});
    const ScopedTool tool(ffmpeg, "", hevc);
    EXPECT_EQ(integerOf(described(entryOf(folder.path(), "clip.MKV")), "is_h265"), row.answer) << row.type;
    EXPECT_EQ(tool.runs().size(), static_cast<std::size_t>(row.answer)) << row.type;
  }
  const ScopedTool tool(ffmpeg, "", hevc);
  EXPECT_EQ(integerOf(described(entryOf(folder.path(), "clip.MKV")), "is_h265"), 1);
  EXPECT_THAT(tool.runs(), ElementsAre(ElementsAre("-hide_banner", "-i", folder.path() + "/clip.MKV")));
}

TEST(LegacyFormatterH265, ProbesVideosAlone) {
  const PlacedDir folder;
  const ScopedTool tool(ffmpeg, "", hevc);
  folder.mkdir("folder.mkv");
  for (const char *name : {"a.mp3", "a.jpg", "a.txt", "mkv", ".mkv", "a.mkv.", "a.iso"}) {
    folder.write(name);
    EXPECT_EQ(integerOf(described(entryOf(folder.path(), name)), "is_h265"), 0) << name;
  }
  EXPECT_EQ(integerOf(described(entryOf(folder.path(), "folder.mkv")), "is_h265"), 0);
  EXPECT_THAT(tool.runs(), IsEmpty());
  for (const char *name : {"a.ts", "b.m4v", "c.Mp4"}) {
    folder.write(name);
    EXPECT_EQ(integerOf(described(entryOf(folder.path(), name)), "is_h265"), 1) << name;
  }
  EXPECT_EQ(tool.runs().size(), 3U);
}

TEST(LegacyFormatterH265, GivesTheToolTheWholePathOfAnEntryBelow) {
  const PlacedDir folder;
  folder.write("sub/clip.mkv");
  const ScopedTool tool(ffmpeg, "", "");
  described(entryBelow(folder.path(), "/sub", "clip.mkv"));
  EXPECT_THAT(tool.runs(), ElementsAre(ElementsAre("-hide_banner", "-i", folder.path() + "/sub/clip.mkv")));
}

// --- Transcoded copies -----------------------------------------------------------------------------------------------

struct CopyRow {
  const char *key;
  const char *suffix;
};
constexpr CopyRow copy_rows[] = {{"mp4_240", ".mobile240p"}, {"mp4_360", ".mobile360p"},   {"mp4_480", ".mobile480p"},
                                 {"mp4_720", ".ipad720p"},   {"mp4_1080", ".mobile1080p"}, {"mp4_org", ".original"}};

TEST(LegacyFormatterTranscodes, FindsEachCopyAlone) {
  const ScopedTool tool(ffmpeg, "", "");
  for (const CopyRow &present : copy_rows) {
    const PlacedDir folder;
    folder.write("clip.mkv");
    folder.write(std::string(copies) + "clip.mkv" + present.suffix);
    const JsonRef object = described(entryOf(folder.path(), "clip.mkv"));
    for (const CopyRow &row : copy_rows) {
      EXPECT_EQ(integerOf(object, row.key), row.key == present.key ? 1 : 0) << row.key << " of " << present.key;
    }
    EXPECT_EQ(integerOf(object, "trans"), 0);
  }
}

TEST(LegacyFormatterTranscodes, CountsAsTranscodedWithAllSixOrByTheMediaLibrary) {
  const ScopedTool tool(ffmpeg, "", "");
  const PlacedDir folder;
  folder.write("clip.mkv");
  const auto trans = [&folder] { return integerOf(described(entryOf(folder.path(), "clip.mkv")), "trans"); };
  for (const CopyRow &row : copy_rows) {
    EXPECT_EQ(trans(), 0) << "before " << row.key;
    folder.write(std::string(copies) + "clip.mkv" + row.suffix);
  }
  EXPECT_EQ(trans(), 1);

  ::remove((folder.path() + "/" + copies + "clip.mkv.ipad720p").c_str());
  EXPECT_EQ(trans(), 0);
  const ScopedConfig config("etc/config/host-platform.conf", "[MEDIA]\ntranscoded = " + folder.path() + "/clip.mkv\n");
  const JsonRef object = described(entryOf(folder.path(), "clip.mkv"));
  EXPECT_EQ(integerOf(object, "trans"), 1);
  EXPECT_EQ(integerOf(object, "mp4_720"), 0);
  EXPECT_EQ(integerOf(object, "mp4_org"), 1);
}

TEST(LegacyFormatterTranscodes, AskTheMediaLibraryByTheFullPath) {
  const ScopedTool tool(ffmpeg, "", "");
  const PlacedDir folder;
  folder.write("sub/clip.mkv");
  const auto trans = [&folder] { return integerOf(described(entryBelow(folder.path(), "/sub", "clip.mkv")), "trans"); };
  {
    const ScopedConfig config("etc/config/host-platform.conf",
                              "[MEDIA]\ntranscoded = " + folder.path() + "/clip.mkv\n");
    EXPECT_EQ(trans(), 0);
  }
  const ScopedConfig config("etc/config/host-platform.conf",
                            "[MEDIA]\ntranscoded = " + folder.path() + "/sub/clip.mkv\n");
  EXPECT_EQ(trans(), 1);
}

TEST(LegacyFormatterTranscodes, AreForVideosAlone) {
  const PlacedDir folder;
  const ScopedConfig config("etc/config/host-platform.conf", "[MEDIA]\ntranscoded = *\n");
  for (const char *name : {"song.mp3", "note", "photo.jpg"}) {
    folder.write(name);
    for (const CopyRow &row : copy_rows) {
      folder.write(std::string(copies) + name + row.suffix);
    }
    const JsonRef object = described(entryOf(folder.path(), name));
    for (const CopyRow &row : copy_rows) {
      EXPECT_EQ(integerOf(object, row.key), 0) << name;
    }
    EXPECT_EQ(integerOf(object, "trans"), 0) << name;
  }
}

TEST(LegacyFormatterTranscodes, StandBesideTheListedDirectoryAndBehindLinks) {
  const ScopedTool tool(ffmpeg, "", "");
  const PlacedDir folder;
  folder.write("sub/clip.mkv");
  folder.write(std::string("sub/") + copies + "clip.mkv.original");
  EXPECT_EQ(integerOf(described(entryBelow(folder.path(), "/sub", "clip.mkv")), "mp4_org"), 0);
  EXPECT_EQ(integerOf(described(entryOf(folder.path() + "/sub", "clip.mkv")), "mp4_org"), 1);
  folder.link(std::string(copies) + "clip.mkv.original", "../../sub/clip.mkv");
  folder.link(std::string(copies) + "clip.mkv.ipad720p", "none");
  const JsonRef object = described(entryBelow(folder.path(), "/sub", "clip.mkv"));
  EXPECT_EQ(integerOf(object, "mp4_org"), 1);
  EXPECT_EQ(integerOf(object, "mp4_720"), 0);
}

TEST(LegacyFormatterTranscodes, AreLookedForOnClosedShareTypesToo) {
  const PlacedDir folder;
  const ScopedShares shares({{folder.path(), 2}});
  folder.write("clip.mkv");
  folder.write(std::string(copies) + "clip.mkv.original");
  EXPECT_EQ(integerOf(described(entryOf(folder.path(), "clip.mkv")), "mp4_org"), 1);
}

TEST(LegacyFormatterAudio, FindsTheAudioCopyOfAnyEntryInTheListedDirectory) {
  const ScopedTool tool(ffmpeg, "", "");
  const PlacedDir folder;
  for (const std::string name : {"clip.mkv", "note.txt", "plain"}) {
    folder.write("sub/" + name);
    EXPECT_EQ(integerOf(described(entryBelow(folder.path(), "/sub", name)), "mp3"), 0) << name;
    folder.write("sub/Video2audio/" + name + ".mp3");
    EXPECT_EQ(integerOf(described(entryBelow(folder.path(), "/sub", name)), "mp3"), 0) << name;
    folder.write("Video2audio/" + name + ".mp3");
    EXPECT_EQ(integerOf(described(entryBelow(folder.path(), "/sub", name)), "mp3"), 1) << name;
  }
  folder.link("Video2audio/dangling.mp3", "none");
  folder.write("dangling");
  EXPECT_EQ(integerOf(described(entryOf(folder.path(), "dangling")), "mp3"), 0);
}

TEST(LegacyFormatterThumbnail, ShowsWhatTheProbeFinds) {
  const PlacedDir folder;
  for (const char *name : {"a.JPG", "a.pdf", "a.txt"}) {
    folder.write(name);
    folder.write(std::string(".@__thumb/s100") + name);
  }
  folder.write("b.png");
  EXPECT_EQ(integerOf(described(entryOf(folder.path(), "a.JPG")), "has_thumbnail"), 1);
  EXPECT_EQ(integerOf(described(entryOf(folder.path(), "a.pdf")), "has_thumbnail"), 1);
  EXPECT_EQ(integerOf(described(entryOf(folder.path(), "a.txt")), "has_thumbnail"), 0);
  EXPECT_EQ(integerOf(described(entryOf(folder.path(), "b.png")), "has_thumbnail"), 0);
}

// --- Projection ------------------------------------------------------------------------------------------------------

TEST(LegacyFormatterProjection, IsProbedForFourExtensionsInLowerCase) {
  const ShareDir share;
  const ScopedTool video(ffmpeg, "", "");
  const ScopedTool tool(media_database, "", projected);
  const struct {
    const char *name;
    int type;
  } rows[] = {{"a.jpeg", 1}, {"a.jpg", 1}, {"a.jpe", 1}, {"a.mp4", 1}, {"b.jpg.JPG", 0},
              {"a.JPEG", 0}, {"a.Mp4", 0}, {"a.png", 0}, {"a.mkv", 0}, {"jpg", 0}};
  for (const auto &row : rows) {
    setAttribute(share->write(row.name), "user.marker_fs", "2");
    EXPECT_EQ(integerOf(described(entryOf(share->path(), row.name)), "projection_type"), row.type) << row.name;
  }
  EXPECT_THAT(tool.runs(), IsEmpty());
}

TEST(LegacyFormatterProjection, IsCarriedToTheEntriesThatFollow) {
  const ShareDir share;
  setAttribute(share->write("round.jpg"), "user.marker_fs", "2");
  setAttribute(share->write("flat.jpg"), "user.marker_fs", "1");
  setAttribute(share->write("empty.jpg"), "user.marker_fs", "");
  share->write("note.txt");
  const std::shared_ptr<Formatter> formatter = std::make_shared<LegacyFormatter>();
  const auto type = [&](const char *name) {
    return integerOf(described(*formatter, entryOf(share->path(), name)), "projection_type");
  };
  EXPECT_EQ(type("note.txt"), 0);
  EXPECT_EQ(type("round.jpg"), 1);
  EXPECT_EQ(type("note.txt"), 1);
  EXPECT_EQ(type("note.txt"), 1);
  EXPECT_EQ(type("flat.jpg"), 0);
  EXPECT_EQ(type("note.txt"), 0);
  EXPECT_EQ(type("round.jpg"), 1);
  EXPECT_EQ(type("empty.jpg"), 0);  // the probe's -1
  EXPECT_EQ(type("note.txt"), 0);
}

TEST(LegacyFormatterProjection, ComesFromTheDatabaseWithTheSecondListing) {
  const ShareDir share;
  const ScopedTool tool(media_database, "", projected);
  share->write("sub/round.jpg");
  const ResourceEntry entry = entryBelow(share->path(), "/sub", "round.jpg");
  EXPECT_EQ(integerOf(described(entry), "projection_type"), 0);
  EXPECT_EQ(integerOf(described(entry), "projection_type"), 1);
  EXPECT_THAT(tool.runs(), ElementsAre(ElementsAre("getMediaInfo", share->path() + "/sub/round.jpg")));
}

TEST(LegacyFormatterProjection, IsNotLookedUpOutsideShares) {
  const PlacedDir folder;
  const ScopedTool tool(media_database, "", projected);
  setAttribute(folder.write("round.jpg"), "user.marker_fs", "2");
  EXPECT_EQ(integerOf(described(entryOf(folder.path(), "round.jpg")), "projection_type"), 0);
  EXPECT_THAT(tool.runs(), IsEmpty());
}

}  // namespace
}  // namespace dirwell::test
