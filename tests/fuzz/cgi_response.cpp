// What a handler writes: the reader of CGI-style responses, the end of JSON texts, and the head that the client gets.
//
// Input: a letter that says in which pieces the bytes come, then the bytes.
#include <jansson.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "fuzz/support/check.h"
#include "fuzz/support/input.h"
#include "platform/host/cgi.h"
#include "platform/host/json_end.h"
#include "platform/host/response_head.h"
#include "service/json.h"

namespace dirwell::fuzz {
namespace {

using host::CgiReader;

struct Read {
  CgiReader reader;
  std::string body;
};

Read read(std::string_view bytes, std::size_t piece) {
  Read result;
  while (!bytes.empty()) {
    const std::string_view next = bytes.substr(0, piece);
    const std::string_view body = result.reader.feed(next);
    check(body.empty() || (body.data() >= next.data() && body.data() + body.size() <= next.data() + next.size()),
          "the body is a view into the bytes");
    result.body += body;
    bytes.remove_prefix(next.size());
  }
  return result;
}

// --- The plain rules

// The head with its empty line; empty where there is none within the limit.
std::string_view head_of(std::string_view bytes) {
  for (std::size_t at = 0; at < bytes.size(); ++at) {
    const bool ends = bytes[at] == '\n' && (bytes.substr(at + 1, 1) == "\n" || bytes.substr(at + 1, 2) == "\r\n");
    if (ends) {
      const std::size_t end = at + (bytes[at + 1] == '\n' ? 2 : 3);
      return end <= CgiReader::head_limit ? bytes.substr(0, end) : std::string_view();
    }
  }
  return {};
}

bool is_token(std::string_view text) {
  return !text.empty() && std::ranges::all_of(text, [](char byte) {
    return byte > 0x20 && byte < 0x7F && std::string_view("\"(),/:;<=>?@[\\]{}").find(byte) == std::string_view::npos;
  });
}

bool is_clean(std::string_view text) {
  return std::ranges::none_of(text,
                              [](char byte) { return (byte >= 0 && byte < 0x20 && byte != '\t') || byte == 0x7F; });
}

// Whether the value of a field that every response must have as a number is one.
bool is_number(std::string_view digits) {
  return !digits.empty() && std::ranges::all_of(digits, [](char digit) { return digit >= '0' && digit <= '9'; });
}

std::string_view without_blanks(std::string_view text) {
  while (text.starts_with(' ') || text.starts_with('\t')) {
    text.remove_prefix(1);
  }
  while (text.ends_with(' ') || text.ends_with('\t')) {
    text.remove_suffix(1);
  }
  return text;
}

std::string lower(std::string_view text) {
  std::string result(text);
  for (char &letter : result) {
    letter = letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter + 32) : letter;
  }
  return result;
}

// The number of nothing but digits, none where they are more than `most`.
std::optional<std::uint64_t> number(std::string_view digits, std::uint64_t most) {
  unsigned __int128 value = 0;
  for (const char digit : digits) {
    value = value * 10 + static_cast<unsigned>(digit - '0');
    if (digit < '0' || digit > '9' || value > most) {
      return std::nullopt;
    }
  }
  return digits.empty() ? std::nullopt : std::optional(static_cast<std::uint64_t>(value));
}

bool means_json(std::string_view type) {
  const std::string name = lower(without_blanks(type.substr(0, type.find(';'))));
  return name == "application/json" || (name.ends_with("+json") && name.size() > 5);
}

// What a head says; none for one with a line that is no field.
std::optional<host::CgiHead> said_by(std::string_view head) {
  host::CgiHead said;
  for (std::size_t lines = 0;; ++lines) {
    std::string_view line = take_line(head);
    line.remove_suffix(line.ends_with('\r') ? 1 : 0);
    if (line.empty()) {
      return lines > 0 ? std::optional(said) : std::nullopt;
    }
    const std::size_t colon = line.find(':');
    const std::string_view value = colon == std::string_view::npos ? "" : without_blanks(line.substr(colon + 1));
    if (colon == std::string_view::npos || !is_token(line.substr(0, colon)) || !is_clean(value)) {
      return std::nullopt;
    }
    const std::string name = lower(line.substr(0, colon));
    if (name == "status") {
      const auto status = number(value.substr(0, value.find(' ')), 599);
      if (!status || *status < 200) {
        return std::nullopt;
      }
      said.status = static_cast<int>(*status);
    } else if (name == "content-length") {
      said.content_length = number(value, UINT64_MAX);
      if (!said.content_length) {
        return std::nullopt;
      }
    } else if (name != "connection" && name != "keep-alive" && name != "proxy-connection" && name != "te" &&
               name != "proxy-authenticate" && name != "proxy-authorization" && name != "trailer" &&
               name != "transfer-encoding" && name != "upgrade") {
      said.json = said.json || (name == "content-type" && means_json(value));
      said.has_date = said.has_date || name == "date";
      said.fields += std::string(line.substr(0, colon)) + ": " + std::string(value) + "\r\n";
    }
  }
}

// --- The promises

// Nothing of the handler's gets between the lines of the head that the client sees.
void check_head_lines(std::string_view head) {
  check(head.starts_with("HTTP/1.1 ") && head.ends_with("\r\n\r\n"), "a head begins and ends as one", head);
  const std::string_view status = head.substr(0, head.find("\r\n"));
  check(status.size() > 13 && is_number(status.substr(9, 3)) && status[12] == ' ' && is_clean(status),
        "the status line is one", status);
  std::string_view rest = head.substr(status.size() + 2);
  std::array<int, 3> framings{};
  while (rest != "\r\n") {
    const std::string_view line = rest.substr(0, rest.find("\r\n"));
    rest.remove_prefix(line.size() + 2);
    check(!rest.empty(), "the empty line is the last one", head);
    const std::size_t colon = line.find(": ");
    check(colon != std::string_view::npos && is_token(line.substr(0, colon)) && is_clean(line), "a field is one", line);
    const std::string_view name = line.substr(0, colon);
    framings[0] += ::strncasecmp(name.data(), "content-length:", name.size() + 1) == 0 ? 1 : 0;
    framings[1] += ::strncasecmp(name.data(), "transfer-encoding:", name.size() + 1) == 0 ? 1 : 0;
    framings[2] += ::strncasecmp(name.data(), "connection:", name.size() + 1) == 0 ? 1 : 0;
  }
  check(framings[0] + framings[1] <= 1 && framings[2] <= 1, "the framing is said once", head);
}

void check_heads(const host::CgiHead &head) {
  check(head.status >= 200 && head.status <= 599, "the status is one of a final response", std::to_string(head.status));
  for (const bool old : {false, true}) {
    for (const bool keep : {false, true}) {
      check_head_lines(host::response_head(head, {old, false, keep}, 12));
    }
    check_head_lines(host::response_head(head, {old, false, false}, std::nullopt));
  }
}

// A head is taken for what it says.
void check_said(std::string_view head, const CgiReader &reader) {
  const auto said = said_by(head);
  check((reader.state() == CgiReader::State::body) == said.has_value(), "a head of fields is one, no other is", head);
  if (said) {
    check_equal(reader.head().status, said->status, "the status is the one it names");
    check_equal(reader.head().fields, said->fields, "its fields are passed on");
    check(reader.head().content_length == said->content_length, "the length is the one it names", head);
    check(reader.head().json == said->json && reader.head().has_date == said->has_date, "and type and date", head);
  }
}

void check_response(std::string_view bytes, const Read &whole) {
  const std::string_view head = head_of(bytes);
  const CgiReader &reader = whole.reader;
  if (head.empty()) {
    check(reader.state() == (bytes.size() < CgiReader::head_limit ? CgiReader::State::head : CgiReader::State::broken),
          "without an empty line there is no body");
  } else {
    check_said(head, reader);
  }
  check(whole.body.empty() || reader.state() == CgiReader::State::body, "only a response has a body");
  if (reader.state() != CgiReader::State::body) {
    check(!reader.whole(true) && !reader.whole(false), "what is no response is not whole");
    return;
  }
  check(!head.empty(), "a body comes after a head");
  std::string_view expected = bytes.substr(head.size());
  if (reader.head().bodyless()) {
    expected = {};
  } else if (reader.head().content_length) {
    expected = expected.substr(0, std::min<std::uint64_t>(expected.size(), *reader.head().content_length));
  }
  check_equal(whole.body, std::string(expected), "the body is what stands behind the head");
  check(reader.whole(true) || !reader.whole(false), "the handler's word makes nothing less whole");
  if (reader.head().content_length && !reader.head().bodyless()) {
    check(reader.whole(true) == (whole.body.size() == *reader.head().content_length), "a length must be met");
  } else {
    check(reader.whole(true), "without one the handler's word counts");
  }
  check_heads(reader.head());
}

bool is_closed(std::string_view text) {
  host::JsonEnd end;
  end.feed(text);
  return end.closed();
}

// A JSON text has its end where it ends and nowhere before.
void check_json_end(std::string_view text) {
  const JsonRef value(json_loadb(text.data(), text.size(), JSON_DECODE_ANY | JSON_ALLOW_NUL, nullptr));
  if (!value || !(json_is_object(value.get()) || json_is_array(value.get()) || json_is_string(value.get()))) {
    return;
  }
  check(is_closed(text), "a JSON text that is whole is closed", text);
  const std::size_t last = text.find_last_of("}]\"");
  host::JsonEnd end;
  for (std::size_t at = 0; at < last; ++at) {
    end.feed(text.substr(at, 1));
    check(!end.closed(), "a JSON text that is cut off is not closed", text.substr(0, at + 1));
  }
}

}  // namespace
}  // namespace dirwell::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  using namespace dirwell::fuzz;
  if (size == 0) {
    return 0;
  }
  constexpr std::array<std::size_t, 8> pieces{1, 2, 3, 5, 17, 100, 1'000, 10'000};
  const std::string_view bytes = text_of(data + 1, size - 1);
  const Read whole = read(bytes, bytes.size());
  const Read parts = read(bytes, pieces[data[0] & 7U]);
  check(whole.reader.state() == parts.reader.state() && whole.reader.whole(false) == parts.reader.whole(false) &&
            whole.reader.whole(true) == parts.reader.whole(true),
        "in which pieces a response comes does not count");
  check_equal(parts.body, whole.body, "in which pieces a body comes does not count");
  check_response(bytes, whole);
  check_json_end(bytes);
  check_json_end(whole.body);
  return 0;
}
