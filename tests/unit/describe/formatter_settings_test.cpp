// The machine-wide settings that stand beside every listing.
#include "describe/formatter.h"
#include "describe_support.h"

namespace dirwell::test {
namespace {

constexpr const char *machine = "etc/config/host-platform.conf";
constexpr const char *application = "var/.application.conf";

std::string settings() {
  const std::shared_ptr<Formatter> formatter = std::make_shared<LegacyFormatter>();
  return dumped(settingsOf(*formatter));
}

TEST(FormatSettings, WritesSevenIntegersInTheirOrder) {
  EXPECT_EQ(settings(), R"({"has_h265":0,"medialib":1,"rtt_support":0,"medialib_enable":0,"is_acl_enable":0,)"
                        R"("is_winacl_enable":0,"is_winacl_support":0})");
}

TEST(FormatSettings, AddsToTheMembersThatAreThere) {
  LegacyFormatter formatter;
  const JsonRef object(json_pack("{si}", "total", 3));
  formatter.formatSettings(object.get());
  EXPECT_EQ(keysOf(object), (std::vector<std::string>{"total", "has_h265", "medialib", "rtt_support", "medialib_enable",
                                                      "is_acl_enable", "is_winacl_enable", "is_winacl_support"}));
}

TEST(FormatSettings, ShowsEachSwitchOfTheMachine) {
  const struct {
    std::string content;
    const char *key;
  } rows[] = {
      {"[MEDIA]\nrealtime_transcoding = 1\n", "rtt_support"},
      {"[MEDIA]\nlibrary = 1\n", "medialib_enable"},
      {"[ACL]\nenable = 1\n", "is_acl_enable"},
      {"[ACL]\nrich = 1\n", "is_acl_enable"},
      {"[ACL]\nenable = 1\nrich = 1\n", "is_acl_enable"},
      {"[ACL]\nwin_enable = 1\n", "is_winacl_enable"},
      {"[ACL]\nwin_support = 1\n", "is_winacl_support"},
  };
  const char *const keys[] = {"has_h265",      "rtt_support",      "medialib_enable",
                              "is_acl_enable", "is_winacl_enable", "is_winacl_support"};
  for (const auto &row : rows) {
    const ScopedConfig config(machine, row.content);
    LegacyFormatter formatter;
    const JsonRef object = settingsOf(formatter);
    for (const char *key : keys) {
      EXPECT_EQ(integerOf(object, key), std::string(key) == row.key ? 1 : 0) << row.content << key;
    }
    EXPECT_EQ(integerOf(object, "medialib"), 1);
  }
}

TEST(FormatSettings, TakesTheMediaLibraryForThereUnlessItIsDisabled) {
  const struct {
    std::string content;
    int medialib;
  } rows[] = {
      {"[DISABLE]\nmediaLibrary = 1\n", 0},
      {"[DISABLE]\nmediaLibrary = 0\n", 1},
      {"[DISABLE]\nmediaLibrary = 7\n", 0},
      {"[DISABLE]\nmediaLibrary = -1\n", 0},
      {"[DISABLE]\nother = 1\n", 1},
      {"[OTHER]\nmediaLibrary = 1\n", 1},
      {"", 1},
  };
  for (const auto &row : rows) {
    const ScopedConfig config(application, row.content);
    LegacyFormatter formatter;
    EXPECT_EQ(integerOf(settingsOf(formatter), "medialib"), row.medialib) << row.content;
  }
}

TEST(FormatSettings, RemembersThatAnEntryWasH265) {
  const PlacedDir folder;
  folder.write("clip.mkv");
  folder.write("note.txt");
  LegacyFormatter formatter;
  EXPECT_EQ(integerOf(settingsOf(formatter), "has_h265"), 0);
  {
    const ScopedTool tool(ffmpeg, "", "Video: h264 (High)");
    described(formatter, entryOf(folder.path(), "clip.mkv"));
  }
  EXPECT_EQ(integerOf(settingsOf(formatter), "has_h265"), 0);
  {
    const ScopedTool tool(ffmpeg, "", "Video: hevc (Main)");
    described(formatter, entryOf(folder.path(), "clip.mkv"));
  }
  EXPECT_EQ(integerOf(settingsOf(formatter), "has_h265"), 1);
  described(formatter, entryOf(folder.path(), "note.txt"));
  {
    const ScopedTool tool(ffmpeg, "", "Video: h264 (High)");
    described(formatter, entryOf(folder.path(), "clip.mkv"));
  }
  EXPECT_EQ(integerOf(settingsOf(formatter), "has_h265"), 1);
  LegacyFormatter another;
  EXPECT_EQ(integerOf(settingsOf(another), "has_h265"), 0);
}

TEST(FormatSettings, AddsNothingForAFormatterThatHasNone) {
  class Plain final : public Formatter {
   public:
    json_t *format(const ResourceEntry & /*entry*/) override { return json_object(); }
  };
  Plain formatter;
  EXPECT_EQ(dumped(settingsOf(formatter)), "{}");
}

}  // namespace
}  // namespace dirwell::test
