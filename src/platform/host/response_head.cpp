#include "platform/host/response_head.h"

#include <array>
#include <chrono>
#include <cstdio>

#include "platform/host/problem.h"

namespace dirwell::host {

namespace {

std::string date_field() {
  const auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  return "Date: " + http_date(now.time_since_epoch().count()) + "\r\n";
}

}  // namespace

std::string http_date(std::int64_t epoch_seconds) {
  using namespace std::chrono;
  constexpr std::array<const char *, 7> days = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  constexpr std::array<const char *, 12> months = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const sys_seconds time{seconds(epoch_seconds)};
  const sys_days day = floor<std::chrono::days>(time);
  const year_month_day date(day);
  const hh_mm_ss clock(time - day);
  std::array<char, 64> text;
  const int size =
      std::snprintf(text.data(), text.size(), "%s, %02u %s %04d %02d:%02d:%02d GMT", days.at(weekday(day).c_encoding()),
                    static_cast<unsigned>(date.day()), months.at(static_cast<unsigned>(date.month()) - 1),
                    static_cast<int>(date.year()), static_cast<int>(clock.hours().count()),
                    static_cast<int>(clock.minutes().count()), static_cast<int>(clock.seconds().count()));
  return {text.data(), static_cast<std::size_t>(size)};
}

std::string response_head(const CgiHead &head, const ResponseTerms &terms, std::optional<std::uint64_t> length) {
  std::string text = "HTTP/1.1 " + std::to_string(head.status) + " ";
  text.append(head.reason).append("\r\n");
  if (!head.has_date) {
    text.append(date_field());
  }
  text.append(head.fields);
  if (!head.bodyless()) {
    if (length) {
      text.append("Content-Length: ").append(std::to_string(*length)).append("\r\n");
    } else if (!terms.http_1_0) {
      text.append("Transfer-Encoding: chunked\r\n");
    }
  }
  if (!terms.keep_alive) {
    text.append("Connection: close\r\n");
  } else if (terms.http_1_0) {
    text.append("Connection: keep-alive\r\n");
  }
  return text.append("\r\n");
}

std::string refusal(int status, std::string_view detail, const ResponseTerms &terms) {
  const std::string body = problem_json(status, detail);
  CgiHead head;
  head.status = status;
  head.reason = reason_phrase(status);
  head.fields.append("Content-Type: ").append(problem_type).append("\r\n");
  std::string response = response_head(head, terms, body.size());
  return terms.head_only ? response : response.append(body);
}

}  // namespace dirwell::host
