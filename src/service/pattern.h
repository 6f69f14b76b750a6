// POSIX extended regular expressions, compiled once and matched read-only.
#pragma once

#include <regex.h>

#include <array>
#include <optional>
#include <span>
#include <string_view>

namespace dirwell {

class Pattern {
 public:
  // Compiles `expression`; an expression that does not compile is a programming error and ends the process.
  explicit Pattern(const char *expression);
  ~Pattern();
  Pattern(const Pattern &) = delete;
  Pattern &operator=(const Pattern &) = delete;

  // The whole match at 0 and sub-expressions 1 to 3 (empty where they took no part), as views into `text`.
  using Groups = std::array<std::string_view, 4>;

  // Both throw std::bad_alloc when memory does not suffice to tell.
  // Whether `text` matches.
  [[nodiscard]] bool matches(const char *text) const;
  // The groups of the match, or nothing.
  [[nodiscard]] std::optional<Groups> groups(const char *text) const;

 private:
  bool execute(const char *text, std::span<regmatch_t> found) const;

  regex_t compiled_{};
};

}  // namespace dirwell
