#include <chrono>
#include <csignal>
#include <string>
#include <vector>

#include "command_line.h"

namespace {

using dirwell::test::body_of;
using dirwell::test::empty_listing;
using dirwell::test::Outcome;
using Arguments = std::vector<std::string>;

const std::string done = R"({"error_code":0,"error_message":""})";
const std::string made =
    R"({"cluster":[{"value":"txt","count":2},{"value":"","count":1}],"uuid":"the-uuid","total":3,"error_code":0})";
const std::string fresh = R"({"datas":[],"total":3,"changed":false,"error_code":0})";
const std::string stale = R"({"datas":[],"total":3,"changed":true,"error_code":0})";
const std::string unknown = R"({"error_code":2,"error_message":"invalid uuid"})";

class CacheCommand : public dirwell::test::CommandLine {
 protected:
  // The endpoint and the body of the only request.
  [[nodiscard]] std::string sent(const Arguments &arguments, const std::string &reply) const {
    std::vector<std::string> requests;
    const Outcome outcome = answered(arguments, {reply}, &requests);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(requests.size(), 1U);
    const std::string &request = requests.at(0);
    return request.substr(0, request.find(" HTTP/")) + " " + body_of(request);
  }
};

TEST_F(CacheCommand, SaysToTheServiceWhatIsAskedFor) {
  struct Row {
    Arguments arguments;
    std::string reply;
    std::string sent;
  };
  const std::string path = R"({"path":[{"full_path":"/f","alias":"/f"}])";
  const std::vector<Row> rows = {
      {{"cache", "create", "/f"}, made, "POST /create.cache " + path + "}"},
      {{"cache", "create", "/f", "--index", "2", "--limit", "60", "--recursive", "--lang", "GER", "--hidden"},
       made,
       "POST /create.cache " + path + R"(,"lang":"GER","hidden":0,"recursive":true,"limit":60,"index":2})"},
      {{"cache", "create", "--name", "[ab]", "/f"}, made, "POST /create.cache " + path + R"(,"name":"[ab]"})"},
      {{"cache", "fetch", "u"}, fresh, R"(POST /fetch.cache {"uuid":"u"})"},
      {{"cache", "fetch", "u", "--offset", "-1", "--limit", "50", "--index", "2"},
       fresh,
       R"(POST /fetch.cache {"uuid":"u","limit":50,"offset":-1,"index":2})"},
      {{"cache", "delete", "u"}, done, R"(POST /delete.cache {"uuid":"u"})"},
      {{"cache", "delete", "--index", "2", "u"}, done, R"(POST /delete.cache {"uuid":"u","index":2})"},
      {{"cache", "follow", "u"}, stale, R"(POST /fetch.cache {"uuid":"u","limit":50,"offset":2147483647})"},
      {{"cache", "follow", "u", "--index", "2"},
       stale,
       R"(POST /fetch.cache {"uuid":"u","limit":50,"offset":2147483647,"index":2})"},
      {{"watch"}, done, "POST /watch {}"},
      {{"watch", "--index", "2"}, done, R"(POST /watch {"index":2})"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.arguments));
    EXPECT_EQ(sent(row.arguments, row.reply), row.sent);
  }
}

TEST_F(CacheCommand, TakesFoldersWhoseNamesStandInBrackets) {
  EXPECT_THAT(sent({"cache", "create", "/f", "[g]"}, made), testing::HasSubstr(R"(/[g]","alias":"/[g]"})"));
}

TEST_F(CacheCommand, PrintsTheUuidTheTotalAndTheClustersThatWereAskedFor) {
  EXPECT_EQ(answered({"cache", "create", "/f"}, {made}).out, "the-uuid\n3 entries\n");
  EXPECT_EQ(answered({"cache", "create", "/f", "--cluster", "type"}, {made}).out,
            "the-uuid\n3 entries\nCLUSTER ENTRIES\ntxt           2\n(none)        1\n");
  EXPECT_EQ(answered({"cache", "create", "/f", "--cluster", "type", "--json"}, {made}).out, made + "\n");
}

std::string page_of(const std::vector<std::string> &paths) {
  std::string entries;
  for (const std::string &path : paths) {
    entries += (entries.empty() ? "" : ",") + (R"({"filename":"n","filepath":")" + path) +
               R"(","filesize":5,"owner":"u","group":"g","privilege":"644","mt":"M"})";
  }
  return R"({"datas":[)" + entries + R"(],"total":7,"changed":true,"error_code":0})";
}

TEST_F(CacheCommand, PrintsAPageAndWhetherItIsStale) {
  EXPECT_EQ(answered({"cache", "fetch", "u"}, {page_of({"/f/n", "/f/n"})}).out,
            "NAME SIZE TYPE OWNER GROUP MODE MODIFIED MARKS\n"
            "n       5 file u     g      644 M\n"
            "n       5 file u     g      644 M\n"
            "2 of 7 entries\n"
            "stale: the folders have changed\n");
  EXPECT_THAT(answered({"cache", "fetch", "u"}, {page_of({"/f/n", "/f/g/n"})}).out,
              testing::AllOf(testing::HasSubstr("\n/f/n "), testing::HasSubstr("\n/f/g/n ")));
  EXPECT_THAT(answered({"cache", "fetch", "u"}, {page_of({"n", "n"})}).out, testing::HasSubstr("\nn "));
  EXPECT_EQ(answered({"cache", "fetch", "u"}, {fresh}).out, "0 of 3 entries\nno change was seen\n");
  EXPECT_EQ(answered({"cache", "fetch", "u", "--json"}, {stale}).out, stale + "\n");
}

TEST_F(CacheCommand, SaysNothingWhereThereIsNothingToSay) {
  for (const Arguments &line : std::vector<Arguments>{{"cache", "delete", "u"}, {"watch"}}) {
    const Outcome outcome = answered(line, {done});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out + outcome.err, "");
  }
}

TEST_F(CacheCommand, FollowsUntilTheCacheIsStale) {
  std::vector<std::string> requests;
  const auto begin = std::chrono::steady_clock::now();
  const Outcome outcome = answered({"cache", "follow", "u", "--interval", "0.1"}, {fresh, fresh, stale}, &requests);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(200));
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "stale: the folders have changed\n");
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(requests.size(), 3U);
}

TEST_F(CacheCommand, AsksOnceASecondWhenNothingElseIsSaid) {
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(answered({"cache", "follow", "u"}, {fresh, stale}).status, 0);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1000));
}

TEST_F(CacheCommand, KeepsFollowingUntilTheCacheIsGone) {
  std::vector<std::string> requests;
  const Outcome outcome = answered({"cache", "follow", "u", "--keep", "--interval", "0.05"},
                                   {fresh, stale, stale, fresh, stale, unknown}, &requests);
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out,
            "stale: the folders have changed\n"
            "no change was seen\n"
            "stale: the folders have changed\n");
  EXPECT_EQ(outcome.err, "dirwellctl: the service says: invalid uuid (error 2)\n");
  EXPECT_EQ(requests.size(), 6U);
}

TEST_F(CacheCommand, LeavesTheProcessesSignalsAsTheyWere) {
  struct sigaction mine {};
  mine.sa_handler = SIG_IGN;
  struct sigaction before {};
  ::sigaction(SIGINT, &mine, &before);
  EXPECT_EQ(answered({"cache", "follow", "u"}, {stale}).status, 0);
  struct sigaction after {};
  ::sigaction(SIGINT, &before, &after);
  EXPECT_EQ(after.sa_handler, SIG_IGN);
}

TEST_F(CacheCommand, EndsWithOneWhenTheServiceRefuses) {
  for (const Arguments &line : std::vector<Arguments>{{"cache", "create", "/f"},
                                                      {"cache", "fetch", "u"},
                                                      {"cache", "delete", "u"},
                                                      {"cache", "follow", "u"},
                                                      {"watch"}}) {
    SCOPED_TRACE(testing::PrintToString(line));
    const Outcome outcome = answered(line, {R"({"error_code":2,"error_message":"invalid index"})"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "dirwellctl: the service says: invalid index (error 2)\n");
  }
  for (const char *command : {"create", "fetch"}) {
    const Outcome outcome = answered({"cache", command, "/u", "--json"}, {unknown});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, unknown + "\n");
  }
}

TEST_F(CacheCommand, EndsWithTwoWithoutAWholeAnswer) {
  EXPECT_EQ(run({"cache", "follow", "u"}).status, 2);
  EXPECT_EQ(answered({"cache", "create", "/f"}, {empty_listing.substr(1)}).status, 2);
  EXPECT_EQ(answered({"cache", "create", "/f"}, {fresh}).status, 2);
  EXPECT_EQ(answered({"cache", "fetch", "u"}, {made}).status, 2);
  EXPECT_EQ(answered({"cache", "delete", "u"}, {"{}"}).status, 2);
}

TEST_F(CacheCommand, EndsWithSixtyFourWhenItMakesNoSense) {
  const std::vector<Arguments> lines = {
      {"cache"},
      {"cache", "nonsense"},
      {"cache", "create"},
      {"cache", "create", "/f", "--offset", "1"},
      {"cache", "fetch"},
      {"cache", "fetch", "u", "another"},
      {"cache", "fetch", "u", "--sort", "name"},
      {"cache", "fetch", "bad\xFF"},
      {"cache", "delete"},
      {"cache", "delete", "u", "--limit", "50"},
      {"cache", "follow"},
      {"cache", "follow", "u", "--interval", "0"},
      {"cache", "follow", "u", "--interval", "-1"},
      {"cache", "follow", "u", "--interval", "often"},
      {"cache", "follow", "u", "--index", "first"},
      {"watch", "u"},
  };
  for (const Arguments &line : lines) {
    SCOPED_TRACE(testing::PrintToString(line));
    const Outcome outcome = answered(line, {stale});
    EXPECT_EQ(outcome.status, 64);
    EXPECT_EQ(outcome.out, "");
    EXPECT_NE(outcome.err, "");
  }
}

}  // namespace
