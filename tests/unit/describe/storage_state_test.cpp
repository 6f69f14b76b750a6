#include "describe/storage_state.h"

#include "describe_support.h"

namespace dirwell::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char *file_state = "user.cm.meta_status";
constexpr const char *root_state = "user.cm.global_error";
constexpr const char *failed_count = "trusted.cm.failed_files_count";

// --- Files -------------------------------------------------------------------------------------------------------

class FileStatusOf {
 public:
  explicit FileStatusOf(std::string_view attribute, bool isFolder = false) {
    const PlacedDir folder;
    setAttribute(folder.write("f"), file_state, attribute);
    result = readFileStatus(entryOf(folder.path(), "f"), isFolder, record);
  }
  const FileStatus *operator->() const { return &record; }

  FileStatus record;
  int result = -99;
};

TEST(ReadFileStatus, KnowsEveryState) {
  const struct {
    std::string text;
    int code;
  } rows[] = {{"non-cached", 1}, {"full-cached", 2},        {"partial-cached", 3}, {"downloading", 4}, {"uploading", 5},
              {"error", 6},      {"wait-for-uploading", 9}, {"ignored", 10},       {"nospace", 11},    {"", -1},
              {"Error", -1},     {"full-cached ", -1},      {"anything", -1}};
  for (const auto &row : rows) {
    const FileStatusOf status(R"({"state":")" + row.text + R"("})");
    EXPECT_EQ(status.result, 0);
    EXPECT_EQ(status->state, row.code) << row.text;
    EXPECT_EQ(status->stateText, row.text);
  }
}

TEST(ReadFileStatus, KnowsEveryDirtiness) {
  const struct {
    std::string text;
    int code;
  } rows[] = {{"clean", 1}, {"dirty", 2}, {"error", 3}, {"", -1}, {"Dirty", -1}, {"odd", -1}};
  for (const auto &row : rows) {
    const FileStatusOf status(R"({"dirtiness":")" + row.text + R"("})");
    EXPECT_EQ(status->dirtiness, row.code) << row.text;
    EXPECT_EQ(status->dirtinessText, row.text);
  }
}

TEST(ReadFileStatus, TakesEveryUnknownPriorityForNormal) {
  const struct {
    std::string text;
    int code;
  } rows[] = {{"pin", 1}, {"normal", 2}, {"low", 3}, {"", 2}, {"Pin", 2}, {"urgent", 2}};
  for (const auto &row : rows) {
    const FileStatusOf status(R"({"priority":")" + row.text + R"("})");
    EXPECT_EQ(status->priority, row.code) << row.text;
    EXPECT_EQ(status->priorityText, row.text);
  }
}

TEST(ReadFileStatus, KeepsTheTextsAndNumbers) {
  const FileStatusOf status(
      R"({"msg":"quota é","error_type":"upload-error","status_code":507,"upload_progress":12.5,"state":"error"})");
  EXPECT_EQ(status->message, "quota é");
  EXPECT_EQ(status->errorType, "upload-error");
  EXPECT_EQ(status->statusCode, 507);
  EXPECT_FLOAT_EQ(status->uploadProgress, 12.5F);
  EXPECT_EQ(status->uploadPercent, 0);  // not uploading
}

void expectUntouched(const FileStatusOf &status, std::string_view what) {
  EXPECT_EQ(status.result, 0) << what;
  EXPECT_EQ(status->statusCode, 0) << what;
  EXPECT_EQ(status->state, 0) << what;
  EXPECT_EQ(status->dirtiness, 0) << what;
  EXPECT_EQ(status->priority, 0) << what;
  EXPECT_EQ(status->uploadProgress, 0.0F) << what;
  EXPECT_EQ(status->stateText + status->dirtinessText + status->errorType + status->priorityText + status->message, "")
      << what;
  EXPECT_EQ(status->derivedStatus, 0) << what;
  EXPECT_EQ(status->derivedPriority, 0) << what;
  EXPECT_EQ(status->uploadPercent, 0) << what;
}

TEST(ReadFileStatus, LeavesTheRecordAloneForWhatIsNotAnObjectOfTheRightTypes) {
  const std::string padding(1000, ' ');
  const std::string values[] = {
      "",
      "{",
      "state",
      "[]",
      "[{\"state\":\"error\"}]",
      "\"error\"",
      "{}",
      R"({"state":6,"dirtiness":2,"priority":1,"upload_progress":42,"status_code":"2000","error_type":7,"msg":null})",
      R"({"state":null,"status_code":5.0,"upload_progress":"42.5"})",
      R"({"state":"error","status_code":500} x)",
      "{\"state\":\"\xFF\"}",
      R"({"state":"error","status_code":1e999})",
      R"({"state":"error","upload_progress":1e999})",
      R"({"state":"error","status_code":99999999999999999999})",
      R"({"state":"error","priority":"pin"})" + padding,
  };
  for (const auto &value : values) {
    expectUntouched(FileStatusOf(value), value);
    expectUntouched(FileStatusOf(value, true), value);
  }
}

TEST(ReadFileStatus, TakesAnAttributeOfTheWholeBufferAndNotOneMore) {
  const std::string text = R"({"state":"error"})";
  EXPECT_EQ(FileStatusOf(text + std::string(1024 - text.size(), ' '))->state, 6);
  EXPECT_EQ(FileStatusOf(text + std::string(1025 - text.size(), ' '))->state, 0);
}

TEST(ReadFileStatus, EndsTheTextAtANul) {
  EXPECT_EQ(FileStatusOf(std::string(R"({"state":"error"})") + '\0' + "garbage")->state, 6);
}

TEST(ReadFileStatus, IsZeroWithoutTheAttributeOrTheFile) {
  const PlacedDir folder;
  folder.write("f");
  FileStatus record;
  EXPECT_EQ(readFileStatus(entryOf(folder.path(), "f"), false, record), 0);
  EXPECT_EQ(record.state, 0);
  EXPECT_EQ(readFileStatus(ResourceEntry::fromName(folder.path(), "", "none", "/Pub"), false, record), 0);
  EXPECT_EQ(record.state, 0);
}

TEST(ReadFileStatus, RefusesAnEmptyPath) {
  FileStatus record;
  EXPECT_EQ(readFileStatus(ResourceEntry(), false, record), -1);
}

TEST(ReadFileStatus, DerivesOneStatusFromStateAndStatusCode) {
  const struct {
    std::string members;
    int derived;
  } rows[] = {
      // The account error goes before everything.
      {R"("status_code":4031)", 6},
      {R"("status_code":4031,"state":"nospace")", 6},
      {R"("status_code":4031,"state":"error","error_type":"upload-error")", 6},
      // Two states count whatever the code is.
      {R"("state":"ignored")", 10},
      {R"("state":"ignored","status_code":2000)", 10},
      {R"("state":"ignored","status_code":500,"error_type":"upload-error")", 10},
      {R"("state":"nospace")", 11},
      {R"("state":"nospace","status_code":10000)", 11},
      // Sound files show their state.
      {R"("state":"non-cached","status_code":2000)", 1},
      {R"("state":"full-cached","status_code":2000)", 2},
      {R"("state":"partial-cached","status_code":2000)", 3},
      {R"("state":"downloading","status_code":2000)", 4},
      {R"("state":"uploading","status_code":2000)", 5},
      {R"("state":"wait-for-uploading","status_code":2000)", 9},
      {R"("state":"non-cached","status_code":10000)", 1},
      {R"("state":"full-cached","status_code":10000)", 2},
      {R"("state":"partial-cached","status_code":10000)", 3},
      {R"("state":"downloading","status_code":10000)", 4},
      {R"("state":"uploading","status_code":10000)", 5},
      {R"("state":"wait-for-uploading","status_code":10000)", 9},
      {R"("state":"odd","status_code":2000)", 0},
      {R"("status_code":10000)", 0},
      {R"("status_code":2000,"error_type":"upload-error")", 0},
      // All else goes by the kind of error, then by the code.
      {R"("state":"error","error_type":"download-error","status_code":500)", 7},
      {R"("state":"error","error_type":"upload-error","status_code":500)", 8},
      {R"("state":"error","status_code":500)", 500},
      {R"("state":"error","error_type":"odd","status_code":500)", 500},
      {R"("state":"error","status_code":2000)", 2000},
      {R"("state":"error","error_type":"upload-error","status_code":2000)", 8},
      {R"("state":"error","error_type":"download-error","status_code":10000)", 7},
      {R"("state":"uploading","status_code":503)", 503},
      {R"("state":"uploading","status_code":503,"error_type":"download-error")", 7},
      {R"("state":"uploading")", 0},
      {R"("state":"uploading","status_code":-7)", -7},
      {R"("error_type":"upload-error")", 8},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(FileStatusOf("{" + row.members + "}")->derivedStatus, row.derived) << row.members;
  }
}

TEST(ReadFileStatus, DerivesThePriority) {
  const struct {
    std::string members;
    bool isFolder;
    int derived;
  } rows[] = {
      {R"("state":"full-cached","status_code":2000,"priority":"pin","dirtiness":"clean")", false, 1},
      {R"("state":"full-cached","status_code":2000,"priority":"pin","dirtiness":"error")", false, 1},
      {R"("state":"full-cached","status_code":2000,"priority":"pin","dirtiness":"dirty")", false, 2},
      {R"("state":"full-cached","status_code":10000,"priority":"pin","dirtiness":"clean")", false, 2},
      {R"("state":"full-cached","status_code":2000,"priority":"low")", true, 3},
      {R"("state":"error","status_code":2,"priority":"low")", false, 3},  // a status code of 2 counts as well
      {R"("state":"uploading","status_code":2000,"priority":"low")", false, 3},
      {R"("state":"uploading","status_code":2000,"priority":"pin")", true, 1},
      {R"("state":"downloading","status_code":2000,"priority":"pin")", false, 0},
      {R"("state":"downloading","status_code":2000,"priority":"pin")", true, 1},
      {R"("state":"nospace","priority":"low")", false, 0},
      {R"("state":"nospace","priority":"low")", true, 3},
      {R"("state":"ignored","priority":"low")", true, 0},
      {R"("state":"non-cached","status_code":2000,"priority":"low")", true, 0},
      {R"("state":"partial-cached","status_code":2000,"priority":"low")", true, 0},
      {R"("state":"wait-for-uploading","status_code":2000,"priority":"low")", true, 0},
      {R"("status_code":4031,"priority":"low")", true, 0},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(FileStatusOf("{" + row.members + "}", row.isFolder)->derivedPriority, row.derived)
        << row.members << (row.isFolder ? " folder" : "");
  }
}

TEST(ReadFileStatus, TruncatesTheProgressWhileUploading) {
  const struct {
    std::string progress;
    int percent;
  } rows[] = {
      {"42.9", 42},
      {"42", 0},
      {"0.99", 0},
      {"-3.7", -3},
      {"100.0", 100},
      {"99.99999999", 100},  // the nearest 32-bit real is 100
      {"3e9", 2147483647},
      {"-3e9", -2147483647 - 1},
      {"1e300", 2147483647},
      {"-1e300", -2147483647 - 1},
      {"2147483647.0", 2147483647},
      {"-2147483648.0", -2147483647 - 1},
      {"1e-300", 0},
  };
  for (const auto &row : rows) {
    const FileStatusOf status(R"({"state":"uploading","status_code":2000,"upload_progress":)" + row.progress + "}");
    EXPECT_EQ(status->uploadPercent, row.percent) << row.progress;
  }
  EXPECT_EQ(FileStatusOf(R"({"state":"uploading","status_code":10000,"upload_progress":7.5})")->uploadPercent, 7);
  EXPECT_EQ(FileStatusOf(R"({"state":"downloading","status_code":2000,"upload_progress":7.5})")->uploadPercent, 0);
  EXPECT_EQ(FileStatusOf(R"({"state":"uploading","status_code":500,"upload_progress":7.5})")->uploadPercent, 0);
}

// --- Mount roots -------------------------------------------------------------------------------------------------

// "/tmp/dw-XXXXXX/" are 15 bytes, so that 20 more place the next slash at byte 35.
constexpr const char *twenty = "mount-of-twenty-char";
constexpr const char *nineteen = "mount-of-nineteench";

TEST(ReadRootStatus, Is2000WithoutTheAttribute) {
  const PlacedDir folder;
  folder.mkdir(std::string(twenty) + "/a");
  EXPECT_EQ(readRootStatus(ResourceEntry::fromName(folder.path() + "/" + twenty, "/a", "b", "/Pub")), 2000);
}

TEST(ReadRootStatus, GivesTheNumberOrMinusOne) {
  const PlacedDir folder;
  const std::string root = folder.mkdir(twenty);
  const struct {
    std::string value;
    int status;
  } rows[] = {
      {R"({"status":4031})", 4031},
      {R"({"status":-5,"x":1})", -5},
      {R"({"status":0})", 0},
      {R"({"status":"4031"})", -1},
      {R"({"status":4.5})", -1},
      {R"({"status":true})", -1},
      {R"({})", -1},
      {"[4031]", -1},
      {"4031", -1},
      {"", -1},
      {R"({"status":4031)", -1},
      {R"({"status":4031})" + std::string(497, ' '), 4031},  // 512 bytes
      {R"({"status":4031})" + std::string(498, ' '), -1},    // one too many
      {std::string(R"({"status":4031})") + '\0' + "x", 4031},
  };
  for (const auto &row : rows) {
    setAttribute(root, root_state, row.value);
    EXPECT_EQ(readRootStatus(ResourceEntry::fromName(root, "/a", "b", "/Pub")), row.status) << row.value;
  }
}

TEST(ReadRootStatus, IsMinusOneForAMissingRootAndAnEmptyPath) {
  const PlacedDir folder;
  EXPECT_EQ(readRootStatus(ResourceEntry::fromName(folder.path() + "/" + twenty, "", "b", "/Pub")), -1);
  EXPECT_EQ(readRootStatus(ResourceEntry()), -1);
}

TEST(ReadRootStatus, CutsTheRootAtTheFirstSlashFromByte35On) {
  const PlacedDir folder;
  setAttribute(folder.mkdir(twenty), root_state, R"({"status":35})");
  setAttribute(folder.mkdir(std::string(twenty) + "/deep"), root_state, R"({"status":40})");
  setAttribute(folder.mkdir(nineteen), root_state, R"({"status":34})");
  setAttribute(folder.mkdir(std::string(nineteen) + "/deep"), root_state, R"({"status":39})");
  EXPECT_EQ(readRootStatus(folder.path() + "/" + twenty + "/deep/f"), 35);
  EXPECT_EQ(readRootStatus(folder.path() + "/" + twenty + "/deep"), 35);
  EXPECT_EQ(readRootStatus(folder.path() + "/" + twenty), 35);
  EXPECT_EQ(readRootStatus(folder.path() + "/" + nineteen + "/deep/f"), 39);
  EXPECT_EQ(readRootStatus(folder.path() + "/" + nineteen + "/deep"), 39);
  EXPECT_EQ(readRootStatus(folder.path() + "/" + nineteen), 34);
}

TEST(ReadRootStatus, TakesAPathShorterThan35BytesWhole) {
  const PlacedDir folder;
  setAttribute(folder.path(), root_state, R"({"status":1})");
  setAttribute(folder.write("a/b"), root_state, R"({"status":3})");
  setAttribute(folder.path() + "/a", root_state, R"({"status":2})");
  EXPECT_EQ(readRootStatus(folder.path() + "/a/b"), 3);
  EXPECT_EQ(readRootStatus(folder.path() + "/a"), 2);
}

TEST(ReadRootStatus, CountsTheByteOfTheCutAsCharacters) {
  const PlacedDir folder;
  // The slash stands at byte 36, and 36 characters are 38 bytes here, so that the cut takes "/x" in.
  const std::string root = folder.mkdir("éémount-of-twentyca");
  ASSERT_EQ(root.size(), 36U);
  folder.mkdir("éémount-of-twentyca/x");
  setAttribute(root, root_state, R"({"status":1})");
  setAttribute(root + "/x", root_state, R"({"status":2})");
  EXPECT_EQ(readRootStatus(root + "/x/file"), 2);
}

TEST(ReadRootStatus, CannotCutAPathThatHoldsAByteThatStartsNoCharacter) {
  const PlacedDir folder;
  const std::string root = folder.mkdir("mount-of-twenty-ch\xFF!");
  setAttribute(root, root_state, R"({"status":1})");
  EXPECT_EQ(readRootStatus(root + "/x/file"), -1);
  // Behind the cut the byte does no harm.
  const std::string sound = folder.mkdir(twenty);
  setAttribute(sound, root_state, R"({"status":1})");
  EXPECT_EQ(readRootStatus(sound + "/\xFF/file"), 1);
}

TEST(ReadFailedCount, GivesTheNumberOfTheRoot) {
  const PlacedDir folder;
  const std::string root = folder.mkdir(twenty);
  const ResourceEntry entry = ResourceEntry::fromName(root, "/a", "b", "/Pub");
  EXPECT_EQ(readFailedCount(entry), 0);  // missing
  const struct {
    std::string value;
    int count;
  } rows[] = {
      {"17", 17},
      {" 5 files", 5},
      {"-3", -3},
      {"", 0},
      {"many", 0},
      {"2147483647", 2147483647},
      {"4294967301", 5},                // the low 32 bits are kept
      {"99999999999999999999999", -1},  // of the largest 64-bit number
      {"7" + std::string(511, ' '), 7},
      {"7" + std::string(512, ' '), 0},
      {std::string("7\00012", 4), 7},
  };
  for (const auto &row : rows) {
    setAttribute(root, failed_count, row.value);
    EXPECT_EQ(readFailedCount(entry), row.count) << row.value;
  }
}

TEST(ReadFailedCount, FallsBackForMissingRootsAndEmptyPaths) {
  EXPECT_EQ(readFailedCount(std::string("/tmp/no-such-folder-in-this-place/at/all")), 0);
  EXPECT_EQ(readFailedCount(ResourceEntry()), -1);
}

// --- Encrypted folders -------------------------------------------------------------------------------------------

constexpr const char *sample_folder = "/share/external/.cm/17/uuid-5/Box/Docs";

TEST(ReadEncryptedFolderStatus, AsksTheMountToolWithTwoSegmentsOfThePath) {
  const struct {
    std::string path;
    std::string first;
    std::string second;
  } rows[] = {
      {sample_folder, "17", "uuid-5"},
      {"/share/external/.cm/17/uuid-5", "17", "uuid-5"},
      {"/share/external/.cm/17/uuid-5/", "17", "uuid-5"},
      {"/share/external/.cm/17/", "17", ""},
      {"/share/external/.cm/17", "17", ""},
      {"/share/external/.cm/", "", ""},
      {"/share/external/.cm", "", ""},
      {"/short", "", ""},
      {"/share/external/.cm//uuid-5/a", "", "uuid-5"},
      {"/share/external/.cm/17//a", "17", ""},
      {"/data/connections/a/../1/2", "..", "1"},
      {"/share/\xC3\xA9xternal/.cm/17/u/a", "", "17"},  // bytes are counted, not characters
  };
  for (const auto &row : rows) {
    const ScopedTool tool(mount_tool, "", "");
    EncryptedFolder record;
    EXPECT_EQ(readEncryptedFolderStatus(row.path, record), -1);
    EXPECT_THAT(tool.runs(), ElementsAre(ElementsAre("--func", "get_encrypted_folder_runtime_status", row.first,
                                                     "--uuid", row.second)))
        << row.path;
  }
}

TEST(ReadEncryptedFolderStatus, TellsTheLockStates) {
  const struct {
    std::string status;
    int lock;
  } rows[] = {{"1", 0}, {"0", 1}, {"2", 1}, {"-1", 1}, {"-2", -2}, {"4294967297", 1}, {"4294967294", 1}};
  for (const auto &row : rows) {
    const ScopedTool tool(mount_tool, R"({"data":{"status":)" + row.status + R"(,"encrypted_folder":"/a/b"}})", "");
    EncryptedFolder record;
    EXPECT_EQ(readEncryptedFolderStatus(ResourceEntry::fromName("/share/external/.cm/17/u", "", "a", "/Pub"), record),
              0);
    EXPECT_EQ(record.isEncrypted, 1);
    EXPECT_EQ(record.lockState, row.lock) << row.status;
    EXPECT_EQ(record.encryptedFolder, "/a/b");
  }
}

TEST(ReadEncryptedFolderStatus, FailsForAnyOtherAnswerAndLeavesTheRecordAlone) {
  const std::string answers[] = {
      "",
      "no",
      "{}",
      "[]",
      R"({"data":[]})",
      R"({"data":"x"})",
      R"({"data":{}})",
      R"({"data":{"status":1}})",
      R"({"data":{"encrypted_folder":"/a"}})",
      R"({"data":{"encrypted_folder":5,"status":1}})",
      R"({"data":{"encrypted_folder":"/a","status":"1"}})",
      R"({"data":{"encrypted_folder":"/a","status":1.0}})",
      R"({"data":{"encrypted_folder":"/a","status":true}})",
      R"({"status":1,"encrypted_folder":"/a"})",
      R"({"data":{"encrypted_folder":"/a","status":1})",
  };
  for (const auto &answer : answers) {
    const ScopedTool tool(mount_tool, answer, R"({"data":{"encrypted_folder":"/a","status":1}})");
    EncryptedFolder record;
    EXPECT_EQ(readEncryptedFolderStatus(std::string(sample_folder), record), -1) << answer;
    EXPECT_EQ(record.isEncrypted, 0) << answer;
    EXPECT_EQ(record.lockState, 0) << answer;
    EXPECT_EQ(record.encryptedFolder, "") << answer;
    EXPECT_EQ(tool.runs().size(), 1U);
  }
}

TEST(ReadEncryptedFolderStatus, FailsWithoutTheToolAndRunsNothingForAnEmptyPath) {
  EncryptedFolder record;
  EXPECT_EQ(readEncryptedFolderStatus(std::string(sample_folder), record), -1);
  const ScopedTool tool(mount_tool, R"({"data":{"encrypted_folder":"/a","status":1}})", "");
  EXPECT_EQ(readEncryptedFolderStatus(ResourceEntry(), record), -1);
  EXPECT_THAT(tool.runs(), IsEmpty());
}

// --- Links into the auto-tiering area ----------------------------------------------------------------------------

TEST(IsAutotierLink, KnowsTargetsBelowTheFirstLevelOfTheArea) {
  const PlacedDir folder;
  const std::string area = folder.path() + "/share/external/.autotier/";  // anywhere in the path will do
  folder.write("share/external/.autotier/tier/f");
  folder.mkdir("share/external/.autotier/tier/deep/er");
  folder.write("share/external/.autotier/file");
  folder.write("share/external/elsewhere/f");
  const struct {
    std::string target;
    int answer;
  } rows[] = {
      {area + "tier/f", 1},
      {area + "tier/deep", 1},
      {area + "tier/deep/er", 1},
      {area + "tier", 0},  // its folder is the area itself, without a slash at the end
      {area + "file", 0},
      {folder.path() + "/share/external/.autotier", 0},
      {folder.path() + "/share/external/elsewhere/f", 0},
      {"/", 0},
  };
  for (const auto &row : rows) {
    const PlacedDir links;
    links.link("l", row.target);
    EXPECT_EQ(isAutotierLink(entryOf(links.path(), "l")), row.answer) << row.target;
  }
}

TEST(IsAutotierLink, GoesByThePlaceThatAllLinksLeadTo) {
  const PlacedDir folder;
  folder.write("share/external/.autotier/tier/f");
  folder.write("plain/f");
  folder.link("hop", "share/external/.autotier/tier");
  folder.link("l", "hop/f");
  EXPECT_EQ(isAutotierLink(entryOf(folder.path(), "l")), 1);
  // A link that lies in the area and leads out of it.
  folder.link("share/external/.autotier/tier/out", folder.path() + "/plain/f");
  EXPECT_EQ(isAutotierLink(entryOf(folder.path() + "/share/external/.autotier/tier", "out")), 0);
}

TEST(IsAutotierLink, GoesByItsOwnPathWhenItLeadsNowhere) {
  const PlacedDir folder;
  folder.link("l", folder.path() + "/share/external/.autotier/tier/none");
  folder.link("share/external/.autotier/dangling", "none");
  EXPECT_EQ(isAutotierLink(entryOf(folder.path(), "l")), 0);
  EXPECT_EQ(isAutotierLink(entryOf(folder.path() + "/share/external/.autotier", "dangling")), 1);
  EXPECT_EQ(isAutotierLink(ResourceEntry()), 0);
}

TEST(IsAutotierLink, CountsTheByteOfTheCutAsCharacters) {
  // With one character of two bytes before it the cut lies one byte further: the folder's final slash is in.
  const PlacedDir folder;
  folder.mkdir("é/share/external/.autotier/tier");
  folder.link("l", folder.path() + "/é/share/external/.autotier/tier");
  EXPECT_EQ(isAutotierLink(entryOf(folder.path(), "l")), 1);
}

TEST(IsAutotierLink, IsNoneForATargetWithAByteThatStartsNoCharacter) {
  const PlacedDir folder;
  folder.write("\xFF/share/external/.autotier/tier/f");
  folder.link("l", folder.path() + "/\xFF/share/external/.autotier/tier/f");
  EXPECT_EQ(isAutotierLink(entryOf(folder.path(), "l")), 0);
}

}  // namespace
}  // namespace dirwell::test
