#include "client/bus_client.h"

#include <chrono>
#include <string>
#include <vector>

#include "client/failure.h"
#include "fake_service.h"
#include "support/temp_dir.h"

namespace {

using namespace dirwell::client;
using dirwell::test::FakeService;
using dirwell::test::http_reply;
using dirwell::test::json_reply;

class BusClient : public testing::Test {
 protected:
  [[nodiscard]] Instance instance() const { return {"abc", socket, std::chrono::milliseconds(patience)}; }

  [[nodiscard]] std::string failure(const std::string &body = "{}") const {
    try {
      return "no failure: " + call(instance(), "fetch.resource", body);
    } catch (const Failure &failure) {
      EXPECT_EQ(failure.status(), Status::unreachable);
      return failure.what();
    }
  }

  dirwell::test::TempDir folder;
  std::string socket = folder.at("sock");
  int patience = 5000;
};

TEST_F(BusClient, PostsTheRequestAndGivesTheReplyAsItIs) {
  FakeService service(socket, json_reply("{\"a\": 1}\n"));
  EXPECT_EQ(call(instance(), "fetch.resource", R"({"path":[]})"), "{\"a\": 1}\n");
  const std::string request = service.request();
  EXPECT_THAT(request, testing::StartsWith("POST /fetch.resource HTTP/1.1\r\n"));
  EXPECT_THAT(request, testing::HasSubstr("\r\nHost: localhost\r\n"));
  EXPECT_THAT(request, testing::HasSubstr("\r\nContent-Type: application/json\r\n"));
  EXPECT_THAT(request, testing::HasSubstr("\r\nContent-Length: 11\r\n"));
  EXPECT_THAT(request, testing::EndsWith("\r\n\r\n{\"path\":[]}"));
}

TEST_F(BusClient, ReadsChunkedReplies) {
  const FakeService service(socket,
                            "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n");
  EXPECT_EQ(call(instance(), "fetch.resource", "{}"), "abcde");
}

TEST_F(BusClient, ReadsAReplyOfTwentyMegabytes) {
  std::string body;
  body.resize(20'000'000, 'x');
  const FakeService service(socket, json_reply(body));
  EXPECT_EQ(call(instance(), "fetch.resource", "{}").size(), 20'000'000U);
}

TEST_F(BusClient, SaysThatNoInstanceRuns) {
  EXPECT_EQ(failure(), "no instance runs for session abc (" + socket +
                           ": No such file or directory); start it with: dirwell --sid abc");
  { const FakeService gone(socket, ""); }
  folder.write("sock");
  EXPECT_EQ(failure(),
            "no instance runs for session abc (" + socket + ": Connection refused); start it with: dirwell --sid abc");
}

TEST_F(BusClient, SaysThatASocketPathIsTooLong) {
  socket = "/" + std::string(200, 'x');
  EXPECT_EQ(failure(), socket + ": File name too long");
}

TEST_F(BusClient, SaysWhyTheServiceRefuses) {
  const std::string problem = R"({"type":"about:blank","title":"Forbidden","status":403,"detail":"not admitted\n"})";
  struct Row {
    std::string reply;
    const char *message;
  };
  const std::vector<Row> rows = {
      {http_reply("403 Forbidden", "application/problem+json", problem),
       "the service of session abc does not admit this user (Forbidden: not admitted\\n)"},
      {http_reply("404 Not Found", "application/problem+json", R"({"title":"Not Found"})"),
       "the service answered 404 (Not Found)"},
      {http_reply("502 Bad Gateway", "application/problem+json", R"({"detail":"ended early"})"),
       "the service answered 502 (ended early)"},
      {http_reply("500 Oh", "text/plain", "x"), "the service answered 500 (Oh)"},
  };
  for (const Row &row : rows) {
    const FakeService service(socket, row.reply);
    EXPECT_EQ(failure(), row.message);
  }
}

TEST_F(BusClient, HearsARefusalThatComesBeforeTheRequestIsRead) {
  const FakeService service(socket, http_reply("403 Forbidden", "application/problem+json", R"({"title":"No"})"),
                            FakeService::Reads::nothing);
  EXPECT_EQ(failure(std::string(900'000, 'x')), "the service of session abc does not admit this user (No)");
}

TEST_F(BusClient, GivesUpOnASilentService) {
  patience = 200;
  const FakeService service(socket, "");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(failure(), "no answer from " + socket + " within 1 s");
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST_F(BusClient, GivesUpOnAServiceThatDoesNotReadTheRequest) {
  patience = 200;
  const FakeService service(socket, "", FakeService::Reads::nothing);
  EXPECT_EQ(failure(std::string(5'000'000, 'x')), "no answer from " + socket + " within 1 s");
}

TEST_F(BusClient, SaysThatAnAnswerIsCutShort) {
  const FakeService service(socket, "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{");
  EXPECT_THAT(failure(), testing::StartsWith("no whole answer from " + socket + ": "));
}

TEST_F(BusClient, SaysThatAnAnswerIsNoHttp) {
  const FakeService service(socket, "SSH-2.0-hello\r\n");
  EXPECT_THAT(failure(), testing::StartsWith("no whole answer from " + socket + ": "));
}

}  // namespace
