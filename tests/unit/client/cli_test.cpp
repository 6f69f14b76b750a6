#include <filesystem>
#include <fstream>
#include <ostream>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

#include "client/instance.h"
#include "command_line.h"
#include "fake_service.h"
#include "support/environment.h"

namespace {

using dirwell::test::CommandLine;
using dirwell::test::empty_listing;
using dirwell::test::FakeService;
using dirwell::test::json_reply;
using dirwell::test::Outcome;
using dirwell::test::ScopedEnvironment;
using Arguments = std::vector<std::string>;

TEST_F(CommandLine, TurnsEachOptionIntoItsParameter) {
  struct Row {
    Arguments arguments;
    std::string members;
  };
  const std::vector<Row> rows = {
      {{"/f"}, ""},
      {{"/f", "--sort", "size:desc"}, R"(,"sort":"size:desc")"},
      {{"/f", "--sort=size:desc"}, R"(,"sort":"size:desc")"},
      {{"--cluster", "type", "/f"}, R"(,"cluster":"type")"},
      {{"/f", "--type", "extname:txt"}, R"(,"type":"extname:txt")"},
      {{"/f", "--name", "[ab]*"}, R"(,"name":"[ab]*")"},
      {{"/f", "--name", "[ab]"}, R"(,"name":"[ab]")"},
      {{"/f", "--name", ""}, R"(,"name":"")"},
      {{"/f", "--size", ">=10K"}, R"(,"size":">=10K")"},
      {{"--date", ">=1", "/f", "--date", "<9"}, R"(,"date":[">=1","<9"])"},
      {{"/f", "--date", "[1]"}, R"(,"date":["[1]"])"},
      {{"/f", "--owner", "root", "--group", "adm"}, R"(,"owner":"root","group":"adm")"},
      {{"--hidden", "/f"}, R"(,"hidden":0)"},
      {{"--recursive", "/f"}, R"(,"recursive":true)"},
      {{"/f", "--lang", "GER"}, R"(,"lang":"GER")"},
      {{"/f", "--limit", "60", "--offset", "120"}, R"(,"limit":60,"offset":120)"},
      {{"/f", "--offset", "-1"}, R"(,"offset":-1)"},
      {{"/f", "--json"}, ""},
      {{"--", "/f"}, ""},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.arguments));
    std::string request;
    EXPECT_EQ(list(row.arguments, empty_listing, &request).status, 0);
    EXPECT_EQ(request, R"({"path":[{"full_path":"/f","alias":"/f"}])" + row.members + "}");
  }
}

TEST_F(CommandLine, TakesSeveralFoldersAndTheirAliases) {
  std::string request;
  list({"/a", "--alias", "/One", "/b", "--alias", "Two", "/c"}, empty_listing, &request);
  EXPECT_EQ(request, R"({"path":[{"full_path":"/a","alias":"/One"},{"full_path":"/b","alias":"Two"},)"
                     R"({"full_path":"/c","alias":"/c"}]})");
}

TEST_F(CommandLine, TakesAFolderWhoseNameStandsInBrackets) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path("/");
  std::string request;
  list({"[a,b]", "--hidden", "[c]"}, empty_listing, &request);
  std::filesystem::current_path(before);
  EXPECT_EQ(request,
            R"({"path":[{"full_path":"/[a,b]","alias":"/[a,b]"},{"full_path":"/[c]","alias":"/[c]"}],"hidden":0})");
}

TEST_F(CommandLine, PrintsTheListing) {
  const std::string reply =
      R"({"cluster":[{"value":"txt","count":3}],"datas":[{"filename":"a.txt","filepath":"/f/a.txt","filesize":5,)"
      R"("isfolder":0,"owner":"u","group":"g","privilege":"644","mt":"M"}],"total":3,"error_code":0})";
  Outcome outcome = list({"/f", "--cluster", "type", "--offset", "2"}, reply);
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.out,
            "  NAME  SIZE TYPE OWNER GROUP MODE MODIFIED MARKS\n"
            "txt: 3 entries, continued\n"
            "  a.txt    5 file u     g      644 M\n"
            "1 of 3 entries\n");
  EXPECT_THAT(list({"/f", "--recursive"}, reply).out, testing::HasSubstr("\n/f/a.txt "));
  EXPECT_THAT(list({"/f", "/g"}, reply).out, testing::HasSubstr("\n/f/a.txt "));
  EXPECT_THAT(list({"/f"}, reply).out, testing::HasSubstr("\na.txt "));
}

TEST_F(CommandLine, PrintsTheReplyAsItCame) {
  const std::string reply = R"({ "datas":[],  "error_code":0,"total":1.50})";
  const Outcome outcome = list({"/f", "--json"}, reply);
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, reply + "\n");
}

TEST_F(CommandLine, EndsWithOneWhenTheServiceRefuses) {
  const std::string reply = R"({"error_code":2,"error_message":"invalid sort"})";
  Outcome outcome = list({"/f", "--sort", "x"}, reply);
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, "dirwellctl: the service says: invalid sort (error 2)\n");
  outcome = list({"/f", "--sort", "x", "--json"}, reply);
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, reply + "\n");
}

TEST_F(CommandLine, EndsWithTwoWithoutAnAnswer) {
  Outcome outcome = run({"list", "/f"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.err, "dirwellctl: no instance runs under " + folder.path() + "/var/run\n");
  outcome = run({"--sid", "abc", "list", "/f"});
  EXPECT_EQ(outcome.status, 2);
  outcome = list({"/f"}, "no JSON");
  EXPECT_EQ(outcome.status, 2);
}

TEST_F(CommandLine, EndsWithSixtyFourWhenItMakesNoSense) {
  const std::vector<Arguments> lines = {
      {},
      {"nonsense"},
      {"list"},
      {"list", "/f", "--nonsense"},
      {"list", "/f", "--limit", "many"},
      {"list", "/f", "--limit"},
      {"list", "/f", "--sid", "../x"},
      {"list", "/bad\xFF"},
      {"--timeout", "0", "list", "/f"},
      {"session"},
      {"session", "end"},
      {"session", "end", "../../x"},
      {"session", "create", "--sid", "a.b"},
      {"session", "create", "--expires", "0"},
      {"session", "create", "--expires", "-5"},
      {"session", "create", "--expires", "soon"},
      {"session", "create", "--expires", "9223372036854775807"},
  };
  const FakeService service(dirwell::client::socket_path(folder.path(), "abc"), json_reply(empty_listing));
  for (const Arguments &line : lines) {
    SCOPED_TRACE(testing::PrintToString(line));
    const Outcome outcome = run(line);
    EXPECT_EQ(outcome.status, 64);
    EXPECT_EQ(outcome.out, "");
    EXPECT_NE(outcome.err, "");
  }
}

TEST_F(CommandLine, HelpsOnStandardOutput) {
  for (const Arguments &line : std::vector<Arguments>{{"--help"}, {"list", "--help"}, {"session", "create", "-h"}}) {
    const Outcome outcome = run(line);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.out, testing::HasSubstr("Usage: "));
    EXPECT_EQ(outcome.err, "");
  }
}

TEST_F(CommandLine, TakesTheRootAndTheSessionAnywhereOnTheLine) {
  const ScopedEnvironment elsewhere("DIRWELL_ROOT", "/nowhere");
  const std::string path = folder.path();
  for (const Arguments &line : std::vector<Arguments>{{"--root", path, "--sid", "abc", "list", "/f"},
                                                      {"list", "--root", path, "/f", "--sid", "abc"},
                                                      {"list", "/f", "--root=" + path + "/"}}) {
    SCOPED_TRACE(testing::PrintToString(line));
    const FakeService service(dirwell::client::socket_path(path, "abc"), json_reply(empty_listing));
    EXPECT_EQ(run(line).out, "0 of 0 entries\n");
  }
}

TEST_F(CommandLine, TakesTheSessionFromTheEnvironment) {
  const ScopedEnvironment sid("DIRWELL_SID", "other");
  EXPECT_THAT(list({"/f"}, empty_listing).err, testing::HasSubstr("no instance runs for session other "));
}

TEST_F(CommandLine, BeginsListsAndEndsSessions) {
  const ScopedEnvironment sid("DIRWELL_SID", "ambient");  // names no new session
  Outcome outcome = run({"session", "create"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "");
  ASSERT_EQ(outcome.out.size(), 17U);
  const std::string made = outcome.out.substr(0, 16);
  EXPECT_TRUE(std::filesystem::exists(session_file(made)));

  EXPECT_EQ(run({"session", "create", "--sid", "zz-chosen", "--user", "daemon", "--expires", "1000"}).out,
            "zz-chosen\n");
  EXPECT_EQ(run({"session", "create", "--sid", "zz-chosen"}).status, 1);
  EXPECT_EQ(run({"session", "create", "--user", "no-such-account"}).status, 1);

  const FakeService service(dirwell::client::socket_path(folder.path(), "zz-chosen"), "");
  outcome = run({"session", "list"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.out, testing::MatchesRegex("SID +USER +EXPIRES +INSTANCE\n" + made + " root +never +-\n" +
                                                 "zz-chosen +daemon 20[0-9-]+ [0-9:]+ running\n"));

  EXPECT_EQ(run({"session", "end", made}).status, 0);
  EXPECT_FALSE(std::filesystem::exists(session_file(made)));
  outcome = run({"session", "end", made});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, "dirwellctl: there is no session " + made + "\n");
}

TEST_F(CommandLine, ShowsWhenASessionIsOverAndATimeBeyondTheCalendar) {
  const ScopedEnvironment zone("TZ", "UTC0");
  ASSERT_EQ(run({"session", "create", "--sid", "first"}).status, 0);
  std::ofstream(session_file("at")) << "user = root\nexpires = 4102444800\n";
  std::ofstream(session_file("beyond")) << "user = root\nexpires = 9223372036854775807\n";
  std::ofstream(session_file("over")) << "user = root\nexpires = 1600000000\n";
  std::ofstream(session_file("unread")) << "user = root\nexpires = soon\n";
  const Outcome outcome = run({"session", "list"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out,
            "SID    USER EXPIRES             INSTANCE\n"
            "at     root 2100-01-01 00:00:00 -\n"
            "beyond root 9223372036854775807 -\n"
            "first  root never               -\n"
            "over   root expired             -\n"
            "unread root expired             -\n");
}

// A stream that takes nothing and says so by an exception.
class Unwritable : private std::streambuf, public std::ostream {
 public:
  Unwritable() : std::ostream(this) { exceptions(std::ios_base::badbit); }
};

TEST_F(CommandLine, EndsWithOneWhenTheMachineFailsIt) {
  Unwritable out;
  std::ostringstream err;
  EXPECT_EQ(dirwell::client::run({"session", "create", "--sid", "unsaid"}, out, err), 1);
  EXPECT_THAT(err.str(), testing::MatchesRegex("dirwellctl: [^\n]+\n"));
  EXPECT_TRUE(std::filesystem::exists(session_file("unsaid")));
}

TEST_F(CommandLine, ListsNoSessionsWhereThereAreNone) {
  const Outcome outcome = run({"session", "list"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "");
}

}  // namespace
