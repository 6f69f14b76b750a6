#include "platform/host/response_head.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>

namespace dirwell::host {
namespace {

// A head whose date is the handler's, so that the whole text is known.
CgiHead handlers_head(int status = 200, const std::string &reason = "OK") {
  CgiHead head;
  head.status = status;
  head.reason = reason;
  head.fields = "Date: then\r\nX-Own: 1\r\n";
  head.has_date = true;
  return head;
}

std::string head_text(const ResponseTerms &terms, std::optional<std::uint64_t> length) {
  return response_head(handlers_head(), terms, length);
}

TEST(HttpDate, HasTheOneForm) {
  const struct {
    std::int64_t seconds;
    const char *text;
  } rows[] = {
      {784111777, "Sun, 06 Nov 1994 08:49:37 GMT"},  {0, "Thu, 01 Jan 1970 00:00:00 GMT"},
      {-1, "Wed, 31 Dec 1969 23:59:59 GMT"},         {1709164799, "Wed, 28 Feb 2024 23:59:59 GMT"},
      {1709164800, "Thu, 29 Feb 2024 00:00:00 GMT"}, {253402300799, "Fri, 31 Dec 9999 23:59:59 GMT"},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(http_date(row.seconds), row.text);
  }
}

TEST(ResponseHead, OfAKnownLengthTellsIt) {
  EXPECT_EQ(head_text({.http_1_0 = false, .head_only = false, .keep_alive = true}, 7),
            "HTTP/1.1 200 OK\r\nDate: then\r\nX-Own: 1\r\nContent-Length: 7\r\n\r\n");
  EXPECT_EQ(
      head_text({.http_1_0 = false, .head_only = false, .keep_alive = true}, std::numeric_limits<std::uint64_t>::max()),
      "HTTP/1.1 200 OK\r\nDate: then\r\nX-Own: 1\r\nContent-Length: 18446744073709551615\r\n\r\n");
}

TEST(ResponseHead, OfAnUnknownLengthIsChunkedWhereTheClientKnowsChunks) {
  EXPECT_EQ(head_text({.http_1_0 = false, .head_only = false, .keep_alive = true}, {}),
            "HTTP/1.1 200 OK\r\nDate: then\r\nX-Own: 1\r\nTransfer-Encoding: chunked\r\n\r\n");
  EXPECT_EQ(head_text({.http_1_0 = true, .head_only = false, .keep_alive = false}, {}),
            "HTTP/1.1 200 OK\r\nDate: then\r\nX-Own: 1\r\nConnection: close\r\n\r\n");
}

TEST(ResponseHead, TellsOfTheConnectionWhereItIsNotWhatTheVersionTakesForGranted) {
  EXPECT_EQ(head_text({.http_1_0 = false, .head_only = false, .keep_alive = false}, 0),
            "HTTP/1.1 200 OK\r\nDate: then\r\nX-Own: 1\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
  EXPECT_EQ(head_text({.http_1_0 = true, .head_only = false, .keep_alive = true}, 0),
            "HTTP/1.1 200 OK\r\nDate: then\r\nX-Own: 1\r\nContent-Length: 0\r\nConnection: keep-alive\r\n\r\n");
}

TEST(ResponseHead, OfAResponseWithoutBodyFramesNone) {
  for (const int status : {204, 304}) {
    const ResponseTerms terms{.http_1_0 = false, .head_only = false, .keep_alive = true};
    const std::string line = "HTTP/1.1 " + std::to_string(status) + " Nothing\r\n";
    EXPECT_EQ(response_head(handlers_head(status, "Nothing"), terms, 5), line + "Date: then\r\nX-Own: 1\r\n\r\n");
    EXPECT_EQ(response_head(handlers_head(status, "Nothing"), terms, {}), line + "Date: then\r\nX-Own: 1\r\n\r\n");
  }
}

TEST(ResponseHead, HasADateWhereTheHandlerGaveNone) {
  CgiHead head;
  head.reason = "OK";
  const std::string text = response_head(head, {.http_1_0 = false, .head_only = false, .keep_alive = true}, 0);
  EXPECT_THAT(text, testing::MatchesRegex("HTTP/1.1 200 OK\r\nDate: [A-Z][a-z][a-z], [0-9][0-9] [A-Z][a-z][a-z] "
                                          "20[0-9][0-9] [0-9:]+ GMT\r\nContent-Length: 0\r\n\r\n"));
}

TEST(Refusal, IsAProblemThatAHeadRequestSeesTheHeadOf) {
  const std::string whole = refusal(404, "No.", {.http_1_0 = false, .head_only = false, .keep_alive = false});
  const std::string body = R"({"type":"about:blank","title":"Not Found","status":404,"detail":"No."})";
  EXPECT_TRUE(whole.starts_with("HTTP/1.1 404 Not Found\r\nDate: ")) << whole;
  EXPECT_TRUE(
      whole.ends_with("\r\nContent-Type: application/problem+json\r\nContent-Length: 70\r\n"
                      "Connection: close\r\n\r\n" +
                      body))
      << whole;
  const std::string head = refusal(404, "No.", {.http_1_0 = false, .head_only = true, .keep_alive = false});
  EXPECT_TRUE(head.ends_with("\r\nContent-Length: 70\r\nConnection: close\r\n\r\n")) << head;
}

}  // namespace
}  // namespace dirwell::host
