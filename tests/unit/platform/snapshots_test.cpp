#include <array>
#include <string>
#include <vector>

#include "host_files.h"
#include "platform/include/strata_nas.h"

namespace {

using dirwell::test::put;

constexpr const char *platform_file = "/etc/config/host-platform.conf";

class Snapshots : public testing::Test {
 protected:
  ~Snapshots() override { dirwell::test::remove(platform_file); }
};

TEST_F(Snapshots, GivesTheLongestPathThatHoldsTheGivenOne) {
  put(platform_file,
      "[SNAPSHOT /mnt/snap]\nvolume = 1\nid = 10\nmount = /m/1\n"
      "[snapshot \t /mnt/snap/deep/er/]\nvolume = 2\nid = 20\nmount = /m/2\n"
      "[SNAPSHOT /mnt/snap/deep]\nvolume = 3\nid = 30\nmount = /m/3\n"
      "[SNAPSHOT /with blank]\n"
      "[SNAPSHOTS /s]\nid = 9\n[SNAPSHOT relative]\nid = 9\n[SNAPSHOT]\nid = 9\n[SNAPSHOT/x]\nid = 9\n");
  struct Row {
    const char *path;
    int result;
    int volume;
    int id;
    const char *mount;
  };
  const std::vector<Row> rows = {
      {"/mnt/snap", 0, 1, 10, "/m/1"},
      {"/mnt/snap/", 0, 1, 10, "/m/1"},
      {"/mnt/snap/a/b", 0, 1, 10, "/m/1"},
      {"/mnt/snap/deeper", 0, 1, 10, "/m/1"},
      {"/mnt/snap/deep", 0, 3, 30, "/m/3"},
      {"/mnt/snap/deep/x", 0, 3, 30, "/m/3"},
      {"/mnt/snap/deep/er", 0, 2, 20, "/m/2"},
      {"/mnt/snap/deep/er/x", 0, 2, 20, "/m/2"},
      {"/with blank/a", 0, 0, 0, ""},
      {"/mnt/snapshot", -1, -5, -6, "before"},
      {"/mnt", -1, -5, -6, "before"},
      {"/s", -1, -5, -6, "before"},
      {"relative", -1, -5, -6, "before"},
      {"/x", -1, -5, -6, "before"},
      {"", -1, -5, -6, "before"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.path);
    int volume = -5;
    int id = -6;
    std::array<char, 64> mount{"before"};
    EXPECT_EQ(NAS_Snapshot_Get_Id_Path(row.path, &volume, &id, mount.data(), mount.size()), row.result);
    EXPECT_EQ(volume, row.volume);
    EXPECT_EQ(id, row.id);
    EXPECT_STREQ(mount.data(), row.mount);
  }
}

TEST_F(Snapshots, CutsTheMountPathToTheBuffer) {
  put(platform_file, "[SNAPSHOT /s]\nmount = /mount/path\n");
  int volume = -1;
  int id = -1;
  std::string mount(16, '!');
  EXPECT_EQ(NAS_Snapshot_Get_Id_Path("/s", &volume, &id, mount.data(), 7), 0);
  EXPECT_STREQ(mount.c_str(), "/mount");
  EXPECT_EQ(mount[7], '!');
  EXPECT_EQ(NAS_Snapshot_Get_Id_Path("/s", &volume, &id, mount.data(), 1), 0);
  EXPECT_STREQ(mount.c_str(), "");
  mount = "untouched";
  EXPECT_EQ(NAS_Snapshot_Get_Id_Path("/s", &volume, &id, mount.data(), 0), 0);
  EXPECT_EQ(mount, "untouched");
}

TEST_F(Snapshots, AcceptsMissingOutputsAndPaths) {
  put(platform_file, "[SNAPSHOT /s]\nid = 4\n");
  int id = -1;
  EXPECT_EQ(NAS_Snapshot_Get_Id_Path("/s/a", nullptr, &id, nullptr, 9), 0);
  EXPECT_EQ(id, 4);
  EXPECT_EQ(NAS_Snapshot_Get_Id_Path("/s/a", nullptr, nullptr, nullptr, 0), 0);
  EXPECT_EQ(NAS_Snapshot_Get_Id_Path(nullptr, nullptr, &id, nullptr, 0), -1);
}

TEST_F(Snapshots, LeavesTheOutputsAloneWithoutConfiguration) {
  int volume = -5;
  int id = -6;
  std::array<char, 8> mount{"before"};
  EXPECT_EQ(NAS_Snapshot_Get_Id_Path("/s", &volume, &id, mount.data(), mount.size()), -1);
  EXPECT_EQ(volume, -5);
  EXPECT_EQ(id, -6);
  EXPECT_STREQ(mount.data(), "before");
}

TEST_F(Snapshots, SeesAChange) {
  int id = -1;
  put(platform_file, "[SNAPSHOT /s]\nid = 1\n");
  EXPECT_EQ(NAS_Snapshot_Get_Id_Path("/s", nullptr, &id, nullptr, 0), 0);
  EXPECT_EQ(id, 1);
  put(platform_file, "[SNAPSHOT /s]\nid = 2\n");
  EXPECT_EQ(NAS_Snapshot_Get_Id_Path("/s", nullptr, &id, nullptr, 0), 0);
  EXPECT_EQ(id, 2);
}

}  // namespace
