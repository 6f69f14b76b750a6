#include "platform/host/problem.h"

#include <algorithm>
#include <array>

namespace dirwell::host {

namespace {

struct Status {
  int code;
  std::string_view phrase;
};

constexpr std::array<Status, 30> statuses = {{
    {200, "OK"},
    {201, "Created"},
    {202, "Accepted"},
    {204, "No Content"},
    {206, "Partial Content"},
    {301, "Moved Permanently"},
    {302, "Found"},
    {303, "See Other"},
    {304, "Not Modified"},
    {307, "Temporary Redirect"},
    {308, "Permanent Redirect"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {406, "Not Acceptable"},
    {408, "Request Timeout"},
    {409, "Conflict"},
    {410, "Gone"},
    {412, "Precondition Failed"},
    {413, "Content Too Large"},
    {415, "Unsupported Media Type"},
    {422, "Unprocessable Content"},
    {429, "Too Many Requests"},
    {431, "Request Header Fields Too Large"},
    {500, "Internal Server Error"},
    {501, "Not Implemented"},
    {502, "Bad Gateway"},
    {503, "Service Unavailable"},
}};

static_assert(std::ranges::is_sorted(statuses, std::ranges::less_equal{}, &Status::code));

}  // namespace

std::string_view reason_phrase(int status) {
  const auto *const row = std::ranges::lower_bound(statuses, status, {}, &Status::code);
  return row != statuses.end() && row->code == status ? row->phrase : "Unknown";
}

std::string problem_json(int status, std::string_view detail) {
  std::string json = R"({"type":"about:blank","title":")";
  json.append(reason_phrase(status)).append(R"(","status":)").append(std::to_string(status));
  json.append(R"(,"detail":")").append(detail).append("\"}");
  return json;
}

std::string problem_response(int status, std::string_view detail, std::string_view allow) {
  std::string response = "Status: " + std::to_string(status) + " ";
  response.append(reason_phrase(status)).append("\r\nContent-Type: ").append(problem_type);
  if (!allow.empty()) {
    response.append("\r\nAllow: ").append(allow);
  }
  return response.append("\r\n\r\n").append(problem_json(status, detail));
}

}  // namespace dirwell::host
