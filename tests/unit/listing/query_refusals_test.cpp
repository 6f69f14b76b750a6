// What a listing request is refused for, each with its own message.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "listing/resource_query.h"
#include "query_support.h"
#include "support/environment.h"
#include "support/temp_dir.h"

namespace dirwell {
namespace {

using test::filter_at;
using test::parse_members;
using test::parse_text;
using test::Parsed;
using test::refusal_of;

struct Refusal {
  std::string members;
  std::string message;  // "0": accepted
};

void expect_refusals(const std::vector<Refusal> &rows) {
  for (const Refusal &row : rows) {
    EXPECT_EQ(refusal_of(parse_members(row.members)), row.message) << row.members;
  }
}

TEST(QueryRefusal, RefusesBadPaths) {
  const std::vector<Refusal> rows = {
      {R"({})", "invalid path"},
      {R"({"path": "/share"})", "invalid path type"},
      {R"({"path": {}})", "invalid path type"},
      {R"({"path": null})", "invalid path type"},
      {R"({"path": []})", "0"},
      {R"({"path": ["/share"]})", "invalid path array item"},
      {R"({"path": [[]]})", "invalid path array item"},
      {R"({"path": [null]})", "invalid path array item"},
      {R"({"path": [{}]})", "invalid full_path object format"},
      {R"({"path": [{"alias": "/A"}]})", "invalid full_path object format"},
      {R"({"path": [{"full_path": 1, "alias": "/A"}]})", "invalid full_path object format"},
      {R"({"path": [{"full_path": null, "alias": "/A"}]})", "invalid full_path object format"},
      {R"({"path": [{"full_path": "/a"}]})", "invalid alias object format"},
      {R"({"path": [{"full_path": "/a", "alias": true}]})", "invalid alias object format"},
      {R"({"path": [{"full_path": "/a", "alias": "/A"}]})", "0"},
      {R"({"path": [{"full_path": "", "alias": ""}]})", "0"},
      {R"({"path": [{"full_path": "/a", "alias": "/A"}, 5]})", "invalid path array item"},
      // A zero byte would cut the path to one that the client did not name.
      {R"({"path": [{"full_path": "/a\u0000/b", "alias": "/A"}]})", "invalid full_path object format"},
      {R"({"path": [{"full_path": "/a", "alias": "/A\u0000"}]})", "invalid alias object format"},
  };
  for (const Refusal &row : rows) {
    EXPECT_EQ(refusal_of(parse_text(row.members)), row.message) << row.members;
  }
}

TEST(QueryRefusal, RefusesARequestThatIsNoObject) {
  Parsed parsed;
  parseResourceQuery(parsed.query, nullptr, parsed.record);
  EXPECT_EQ(refusal_of(parsed), "invalid path");
}

TEST(QueryRefusal, RefusesBadNames) {
  expect_refusals({
      {R"("name": 5)", "invalid name"},
      {R"("name": null)", "invalid name"},
      {R"("name": ["*"])", "invalid name"},
      {R"("name": "a*\u0000b")", "invalid name"},
      {R"("name": "")", "0"},
      {R"("name": "*")", "0"},
  });
}

TEST(QueryRefusal, RefusesBadTypes) {
  expect_refusals({
      {R"("type": 1)", "invalid type"},
      {R"("type": null)", "invalid type"},
      {R"("type": "")", "invalid type"},
      {R"("type": "Music")", "invalid type"},
      {R"("type": "document")", "invalid type"},
      {R"("type": " music")", "invalid type"},
      {R"("type": "music ")", "invalid type"},
      {R"("type": "music\n")", "invalid type"},
      {R"("type": "musicvideo")", "invalid type"},
      {R"("type": "music:")", "invalid type"},
      {R"("type": "extname:")", "invalid type"},
      {R"("type": "extname:gz\u0000x")", "invalid type"},
      {R"("type": "music\u0000")", "invalid type"},
      {R"("type": "music:xyz")", "0"},
      {R"("type": "extname")", "0"},
      {R"("type": "extname:a:b")", "0"},
  });
}

TEST(QueryRefusal, RefusesBadDates) {
  expect_refusals({
      {R"("date": ">5")", "invalid date"},
      {R"("date": {})", "invalid date"},
      {R"("date": null)", "invalid date"},
      {R"("date": [5])", "invalid date"},
      {R"("date": [null])", "invalid date"},
      {R"("date": [""])", "invalid date"},
      {R"("date": ["5"])", "invalid date"},
      {R"("date": [">"])", "invalid date"},
      {R"("date": [">-5"])", "invalid date"},
      {R"("date": ["> 5"])", "invalid date"},
      {R"("date": ["!=5"])", "invalid date"},
      {R"("date": ["=5"])", "invalid date"},
      {R"("date": [">5K"])", "invalid date"},
      {R"("date": [">5\u0000"])", "invalid date"},
      {R"("date": [">5", "x"])", "invalid date"},
      {R"("date": [])", "0"},
      {R"("date": [">5", "<=9"])", "0"},
  });
}

TEST(QueryRefusal, RefusesBadSizes) {
  expect_refusals({
      {R"("size": 5)", "invalid size"},
      {R"("size": null)", "invalid size"},
      {R"("size": [">5"])", "invalid size"},
      {R"("size": "")", "invalid size"},
      {R"("size": "10K")", "invalid size"},
      {R"("size": "!=5")", "invalid size"},
      {R"("size": ">=K")", "invalid size"},
      {R"("size": ">10k")", "invalid size"},
      {R"("size": ">10KB")", "invalid size"},
      {R"("size": ">10B")", "invalid size"},
      {R"("size": ">1.5K")", "invalid size"},
      {R"("size": ">-1")", "invalid size"},
      {R"("size": ">10E")", "invalid size"},
      {R"("size": ">10\u0000K")", "invalid size"},
      {R"("size": ">=10K")", "0"},
  });
}

TEST(QueryRefusal, RefusesOwnersAndGroupsThatTheMachineDoesNotKnow) {
  expect_refusals({
      {R"("owner": 0)", "invalid owner"},
      {R"("owner": null)", "invalid owner"},
      {R"("owner": "")", "invalid owner"},
      {R"("owner": "0")", "invalid owner"},
      {R"("owner": "no-such-user-here")", "invalid owner"},
      {R"("owner": "root\u0000x")", "invalid owner"},
      {R"("owner": "root")", "0"},
      {R"("group": 0)", "invalid group"},
      {R"("group": null)", "invalid group"},
      {R"("group": "")", "invalid group"},
      {R"("group": "no-such-group-here")", "invalid group"},
      {R"("group": "root\u0000x")", "invalid group"},
      {R"("group": "root")", "0"},
  });
}

// In a mount namespace of its own, whose account files the test writes.
TEST(QueryRefusal, RefusesOwnersAndGroupsWhoseRecordsExceedTheirBuffer) {
  const test::TempDir folder;
  const std::string accounts = folder.write(
      "passwd", "short:x:71001:71001::/:/bin/sh\nlong:x:71002:71002:" + std::string(1100, 'x') + ":/:/bin/sh\n");
  const std::string groups = folder.write("group", "few:x:71001:a,b\nmany:x:71002:" + std::string(1100, 'm') + "\n");
  EXPECT_EQ(test::in_child([&] {
              test::use_account_files(accounts, groups);
              const bool right = refusal_of(parse_members(R"("owner": "short", "group": "few")")) == "0" &&
                                 refusal_of(parse_members(R"("owner": "long")")) == "invalid owner" &&
                                 refusal_of(parse_members(R"("group": "many")")) == "invalid group";
              ::_exit(right ? 0 : 1);
            }),
            0);
}

TEST(QueryRefusal, RefusesBadOrders) {
  for (const std::string key : {"sort", "cluster"}) {
    for (const char *value :
         {"1", "null", "[]", R"("")", R"("Name")", R"("name:")", R"("name:ASC")", R"("name:up")", R"(":asc")",
          R"("names")", R"("name:asc:desc")", R"("extension")", R"("name\u0000")", R"(" name")", R"("name\n")"}) {
      EXPECT_EQ(refusal_of(parse_members('"' + key + "\": " + value)), "invalid " + key) << value;
    }
    for (const char *field : {"name", "date", "type", "size", "owner", "group", "permission"}) {
      for (const char *direction : {"", ":asc", ":desc"}) {
        EXPECT_EQ(refusal_of(parse_members('"' + key + "\": \"" + field + direction + '"')), "0") << field << direction;
      }
    }
  }
}

TEST(QueryRefusal, RefusesWhatTheSharedReadersRefuse) {
  expect_refusals({
      {R"("limit": 49)", "invalid limit"},
      {R"("limit": 2001)", "invalid limit"},
      {R"("limit": null)", "invalid limit"},
      {R"("limit": 4294967396)", "invalid limit"},
      {R"("lang": "EN")", "invalid lang"},
      {R"("lang": 5)", "invalid lang"},
      {R"("lang": "ger")", "0"},
  });
}

TEST(QueryRefusal, NeitherReadsNorNeedsAUuid) {
  expect_refusals({{R"("uuid": 5)", "0"}, {R"("uuid": "no uuid")", "0"}, {"", "0"}});
}

TEST(QueryRefusal, ReportsTheFirstFailureInReadingOrder) {
  const std::vector<std::pair<std::string, std::string>> parameters = {
      {R"("limit": 1)", "invalid limit"}, {R"("lang": "xx")", "invalid lang"},    {R"("path": 1)", "invalid path type"},
      {R"("name": 1)", "invalid name"},   {R"("type": 1)", "invalid type"},       {R"("date": 1)", "invalid date"},
      {R"("size": 1)", "invalid size"},   {R"("owner": 1)", "invalid owner"},     {R"("group": 1)", "invalid group"},
      {R"("sort": 1)", "invalid sort"},   {R"("cluster": 1)", "invalid cluster"},
  };
  for (std::size_t first = 0; first < parameters.size(); ++first) {
    std::string text = first > 2 ? R"({"path": [])" : R"({"index": 9)";
    for (std::size_t i = parameters.size(); i-- > first;) {  // the order of the keys is none of it
      text += ", " + parameters[i].first;
    }
    EXPECT_EQ(refusal_of(parse_text(text + "}")), parameters[first].second) << text;
  }
}

TEST(QueryRefusal, StopsAtTheFirstFailure) {
  const Parsed parsed = parse_members(R"("name": 5, "type": "music", "sort": "size")");
  EXPECT_EQ(refusal_of(parsed), "invalid name");
  ASSERT_EQ(parsed.query.filters.size(), 1U);
  filter_at<HiddenFilter>(parsed.query, 0);
  EXPECT_EQ(parsed.query.sorter, nullptr);
}

TEST(QueryRefusal, DoesNothingOnceTheRecordHoldsAnError) {
  Parsed parsed = parse_members(R"("name": "*", "cluster": "size", "recursive": true, "reach_time": 3, "limit": 60)");
  ASSERT_EQ(parsed.query.filters.size(), 2U);
  set_error(parsed.record, 3, "from before");
  const JsonRef request = test::json_of(R"({"path": [{"full_path": "/a", "alias": "/A"}], "limit": 70})");
  parseResourceQuery(parsed.query, request.get(), parsed.record);
  EXPECT_EQ(parsed.record.code, 3U);
  EXPECT_STREQ(parsed.record.message, "from before");
  EXPECT_TRUE(parsed.query.filters.empty());
  EXPECT_TRUE(parsed.query.roots.empty());
  EXPECT_EQ(parsed.query.sorter, nullptr);
  EXPECT_EQ(parsed.query.cluster, nullptr);
  EXPECT_FALSE(parsed.query.recursive);
  EXPECT_EQ(parsed.query.reachTime, 0);
  EXPECT_EQ(parsed.query.scanLimit, 100000U);
  EXPECT_EQ(parsed.query.pageLimit, 500);
}

}  // namespace
}  // namespace dirwell
