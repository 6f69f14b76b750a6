#include "client/reply.h"

#include <string>
#include <vector>

#include "client/failure.h"

namespace {

using dirwell::client::CreatedCache;
using dirwell::client::Entry;
using dirwell::client::Failure;
using dirwell::client::Listing;
using dirwell::client::read_created;
using dirwell::client::read_done;
using dirwell::client::read_listing;
using dirwell::client::Status;

TEST(Reply, HoldsThePageTheClustersAndTheTotal) {
  const Listing listing = read_listing(
      R"({"cluster":[{"value":"folder","count":1},{"value":"","count":6}],"uuid":"u","datas":[)"
      R"({"filename":"a","filepath":"\/S\/a","filesize":4096,"isfolder":1,"group":"adm","owner":"root",)"
      R"("privilege":"755","mt":"2021-03-04 05:06:07","is_link":1,"is_cached":1,"is_autotier":1,"is_h265":1,)"
      R"("trans":1,"has_thumbnail":1,"snapshot_id":0},)"
      R"({"filename":"b\u0000c","filepath":"\/S\/b","filesize":3,"isfolder":0,"is_link":0}],)"
      R"("total":7,"changed":false,"error_code":0,"error_message":""})");
  EXPECT_EQ(listing.total, 7);
  ASSERT_EQ(listing.clusters.size(), 2U);
  EXPECT_EQ(listing.clusters[0].value, "folder");
  EXPECT_EQ(listing.clusters[0].count, 1);
  EXPECT_EQ(listing.clusters[1].value, "");
  EXPECT_EQ(listing.clusters[1].count, 6);
  ASSERT_EQ(listing.entries.size(), 2U);
  const Entry &first = listing.entries[0];
  EXPECT_EQ(first.name, "a");
  EXPECT_EQ(first.path, "/S/a");
  EXPECT_EQ(first.size, 4096);
  EXPECT_TRUE(first.folder);
  EXPECT_EQ(first.owner, "root");
  EXPECT_EQ(first.group, "adm");
  EXPECT_EQ(first.permissions, "755");
  EXPECT_EQ(first.modified, "2021-03-04 05:06:07");
  EXPECT_EQ(first.marks,
            (std::vector<std::string>{"link", "cached", "autotier", "h265", "transcoded", "thumbnail", "snapshot"}));
  const Entry &second = listing.entries[1];
  EXPECT_EQ(second.name, std::string("b\0c", 3));
  EXPECT_FALSE(second.folder);
  EXPECT_EQ(second.owner, "");
  EXPECT_EQ(second.marks, std::vector<std::string>());
}

struct Wrong {
  std::string reply;
  Status status;
  std::string message;
};

template <typename Reader>
void expect_failure(Reader read, const Wrong &wrong) {
  SCOPED_TRACE(wrong.reply);
  try {
    read(wrong.reply);
    ADD_FAILURE() << "no failure";
  } catch (const Failure &failure) {
    EXPECT_EQ(failure.status(), wrong.status);
    EXPECT_EQ(failure.what(), wrong.message);
  }
}

TEST(Reply, FailsWithTheServicesMessageOrForWantOfAListing) {
  const std::vector<Wrong> rows = {
      {R"({"error_code":2,"error_message":"invalid sort"})", Status::refused,
       "the service says: invalid sort (error 2)"},
      {R"({"error_code":3,"error_message":"odd\u001b"})", Status::refused, "the service says: odd\\u001b (error 3)"},
      {"", Status::unreachable, "the answer is none of this service"},
      {"no JSON", Status::unreachable, "the answer is none of this service"},
      {"[]", Status::unreachable, "the answer is none of this service"},
      {"{}", Status::unreachable, "the answer is none of this service"},
      {R"({"error_code":0,"error_message":""})", Status::unreachable, "the answer holds no listing"},
      {R"({"error_code":0,"datas":{}})", Status::unreachable, "the answer holds no listing"},
  };
  for (const Wrong &row : rows) {
    expect_failure(read_listing, row);
  }
}

TEST(Reply, SaysWhetherAKeptListingHasChanged) {
  EXPECT_TRUE(read_listing(R"({"datas":[],"changed":true,"error_code":0})").changed);
  for (const char *reply : {R"({"datas":[],"changed":false,"error_code":0})", R"({"datas":[],"error_code":0})",
                            R"({"datas":[],"changed":"true","error_code":0})"}) {
    EXPECT_FALSE(read_listing(reply).changed) << reply;
  }
}

TEST(Reply, NamesTheListingThatIsKept) {
  const CreatedCache created = read_created(
      R"({"cluster":[{"value":"txt","count":2},{"value":"","count":1}],"uuid":"u","total":3,"error_code":0})");
  EXPECT_EQ(created.uuid, "u");
  EXPECT_EQ(created.total, 3);
  ASSERT_EQ(created.clusters.size(), 2U);
  EXPECT_EQ(created.clusters[0].value, "txt");
  EXPECT_EQ(created.clusters[0].count, 2);
  EXPECT_EQ(created.clusters[1].value, "");
  expect_failure(read_created, {R"({"error_code":3,"error_message":"cache failure"})", Status::refused,
                                "the service says: cache failure (error 3)"});
  for (const char *reply : {R"({"error_code":0,"error_message":""})", R"({"uuid":5,"error_code":0})"}) {
    expect_failure(read_created, {reply, Status::unreachable, "the answer names no cache"});
  }
}

TEST(Reply, MaySayNothingButThatItIsDone) {
  EXPECT_NO_THROW(read_done(R"({"error_code":0,"error_message":""})"));
  expect_failure(read_done, {R"({"error_code":3,"error_message":"uuid not found"})", Status::refused,
                             "the service says: uuid not found (error 3)"});
  expect_failure(read_done, {"{}", Status::unreachable, "the answer is none of this service"});
}

TEST(Reply, BearsMembersOfOtherTypes) {
  const Listing listing =
      read_listing(R"({"error_code":0,"datas":[5,{"filename":7,"filesize":"x"}],"total":"y","cluster":{"a":1}})");
  ASSERT_EQ(listing.entries.size(), 2U);
  EXPECT_EQ(listing.entries[1].name, "");
  EXPECT_EQ(listing.entries[1].size, 0);
  EXPECT_EQ(listing.total, 0);
  EXPECT_TRUE(listing.clusters.empty());
}

}  // namespace
