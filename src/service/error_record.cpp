#include "service/error_record.h"

#include <cstdarg>
#include <cstdio>

namespace dirwell {

void set_error(ErrorRecord &record, std::uint32_t code, const char *format, ...) {
  if (code == error_none) {
    return;
  }
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(record.message, sizeof record.message, format, arguments);
  va_end(arguments);
  record.code = code;
}

}  // namespace dirwell
