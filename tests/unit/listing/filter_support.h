// What the tests of filters share.
#pragma once

#include <sys/stat.h>

#include <string>
#include <string_view>

#include "listing/filters.h"

namespace dirwell::test {

inline ResourceEntry named(std::string_view name, mode_t mode = S_IFREG | 0644) {
  struct ::stat status {};
  status.st_mode = mode;
  return ResourceEntry::fromStatus("/share", name, status);
}

// Every operation, whatever the filter's own is.
inline std::string answers(const Filter &filter, const ResourceEntry &entry) {
  std::string text;
  for (const bool answer : {filter.greater(entry), filter.greaterEqual(entry), filter.equal(entry),
                            filter.notEqual(entry), filter.lessEqual(entry), filter.less(entry)}) {
    text += answer ? '1' : '0';
  }
  return text;
}

}  // namespace dirwell::test
