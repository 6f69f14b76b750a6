#include "platform/host/target.h"

#include <cstddef>

#include "platform/host/text.h"

namespace dirwell::host {

namespace {

int hexadecimal(char digit) {
  if (digit >= '0' && digit <= '9') {
    return digit - '0';
  }
  if (digit >= 'a' && digit <= 'f') {
    return digit - 'a' + 10;
  }
  return digit >= 'A' && digit <= 'F' ? digit - 'A' + 10 : -1;
}

std::optional<std::string> percent_decoded(std::string_view text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '%') {
      decoded.push_back(text[at]);
      continue;
    }
    const int high = at + 1 < text.size() ? hexadecimal(text[at + 1]) : -1;
    const int low = at + 2 < text.size() ? hexadecimal(text[at + 2]) : -1;
    if (high < 0 || low < 0) {
      return std::nullopt;
    }
    decoded.push_back(static_cast<char>(high * 16 + low));
    at += 2;
  }
  if (!is_clean_utf8(decoded)) {
    return std::nullopt;
  }
  return decoded;
}

// "http://host/path?query" -> "/path?query".
std::optional<std::string_view> without_authority(std::string_view url) {
  constexpr std::string_view scheme = "http://";
  if (!equal_ignoring_case(url.substr(0, scheme.size()), scheme)) {
    return std::nullopt;
  }
  url.remove_prefix(scheme.size());
  const std::size_t end = url.find_first_of("/?");
  if (end == 0 || url.empty()) {
    return std::nullopt;
  }
  return end == std::string_view::npos ? std::string_view() : url.substr(end);
}

bool parse_query(std::string_view query, Target &target) {
  while (!query.empty()) {
    const std::size_t end = query.find('&');
    const std::string_view pair = query.substr(0, end);
    query = end == std::string_view::npos ? std::string_view() : query.substr(end + 1);
    if (pair.empty()) {
      continue;
    }
    const std::size_t equals = pair.find('=');
    auto name = percent_decoded(pair.substr(0, equals));
    auto value = percent_decoded(equals == std::string_view::npos ? std::string_view() : pair.substr(equals + 1));
    if (!name || !value) {
      return false;
    }
    target.parameters.emplace_back(std::move(*name), std::move(*value));
  }
  return true;
}

}  // namespace

std::optional<Target> parse_target(std::string_view text) {
  if (text == "*") {
    return Target{"*", {}};
  }
  if (!text.starts_with('/')) {
    const auto origin_form = without_authority(text);
    if (!origin_form) {
      return std::nullopt;
    }
    text = *origin_form;
  }
  text = text.substr(0, text.find('#'));
  const std::size_t question = text.find('?');
  auto path = percent_decoded(text.substr(0, question));
  if (!path) {
    return std::nullopt;
  }
  Target target;
  target.path = path->empty() ? "/" : std::move(*path);
  if (question != std::string_view::npos && !parse_query(text.substr(question + 1), target)) {
    return std::nullopt;
  }
  return target;
}

}  // namespace dirwell::host
