#include "client/table.h"

#include <clocale>
#include <string>
#include <vector>

namespace {

using dirwell::client::Cluster;
using dirwell::client::Column;
using dirwell::client::Entry;
using dirwell::client::Listing;
using dirwell::client::ListingLayout;
using dirwell::client::render_created;
using dirwell::client::render_listing;
using dirwell::client::table_lines;

class Table : public testing::Test {
 protected:
  Table() { EXPECT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr); }
  ~Table() override { std::setlocale(LC_CTYPE, "C"); }
};

Entry entry(const std::string &name) {
  Entry result;
  result.name = name;
  result.path = "/Share/" + name;
  result.size = 10;
  result.owner = "u";
  result.group = "g";
  result.permissions = "644";
  result.modified = "2021-03-04 05:06:07";
  return result;
}

// Entries "0", "1", … and these clusters.
Listing listing(int entries, std::vector<Cluster> clusters, std::int64_t total) {
  Listing result;
  for (int i = 0; i < entries; ++i) {
    result.entries.push_back(entry(std::to_string(i)));
  }
  result.clusters = std::move(clusters);
  result.total = total;
  return result;
}

std::string rest() {
  return "      10 file u     g      644 2021-03-04 05:06:07\n";
}

TEST_F(Table, AlignsColumnsByTheWidthOfTheirCharacters) {
  EXPECT_EQ(
      table_lines({{"N"}, {"SIZE", true}, {"X"}},
                  {{"\xE6\x97\xA5\xE6\x9C\xAC", "1", "a"}, {"caf\xC3\xA9", "12345", "b"}, {"e\xCC\x81", "", ""}}, 0),
      (std::vector<std::string>{"N     SIZE X", "\xE6\x97\xA5\xE6\x9C\xAC     1 a", "caf\xC3\xA9 12345 b",
                                "e\xCC\x81"}));
}

TEST_F(Table, ShowsCellsAsTheyAre) {
  EXPECT_EQ(table_lines({{"N"}, {"M"}}, {{"a\\x41\\n", "\"'"}}, 0),
            (std::vector<std::string>{"N       M", "a\\x41\\n \"'"}));
}

TEST_F(Table, HasNoLinesWithoutRows) {
  EXPECT_EQ(table_lines({{"N"}}, {}, 80), std::vector<std::string>());
}

TEST_F(Table, CutsOnlyWhatMayShrinkAndOnlyOnANarrowTerminal) {
  const std::vector<Column> columns = {{"NAME", false, true}, {"SIZE", true}};
  const std::vector<std::vector<std::string>> rows = {{std::string(100, 'x'), "12345"}};
  EXPECT_EQ(table_lines(columns, rows, 0)[1], std::string(100, 'x') + " 12345");
  EXPECT_EQ(table_lines(columns, rows, 30)[1], std::string(24, 'x') + " 12345");
  EXPECT_EQ(table_lines(columns, rows, 200)[1].substr(0, 100), std::string(100, 'x'));
}

TEST_F(Table, ShowsAListing) {
  Listing page;
  page.entries = {entry("b\x1b.txt"), entry("folder")};
  page.entries[0].size = 1536;
  page.entries[0].marks = {"link", "h265"};
  page.entries[1].folder = true;
  page.entries[1].owner = "---";
  page.total = 5;
  EXPECT_EQ(render_listing(page, {}),
            "NAME        SIZE TYPE   OWNER GROUP MODE MODIFIED            MARKS\n"
            "b\\u001b.txt 1.5K file   u     g      644 2021-03-04 05:06:07 link,h265\n"
            "folder        10 folder ---   g      644 2021-03-04 05:06:07\n"
            "2 of 5 entries\n");
}

TEST_F(Table, ShowsNamesWithTheirFoldersWhenThereAreSeveral) {
  Listing page;
  page.entries = {entry("a")};
  page.total = 1;
  ListingLayout layout;
  layout.paths = true;
  EXPECT_EQ(render_listing(page, layout),
            "NAME     SIZE TYPE OWNER GROUP MODE MODIFIED            MARKS\n"
            "/Share/a   10 file u     g      644 2021-03-04 05:06:07\n"
            "1 of 1 entries\n");
}

TEST_F(Table, ShowsAnEmptyListing) {
  EXPECT_EQ(render_listing(Listing(), {}), "0 of 0 entries\n");
  ListingLayout layout;
  layout.clustered = true;
  layout.offset = 10;
  EXPECT_EQ(render_listing(listing(0, {{"a", 3}}, 3), layout), "0 of 3 entries\n");
}

TEST_F(Table, PutsAHeadingAboveEachClusterOfThePage) {
  const std::vector<Cluster> clusters = {{"folder", 2}, {"", 1}, {"t\nxt", 3}, {"zip", 1}};
  const std::string titles = "  NAME SIZE TYPE OWNER GROUP MODE MODIFIED            MARKS\n";
  const auto row = [](int i) { return "  " + std::to_string(i) + rest(); };
  struct Case {
    std::int64_t offset;
    int entries;
    std::string body;
  };
  const std::vector<Case> cases = {
      {0, 7,
       "folder: 2 entries\n" + row(0) + row(1) + "(none): 1 entry\n" + row(2) + "t\\nxt: 3 entries\n" + row(3) +
           row(4) + row(5) + "zip: 1 entry\n" + row(6)},
      {0, 1, "folder: 2 entries\n" + row(0)},
      {1, 3, "folder: 2 entries, continued\n" + row(0) + "(none): 1 entry\n" + row(1) + "t\\nxt: 3 entries\n" + row(2)},
      {2, 1, "(none): 1 entry\n" + row(0)},
      {3, 2, "t\\nxt: 3 entries\n" + row(0) + row(1)},
      {5, 2, "t\\nxt: 3 entries, continued\n" + row(0) + "zip: 1 entry\n" + row(1)},
      {6, 1, "zip: 1 entry\n" + row(0)},
      {-4, 1, "folder: 2 entries\n" + row(0)},
      {6, 2, "zip: 1 entry\n" + row(0) + row(1)},  // more entries than the clusters count
      {50, 1, row(0)},
  };
  for (const Case &each : cases) {
    SCOPED_TRACE(each.offset);
    ListingLayout layout;
    layout.clustered = true;
    layout.offset = each.offset;
    EXPECT_EQ(render_listing(listing(each.entries, clusters, 7), layout),
              titles + each.body + std::to_string(each.entries) + " of 7 entries\n");
  }
}

TEST_F(Table, PassesOverClustersWithoutEntries) {
  ListingLayout layout;
  layout.clustered = true;
  EXPECT_THAT(render_listing(listing(1, {{"none", 0}, {"some", 1}}, 1), layout),
              testing::AllOf(testing::HasSubstr("\nsome: 1 entry\n"), testing::Not(testing::HasSubstr("none:"))));
}

TEST_F(Table, ShowsNoHeadingsWhenNoneWereAskedFor) {
  EXPECT_THAT(render_listing(listing(1, {{"some", 1}}, 1), {}), testing::Not(testing::HasSubstr("some")));
}

TEST_F(Table, LeavesRoomForTheIndentOnANarrowTerminal) {
  Listing page = listing(1, {{"some", 1}}, 1);
  page.entries[0].name = std::string(200, 'x');
  ListingLayout layout;
  layout.clustered = true;
  layout.width = 100;
  const std::string text = render_listing(page, layout);
  for (std::size_t start = 0; start < text.size(); start = text.find('\n', start) + 1) {
    EXPECT_LE(text.find('\n', start) - start, 100U);
  }
  EXPECT_THAT(text, testing::HasSubstr("xxxx   10 file"));
}

TEST_F(Table, NamesAKeptListingAndItsClusters) {
  EXPECT_EQ(render_created({"the-uuid", {{"", 1}}, 1}, false, 0), "the-uuid\n1 entry\n");
  EXPECT_EQ(render_created({"the-uuid", {}, 0}, true, 0), "the-uuid\n0 entries\n");
  EXPECT_EQ(render_created({"u", {{"txt", 60}, {"", 5}, {"a\n\xE6\x97\xA5", 100}}, 165}, true, 0),
            "u\n"
            "165 entries\n"
            "CLUSTER ENTRIES\n"
            "txt          60\n"
            "(none)        5\n"
            "a\\n\xE6\x97\xA5       100\n");
  EXPECT_EQ(render_created({"u", {{std::string(40, 'x'), 1}}, 1}, true, 20),
            "u\n1 entry\nCLUSTER      ENTRIES\n" + std::string(12, 'x') + "       1\n");
}

}  // namespace
