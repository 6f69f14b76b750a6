// What a fuzz target asserts: a broken promise ends the process, which the fuzzer reports with the input.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace dirwell::fuzz {

[[noreturn]] inline void broken(const char *promise, const char *file, unsigned line, std::string_view detail) {
  std::fprintf(stderr, "%s:%u: broken promise: %s\n%.*s\n", file, line, promise, static_cast<int>(detail.size()),
               detail.data());
  std::abort();
}

// `promise` is a sentence that must hold; `detail` is shown where it does not.
inline void check(bool holds, const char *promise, std::string_view detail = {}, const char *file = __builtin_FILE(),
                  unsigned line = __builtin_LINE()) {
  if (!holds) {
    broken(promise, file, line, detail);
  }
}

// The same for two values that must be equal; shows both.
template <typename Value>
void check_equal(const Value &is, const Value &must_be, const char *promise, const char *file = __builtin_FILE(),
                 unsigned line = __builtin_LINE()) {
  if (is == must_be) {
    return;
  }
  if constexpr (std::is_convertible_v<Value, std::string_view>) {
    broken(promise, file, line, std::string("is \"").append(is).append("\", must be \"").append(must_be) + "\"");
  } else {
    broken(promise, file, line, "is " + std::to_string(is) + ", must be " + std::to_string(must_be));
  }
}

}  // namespace dirwell::fuzz
