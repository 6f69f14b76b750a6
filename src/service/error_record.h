// The error of a request: the first one is what the client is told.
#pragma once

#include <cstdint>

namespace dirwell {

// Error codes of replies.
inline constexpr std::uint32_t error_none = 0;
inline constexpr std::uint32_t error_invalid_parameter = 2;
inline constexpr std::uint32_t error_failed_operation = 3;

// One per request, on its handler's stack. Code 0 means no error.
struct ErrorRecord {
  std::uint32_t code = error_none;
  char message[256] = {};
};

// Formats the message (cut to 255 bytes) and then sets the code; code 0 does nothing. Overwrites an earlier error:
// readers keep the first one by doing nothing once the record holds an error.
[[gnu::format(printf, 3, 4)]] void set_error(ErrorRecord &record, std::uint32_t code, const char *format, ...);

}  // namespace dirwell
