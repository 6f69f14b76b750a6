#include "entry/resource_entry.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace dirwell {
namespace {

struct ::stat status_of(mode_t mode, off_t size = 0) {
  struct ::stat status {};
  status.st_mode = mode;
  status.st_size = size;
  status.st_uid = 11;
  status.st_gid = 22;
  status.st_mtim = {.tv_sec = 33, .tv_nsec = 44};
  return status;
}

TEST(ExtensionOf, IsWhatFollowsTheLastDot) {
  struct Row {
    const char *name;
    mode_t mode;
    const char *extension;
  };
  const std::vector<Row> rows = {
      {".profile", S_IFREG, ""},
      {"archive.tar.gz", S_IFREG, "gz"},
      {"notes.", S_IFREG, ""},
      {"Photo.JPG", S_IFREG, "JPG"},
      {"noext", S_IFREG, ""},
      {"", S_IFREG, ""},
      {".", S_IFREG, ""},
      {"..", S_IFREG, ""},
      {"..a", S_IFREG, "a"},
      {".a.b", S_IFREG, "b"},
      {"a. b", S_IFREG, " b"},
      {"a.\xFF", S_IFREG, "\xFF"},
      {"photos.2020", S_IFDIR | 0755, ""},
      {"photos.2020", S_IFLNK | 0777, "2020"},
      {"photos.2020", S_IFBLK, "2020"},
      {"photos.2020", S_IFSOCK, "2020"},
      {"photos.2020", 0, "2020"},
  };
  for (const Row &row : rows) {
    EXPECT_EQ(extensionOf(row.name, row.mode), row.extension) << row.name << " " << std::oct << row.mode;
  }
}

TEST(ResourceEntry, QueuedDirectoryHasNeitherNameNorStatusNorExtension) {
  const ResourceEntry root = ResourceEntry::queuedDirectory("/share/a.b", "/c.d", "/Shown.e");
  EXPECT_EQ(root.directory.view(), "/share/a.b");
  EXPECT_EQ(root.subPath.view(), "/c.d");
  EXPECT_EQ(root.displayDirectory.view(), "/Shown.e");
  EXPECT_EQ(root.name, "");
  EXPECT_EQ(root.cluster, "");
  EXPECT_EQ(root.extension, "");
  const struct ::stat zero {};
  EXPECT_EQ(root.stat.st_mode, zero.st_mode);
  EXPECT_EQ(root.stat.st_ino, zero.st_ino);
  EXPECT_EQ(root.stat.st_size, zero.st_size);
  EXPECT_EQ(root.stat.st_mtim.tv_sec, zero.st_mtim.tv_sec);
  EXPECT_FALSE(root.isDirectory());
}

TEST(ResourceEntry, FromPathReadsTheStatusOfTheLinkItself) {
  const test::TempDir folder;
  folder.mkdir("target.d");
  ASSERT_EQ(::symlink("target.d", folder.at("link.d").c_str()), 0);
  const ResourceEntry link = ResourceEntry::fromPath(folder.path(), "link.d");
  EXPECT_TRUE(link.isLink());
  EXPECT_EQ(link.extension, "d");
  EXPECT_EQ(link.directory.view(), folder.path());
  EXPECT_TRUE(link.displayDirectory.empty());
  EXPECT_TRUE(link.subPath.empty());
  const ResourceEntry target = ResourceEntry::fromPath(folder.path(), "target.d");
  EXPECT_TRUE(target.isDirectory());
  EXPECT_EQ(target.extension, "");
}

TEST(ResourceEntry, FromPathOfWhatIsMissingHasNoStatus) {
  const test::TempDir folder;
  const ResourceEntry entry = ResourceEntry::fromPath(folder.path(), "gone.txt");
  EXPECT_EQ(entry.name, "gone.txt");
  EXPECT_EQ(entry.extension, "txt");
  EXPECT_EQ(entry.stat.st_mode, 0U);
  EXPECT_EQ(entry.stat.st_nlink, 0U);
}

TEST(ResourceEntry, FromStatusCopiesTheStatus) {
  const ResourceEntry entry = ResourceEntry::fromStatus("/d", "n.x", status_of(S_IFREG | 0640, 9));
  EXPECT_EQ(entry.directory.view(), "/d");
  EXPECT_TRUE(entry.displayDirectory.empty());
  EXPECT_TRUE(entry.subPath.empty());
  EXPECT_EQ(entry.name, "n.x");
  EXPECT_EQ(entry.extension, "x");
  EXPECT_EQ(entry.stat.st_mode, static_cast<mode_t>(S_IFREG | 0640));
  EXPECT_EQ(entry.stat.st_size, 9);
  EXPECT_EQ(entry.stat.st_uid, 11U);
  EXPECT_EQ(entry.stat.st_gid, 22U);
  EXPECT_EQ(entry.stat.st_mtim.tv_sec, 33);
  EXPECT_EQ(entry.stat.st_mtim.tv_nsec, 44);
}

TEST(ResourceEntry, FromStatusTakesADisplayDirectory) {
  const ResourceEntry entry = ResourceEntry::fromStatus("/d", "n.x", status_of(S_IFDIR), "/Shown");
  EXPECT_EQ(entry.displayDirectory.view(), "/Shown");
  EXPECT_TRUE(entry.subPath.empty());
  EXPECT_EQ(entry.extension, "");
}

TEST(ResourceEntry, ChildSharesTheTextsOfItsParent) {
  const ResourceEntry parent = ResourceEntry::queuedDirectory("/share/root", "/a", "/Shown");
  const ResourceEntry child = ResourceEntry::child(parent, "b.JPG", status_of(S_IFREG, 5));
  EXPECT_TRUE(child.directory.same_object(parent.directory));
  EXPECT_TRUE(child.displayDirectory.same_object(parent.displayDirectory));
  EXPECT_TRUE(child.subPath.same_object(parent.subPath));
  EXPECT_EQ(child.directory.view(), "/share/root");
  EXPECT_EQ(child.subPath.view(), "/a");
  EXPECT_EQ(child.displayDirectory.view(), "/Shown");
  EXPECT_EQ(child.name, "b.JPG");
  EXPECT_EQ(child.extension, "JPG");
  EXPECT_EQ(child.cluster, "");
  EXPECT_EQ(child.stat.st_size, 5);
}

TEST(ResourceEntry, FromNameHasNoStatus) {
  const ResourceEntry entry = ResourceEntry::fromName("/d", "/s", "n.x", "/Shown");
  EXPECT_EQ(entry.directory.view(), "/d");
  EXPECT_EQ(entry.subPath.view(), "/s");
  EXPECT_EQ(entry.displayDirectory.view(), "/Shown");
  EXPECT_EQ(entry.name, "n.x");
  EXPECT_EQ(entry.extension, "x");
  EXPECT_EQ(entry.stat.st_mode, 0U);
}

TEST(ResourceEntry, TellsDirectoriesAndLinksByTheirWholeType) {
  ResourceEntry entry;
  entry.stat.st_mode = S_IFDIR | 0700;
  EXPECT_TRUE(entry.isDirectory());
  EXPECT_FALSE(entry.isLink());
  entry.stat.st_mode = S_IFBLK;  // shares the directory's bit
  EXPECT_FALSE(entry.isDirectory());
  entry.stat.st_mode = S_IFLNK | 0777;
  EXPECT_TRUE(entry.isLink());
  EXPECT_FALSE(entry.isDirectory());
  entry.stat.st_mode = S_IFSOCK;
  EXPECT_FALSE(entry.isLink());
  EXPECT_FALSE(entry.isDirectory());
}

}  // namespace
}  // namespace dirwell
