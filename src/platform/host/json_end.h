// Whether a JSON text that passes by in pieces has come to its end.
#pragma once

#include <cstddef>
#include <string_view>

namespace dirwell::host {

// Follows nesting and strings, not grammar: enough to tell a text that was cut off from one that was finished.
class JsonEnd {
 public:
  void feed(std::string_view bytes);
  // True when exactly one value has been closed and nothing but blanks came after it. A value at the top that is no
  // object, array or string has no end of its own and counts as never closed.
  [[nodiscard]] bool closed() const { return state_ == State::after; }

 private:
  enum class State { before, inside, string, escape, after, broken };
  void step(char byte);

  State state_ = State::before;
  std::size_t depth_ = 0;
};

}  // namespace dirwell::host
