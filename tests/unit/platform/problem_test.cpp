#include "platform/host/problem.h"

#include <gtest/gtest.h>

namespace dirwell::host {
namespace {

TEST(ReasonPhrase, IsKnownForWhatTheBusAndItsHandlersSay) {
  const struct {
    int status;
    const char *phrase;
  } rows[] = {
      {200, "OK"},
      {204, "No Content"},
      {400, "Bad Request"},
      {403, "Forbidden"},
      {404, "Not Found"},
      {405, "Method Not Allowed"},
      {408, "Request Timeout"},
      {413, "Content Too Large"},
      {431, "Request Header Fields Too Large"},
      {502, "Bad Gateway"},
      {503, "Service Unavailable"},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(reason_phrase(row.status), row.phrase) << row.status;
  }
}

TEST(ReasonPhrase, IsUnknownForAllElse) {
  for (const int status : {-1, 0, 199, 203, 418, 504, 999}) {
    EXPECT_EQ(reason_phrase(status), "Unknown") << status;
  }
}

TEST(Problem, TellsStatusTitleAndDetail) {
  EXPECT_EQ(problem_json(404, "Nothing here."),
            R"({"type":"about:blank","title":"Not Found","status":404,"detail":"Nothing here."})");
}

TEST(Problem, IsAResponseWithTheAllowedMethodsWhereThereAreSome) {
  EXPECT_EQ(problem_response(404, "No."),
            "Status: 404 Not Found\r\nContent-Type: application/problem+json\r\n\r\n"
            R"({"type":"about:blank","title":"Not Found","status":404,"detail":"No."})");
  EXPECT_EQ(problem_response(405, "No.", "POST, OPTIONS"),
            "Status: 405 Method Not Allowed\r\nContent-Type: application/problem+json\r\nAllow: POST, OPTIONS\r\n\r\n"
            R"({"type":"about:blank","title":"Method Not Allowed","status":405,"detail":"No."})");
}

}  // namespace
}  // namespace dirwell::host
