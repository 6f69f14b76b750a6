#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "host_files.h"
#include "platform/include/strata_nas.h"

namespace {

using dirwell::test::put;

constexpr const char *shares_file = "/etc/samba/smb.conf";
constexpr const char *platform_file = "/etc/config/host-platform.conf";

struct GiveBack {
  void operator()(const SMB_Share_Info *info) const { SMB_Free_Share_Info(info); }
};
using ShareInfo = std::unique_ptr<const SMB_Share_Info, GiveBack>;

ShareInfo share_info() {
  return ShareInfo(SMB_Get_Share_Info());
}

using Row = std::tuple<std::string, std::string, int>;

std::vector<Row> rows(const ShareInfo &info) {
  std::vector<Row> list;
  for (std::size_t i = 0; i < info->count; ++i) {
    list.emplace_back(info->shares[i].name, info->shares[i].path, info->shares[i].type);
  }
  return list;
}

class Shares : public testing::Test {
 protected:
  ~Shares() override {
    dirwell::test::remove(shares_file);
    dirwell::test::remove(platform_file);
  }
};

TEST_F(Shares, ListsEverySectionWithAPathInFileOrder) {
  put(shares_file,
      "[global]\npath = /none\n[Public]\npath = /share/Public\n[Cache]\nPath=/share/Cache\nDirwell:Type = 1\n"
      "[no path]\ncomment = x\n[Remote Mount]\ndirwell:type = 2x\npath = /share/a b \n[Odd]\npath = /o\n"
      "dirwell:type = many\n[Eight]\npath = /8\ndirwell:type = 8\n");
  const ShareInfo info = share_info();
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(rows(info), (std::vector<Row>{{"Public", "/share/Public", 0},
                                          {"Cache", "/share/Cache", 1},
                                          {"Remote Mount", "/share/a b", 2},
                                          {"Odd", "/o", 0},
                                          {"Eight", "/8", 8}}));
}

TEST_F(Shares, LeavesOutTheSectionsThatAreNoFolders) {
  put(shares_file,
      "[Homes]\npath = /h\n[PRINTERS]\npath = /p\n[print$]\npath = /d\n[GLOBAL]\npath = /g\n[print]\npath = /kept\n");
  EXPECT_EQ(rows(share_info()), (std::vector<Row>{{"print", "/kept", 0}}));
}

TEST_F(Shares, LeavesOutAShareWithAnEmptyPath) {
  put(shares_file, "[a]\npath =\n[b]\npath = /b\n");
  EXPECT_EQ(rows(share_info()), (std::vector<Row>{{"b", "/b", 0}}));
}

TEST_F(Shares, MergesASectionThatIsRepeated) {
  put(shares_file, "[a]\ncomment = x\n[b]\npath = /b\n[A]\npath = /a\ndirwell:type = 1\n[a]\npath = /other\n");
  EXPECT_EQ(rows(share_info()), (std::vector<Row>{{"a", "/a", 1}, {"b", "/b", 0}}));
}

TEST_F(Shares, TellsAMissingListFromAnEmptyOne) {
  EXPECT_EQ(share_info(), nullptr);
  put(shares_file, "[global]\n");
  const ShareInfo info = share_info();
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->count, 0U);
}

TEST_F(Shares, AcceptsNoListBack) {
  SMB_Free_Share_Info(nullptr);
}

TEST_F(Shares, WorksTheListOutOncePerChange) {
  put(shares_file, "[a]\npath = /a\n");
  dirwell::test::let_settle();
  const ShareInfo first = share_info();
  const ShareInfo second = share_info();
  EXPECT_EQ(first->shares, second->shares);

  put(shares_file, "[a]\npath = /b\n");
  const ShareInfo third = share_info();
  EXPECT_EQ(rows(third), (std::vector<Row>{{"a", "/b", 0}}));
  // What was given out before is still whole.
  EXPECT_EQ(rows(first), (std::vector<Row>{{"a", "/a", 0}}));

  dirwell::test::remove(shares_file);
  EXPECT_EQ(share_info(), nullptr);
  EXPECT_EQ(rows(third), (std::vector<Row>{{"a", "/b", 0}}));
}

TEST_F(Shares, KnowsDeviceSharesAndWhatLiesBelowThem) {
  put(platform_file, "[SHARES]\nmtp = /Phone:/Camera/Card 1/::/Tel\xC3\xA9\nodd = /Disc\n");
  struct Place {
    const char *directory;
    int mtp;
    int odd;
  };
  const std::vector<Place> places = {
      {"/Phone", 1, 0},
      {"/Phone/", 1, 0},
      {"/Phone/DCIM/100", 1, 0},
      {"/Phone2", 0, 0},
      {"/Phon", 0, 0},
      {"/phone", 0, 0},
      {"/a/Phone", 0, 0},
      {"/Camera", 0, 0},
      {"/Camera/Card 1", 1, 0},
      {"/Camera/Card 1/x", 1, 0},
      {"/Camera/Card 12", 0, 0},
      {"/Tel\xC3\xA9/x", 1, 0},
      {"/Disc", 0, 1},
      {"/Disc/track", 0, 1},
      {"/Disco", 0, 0},
      {"/", 0, 0},
      {"", 0, 0},
      {"Phone", 0, 0},
  };
  for (const Place &place : places) {
    SCOPED_TRACE(place.directory);
    EXPECT_EQ(Is_MTP_Share(place.directory), place.mtp);
    EXPECT_EQ(Is_ODD_Share(place.directory), place.odd);
  }
}

TEST_F(Shares, KnowsNoDeviceSharesWithoutConfiguration) {
  EXPECT_EQ(Is_MTP_Share("/Phone"), 0);
  EXPECT_EQ(Is_ODD_Share("/Phone"), 0);
  put(platform_file, "[SHARES]\nmtp =\n");
  EXPECT_EQ(Is_MTP_Share("/Phone"), 0);
  EXPECT_EQ(Is_MTP_Share(""), 0);
  EXPECT_EQ(Is_MTP_Share(nullptr), 0);
  EXPECT_EQ(Is_ODD_Share(nullptr), 0);
}

TEST_F(Shares, SeesAChangeOfTheDeviceShares) {
  put(platform_file, "[SHARES]\nodd = /A\n");
  EXPECT_EQ(Is_ODD_Share("/A"), 1);
  put(platform_file, "[SHARES]\nodd = /B\n");
  EXPECT_EQ(Is_ODD_Share("/A"), 0);
  EXPECT_EQ(Is_ODD_Share("/B"), 1);
}

TEST_F(Shares, TakesTheRootFolderForEverything) {
  put(platform_file, "[SHARES]\nodd = /\n");
  EXPECT_EQ(Is_ODD_Share("/any/place"), 1);
  EXPECT_EQ(Is_ODD_Share("relative"), 0);
}

}  // namespace
