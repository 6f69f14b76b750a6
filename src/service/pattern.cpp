#include "service/pattern.h"

#include <cstdio>
#include <cstdlib>

namespace dirwell {

Pattern::Pattern(const char *expression) {
  if (::regcomp(&compiled_, expression, REG_EXTENDED) != 0) {
    std::fprintf(stderr, "dirwell: expression does not compile: %s\n", expression);
    std::abort();
  }
}

Pattern::~Pattern() {
  ::regfree(&compiled_);
}

bool Pattern::matches(const char *text) const {
  return ::regexec(&compiled_, text, 0, nullptr, 0) == 0;
}

std::optional<Pattern::Groups> Pattern::groups(const char *text) const {
  std::array<regmatch_t, std::tuple_size_v<Groups>> found{};
  if (::regexec(&compiled_, text, found.size(), found.data(), 0) != 0) {
    return std::nullopt;
  }
  Groups groups;
  for (std::size_t i = 0; i < found.size(); ++i) {
    if (found[i].rm_so >= 0) {
      groups[i] = std::string_view(text + found[i].rm_so, static_cast<std::size_t>(found[i].rm_eo - found[i].rm_so));
    }
  }
  return groups;
}

}  // namespace dirwell
