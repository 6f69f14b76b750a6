#include "describe/formatter.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdint>

#include "describe_support.h"
#include "support/environment.h"

namespace dirwell::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// A file whose status is made up: what only the status tells needs no file.
ResourceEntry withStatus(struct ::stat status, std::string_view name = "note.txt") {
  return ResourceEntry::fromStatus("/no/such/folder", name, status, "/Pub");
}

struct ::stat statusWith(mode_t mode, off_t size, time_t mtime) {
  struct ::stat status {};
  status.st_mode = mode;
  status.st_size = size;
  status.st_mtime = mtime;
  return status;
}

TEST(LegacyFormatter, WritesEveryKeyInItsPlace) {
  EXPECT_THAT(
      keysOf(described(withStatus(statusWith(S_IFREG | 0644, 1, 1)))),
      ElementsAre("filename", "filepath", "filesize", "isfolder", "group", "owner", "privilege", "mt", "epochmt",
                  "sticky_bit", "is_h265", "mp4_240", "mp4_360", "mp4_480", "mp4_720", "mp4_1080", "mp4_org", "mp3",
                  "play", "has_thumbnail", "acl", "trans", "randno", "projection_type", "encrypt_folder", "is_link",
                  "is_cached", "is_autotier", "cache_file_status", "cache_priority", "cache_upload_progress",
                  "cache_folder_is_encypted", "cache_folder_is_locked", "cache_root_status", "upload_failed_count"));
}

TEST(LegacyFormatter, WritesTheSnapshotKeysLast) {
  const ScopedConfig config("etc/config/host-platform.conf",
                            "[SNAPSHOT /no/such]\nvolume = 3\nid = 17\nmount = /mnt/snapshot/3/17\n");
  const JsonRef object =
      described(ResourceEntry::fromStatus("/no/such/folder", "a", statusWith(S_IFREG | 0644, 1, 1), "/snapshot:17"));
  const std::vector<std::string> keys = keysOf(object);
  ASSERT_EQ(keys.size(), 38U);
  EXPECT_THAT(std::vector(keys.begin() + 34, keys.end()),
              ElementsAre("upload_failed_count", "snapshot_id", "snapshot_vol_id", "snapshot_mount_path"));
}

TEST(LegacyFormatter, DescribesAnOrdinaryFile) {
  const ScopedEnvironment zone("TZ", "XXX-2");
  const PlacedDir folder;
  const std::string file = folder.write("note.txt", "hello");
  ::chmod(file.c_str(), 0644);
  ResourceEntry entry = entryOf(folder.path(), "note.txt");
  entry.stat.st_mtime = 1614834307;
  EXPECT_EQ(dumped(described(entry)),
            R"({"filename":"note.txt","filepath":"/Pub/note.txt","filesize":5,"isfolder":0,"group":"root",)"
            R"("owner":"root","privilege":"644","mt":"2021-03-04 07:05:07","epochmt":1614834307,"sticky_bit":0,)"
            R"("is_h265":0,"mp4_240":0,"mp4_360":0,"mp4_480":0,"mp4_720":0,"mp4_1080":0,"mp4_org":0,"mp3":0,"play":1,)"
            R"("has_thumbnail":0,"acl":6,"trans":0,"randno":"51614834307","projection_type":0,"encrypt_folder":0,)"
            R"("is_link":0,"is_cached":0,"is_autotier":0,"cache_file_status":0,"cache_priority":0,)"
            R"("cache_upload_progress":0,"cache_folder_is_encypted":0,"cache_folder_is_locked":0,)"
            R"("cache_root_status":0,"upload_failed_count":0})");
}

TEST(LegacyFormatter, DescribesAFolder) {
  const PlacedDir folder;
  ::chmod(folder.mkdir("Some folder.mkv").c_str(), 0750);
  ResourceEntry entry = entryOf(folder.path(), "Some folder.mkv");
  entry.stat.st_size = 4096;
  entry.stat.st_mtime = 5;
  const JsonRef object = described(entry);
  EXPECT_EQ(integerOf(object, "isfolder"), 1);
  EXPECT_EQ(integerOf(object, "is_link"), 0);
  EXPECT_EQ(integerOf(object, "filesize"), 4096);
  EXPECT_EQ(integerOf(object, "acl"), 7);
  EXPECT_EQ(textOf(object, "privilege"), "750");
  EXPECT_EQ(textOf(object, "randno"), "40965");
}

TEST(LegacyFormatter, HandsOverOneReference) {
  const std::shared_ptr<Formatter> formatter = std::make_shared<LegacyFormatter>();
  json_t *object = formatter->format(withStatus(statusWith(S_IFREG, 0, 0)));
  EXPECT_EQ(object->refcount, 1U);
  json_decref(object);
}

// --- Paths and texts -------------------------------------------------------------------------------------------------

TEST(LegacyFormatter, JoinsPathsWithAndWithoutASubPath) {
  const PlacedDir folder;
  folder.write("a.txt", "1");
  folder.write("sub/deep/a.txt", "333");
  const JsonRef top = described(entryOf(folder.path(), "a.txt", "/Pub"));
  EXPECT_EQ(textOf(top, "filepath"), "/Pub/a.txt");
  EXPECT_EQ(integerOf(top, "acl"), 6);
  const JsonRef below = described(entryBelow(folder.path(), "/sub/deep", "a.txt", "/Pub"));
  EXPECT_EQ(textOf(below, "filepath"), "/Pub/sub/deep/a.txt");
  EXPECT_EQ(textOf(below, "filename"), "a.txt");
  EXPECT_EQ(integerOf(below, "filesize"), 3);
  EXPECT_EQ(integerOf(below, "acl"), 6);
}

TEST(LegacyFormatter, PutsASlashInFrontOfEachPiece) {
  const auto path = [](const char *display, const char *subPath, const char *name) {
    return textOf(described(ResourceEntry::fromName("/no/such", subPath, name, display)), "filepath");
  };
  EXPECT_EQ(path("", "", "a"), "/a");
  EXPECT_EQ(path("Pub", "sub", "a"), "/Pub/sub/a");
  EXPECT_EQ(path("/Pub/", "/sub", "a"), "/Pub//sub/a");
  EXPECT_EQ(path("", "", ""), "");
}

TEST(LegacyFormatter, ReplacesIllFormedTextInTheReplyAlone) {
  const PlacedDir folder;
  const std::string name = "a\xFF\xC3.txt";
  folder.write(name, "1234");
  ASSERT_EQ(::symlink(name.c_str(), (folder.path() + "/l\xFE").c_str()), 0);
  const JsonRef file = described(entryOf(folder.path(), name, "/P\x80ub"));
  EXPECT_EQ(textOf(file, "filename"), "a\xEF\xBF\xBD\xEF\xBF\xBD.txt");
  EXPECT_EQ(textOf(file, "filepath"), "/P\xEF\xBF\xBDub/a\xEF\xBF\xBD\xEF\xBF\xBD.txt");
  EXPECT_EQ(integerOf(file, "acl"), 6);  // asked for the bytes that the folder has
  EXPECT_NE(dumped(file), "(invalid)");
  const JsonRef link = described(entryOf(folder.path(), "l\xFE"));
  EXPECT_EQ(integerOf(link, "filesize"), 4);
}

TEST(LegacyFormatter, KeepsOddNames) {
  const PlacedDir folder;
  for (const std::string name : {"a \"b\" \\ \n\t\x01", "äöü 日本 🎬", "-rf", "...", "%s%n"}) {
    folder.write(name);
    const JsonRef object = described(entryOf(folder.path(), name));
    EXPECT_EQ(textOf(object, "filename"), name);
    EXPECT_EQ(textOf(object, "filepath"), "/Pub/" + name);
  }
}

TEST(LegacyFormatter, PrintsThePermissionBitsAlone) {
  const struct {
    mode_t mode;
    const char *text;
  } rows[] = {{S_IFREG | 0755, "755"},  {S_IFREG | 0, "000"},     {S_IFREG | 07, "007"},
              {S_IFDIR | 01777, "777"}, {S_IFREG | 06040, "040"}, {S_IFLNK | 0777, "777"}};
  for (const auto &row : rows) {
    EXPECT_EQ(textOf(described(withStatus(statusWith(row.mode, 0, 0))), "privilege"), row.text);
  }
}

TEST(LegacyFormatter, PrintsTheModificationTimeOfTheLocalZone) {
  const struct {
    const char *zone;
    time_t seconds;
    const char *text;
  } rows[] = {
      {"UTC0", 1614834307, "2021-03-04 05:05:07"},
      {"XXX5:30", 1614834307, "2021-03-03 23:35:07"},
      {"XXX-9", 1614834307, "2021-03-04 14:05:07"},
      {"CET-1CEST,M3.5.0,M10.5.0/3", 1625097600, "2021-07-01 02:00:00"},  // daylight saving counts here
      {"UTC0", 0, "1970-01-01 00:00:00"},
      {"UTC0", -1, "1969-12-31 23:59:59"},
      {"UTC0", 253402300799, "9999-12-31 23:59:59"},
      {"UTC0", 253402300800, ""},  // a year of five digits does not fit
      {"UTC0", INT64_MAX, ""},
      {"UTC0", INT64_MIN, ""},
  };
  for (const auto &row : rows) {
    const ScopedEnvironment zone("TZ", row.zone);
    const JsonRef object = described(withStatus(statusWith(S_IFREG, 0, row.seconds)));
    EXPECT_EQ(textOf(object, "mt"), row.text) << row.seconds;
    EXPECT_EQ(integerOf(object, "epochmt"), row.seconds);
  }
}

TEST(LegacyFormatter, JoinsSizeAndTimeAsRandomNumber) {
  const struct {
    off_t size;
    time_t seconds;
    const char *text;
  } rows[] = {{1024, 1600000000, "10241600000000"},
              {0, 5, "05"},
              {0, 0, "00"},
              {7, -5, "7-5"},
              {INT64_MAX, INT64_MIN, "9223372036854775807-9223372036854775808"}};
  for (const auto &row : rows) {
    EXPECT_EQ(textOf(described(withStatus(statusWith(S_IFREG, row.size, row.seconds))), "randno"), row.text);
  }
}

TEST(LegacyFormatter, NamesOwnerAndGroup) {
  struct ::stat status = statusWith(S_IFREG, 0, 0);
  status.st_uid = 1;
  status.st_gid = 2;
  const JsonRef known = described(withStatus(status));
  EXPECT_EQ(textOf(known, "owner"), "daemon");
  EXPECT_EQ(textOf(known, "group"), "bin");
  status.st_uid = 3999999999;
  status.st_gid = 3999999998;
  const JsonRef unknown = described(withStatus(status));
  EXPECT_EQ(textOf(unknown, "owner"), "---");
  EXPECT_EQ(textOf(unknown, "group"), "---");
}

TEST(LegacyFormatter, SendsLargeSizesWhole) {
  EXPECT_EQ(integerOf(described(withStatus(statusWith(S_IFREG, INT64_MAX, 0))), "filesize"), INT64_MAX);
}

TEST(LegacyFormatter, FixesTheTwoRetiredKeysAtZero) {
  const JsonRef object = described(withStatus(statusWith(S_IFDIR | 01777, 0, 0)));
  EXPECT_EQ(integerOf(object, "sticky_bit"), 0);
  EXPECT_EQ(integerOf(object, "encrypt_folder"), 0);
}

TEST(LegacyFormatter, PlaysAllButFilesWhoseFolderStartsWithTheTranscodeMarkAlone) {
  const struct {
    const char *directory;
    int play;
  } rows[] = {{"/share/Pub", 1},
              {"@Transcode/", 0},
              {"@Transcode/a", 0},
              {"/@Transcode/a", 1},
              {"@Transcode/@Transcode/", 1},
              {"@Transcode", 1},
              {"@transcode/", 1},
              {"", 1}};
  for (const auto &row : rows) {
    EXPECT_EQ(integerOf(described(ResourceEntry::fromName(row.directory, "", "a", "/Pub")), "play"), row.play)
        << row.directory;
  }
  EXPECT_EQ(integerOf(described(ResourceEntry::fromName("/a", "@Transcode/", "a", "@Transcode/")), "play"), 1);
}

TEST(LegacyFormatter, ReportsTheRightOfTheCallingIdentity) {
  const PlacedDir folder;
  ::chmod(folder.path().c_str(), 0755);
  ::chmod(folder.write("open").c_str(), 0644);
  ::chmod(folder.write("closed").c_str(), 0600);
  const int status = in_child([&folder] {
    if (::setegid(65534) != 0 || ::seteuid(65534) != 0) {
      ::_exit(100);
    }
    const std::shared_ptr<Formatter> formatter = std::make_shared<LegacyFormatter>();
    const auto open = integerOf(described(*formatter, entryOf(folder.path(), "open")), "acl");
    const auto closed = integerOf(described(*formatter, entryOf(folder.path(), "closed")), "acl");
    ::_exit(static_cast<int>(10 * open + closed));
  });
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 40);
  EXPECT_EQ(integerOf(described(entryOf(folder.path(), "closed")), "acl"), 6);
  EXPECT_EQ(integerOf(described(ResourceEntry::fromName(folder.path(), "", "none", "/Pub")), "acl"), 0);
}

// --- Links -----------------------------------------------------------------------------------------------------------

TEST(LegacyFormatter, ShowsALinkToAFolderAsTheFolderItLeadsTo) {
  const PlacedDir folder;
  const std::string target = folder.mkdir("target");
  folder.link("l", "target");
  struct ::stat status {};
  ASSERT_EQ(::stat(target.c_str(), &status), 0);
  ResourceEntry entry = entryOf(folder.path(), "l");
  ASSERT_NE(entry.stat.st_size, status.st_size);
  entry.stat.st_mtime = 5;
  const JsonRef object = described(entry);
  EXPECT_EQ(integerOf(object, "is_link"), 1);
  EXPECT_EQ(integerOf(object, "isfolder"), 1);
  EXPECT_EQ(integerOf(object, "filesize"), status.st_size);
  EXPECT_EQ(textOf(object, "randno"), "65");  // the link's own six bytes
  EXPECT_EQ(integerOf(object, "epochmt"), 5);
  EXPECT_EQ(textOf(object, "privilege"), "777");
}

TEST(LegacyFormatter, ShowsALinkToAFileWithTheFilesSize) {
  const PlacedDir folder;
  folder.write("sub/target", std::string(1234, 'x'));
  folder.link("sub/hop", "target");
  folder.link("sub/l", "hop");
  const JsonRef object = described(entryBelow(folder.path(), "/sub", "l"));
  EXPECT_EQ(integerOf(object, "is_link"), 1);
  EXPECT_EQ(integerOf(object, "isfolder"), 0);
  EXPECT_EQ(integerOf(object, "filesize"), 1234);
}

TEST(LegacyFormatter, ShowsALinkThatLeadsNowhereAsAnEmptyFile) {
  const PlacedDir folder;
  folder.link("dangling", "none");
  folder.link("loop", "loop");
  for (const char *name : {"dangling", "loop"}) {
    const JsonRef object = described(entryOf(folder.path(), name));
    EXPECT_EQ(integerOf(object, "is_link"), 1);
    EXPECT_EQ(integerOf(object, "isfolder"), 0);
    EXPECT_EQ(integerOf(object, "filesize"), 0);
    EXPECT_EQ(integerOf(object, "acl"), 0);
  }
}

TEST(LegacyFormatter, LooksForTheAutotierAreaBehindLinksAlone) {
  const PlacedDir folder;
  folder.write("share/external/.autotier/tier/f");
  folder.link("l", "share/external/.autotier/tier/f");
  folder.link("plain", "share");
  EXPECT_EQ(integerOf(described(entryOf(folder.path(), "l")), "is_autotier"), 1);
  EXPECT_EQ(integerOf(described(entryOf(folder.path(), "plain")), "is_autotier"), 0);
  EXPECT_EQ(integerOf(described(entryOf(folder.path() + "/share/external/.autotier/tier", "f")), "is_autotier"), 0);
}

// --- Cloud-cache mounts ----------------------------------------------------------------------------------------------

TEST(LegacyFormatter, ShowsTheCacheStateOnACloudCacheMount) {
  const PlacedDir folder;
  const ScopedShares shares({{folder.path(), 1}});
  const ScopedTool tool(mount_tool, "", "");
  const std::string root = folder.mkdir("mount-of-twenty-char");
  const std::string file = folder.write("mount-of-twenty-char/f");
  setAttribute(root, "user.cm.global_error", R"({"status":10001})");
  setAttribute(root, "trusted.cm.failed_files_count", "12");
  setAttribute(file, "user.cm.meta_status",
               R"({"state":"uploading","status_code":2000,"priority":"low","upload_progress":42.9})");
  const JsonRef object = described(entryOf(root, "f"));
  EXPECT_EQ(integerOf(object, "is_cached"), 1);
  EXPECT_EQ(integerOf(object, "cache_file_status"), 5);
  EXPECT_EQ(integerOf(object, "cache_priority"), 3);
  EXPECT_EQ(integerOf(object, "cache_upload_progress"), 42);
  EXPECT_EQ(integerOf(object, "cache_folder_is_encypted"), 0);
  EXPECT_EQ(integerOf(object, "cache_folder_is_locked"), 0);
  EXPECT_EQ(integerOf(object, "cache_root_status"), 10001);
  EXPECT_EQ(integerOf(object, "upload_failed_count"), 12);
  EXPECT_THAT(tool.runs(), IsEmpty());
}

TEST(LegacyFormatter, ReportsAMountRootWithoutErrorsAs2000) {
  const PlacedDir folder;
  const ScopedShares shares({{folder.path(), 1}});
  folder.write("mount-of-twenty-char/f");
  const JsonRef object = described(entryOf(folder.path() + "/mount-of-twenty-char", "f"));
  EXPECT_EQ(integerOf(object, "cache_root_status"), 2000);
  EXPECT_EQ(integerOf(object, "upload_failed_count"), 0);
}

TEST(LegacyFormatter, AsksForEncryptionOfFoldersAndOfLinksToFolders) {
  const PlacedDir folder;
  const ScopedShares shares({{folder.path(), 1}});
  const std::string path = folder.mkdir("Docs");
  folder.link("l", "Docs");
  folder.link("dangling", "none");
  const ScopedTool tool(mount_tool, R"({"data":{"encrypted_folder":")" + path + R"(","status":0}})", "");
  const JsonRef object = described(entryOf(folder.path(), "Docs"));
  EXPECT_EQ(integerOf(object, "cache_folder_is_encypted"), 1);
  EXPECT_EQ(integerOf(object, "cache_folder_is_locked"), 1);
  EXPECT_EQ(tool.runs().size(), 1U);
  const JsonRef link = described(entryOf(folder.path(), "l"));  // its own path is not the encrypted folder's
  EXPECT_EQ(integerOf(link, "cache_folder_is_encypted"), 0);
  EXPECT_EQ(tool.runs().size(), 2U);
  described(entryOf(folder.path(), "dangling"));
  EXPECT_EQ(tool.runs().size(), 2U);
}

TEST(LegacyFormatter, AsksNothingOfOtherShares) {
  const PlacedDir folder;
  const ScopedShares shares({{folder.path(), 2}});
  const std::string file = folder.write("f");
  const std::string path = folder.mkdir("Docs");
  setAttribute(file, "user.cm.meta_status", R"({"state":"error"})");
  setAttribute(file, "user.cm.global_error", R"({"status":1})");
  setAttribute(file, "trusted.cm.failed_files_count", "12");
  const ScopedTool tool(mount_tool, R"({"data":{"encrypted_folder":")" + path + R"(","status":0}})", "");
  for (const char *name : {"f", "Docs"}) {
    const JsonRef object = described(entryOf(folder.path(), name));
    for (const char *key :
         {"is_cached", "cache_file_status", "cache_priority", "cache_upload_progress", "cache_folder_is_encypted",
          "cache_folder_is_locked", "cache_root_status", "upload_failed_count"}) {
      EXPECT_EQ(integerOf(object, key), 0) << name << " " << key;
    }
  }
  EXPECT_THAT(tool.runs(), IsEmpty());
}

// --- Snapshots -------------------------------------------------------------------------------------------------------

constexpr const char *snapshots =
    "[SNAPSHOT /no/such/folder]\nvolume = 3\nid = 17\nmount = /mnt/snapshot/3/17\n"
    "[SNAPSHOT /no/such/folder/minus]\nvolume = 3\nid = -1\nmount = /mnt/x\n";

ResourceEntry shownIn(const std::string &display, const std::string &subPath = "") {
  return ResourceEntry::fromName("/no/such/folder", subPath, "a.txt", display);
}

TEST(LegacyFormatter, IdentifiesTheSnapshotOfSnapshotPlaces) {
  const ScopedConfig config("etc/config/host-platform.conf", snapshots);
  for (const char *display : {"/snapshot:17", "/snapshot_vault:17", "/snapshot:"}) {
    const JsonRef object = described(shownIn(display));
    EXPECT_EQ(integerOf(object, "snapshot_id"), 17);
    EXPECT_EQ(integerOf(object, "snapshot_vol_id"), 3);
    EXPECT_EQ(textOf(object, "snapshot_mount_path"), "/mnt/snapshot/3/17");
  }
}

TEST(LegacyFormatter, LooksASnapshotUpByTheFullPath) {
  const ScopedConfig config("etc/config/host-platform.conf",
                            "[SNAPSHOT /no/such/folder]\nvolume = 1\nid = 1\nmount = /m\n"
                            "[SNAPSHOT /no/such/folder/sub/a.txt]\nvolume = 2\nid = 2\nmount = /m\n");
  EXPECT_EQ(integerOf(described(shownIn("/snapshot:17", "/sub")), "snapshot_id"), 2);
  EXPECT_EQ(integerOf(described(shownIn("/snapshot:17")), "snapshot_id"), 1);
}

TEST(LegacyFormatter, LeavesTheSnapshotKeysOutElsewhere) {
  const ScopedConfig config("etc/config/host-platform.conf", snapshots);
  for (const char *display : {"/Pub", "/mnt/snapshot/17", "/remote:1", "/a/snapshot:17", ""}) {
    EXPECT_EQ(json_object_get(described(shownIn(display)).get(), "snapshot_id"), nullptr) << display;
  }
  // A name like the prefix does not make its folder a snapshot.
  const JsonRef named = described(ResourceEntry::fromName("/no/such/folder", "", "snapshot:17", ""));
  EXPECT_EQ(keysOf(named).size(), 35U);
}

TEST(LegacyFormatter, LeavesTheSnapshotKeysOutWhereTheLookUpGivesNoId) {
  EXPECT_EQ(keysOf(described(shownIn("/snapshot:17"))).size(), 35U);
  const ScopedConfig config("etc/config/host-platform.conf", snapshots);
  EXPECT_EQ(keysOf(described(shownIn("/snapshot:17", "/minus"))).size(), 35U);
}

TEST(LegacyFormatter, TakesAShareTypeBeforeASnapshotPrefix) {
  const ScopedConfig config("etc/config/host-platform.conf", snapshots);
  for (const int type : {1, 2}) {
    const ScopedShares shares({{"/no/such", type}});
    EXPECT_EQ(keysOf(described(shownIn("/snapshot:17"))).size(), 35U) << type;
  }
  const ScopedShares shares({{"/no/such", 8}});
  EXPECT_EQ(keysOf(described(shownIn("/snapshot:17"))).size(), 38U);
}

TEST(LegacyFormatter, CutsAMountPathThatExceedsTheFullPathBy256Bytes) {
  // The full path has 21 bytes: the room is 277 with the terminator.
  const ScopedConfig config("etc/config/host-platform.conf",
                            "[SNAPSHOT /no/such]\nvolume = 0\nid = 0\nmount = /" + std::string(300, 'm') + "\n");
  const JsonRef object = described(shownIn("/snapshot:17"));
  EXPECT_EQ(integerOf(object, "snapshot_id"), 0);
  EXPECT_EQ(integerOf(object, "snapshot_vol_id"), 0);
  EXPECT_EQ(textOf(object, "snapshot_mount_path"), "/" + std::string(275, 'm'));
}

TEST(LegacyFormatter, ReplacesIllFormedTextInAMountPath) {
  const ScopedConfig config("etc/config/host-platform.conf",
                            "[SNAPSHOT /no/such]\nvolume = 0\nid = 1\nmount = /m\xFF/a\n");
  EXPECT_EQ(textOf(described(shownIn("/snapshot:17")), "snapshot_mount_path"), "/m\xEF\xBF\xBD/a");
}

}  // namespace
}  // namespace dirwell::test
