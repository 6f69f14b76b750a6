#include "describe/places.h"

#include "describe_support.h"

namespace dirwell::test {
namespace {

ResourceEntry shown(const std::string &directory, const std::string &subPath, const std::string &display) {
  return ResourceEntry::fromName(directory, subPath, "name", display);
}

TEST(ShareTypeOf, TakesTheFirstShareInListOrderWhosePathIsAPrefix) {
  const ScopedShares shares({{"/share/Pub", 3}, {"/share/Public", 1}, {"/share/Cloud/Inner", 5}, {"/share/Cloud", 1}});
  const struct {
    std::string path;
    int type;
  } rows[] = {
      {"/share/Pub/a", 3},
      {"/share/Public/a", 3},
      {"/share/Pub", 3},
      {"/share/Cloud/a", 1},
      {"/share/Cloud/Inner/a", 5},
      {"/share/Cloud/Innerst", 5},
      {"/share/Cloudy/a", 1},
      {"/share/pub/a", -1},
      {"/mnt/share/Pub/a", -1},
      {"/share/Pu", -1},
      {"/share/Clou/Inner", -1},
      {"/", -1},
      {"", -1},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(shareTypeOf(row.path), row.type) << row.path;
  }
}

TEST(ShareTypeOf, DependsOnTheOrderOfNestedShares) {
  const ScopedShares shares({{"/share/Cloud", 1}, {"/share/Cloud/Inner", 5}});
  EXPECT_EQ(shareTypeOf(std::string("/share/Cloud/Inner/a")), 1);
}

TEST(ShareTypeOf, PassesEveryTypeNumberThrough) {
  const ScopedShares shares({{"/s/0", 0}, {"/s/2", 2}, {"/s/8", 8}, {"/s/77", 77}, {"/s/-1", -1}, {"/s/-5", -5}});
  for (const int type : {0, 2, 8, 77, -1, -5}) {
    EXPECT_EQ(shareTypeOf("/s/" + std::to_string(type) + "/a"), type);
  }
}

TEST(ShareTypeOf, LooksAtTheWholePathOfTheEntry) {
  const ScopedShares shares({{"/data/sub/name", 4}, {"/data/sub", 2}, {"/data", 6}});
  EXPECT_EQ(shareTypeOf(shown("/data", "/sub", "/X")), 4);
  EXPECT_EQ(shareTypeOf(ResourceEntry::fromName("/data", "/sub", "other", "/X")), 2);
  EXPECT_EQ(shareTypeOf(ResourceEntry::fromName("/data", "", "other", "/data/sub")), 6);
  EXPECT_EQ(shareTypeOf(ResourceEntry::fromName("data", "sub", "other", "/X")), 2);
}

TEST(ShareTypeOf, IsNoneWithoutAShareList) {
  EXPECT_EQ(shareTypeOf(std::string("/share/Pub/a")), -1);
  EXPECT_EQ(shareTypeOf(ResourceEntry()), -1);
}

TEST(ShareTypeOf, SeesAChangeOfTheShareList) {
  const ScopedShares before({{"/share/Pub", 3}});
  EXPECT_EQ(shareTypeOf(std::string("/share/Pub/a")), 3);
  const ScopedShares after({{"/share/Pub", 4}});
  EXPECT_EQ(shareTypeOf(std::string("/share/Pub/a")), 4);
}

TEST(ShareListTypes, StayAsTheyWereWhenTheListWasMade) {
  const ScopedShares before({{"/share/Pub", 3}});
  const ShareList list;
  const ScopedShares after({{"/share/Pub", 4}});
  EXPECT_EQ(list.typeOf("/share/Pub/a"), 3);
  EXPECT_EQ(ShareList().typeOf("/share/Pub/a"), 4);
}

TEST(ClassifyPath, GoesByTheFirstThingThatApplies) {
  const ScopedConfig config("etc/config/host-platform.conf",
                            "[SHARES]\nmtp = /Phone:/Both\nodd = /Disc:/Both:/mnt/snapshot\n");
  const struct {
    std::int32_t shareType;
    std::string virtualDirectory;
    int value;
  } rows[] = {
      {-1, "/Pub", 0},
      {0, "/Pub/a", 0},
      {8, "/Pub", 0},
      {3, "", 0},
      {0, "/Phone", 1},
      {0, "/Phone/DCIM", 1},
      {2, "/Pub", 2},
      {0, "/Disc/a", 3},
      {0, "/Both", 1},  // phones are asked for before discs
      {0, "/remote:1/a", 4},
      {0, "/remote", 0},
      {0, "/ubuntu:home", 5},
      {0, "/survo:cam", 6},
      {0, "/snapshot:1", 7},
      {0, "/snapshot_vault:1", 8},
      {0, "/snapshot_vaul:1", 0},
      {0, "/mnt/snapshot/1", 11},
      {0, "/mnt/snapshot", 3},  // the prefix ends in a slash: only the disc list knows it
      {1, "/Pub", 12},
      {0, "a/snapshot:1", 0},
      {0, "/a/snapshot:1", 0},
      {0, "/Snapshot:1", 0},
      // The share type is looked at before everything else ...
      {2, "/snapshot:1", 2},
      {2, "/Phone", 2},
      {1, "/snapshot:1", 12},
      {1, "/snapshot_vault:1", 12},
      {1, "/mnt/snapshot/1", 12},
      {1, "/Disc", 12},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(static_cast<int>(classifyPath(row.shareType, row.virtualDirectory)), row.value)
        << row.shareType << " " << row.virtualDirectory;
  }
}

TEST(ClassifyPath, TakesTheNamePrefixBeforeThePhoneList) {
  const ScopedConfig config("etc/config/host-platform.conf",
                            "[SHARES]\nmtp = /mnt/snapshot/1\nodd = /mnt/snapshot/1\n");
  EXPECT_EQ(classifyPath(0, "/mnt/snapshot/1"), PathClass::mounted_snapshot);
  EXPECT_EQ(classifyPath(0, "/mnt/snapshot"), PathClass::ordinary);
}

TEST(ClassifyPath, JoinsTheVirtualDirectoryOfAnEntry) {
  EXPECT_EQ(classifyPath(shown("/data", "/sub", "/snapshot_vault:5")), PathClass::snapshot_vault);
  EXPECT_EQ(classifyPath(shown("/data", "snapshot:7", "")), PathClass::snapshot);
  EXPECT_EQ(classifyPath(shown("/data", "/snapshot:7", "/Pub")), PathClass::ordinary);
  // The entry's own name is no part of the virtual directory.
  EXPECT_EQ(classifyPath(ResourceEntry::fromName("/data", "", "snapshot:7", "")), PathClass::ordinary);
}

TEST(ClassifyPath, LooksUpTheShareOfAnEntry) {
  const ScopedShares shares({{"/cloud", 1}, {"/far", 2}});
  EXPECT_EQ(classifyPath(shown("/cloud", "", "/snapshot:7")), PathClass::cloud_cache);
  EXPECT_EQ(classifyPath(shown("/far", "", "/snapshot:7")), PathClass::remote_share);
  EXPECT_EQ(classifyPath(shown("/near", "", "/snapshot:7")), PathClass::snapshot);
}

TEST(ClassifyByText, LeavesOpenWhatOnlyThePlatformCanTell) {
  const ScopedConfig config("etc/config/host-platform.conf", "[SHARES]\nmtp = /Phone\n");
  EXPECT_EQ(classifyByText(0, "/Phone"), std::nullopt);
  EXPECT_EQ(classifyByText(0, "/Pub"), std::nullopt);
  EXPECT_EQ(classifyByText(0, "/snapshot:1"), PathClass::snapshot);
  EXPECT_EQ(classifyByText(1, "/Phone"), PathClass::cloud_cache);
}

}  // namespace
}  // namespace dirwell::test
