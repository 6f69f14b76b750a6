#include <string>
#include <vector>

#include "host_files.h"
#include "platform/include/strata_nas.h"

namespace {

using dirwell::test::put;

constexpr const char *platform_file = "/etc/config/host-platform.conf";

class Media : public testing::Test {
 protected:
  ~Media() override { dirwell::test::remove(platform_file); }
};

TEST_F(Media, HasEverythingOffWithoutConfiguration) {
  EXPECT_EQ(Is_MediaLib_Enabled(), 0);
  EXPECT_EQ(Is_Realtime_Transcoding_Support(), 0);
  EXPECT_EQ(MediaLib_Transcoding_CheckFile(2, "/a.mp4"), 0);
}

TEST_F(Media, AnswersEachSwitchByItsOwnKey) {
  put(platform_file, "[MEDIA]\nlibrary = 1\n");
  EXPECT_EQ(Is_MediaLib_Enabled(), 1);
  EXPECT_EQ(Is_Realtime_Transcoding_Support(), 0);
  put(platform_file, "[media]\nRealtime_Transcoding = 2\nlibrary = no\n");
  EXPECT_EQ(Is_MediaLib_Enabled(), 0);
  EXPECT_EQ(Is_Realtime_Transcoding_Support(), 1);
}

TEST_F(Media, MatchesTranscodedFilesByPattern) {
  put(platform_file, "[MEDIA]\ntranscoded = /share/Video/*.mkv::/exact:/one/?.avi:/case/*.[mM]p4\n");
  struct Row {
    const char *path;
    int known;
  };
  const std::vector<Row> rows = {
      {"/share/Video/a.mkv", 1},
      {"/share/Video/deep/.hidden/a.mkv", 1},  // '*' takes slashes and dots: no flags
      {"/share/Video/a.MKV", 0},
      {"/share/Video/a.mkv.part", 0},
      {"/exact", 1},
      {"/exact/x", 0},
      {"/one/1.avi", 1},
      {"/one/12.avi", 0},
      {"/case/a.Mp4", 1},
      {"/case/a.MP4", 0},
      {"", 0},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.path);
    EXPECT_EQ(MediaLib_Transcoding_CheckFile(2, row.path), row.known);
  }
  EXPECT_EQ(MediaLib_Transcoding_CheckFile(2, nullptr), 0);
}

TEST_F(Media, SeesAChangeOfThePatterns) {
  put(platform_file, "[MEDIA]\ntranscoded = /a\n");
  EXPECT_EQ(MediaLib_Transcoding_CheckFile(2, "/a"), 1);
  put(platform_file, "[MEDIA]\ntranscoded = /b\n");
  EXPECT_EQ(MediaLib_Transcoding_CheckFile(2, "/a"), 0);
  EXPECT_EQ(MediaLib_Transcoding_CheckFile(2, "/b"), 1);
  dirwell::test::remove(platform_file);
  EXPECT_EQ(MediaLib_Transcoding_CheckFile(2, "/b"), 0);
}

TEST_F(Media, KnowsTranscodedFilesOfWhateverKindIsAskedFor) {
  put(platform_file, "[MEDIA]\ntranscoded = /a/*\n");
  for (const int kind : {0, 1, 2, 3, -1, 1 << 30}) {
    EXPECT_EQ(MediaLib_Transcoding_CheckFile(kind, "/a/x"), 1) << kind;
    EXPECT_EQ(MediaLib_Transcoding_CheckFile(kind, "/b/x"), 0) << kind;
  }
}

}  // namespace
