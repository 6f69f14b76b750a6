#include "client/reply.h"

#include <string>
#include <vector>

#include "client/failure.h"

namespace {

using dirwell::client::Entry;
using dirwell::client::Failure;
using dirwell::client::Listing;
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
    SCOPED_TRACE(row.reply);
    try {
      read_listing(row.reply);
      ADD_FAILURE() << "no failure";
    } catch (const Failure &failure) {
      EXPECT_EQ(failure.status(), row.status);
      EXPECT_EQ(failure.what(), row.message);
    }
  }
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
