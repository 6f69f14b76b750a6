#include "entry/paths.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "support/temp_dir.h"

namespace dirwell {
namespace {

TEST(JoinPath, PutsASlashBeforeEachPieceThatHasNone) {
  EXPECT_EQ(joinPath({"share", "a", "b"}), "/share/a/b");
  EXPECT_EQ(joinPath({"/share", "/a", "b"}), "/share/a/b");
}

TEST(JoinPath, SkipsEmptyPieces) {
  EXPECT_EQ(joinPath({"/share", "", "b"}), "/share/b");
  EXPECT_EQ(joinPath({"", "", "b"}), "/b");
  EXPECT_EQ(joinPath({"", ""}), "");
  EXPECT_EQ(joinPath({}), "");
}

TEST(JoinPath, NeverRemovesADoubledSlash) {
  EXPECT_EQ(joinPath({"/share/", "/a"}), "/share//a");
  EXPECT_EQ(joinPath({"/share/", "a"}), "/share//a");
  EXPECT_EQ(joinPath({"/", "a"}), "//a");
  EXPECT_EQ(joinPath({"//x", "/"}), "//x/");
}

TEST(JoinPath, KeepsBytesThatAreNoText) {
  EXPECT_EQ(joinPath({"/s", "\xFF\xC3"}), "/s/\xFF\xC3");
}

TEST(JoinPath, ReplacesWhatAReusedPathHeld) {
  std::string path = "something longer than what comes now";
  joinPath(path, {"/share", "", "b"});
  EXPECT_EQ(path, "/share/b");
  joinPath(path, {});
  EXPECT_EQ(path, "");
}

TEST(EntryPaths, JoinTheFourTextsOfAnEntry) {
  const ResourceEntry entry = ResourceEntry::fromName("/share/root", "/a/b", "c.txt", "/Shown");
  EXPECT_EQ(fullPath(entry), "/share/root/a/b/c.txt");
  EXPECT_EQ(displayPath(entry), "/Shown/a/b/c.txt");
  EXPECT_EQ(directoryPath(entry), "/share/root/a/b");
  EXPECT_EQ(virtualDirectory(entry), "/Shown/a/b");
}

TEST(EntryPaths, LeaveOutWhatIsEmpty) {
  const ResourceEntry root = ResourceEntry::queuedDirectory("share", "", "shown:");
  EXPECT_EQ(fullPath(root), "/share");
  EXPECT_EQ(displayPath(root), "/shown:");
  EXPECT_EQ(directoryPath(root), "/share");
  EXPECT_EQ(virtualDirectory(root), "/shown:");
  EXPECT_EQ(fullPath(ResourceEntry{}), "");
}

TEST(PathExists, FillsTheStatusOfWhatIsThere) {
  const test::TempDir folder;
  folder.write("sub/file.txt", "12345");
  ResourceEntry path = ResourceEntry::fromName(folder.path(), "", "sub/file.txt", "");
  EXPECT_EQ(pathExists(path, 1), 1);
  EXPECT_TRUE(S_ISREG(path.stat.st_mode));
  EXPECT_EQ(path.stat.st_size, 5);
}

TEST(PathExists, LooksOnlyAtDirectoryAndName) {
  const test::TempDir folder;
  folder.write("file.txt");
  ResourceEntry path = ResourceEntry::fromName(folder.path(), "/not/there", "file.txt", "/nor/there");
  EXPECT_EQ(pathExists(path, 0), 1);
}

TEST(PathExists, FollowsLinksOnlyWhenAskedTo) {
  const test::TempDir folder;
  folder.write("target", "123");
  ASSERT_EQ(::symlink("target", folder.at("link").c_str()), 0);
  ResourceEntry path = ResourceEntry::fromName(folder.path(), "", "link", "");
  EXPECT_EQ(pathExists(path, 0), 1);
  EXPECT_TRUE(path.isLink());
  EXPECT_EQ(pathExists(path, 1), 1);
  EXPECT_FALSE(path.isLink());
  EXPECT_EQ(path.stat.st_size, 3);
}

TEST(PathExists, LeavesTheStatusAloneWhenNothingIsThere) {
  const test::TempDir folder;
  ASSERT_EQ(::symlink("nowhere", folder.at("dangling").c_str()), 0);
  ResourceEntry path = ResourceEntry::fromName(folder.path(), "", "dangling", "");
  path.stat.st_size = 77;
  EXPECT_EQ(pathExists(path, 1), 0);
  EXPECT_EQ(path.stat.st_size, 77);
  EXPECT_EQ(path.stat.st_mode, 0U);
  EXPECT_EQ(pathExists(path, 0), 1) << "the link itself is there";
}

TEST(PathExists, FindsNothingUnderTheEmptyPath) {
  ResourceEntry path;
  EXPECT_EQ(pathExists(path, 1), 0);
  EXPECT_EQ(pathExists(path, 0), 0);
}

}  // namespace
}  // namespace dirwell
