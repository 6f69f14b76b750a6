#include "platform/host/cgi.h"

#include "platform/host/json_end.h"
#include "platform/host/response_head.h"

namespace dirwell::host {
namespace {

using State = CgiReader::State;

TEST(CgiReader, SeparatesHeadAndBody) {
  CgiReader reader;
  EXPECT_EQ(reader.feed("Content-Type: text/plain\r\nX-Own: 1\r\n\r\nbody"), "body");
  ASSERT_EQ(reader.state(), State::body);
  EXPECT_EQ(reader.head().status, 200);
  EXPECT_EQ(reader.head().reason, "OK");
  EXPECT_EQ(reader.head().fields, "Content-Type: text/plain\r\nX-Own: 1\r\n");
  EXPECT_FALSE(reader.head().json);
  EXPECT_EQ(reader.feed("more"), "more");
}

TEST(CgiReader, ReadsTheSameByteByByte) {
  CgiReader reader;
  std::string body;
  for (const char byte : std::string("Content-Type: application/json\r\n\r\n{\"a\":\"\\\"}\"}")) {
    body.append(reader.feed({&byte, 1}));
  }
  EXPECT_EQ(body, "{\"a\":\"\\\"}\"}");
  EXPECT_EQ(reader.head().fields, "Content-Type: application/json\r\n");
  EXPECT_TRUE(reader.whole(false));
}

TEST(CgiReader, AcceptsBareLineFeeds) {
  CgiReader reader;
  EXPECT_EQ(reader.feed("A: 1\nB: 2\n\nbody"), "body");
  EXPECT_EQ(reader.head().fields, "A: 1\r\nB: 2\r\n");
}

TEST(CgiReader, HonoursTheStatusLine) {
  CgiReader with_reason;
  with_reason.feed("Status: 404 Nothing here\r\n\r\n");
  EXPECT_EQ(with_reason.head().status, 404);
  EXPECT_EQ(with_reason.head().reason, "Nothing here");
  EXPECT_EQ(with_reason.head().fields, "");
  CgiReader bare;
  bare.feed("status:503\r\nA: b\r\n\r\n");
  EXPECT_EQ(bare.head().status, 503);
  EXPECT_EQ(bare.head().reason, "Service Unavailable");
}

TEST(CgiReader, KeepsFieldsOfTheConnectionToTheBus) {
  CgiReader reader;
  reader.feed(
      "Connection: keep-alive\r\nTransfer-Encoding: chunked\r\nKEEP-ALIVE: 5\r\nUpgrade: x\r\nTrailer: y\r\nTE: z"
      "\r\nContent-Length: 3\r\nEtag: kept\r\n\r\n");
  EXPECT_EQ(reader.head().fields, "Etag: kept\r\n");
  EXPECT_EQ(reader.head().content_length, 3U);
}

TEST(CgiReader, IsBrokenByWhatIsNoHead) {
  for (const char *head :
       {"\r\n\r\n", "\n\nbody", "no colon\r\n\r\n", ": empty\r\n\r\n", "bad name: x\r\n\r\n", " folded: x\r\n\r\n",
        "A: b\x01\r\n\r\n", "A: b\rC: d\r\n\r\n", "Status: 100 Continue\r\n\r\n", "Status: 600\r\n\r\n",
        "Status: ok\r\n\r\n", "Content-Length: -1\r\n\r\n", "Content-Length: 1 2\r\n\r\n"}) {
    CgiReader reader;
    EXPECT_EQ(reader.feed(head), "") << head;
    EXPECT_EQ(reader.state(), State::broken) << head;
    EXPECT_FALSE(reader.whole(true)) << head;
  }
}

TEST(CgiReader, BoundsTheHead) {
  CgiReader fits;
  fits.feed("A: " + std::string(CgiReader::head_limit - 8, 'x') + "\r\n\r\n");
  EXPECT_EQ(fits.state(), State::body);
  CgiReader too_long;
  too_long.feed("A: " + std::string(CgiReader::head_limit - 6, 'x') + "\r\n\r\n");
  EXPECT_EQ(too_long.state(), State::broken);
  CgiReader endless;
  for (int count = 0; count < 20; ++count) {
    endless.feed(std::string(1024, 'x'));
  }
  EXPECT_EQ(endless.state(), State::broken);
}

TEST(CgiReader, IsNotWholeWithoutAHead) {
  CgiReader reader;
  EXPECT_FALSE(reader.whole(true));
  reader.feed("Content-Type: text/plain\r\n");
  EXPECT_FALSE(reader.whole(true));
}

TEST(CgiReader, TellsACutJsonBodyFromAFinishedOne) {
  CgiReader reader;
  reader.feed("Content-Type: Application/JSON;charset=utf-8\r\n\r\n");
  EXPECT_FALSE(reader.whole(false));
  reader.feed("{\"a\":[1,2");
  EXPECT_FALSE(reader.whole(false));
  EXPECT_TRUE(reader.whole(true));
  reader.feed("]}");
  EXPECT_TRUE(reader.whole(false));
  CgiReader problem;
  problem.feed("Content-Type: application/problem+json\r\n\r\n{");
  EXPECT_FALSE(problem.whole(false));
}

TEST(CgiReader, TakesAnyEndOfAnotherType) {
  CgiReader reader;
  reader.feed("Content-Type: text/plain\r\n\r\nhal");
  EXPECT_TRUE(reader.whole(false));
}

TEST(CgiReader, HoldsTheHandlerToItsLength) {
  CgiReader reader;
  EXPECT_EQ(reader.feed("Content-Length: 5\r\n\r\nabc"), "abc");
  EXPECT_FALSE(reader.whole(true));
  EXPECT_EQ(reader.feed("defgh"), "de");
  EXPECT_TRUE(reader.whole(false));
  EXPECT_EQ(reader.feed("x"), "");
}

TEST(CgiReader, DropsTheBodyOfAResponseThatHasNone) {
  CgiReader reader;
  EXPECT_EQ(reader.feed("Status: 204\r\n\r\nbody"), "");
  EXPECT_TRUE(reader.whole(false));
}

TEST(JsonEnd, FindsTheEndOfOneValue) {
  for (const char *text : {"{}", " [1, {\"a\": \"]}\"}] \r\n", "\"text\"", R"({"a":"\\"})", R"(["\""])", "[[[]],{}]"}) {
    JsonEnd end;
    end.feed(text);
    EXPECT_TRUE(end.closed()) << text;
  }
  for (const char *text : {"", " ", "{", "[1,2", "{\"a", R"({"a\)", R"({"a\"})", "[]]", "{} x", "{}{}", "12", "]"}) {
    JsonEnd end;
    end.feed(text);
    EXPECT_FALSE(end.closed()) << text;
  }
}

TEST(HttpDate, HasTheFixedForm) {
  EXPECT_EQ(http_date(784111777), "Sun, 06 Nov 1994 08:49:37 GMT");
  EXPECT_EQ(http_date(0), "Thu, 01 Jan 1970 00:00:00 GMT");
  EXPECT_EQ(http_date(1709210096), "Thu, 29 Feb 2024 12:34:56 GMT");
}

TEST(ResponseHead, SpeaksOfFramingAndConnection) {
  CgiHead head;
  head.reason = "OK";
  head.fields = "Content-Type: text/plain\r\n";
  head.has_date = true;
  EXPECT_EQ(response_head(head, {.keep_alive = true}, 7),
            "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 7\r\n\r\n");
  EXPECT_EQ(response_head(head, {.keep_alive = true}, std::nullopt),
            "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nTransfer-Encoding: chunked\r\n\r\n");
  EXPECT_EQ(response_head(head, {.http_1_0 = true}, std::nullopt),
            "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nConnection: close\r\n\r\n");
  EXPECT_EQ(response_head(head, {.http_1_0 = true, .keep_alive = true}, 7),
            "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 7\r\nConnection: keep-alive\r\n\r\n");
  head.status = 204;
  head.reason = "No Content";
  EXPECT_EQ(response_head(head, {.keep_alive = true}, 0),
            "HTTP/1.1 204 No Content\r\nContent-Type: text/plain\r\n\r\n");
}

}  // namespace
}  // namespace dirwell::host
