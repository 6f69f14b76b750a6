#include "listing/type_table.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

namespace dirwell {
namespace {

struct Row {
  std::uint32_t media_class;
  const char *extension;
  const char *mime_type;
};

const Row rows[] = {
    {1, "ogg", "audio/ogg"},
    {1, "aac", "audio/x-aac"},
    {1, "aif", "audio/x-aiff"},
    {1, "aiff", "audio/x-aiff"},
    {1, "dff", "audio/x-dff"},
    {1, "dsf", "audio/x-dsf"},
    {1, "flac", "audio/x-flac"},
    {1, "m4a", "audio/x-m4a"},
    {1, "m4b", "audio/x-m4b"},
    {1, "m4r", "audio/x-m4r"},
    {1, "mka", "audio/x-matroska"},
    {1, "ape", "audio/x-monkeys-audio"},
    {1, "wma", "audio/x-ms-wma"},
    {1, "ra", "audio/x-pn-realaudio"},
    {1, "wav", "audio/x-wav"},
    {1, "wv", "audio/x-wavpack"},
    {1, "mp3", "audio/mpeg"},
    {1, "mpa", "audio/mpeg"},
    {1, "au", "audio/basic"},
    {2, "3gp", "video/3gp"},
    {2, "bdmv", "video/bluray"},
    {2, "divx", "video/divx"},
    {2, "ifo", "video/dvd"},
    {2, "iso", "video/iso"},
    {2, "insv", "video/mp4"},
    {2, "m4v", "video/mp4"},
    {2, "mp4", "video/mp4"},
    {2, "rmp4", "video/mp4"},
    {2, "m1v", "video/mpeg"},
    {2, "m2t", "video/mpeg"},
    {2, "m2ts", "video/mpeg"},
    {2, "m2v", "video/mpeg"},
    {2, "mod", "video/mpeg"},
    {2, "mpeg", "video/mpeg"},
    {2, "mpg", "video/mpeg"},
    {2, "mts", "video/mpeg"},
    {2, "tod", "video/mpeg"},
    {2, "tp", "video/mpeg"},
    {2, "trp", "video/mpeg"},
    {2, "ts", "video/mpeg"},
    {2, "mov", "video/quicktime"},
    {2, "rm", "video/vnd.rn-realvideo"},
    {2, "rmvb", "video/vnd.rn-realvideo"},
    {2, "webm", "video/webm"},
    {2, "f4v", "video/x-f4v"},
    {2, "flv", "video/x-flv"},
    {2, "mkv", "video/x-matroska"},
    {2, "mp2v", "video/x-mpeg2"},
    {2, "mpv2", "video/x-mpeg2"},
    {2, "asf", "video/x-ms-asf"},
    {2, "wmv", "video/x-ms-wmv"},
    {2, "avi", "video/x-msvideo"},
    {4, "3fr", "image/3fr"},
    {4, "bmp", "image/bmp"},
    {4, "dcr", "image/dcr"},
    {4, "dng", "image/dng"},
    {4, "erf", "image/erf"},
    {4, "gif", "image/gif"},
    {4, "heic", "image/heic"},
    {4, "heif", "image/heif"},
    {4, "jpeg", "image/jpeg"},
    {4, "iiq", "image/jpeg"},
    {4, "insp", "image/jpeg"},
    {4, "jpe", "image/jpeg"},
    {4, "jpg", "image/jpeg"},
    {4, "k25", "image/k25"},
    {4, "kdc", "image/kdc"},
    {4, "mef", "image/mef"},
    {4, "mos", "image/mos"},
    {4, "mrw", "image/mrw"},
    {4, "nef", "image/nef"},
    {4, "orf", "image/orf"},
    {4, "pef", "image/pef"},
    {4, "png", "image/png"},
    {4, "ptx", "image/ptx"},
    {4, "raf", "image/raf"},
    {4, "raw", "image/raw"},
    {4, "rw2", "image/rw2"},
    {4, "arw", "image/sony"},
    {4, "sr2", "image/sony"},
    {4, "srf", "image/srf"},
    {4, "tiff", "image/tiff"},
    {4, "tif", "image/tiff"},
    {4, "webp", "image/webp"},
    {4, "cr2", "image/x-canon-cr2"},
    {4, "crw", "image/x-canon-crw"},
    {4, "tga", "image/x-tga"},
    {4, "x3f", "image/x3f"},
    {4, "hif", "image/heif"},
    {8, "pdf", "application/pdf"},
    {16, "doc", "application/msword"},
    {16, "docx", "application/vnd.openxmlformats-officedocument.wordprocessingml.document"},
    {16, "docm", "application/vnd.ms-word.document.macroEnabled.12"},
    {16, "dotx", "application/vnd.openxmlformats-officedocument.wordprocessingml.template"},
    {16, "dotm", "application/vnd.ms-word.template.macroEnabled.12"},
    {16, "dot", "application/msword"},
    {32, "xls", "application/vnd.ms-excel"},
    {32, "xlsx", "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet"},
    {32, "xlsm", "application/vnd.ms-excel.sheet.macroEnabled.12"},
    {32, "xlt", "application/vnd.ms-excel"},
    {32, "xltx", "application/vnd.openxmlformats-officedocument.spreadsheetml.template"},
    {32, "xltm", "application/vnd.ms-excel.template.macroEnabled.12"},
    {32, "xlam", "application/vnd.ms-excel.addin.macroEnabled.12"},
    {64, "ppt", "application/vnd.ms-powerpoint"},
    {64, "pptx", "application/vnd.openxmlformats-officedocument.presentationml.presentation"},
    {64, "pptm", "application/vnd.ms-powerpoint.presentation.macroEnabled.12"},
    {64, "potx", "application/vnd.openxmlformats-officedocument.presentationml.template"},
    {64, "potm", "application/vnd.ms-powerpoint.template.macroEnabled.12"},
    {64, "ppam", "application/vnd.ms-powerpoint.addin.macroenabled.12"},
    {64, "ppsx", "application/vnd.openxmlformats-officedocument.presentationml.slideshow"},
    {64, "ppsm", "application/vnd.ms-powerpoint.slideshow.macroEnabled.12"},
    {64, "pot", "application/mspowerpoint"},
    {64, "pps", "application/vnd.ms-powerpoint"},
    {64, "rtf", "application/rtf"},
    {128, "eml", "message/rfc822"},
};

class TypeTable : public testing::Test {
 protected:
  static void SetUpTestSuite() { buildTypeIndex(); }
};

TEST_F(TypeTable, HoldsEveryRow) {
  EXPECT_EQ(std::size(rows), 115U);
  for (const Row &row : rows) {
    const TypeRow *found = findType(row.extension);
    ASSERT_NE(found, nullptr) << row.extension;
    EXPECT_EQ(found->mediaClass, row.media_class) << row.extension;
    EXPECT_EQ(found->extension, row.extension);
    EXPECT_EQ(found->mimeType, row.mime_type) << row.extension;
  }
}

TEST_F(TypeTable, CountsItsRowsByClass) {
  std::map<std::uint32_t, int> counts;
  for (const Row &row : rows) {
    const TypeRow *found = findType(row.extension);
    ASSERT_NE(found, nullptr) << row.extension;
    ++counts[found->mediaClass];
  }
  EXPECT_EQ(counts,
            (std::map<std::uint32_t, int>{{1, 19}, {2, 33}, {4, 37}, {8, 1}, {16, 6}, {32, 7}, {64, 11}, {128, 1}}));
}

TEST_F(TypeTable, BuildingTheIndexAgainChangesNothing) {
  const TypeRow *before = findType("mp3");
  buildTypeIndex();
  EXPECT_NE(before, nullptr);
  EXPECT_EQ(findType("mp3"), before);
}

TEST_F(TypeTable, FoldsTheLetterCaseOfWhatIsAsked) {
  EXPECT_TRUE(mediaClassEquals("MP3", 1));
  EXPECT_TRUE(mediaClassEquals("mP3", 1));
  EXPECT_TRUE(mediaClassIn("DocX", 248));
  EXPECT_TRUE(mediaClassEquals("3GP", 2));
  EXPECT_EQ(findType("RMVB"), findType("rmvb"));
}

TEST_F(TypeTable, KnowsNeitherTheEmptyExtensionNorOthers) {
  for (const std::string extension :
       {"", "txt", "mp", "mp33", "mp3 ", ".mp3", "jpegs", "documents", "é", "\xFF", "m\xC3"}) {
    EXPECT_EQ(findType(extension), nullptr) << extension;
    EXPECT_FALSE(mediaClassEquals(extension, 1)) << extension;
    EXPECT_FALSE(mediaClassEquals(extension, 0)) << extension;
    EXPECT_FALSE(mediaClassIn(extension, 0xFFFFFFFFU)) << extension;
    EXPECT_FALSE(isMediaExtension(extension)) << extension;
    EXPECT_FALSE(isDocumentExtension(extension)) << extension;
  }
  using namespace std::string_view_literals;
  EXPECT_EQ(findType("mp3\0"sv), nullptr);
}

TEST_F(TypeTable, EqualsIsNoMask) {
  EXPECT_FALSE(mediaClassEquals("mp3", 3));
  EXPECT_FALSE(mediaClassEquals("mp3", 0));
  EXPECT_FALSE(mediaClassEquals("mp3", 256));
  EXPECT_FALSE(mediaClassEquals("jpg", 7));
}

TEST_F(TypeTable, InIsAMask) {
  EXPECT_TRUE(mediaClassIn("docx", 248));
  EXPECT_TRUE(mediaClassIn("jpg", 7));
  EXPECT_TRUE(mediaClassIn("jpg", 4));
  EXPECT_FALSE(mediaClassIn("jpg", 3));
  EXPECT_FALSE(mediaClassIn("jpg", 248));
  EXPECT_FALSE(mediaClassIn("jpg", 0));
  EXPECT_FALSE(mediaClassIn("docx", 7));
}

TEST_F(TypeTable, TellsMediaFromDocuments) {
  for (const char *extension : {"mp3", "mkv", "hif", "TS"}) {
    EXPECT_TRUE(isMediaExtension(extension)) << extension;
    EXPECT_FALSE(isDocumentExtension(extension)) << extension;
  }
  for (const char *extension : {"pdf", "dot", "xlam", "rtf", "EML"}) {
    EXPECT_TRUE(isDocumentExtension(extension)) << extension;
    EXPECT_FALSE(isMediaExtension(extension)) << extension;
  }
}

TEST_F(TypeTable, PutsLookalikesWhereTheyBelong) {
  EXPECT_TRUE(mediaClassEquals("ts", 2));
  EXPECT_TRUE(mediaClassEquals("mts", 2));
  EXPECT_TRUE(mediaClassEquals("m4a", 1));
  EXPECT_TRUE(mediaClassEquals("m4v", 2));
  EXPECT_TRUE(mediaClassEquals("iso", 2));
  EXPECT_TRUE(mediaClassEquals("ifo", 2));
}

}  // namespace
}  // namespace dirwell
