// The head of an HTTP response.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/host/cgi.h"

namespace dirwell::host {

// What a request asked of its response.
struct ResponseTerms {
  bool http_1_0 = false;
  bool head_only = false;   // the method is HEAD: a head that speaks of a body, and no body
  bool keep_alive = false;  // another request may follow
};

// Status line, date, the handler's fields, framing, connection and the empty line. Without `length` the body is chunked
// (HTTP/1.1) or ends with the connection (HTTP/1.0, where `terms.keep_alive` must be false).
std::string response_head(const CgiHead &head, const ResponseTerms &terms, std::optional<std::uint64_t> length);

// A whole refusal by the bus itself.
std::string refusal(int status, std::string_view detail, const ResponseTerms &terms);

// The time in the one form that HTTP has: "Sun, 06 Nov 1994 08:49:37 GMT".
std::string http_date(std::int64_t epoch_seconds);

}  // namespace dirwell::host
