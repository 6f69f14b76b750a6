#include "describe/cache_state.h"

#include <unistd.h>

#include "describe_support.h"
#include "service/log.h"
#include "support/environment.h"

namespace dirwell::test {
namespace {

using ::testing::IsEmpty;
using ::testing::MatchesRegex;

class LevelGuard {
 public:
  explicit LevelGuard(std::int32_t level) : before_(log_level) { log_level = level; }
  ~LevelGuard() { log_level = before_; }
  LevelGuard(const LevelGuard &) = delete;
  LevelGuard &operator=(const LevelGuard &) = delete;

 private:
  std::int32_t before_;
};

std::string encryptedReply(const std::string &folder, int status) {
  return R"({"data":{"encrypted_folder":")" + folder + R"(","status":)" + std::to_string(status) + "}}";
}

TEST(ReadCacheState, GathersTheProbesOfAFile) {
  const ScopedTool tool(mount_tool, "", "");
  const PlacedDir folder;
  const std::string root = folder.mkdir("mount-of-twenty-char");
  const std::string file = folder.write("mount-of-twenty-char/f");
  setAttribute(root, "user.cm.global_error", R"({"status":4031})");
  setAttribute(root, "trusted.cm.failed_files_count", "12");
  setAttribute(file, "user.cm.meta_status",
               R"({"state":"uploading","status_code":2000,"priority":"low","upload_progress":42.9})");
  const CacheState cache = readCacheState(file, false);
  EXPECT_EQ(cache.fileStatus, 5);
  EXPECT_EQ(cache.priority, 3);
  EXPECT_EQ(cache.uploadProgress, 42);
  EXPECT_EQ(cache.rootStatus, 4031);
  EXPECT_EQ(cache.failedCount, 12);
  EXPECT_EQ(cache.folderIsEncrypted, 0);
  EXPECT_EQ(cache.folderIsLocked, 0);
  EXPECT_THAT(tool.runs(), IsEmpty());  // only folders are looked up
}

TEST(ReadCacheState, ShowsTheAttributesStateAndPriorityNotTheDerivedOnes) {
  const PlacedDir folder;
  const std::string file = folder.write("f");
  setAttribute(file, "user.cm.meta_status",
               R"({"state":"full-cached","status_code":10000,"priority":"pin","dirtiness":"dirty"})");
  EXPECT_EQ(readCacheState(file, false).fileStatus, 2);
  EXPECT_EQ(readCacheState(file, false).priority, 1);
  setAttribute(file, "user.cm.meta_status", R"({"state":"error","error_type":"upload-error","status_code":500})");
  EXPECT_EQ(readCacheState(file, false).fileStatus, 6);
}

TEST(ReadCacheState, ShowsAnEncryptedFolderForTheFolderItselfAlone) {
  const PlacedDir folder;
  const std::string path = folder.mkdir("Docs");
  const struct {
    std::string reported;
    int status;
    int encrypted;
    int locked;
  } rows[] = {
      {path, 1, 1, 0},       {path, 0, 1, 1},          {path, -2, 1, -2},
      {path + "/", 0, 0, 0}, {folder.path(), 0, 0, 0}, {path + "/inner", 0, 0, 0},
      {"", 0, 0, 0},
  };
  for (const auto &row : rows) {
    const ScopedTool tool(mount_tool, encryptedReply(row.reported, row.status), "");
    const CacheState cache = readCacheState(path, true);
    EXPECT_EQ(cache.folderIsEncrypted, row.encrypted) << row.reported;
    EXPECT_EQ(cache.folderIsLocked, row.locked) << row.reported;
    EXPECT_EQ(tool.runs().size(), 1U);
  }
}

TEST(ReadCacheState, LogsWhenTheFileStatusCannotBeAskedFor) {
  const struct {
    const char *zone;
    std::string offset;
  } rows[] = {{"XXX5:30", "-0530"}, {"XXX-8", "\\+0800"}, {"UTC0", "-0000"}};
  for (const auto &row : rows) {
    const ScopedEnvironment zone("TZ", row.zone);
    CacheState cache;
    const std::string line = captured_stderr([&cache] { cache = readCacheState("", true); });
    EXPECT_THAT(line, MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}" + row.offset +
                                   " \\[E\\] dirwell\\(" + std::to_string(::getpid()) +
                                   "\\): \\[describe-test\\] get cache mount file status error\n"));
    EXPECT_EQ(cache.fileStatus, 0);
    EXPECT_EQ(cache.priority, 0);
    EXPECT_EQ(cache.uploadProgress, 0);
    EXPECT_EQ(cache.rootStatus, -1);
    EXPECT_EQ(cache.failedCount, -1);
  }
}

TEST(ReadCacheState, LogsFromLevelThreeOn) {
  const auto read = [] { readCacheState("", false); };
  {
    const LevelGuard level(2);
    EXPECT_EQ(captured_stderr(read), "");
  }
  const LevelGuard level(3);
  EXPECT_NE(captured_stderr(read), "");
}

TEST(ReadCacheState, SaysNothingWhereThereIsNothingToTell) {
  const PlacedDir folder;
  const std::string file = folder.write("f");
  EXPECT_EQ(captured_stderr([&file] { readCacheState(file, false); }), "");
}

}  // namespace
}  // namespace dirwell::test
