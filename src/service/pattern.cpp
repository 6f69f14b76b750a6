#include "service/pattern.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <span>

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

bool Pattern::execute(const char *text, std::span<regmatch_t> found) const {
  // The library says "no match" when memory does not suffice as well; the allocation that failed tells.
  errno = 0;
  if (::regexec(&compiled_, text, found.size(), found.data(), 0) == 0) {
    return true;
  }
  if (errno == ENOMEM) {
    throw std::bad_alloc();
  }
  return false;
}

bool Pattern::matches(const char *text) const {
  return execute(text, {});
}

std::optional<Pattern::Groups> Pattern::groups(const char *text) const {
  std::array<regmatch_t, std::tuple_size_v<Groups>> found{};
  if (!execute(text, found)) {
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
