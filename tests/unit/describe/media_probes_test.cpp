#include "describe/media_probes.h"

#include "describe_support.h"

namespace dirwell::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char *tag = "user.marker_fs";

ResourceEntry named(const std::string &directory, std::string_view name) {
  return ResourceEntry::fromName(directory, "", name, "/Pub");
}

TEST(ProbeH265, RunsTheVideoToolOnTheFullPathOnce) {
  const ScopedTool tool(ffmpeg, "", "  Stream #0:0: Video: hevc (Main), yuv420p\n");
  EXPECT_EQ(probeH265(ResourceEntry::fromName("/data", "/sub dir", "a 'b'.mkv", "/Pub")), 1);
  EXPECT_THAT(tool.runs(), ElementsAre(ElementsAre("-hide_banner", "-i", "/data/sub dir/a 'b'.mkv")));
}

TEST(ProbeH265, LooksForTheCodecNameBetweenItsMarks) {
  const struct {
    std::string text;
    int answer;
  } rows[] = {
      {"Stream #0:0(und): Video: hevc (Main) (hvc1 / 0x31637668), yuv420p(tv)\n", 1},
      {"Stream #0:0: Video: hevc, yuv420p, 1920x1080\n", 1},
      {": hevc (", 1},
      {": hevc,", 1},
      {"Stream #0:0: Video: h264 (High), yuv420p\n", 0},
      {"Stream #0:0: Video: hevc\n", 0},
      {"Stream #0:0: Video:hevc (Main)\n", 0},
      {"Stream #0:0: Video: HEVC (Main)\n", 0},
      {"Input #0, matroska, from 'hevc (copy).mkv'\n", 0},
      {"a: h264,\nb: hevc,\n", 1},
      {"", 0},
  };
  for (const auto &row : rows) {
    const ScopedTool tool(ffmpeg, "", row.text);
    EXPECT_EQ(probeH265(named("/data", "a.mp4")), row.answer) << row.text;
  }
}

TEST(ProbeH265, ReadsTheErrorStreamAlone) {
  const ScopedTool tool(ffmpeg, ": hevc (", "nothing");
  EXPECT_EQ(probeH265(named("/data", "a.mp4")), 0);
  EXPECT_EQ(tool.runs().size(), 1U);
}

TEST(ProbeH265, NeverHandsAnIsoToTheTool) {
  const ScopedTool tool(ffmpeg, "", ": hevc (");
  EXPECT_EQ(probeH265(named("/data", "disc.iso")), 0);
  EXPECT_THAT(tool.runs(), IsEmpty());
  EXPECT_EQ(probeH265(named("/data", "disc.ISO")), 1);  // the letter case counts
  EXPECT_EQ(tool.runs().size(), 1U);
}

TEST(QueryMediaProjection, AsksTheDatabaseToolForTheFullPath) {
  const ScopedTool tool(media_database, "", R"(<media><media-info projection-type="1" id="7"/></media>)");
  EXPECT_EQ(queryMediaProjection(ResourceEntry::fromName("/data", "/sub", "a b.jpg", "/Pub")), 1);
  EXPECT_THAT(tool.runs(), ElementsAre(ElementsAre("getMediaInfo", "/data/sub/a b.jpg")));
}

TEST(QueryMediaProjection, AnswersByTheProjectionTypeOfTheRecord) {
  const struct {
    std::string text;
    int answer;
  } rows[] = {
      {R"(<media-info projection-type="1">)", 1},
      {R"({"record":"<media-info projection-type=\"1\">"})", 1},
      {R"(<media-info projection-type="0">)", -1},
      {R"(<media-info projection-type="11">)", -1},
      {R"(<media-info id="3" projection-type="1">)", -1},
      {R"(<media-info projection-type='1'>)", -1},
      {"not found", -1},
      {"", -1},
  };
  for (const auto &row : rows) {
    const ScopedTool tool(media_database, "", row.text);
    EXPECT_EQ(queryMediaProjection(named("/data", "a.jpg")), row.answer) << row.text;
  }
}

TEST(QueryMediaProjection, ReadsTheErrorStreamAlone) {
  const ScopedTool tool(media_database, R"(<media-info projection-type="1")", "");
  EXPECT_EQ(queryMediaProjection(named("/data", "a.jpg")), -1);
}

TEST(QueryMediaProjection, IsNegativeWithoutTheTool) {
  EXPECT_EQ(queryMediaProjection(named("/data", "a.jpg")), -1);
}

TEST(WriteProjectionTag, StoresTheValueAsDecimalTextWithoutTerminator) {
  const PlacedDir folder;
  const std::string file = folder.write("a.jpg");
  EXPECT_EQ(writeProjectionTag(named(folder.path(), "a.jpg"), 2), 0);
  EXPECT_EQ(attributeOf(file, tag), "2");
  EXPECT_EQ(writeProjectionTag(named(folder.path(), "a.jpg"), 0), 0);
  EXPECT_EQ(attributeOf(file, tag), "0");
  EXPECT_EQ(writeProjectionTag(named(folder.path(), "a.jpg"), -12), 0);
  EXPECT_EQ(attributeOf(file, tag), "-12");
}

TEST(WriteProjectionTag, FailsForAnEmptyPathAndAMissingFile) {
  const PlacedDir folder;
  EXPECT_EQ(writeProjectionTag(ResourceEntry(), 2), -1);
  EXPECT_EQ(writeProjectionTag(named(folder.path(), "none.jpg"), 2), -1);
}

TEST(ProbeProjection, ReadsTheSecondBitOfTheTag) {
  const ScopedTool tool(media_database, "", R"(<media-info projection-type="1")");
  const ShareDir share;
  const std::string file = share->write("a.jpg");
  const struct {
    std::string value;
    int answer;
  } rows[] = {
      {"2", 1},
      {"3", 1},
      {"6", 1},
      {"7", 1},
      {"1", 0},
      {"0", 0},
      {"4", 0},
      {"12", 0},
      {"14", 1},
      {"-2", 1},
      {" 2", 1},
      {"2x", 1},
      {"x2", 0},
      {"4294967298", 1},
      {"99999999999999999999999", 1},
      {std::string("\0002", 2), 0},
      {"2" + std::string(127, ' '), 1},
      {"", -1},
  };
  for (const auto &row : rows) {
    setAttribute(file, tag, row.value);
    EXPECT_EQ(probeProjection(named(share->path(), "a.jpg")), row.answer) << row.value;
    EXPECT_EQ(attributeOf(file, tag), row.value);
  }
  EXPECT_THAT(tool.runs(), IsEmpty());
}

TEST(ProbeProjection, AsksTheDatabaseOncePerFileAndKnowsTheAnswerFromTheSecondTimeOn) {
  const ScopedTool tool(media_database, "", R"(<media-info projection-type="1")");
  const ShareDir share;
  const std::string file = share->write("a.jpg");
  EXPECT_EQ(probeProjection(named(share->path(), "a.jpg")), 0);
  EXPECT_EQ(attributeOf(file, tag), "2");
  EXPECT_EQ(probeProjection(named(share->path(), "a.jpg")), 1);
  EXPECT_EQ(probeProjection(named(share->path(), "a.jpg")), 1);
  EXPECT_THAT(tool.runs(), ElementsAre(ElementsAre("getMediaInfo", file)));
}

TEST(ProbeProjection, RemembersThatAFileIsNotProjected) {
  const ScopedTool tool(media_database, "", "not found");
  const ShareDir share;
  const std::string file = share->write("a.jpg");
  EXPECT_EQ(probeProjection(named(share->path(), "a.jpg")), 0);
  EXPECT_EQ(attributeOf(file, tag), "0");
  EXPECT_EQ(probeProjection(named(share->path(), "a.jpg")), 0);
  EXPECT_EQ(tool.runs().size(), 1U);
}

TEST(ProbeProjection, TakesATagThatIsTooLongForNone) {
  const ScopedTool tool(media_database, "", R"(<media-info projection-type="1")");
  const ShareDir share;
  const std::string file = share->write("a.jpg");
  setAttribute(file, tag, "1" + std::string(128, ' '));
  EXPECT_EQ(probeProjection(named(share->path(), "a.jpg")), 0);
  EXPECT_EQ(attributeOf(file, tag), "2");
  EXPECT_EQ(tool.runs().size(), 1U);
}

TEST(ProbeProjection, AsksAgainWhereTheTagCannotBeWritten) {
  const ScopedTool tool(media_database, "", R"(<media-info projection-type="1")");
  const ShareDir share;
  EXPECT_EQ(probeProjection(named(share->path(), "none.jpg")), 0);
  EXPECT_EQ(probeProjection(named(share->path(), "none.jpg")), 0);
  EXPECT_EQ(tool.runs().size(), 2U);
}

TEST(ProbeProjection, NeitherReadsNorWritesTagsOutsideShares) {
  const ScopedTool tool(media_database, "", R"(<media-info projection-type="1")");
  const PlacedDir folder;
  const std::string tagged = folder.write("a.jpg");
  setAttribute(tagged, tag, "2");
  const std::string untagged = folder.write("b.jpg");
  EXPECT_EQ(probeProjection(named(folder.path(), "a.jpg")), 0);
  EXPECT_EQ(probeProjection(named(folder.path(), "b.jpg")), 0);
  EXPECT_EQ(probeProjection(named("/shared", "b.jpg")), 0);
  EXPECT_EQ(probeProjection(named("//share", "b.jpg")), 0);
  EXPECT_EQ(probeProjection(ResourceEntry()), 0);
  EXPECT_EQ(attributeOf(untagged, tag), "(none)");
  EXPECT_THAT(tool.runs(), IsEmpty());
}

TEST(HasThumbnail, LooksForMediaAndDocumentsAlone) {
  const PlacedDir folder;
  const std::vector<std::string> with{"a.jpg", "A.JPG", "a.mp3", "a.mkv", "a.pdf", "a.docx", "a.xls", "a.ppt", "a.eml"};
  const std::vector<std::string> without{"a.txt", "a", ".jpg", "a.", "jpg"};
  for (const auto &name : with) {
    EXPECT_EQ(hasThumbnail(named(folder.path(), name)), 0) << name << " before";
    folder.write(".@__thumb/s100" + name);
    EXPECT_EQ(hasThumbnail(named(folder.path(), name)), 1) << name;
  }
  for (const auto &name : without) {
    folder.write(".@__thumb/s100" + name);
    EXPECT_EQ(hasThumbnail(named(folder.path(), name)), 0) << name;
  }
}

TEST(HasThumbnail, LooksInTheListedDirectoryForEntriesBelowIt) {
  const PlacedDir folder;
  folder.write("sub/.@__thumb/s100a.jpg");
  const ResourceEntry entry = ResourceEntry::fromName(folder.path(), "/sub", "a.jpg", "/Pub");
  EXPECT_EQ(hasThumbnail(entry), 0);
  folder.write(".@__thumb/s100a.jpg");
  EXPECT_EQ(hasThumbnail(entry), 1);
}

TEST(HasThumbnail, FollowsLinksAndTakesADanglingOneForNone) {
  const PlacedDir folder;
  folder.write("target");
  folder.link(".@__thumb/s100a.jpg", "../target");
  folder.link(".@__thumb/s100b.jpg", "../none");
  EXPECT_EQ(hasThumbnail(named(folder.path(), "a.jpg")), 1);
  EXPECT_EQ(hasThumbnail(named(folder.path(), "b.jpg")), 0);
}

TEST(HasThumbnail, NeverCountsForADirectory) {
  const PlacedDir folder;
  folder.mkdir("photos.jpg");
  folder.write(".@__thumb/s100photos.jpg");
  EXPECT_EQ(hasThumbnail(entryOf(folder.path(), "photos.jpg")), 0);
}

}  // namespace
}  // namespace dirwell::test
