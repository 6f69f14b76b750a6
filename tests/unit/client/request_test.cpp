#include "client/request.h"

#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "client/failure.h"
#include "support/temp_dir.h"

namespace {

using dirwell::client::absolute_folder;
using dirwell::client::cache_request;
using dirwell::client::CacheOptions;
using dirwell::client::default_alias;
using dirwell::client::Failure;
using dirwell::client::list_request;
using dirwell::client::ListOptions;
using dirwell::client::Status;

// The folder "/f" and what `change` adds.
template <typename Change>
ListOptions options(Change change) {
  ListOptions result;
  result.folders = {"/f"};
  change(result);
  return result;
}

TEST(ListRequest, SaysWhatIsGivenAndNothingElse) {
  const std::string path = R"("path":[{"full_path":"/f","alias":"/f"}])";
  struct Row {
    ListOptions options;
    std::string members;
  };
  const std::vector<Row> rows = {
      {options([](ListOptions &) {}), ""},
      {options([](ListOptions &o) { o.sort = "size:desc"; }), R"(,"sort":"size:desc")"},
      {options([](ListOptions &o) { o.cluster = "type"; }), R"(,"cluster":"type")"},
      {options([](ListOptions &o) { o.type = "extname:txt"; }), R"(,"type":"extname:txt")"},
      {options([](ListOptions &o) { o.name = "*.\"x\"\\"; }), R"(,"name":"*.\"x\"\\")"},
      {options([](ListOptions &o) { o.name = ""; }), R"(,"name":"")"},
      {options([](ListOptions &o) { o.size = ">=10K"; }), R"(,"size":">=10K")"},
      {options([](ListOptions &o) {
         o.dates = {">=1", "<9"};
       }),
       R"(,"date":[">=1","<9"])"},
      {options([](ListOptions &o) { o.owner = "root"; }), R"(,"owner":"root")"},
      {options([](ListOptions &o) { o.group = "adm"; }), R"(,"group":"adm")"},
      {options([](ListOptions &o) { o.hidden = true; }), R"(,"hidden":0)"},
      {options([](ListOptions &o) { o.recursive = true; }), R"(,"recursive":true)"},
      {options([](ListOptions &o) { o.lang = "GER"; }), R"(,"lang":"GER")"},
      {options([](ListOptions &o) { o.limit = 60; }), R"(,"limit":60)"},
      {options([](ListOptions &o) { o.offset = -1; }), R"(,"offset":-1)"},
      {options([](ListOptions &o) { o.index = 2; }), R"(,"index":2)"},
      {options([](ListOptions &o) { o.limit = 9'000'000'000; }), R"(,"limit":9000000000)"},
  };
  for (const Row &row : rows) {
    EXPECT_EQ(list_request(row.options), "{" + path + row.members + "}");
  }
}

TEST(ListRequest, NamesTheFoldersInTheirOrder) {
  ListOptions listing;
  listing.folders = {"/b/x", "/a", "/", "/caf\xC3\xA9/"};
  listing.aliases = {"/First", ""};
  EXPECT_EQ(list_request(listing), R"({"path":[{"full_path":"/b/x","alias":"/First"},{"full_path":"/a","alias":""},)"
                                   R"({"full_path":"/","alias":""},{"full_path":"/café","alias":"/café"}]})");
}

Status failure_of(const ListOptions &listing) {
  try {
    list_request(listing);
  } catch (const Failure &failure) {
    return failure.status();
  }
  return Status::success;
}

TEST(ListRequest, RefusesTextsThatARequestCannotCarry) {
  EXPECT_EQ(failure_of(options([](ListOptions &o) { o.folders = {"/bad\xFF"}; })), Status::usage);
  EXPECT_EQ(failure_of(options([](ListOptions &o) { o.name = "\xC3"; })), Status::usage);
  EXPECT_EQ(failure_of(options([](ListOptions &o) { o.dates = {"\xFF"}; })), Status::usage);
  EXPECT_EQ(failure_of(options([](ListOptions &o) { o.aliases = {"/one", "/two"}; })), Status::usage);
  EXPECT_EQ(failure_of(options([](ListOptions &o) { o.name = "\xC3\xA9"; })), Status::success);
}

TEST(CacheRequest, SaysWhatIsGivenAndNothingElse) {
  CacheOptions options;
  EXPECT_EQ(cache_request(options), "{}");
  options.index = -2;
  EXPECT_EQ(cache_request(options), R"({"index":-2})");
  options.uuid = "";
  options.limit = 50;
  options.offset = 0;
  EXPECT_EQ(cache_request(options), R"({"uuid":"","limit":50,"offset":0,"index":-2})");
  options.uuid = "\xFF";
  EXPECT_THROW(cache_request(options), Failure);
}

TEST(AbsoluteFolder, LooksFromTheCurrentFolder) {
  const dirwell::test::TempDir folder;
  const std::string base = std::filesystem::canonical(folder.path()).string();
  folder.mkdir("real/inner");
  std::filesystem::create_symlink("real/inner", folder.at("link"));
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(base);
  struct Row {
    const char *given;
    std::string absolute;
  };
  const std::vector<Row> rows = {
      {"/", "/"},
      {"/a/b", "/a/b"},
      {"/a/b/", "/a/b"},
      {"//a///b//", "/a/b"},
      {"/a/./b/.", "/a/b"},
      {".", base},
      {"./", base},
      {"real", base + "/real"},
      {"[real]", base + "/[real]"},
      {"link", base + "/link"},
      {"missing", base + "/missing"},
      {"real/..", base},
      {"link/..", base + "/real"},  // above what the link leads to
  };
  for (const Row &row : rows) {
    EXPECT_EQ(absolute_folder(row.given), row.absolute) << row.given;
  }
  EXPECT_THROW(absolute_folder("missing/.."), Failure);
  EXPECT_THROW(absolute_folder(""), Failure);
  std::filesystem::current_path(before);
}

TEST(DefaultAlias, IsTheFoldersOwnName) {
  EXPECT_EQ(default_alias("/a/b"), "/b");
  EXPECT_EQ(default_alias("/a"), "/a");
  EXPECT_EQ(default_alias("/"), "");
}

}  // namespace
