// The administrator's vetoed names, as the configuration gives them.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <string_view>

#include "filter_support.h"
#include "listing/filters.h"
#include "support/private_root.h"

namespace dirwell {
namespace {

using test::answers;
using test::named;

void write_veto_list(std::string_view list) {
  test::write_below_root("etc/config/wfm2.conf", "[global]\nveto files = " + std::string(list) + "\n");
}

TEST(VetoFilter, AlwaysVetoesTheFolderItselfAndItsParent) {
  write_veto_list("");
  const VetoFilter veto;
  EXPECT_TRUE(veto.isVetoedName("."));
  EXPECT_TRUE(veto.isVetoedName(".."));
  for (const char *name : {"...", ".a", "a", "a.", "", "x..", "*"}) {
    EXPECT_FALSE(veto.isVetoedName(name)) << name;
  }
}

TEST(VetoFilter, TakesEveryPieceOfTheList) {
  write_veto_list("/.DS_Store/Temporary Items/*.tmp/~$*/Netw?rk/[xy]z/");
  const VetoFilter veto;
  for (const char *name :
       {".", "..", ".DS_Store", "Temporary Items", "a.tmp", ".tmp", "~$doc.docx", "Network", "xz", "yz"}) {
    EXPECT_TRUE(veto.isVetoedName(name)) << name;
  }
  for (const char *name : {"Temporary", "a.tmpx", "doc~$", "Netwrk", "zz", "a"}) {
    EXPECT_FALSE(veto.isVetoedName(name)) << name;
  }
}

TEST(VetoFilter, MindsTheLetterCase) {
  write_veto_list("/.DS_Store/");
  const VetoFilter veto;
  EXPECT_TRUE(veto.isVetoedName(".DS_Store"));
  EXPECT_FALSE(veto.isVetoedName(".ds_store"));
}

TEST(VetoFilter, TakesABackslashAsItIs) {
  write_veto_list("/a\\*/");
  const VetoFilter veto;
  EXPECT_TRUE(veto.isVetoedName("a\\b"));
  EXPECT_FALSE(veto.isVetoedName("a*"));
}

TEST(VetoFilter, NeedsNoSlashesAtTheEndsAndSkipsEmptyPieces) {
  write_veto_list("one//two///three");
  const VetoFilter veto;
  EXPECT_TRUE(veto.isVetoedName("one"));
  EXPECT_TRUE(veto.isVetoedName("two"));
  EXPECT_TRUE(veto.isVetoedName("three"));
  EXPECT_FALSE(veto.isVetoedName(""));
}

TEST(VetoFilter, VetoesBytesThatAreNoText) {
  write_veto_list("/\xFF\xFE/");
  const VetoFilter veto;
  EXPECT_TRUE(veto.isVetoedName("\xFF\xFE"));
  EXPECT_FALSE(veto.isVetoedName("\xFF\xFD"));
}

TEST(VetoFilter, CutsTheListAt4095Bytes) {
  // 8 bytes of "/before/", then pieces of 3 and a slash each, then one that the end of the buffer cuts.
  std::string list = "/before/";
  while (list.size() < 4088) {
    list += "xyz/";
  }
  ASSERT_EQ(list.size(), 4088U);
  write_veto_list(list + "halfway-gone/behind/");
  const VetoFilter veto;
  EXPECT_TRUE(veto.isVetoedName("before"));
  EXPECT_TRUE(veto.isVetoedName("xyz"));
  EXPECT_TRUE(veto.isVetoedName("halfway")) << "the seven bytes that fit";
  EXPECT_FALSE(veto.isVetoedName("halfway-gone"));
  EXPECT_FALSE(veto.isVetoedName("behind"));
}

TEST(VetoFilter, VetoesNothingMoreWithoutItsConfiguration) {
  test::write_below_root("etc/config/wfm2.conf", "[other]\nveto files = /a/\n[global]\nveto = /b/\n");
  const VetoFilter veto;
  EXPECT_FALSE(veto.isVetoedName("a"));
  EXPECT_FALSE(veto.isVetoedName("b"));
  EXPECT_TRUE(veto.isVetoedName(".."));
  std::filesystem::remove(test::private_root() + "/etc/config/wfm2.conf");
  const VetoFilter missing;
  EXPECT_FALSE(missing.isVetoedName("a"));
  EXPECT_TRUE(missing.isVetoedName("."));
}

TEST(VetoFilter, ReadsTheListEachTimeOneIsMade) {
  write_veto_list("/first/");
  const VetoFilter first;
  write_veto_list("/second/");
  const VetoFilter second;
  EXPECT_TRUE(first.isVetoedName("first"));
  EXPECT_FALSE(first.isVetoedName("second"));
  EXPECT_TRUE(second.isVetoedName("second"));
  EXPECT_FALSE(second.isVetoedName("first"));
}

TEST(VetoFilter, MatchesNoEntryAndTellsTheVetoedByEqual) {
  write_veto_list("/a/");
  const VetoFilter veto;
  for (const char *name : {".", "a", "b", ""}) {
    EXPECT_FALSE(veto.match(named(name))) << name;
  }
  EXPECT_EQ(answers(veto, named(".")), "001000");
  EXPECT_EQ(answers(veto, named("a")), "001000");
  EXPECT_EQ(answers(veto, named("b")), "000000");
}

}  // namespace
}  // namespace dirwell
