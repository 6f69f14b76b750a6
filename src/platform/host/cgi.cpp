#include "platform/host/cgi.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "platform/host/problem.h"
#include "platform/host/text.h"

namespace dirwell::host {

namespace {

// Fields that speak of one connection, or that the bus writes itself.
constexpr std::array<std::string_view, 10> own_fields = {
    "connection",          "content-length",   "keep-alive", "proxy-authenticate",
    "proxy-authorization", "proxy-connection", "te",         "trailer",
    "transfer-encoding",   "upgrade"};

bool is_token(std::string_view name) {
  static constexpr std::string_view marks = "!#$%&'*+-.^_`|~";
  return !name.empty() && std::ranges::all_of(name, [](char letter) {
    return (letter >= '0' && letter <= '9') || (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z') ||
           marks.find(letter) != std::string_view::npos;
  });
}

bool is_field_value(std::string_view value) {
  return std::ranges::none_of(value, [](char letter) {
    const auto byte = static_cast<unsigned char>(letter);
    return (byte < 0x20 && byte != '\t') || byte == 0x7F;
  });
}

template <typename Number>
std::optional<Number> number(std::string_view digits) {
  Number value = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (digits.empty() || error != std::errc() || end != digits.data() + digits.size()) {
    return std::nullopt;
  }
  return value;
}

// "application/json; charset=utf-8", "application/problem+json"
bool is_json_type(std::string_view content_type) {
  const std::string_view type = trimmed(content_type.substr(0, content_type.find(';')));
  constexpr std::string_view suffix = "+json";
  return equal_ignoring_case(type, "application/json") ||
         (type.size() > suffix.size() && equal_ignoring_case(type.substr(type.size() - suffix.size()), suffix));
}

bool parse_status(std::string_view value, CgiHead &head) {
  const auto status = number<int>(value.substr(0, value.find(' ')));
  if (!status || *status < 200 || *status > 599) {
    return false;
  }
  head.status = *status;
  const std::string_view reason = value.size() > 4 ? trimmed(value.substr(4)) : std::string_view();
  head.reason = reason.empty() ? reason_phrase(*status) : reason;
  return true;
}

// Where the empty line that ends the head ends, searched from `from` on; lines end in LF or CR LF.
std::size_t end_of_head(std::string_view text, std::size_t from) {
  for (std::size_t line_end = text.find('\n', from); line_end != std::string_view::npos;
       line_end = text.find('\n', line_end + 1)) {
    const std::string_view next = text.substr(line_end + 1, 2);
    if (next.starts_with('\n')) {
      return line_end + 2;
    }
    if (next == "\r\n") {
      return line_end + 3;
    }
  }
  return std::string_view::npos;
}

}  // namespace

std::string_view CgiReader::feed(std::string_view bytes) {
  if (state_ == State::head) {
    const std::size_t before = head_text_.size();
    head_text_.append(bytes.substr(0, head_limit - before));
    // The empty line may have begun in what came before.
    const std::size_t end = end_of_head(head_text_, before < 3 ? 0 : before - 3);
    if (end == std::string_view::npos) {
      state_ = head_text_.size() < head_limit ? State::head : State::broken;
      return {};
    }
    head_text_.resize(end);
    bytes.remove_prefix(end - before);
    state_ = parse_head() ? State::body : State::broken;
  }
  if (state_ != State::body || head_.bodyless()) {
    return {};
  }
  if (head_.content_length) {
    bytes = bytes.substr(0, std::min<std::uint64_t>(bytes.size(), *head_.content_length - body_bytes_));
  }
  body_bytes_ += bytes.size();
  if (head_.json) {
    json_end_.feed(bytes);
  }
  return bytes;
}

bool CgiReader::whole(bool declared) const {
  if (state_ != State::body) {
    return false;
  }
  if (head_.bodyless()) {
    return true;
  }
  if (head_.content_length) {
    return body_bytes_ == *head_.content_length;
  }
  return declared || !head_.json || json_end_.closed();
}

bool CgiReader::parse_head() {
  head_.reason = reason_phrase(head_.status);
  std::string_view rest = head_text_;
  bool any = false;
  while (true) {
    const std::size_t end = rest.find('\n');
    std::string_view line = rest.substr(0, end);
    rest.remove_prefix(end + 1);
    if (line.ends_with('\r')) {
      line.remove_suffix(1);
    }
    if (line.empty()) {
      return any;
    }
    if (!parse_line(line)) {
      return false;
    }
    any = true;
  }
}

bool CgiReader::parse_line(std::string_view line) {
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos) {
    return false;
  }
  const std::string_view name = line.substr(0, colon);
  const std::string_view value = trimmed(line.substr(colon + 1));
  if (!is_token(name) || !is_field_value(value)) {
    return false;
  }
  if (equal_ignoring_case(name, "status")) {
    return parse_status(value, head_);
  }
  if (equal_ignoring_case(name, "content-length")) {
    head_.content_length = number<std::uint64_t>(value);
    return head_.content_length.has_value();
  }
  if (std::ranges::any_of(own_fields, [&](std::string_view own) { return equal_ignoring_case(name, own); })) {
    return true;
  }
  head_.json = head_.json || (equal_ignoring_case(name, "content-type") && is_json_type(value));
  head_.has_date = head_.has_date || equal_ignoring_case(name, "date");
  head_.fields.append(name).append(": ").append(value).append("\r\n");
  return true;
}

}  // namespace dirwell::host
