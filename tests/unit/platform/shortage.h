// Memory that is not to be had for a moment.
#pragma once

#include <cstddef>

namespace dirwell::test {

// One allocation by `new` on this thread throws: that after `before` others within the scope.
class FailingAllocation {
 public:
  explicit FailingAllocation(std::size_t before);
  ~FailingAllocation();
  FailingAllocation(const FailingAllocation &) = delete;
  FailingAllocation &operator=(const FailingAllocation &) = delete;

  // Whether there were so many.
  [[nodiscard]] static bool has_failed();
};

}  // namespace dirwell::test
