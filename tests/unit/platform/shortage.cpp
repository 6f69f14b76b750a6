#include "platform/shortage.h"

#include <dlfcn.h>

#include <cstddef>
#include <new>

namespace dirwell::test {

namespace {

constexpr std::ptrdiff_t none = -1;
thread_local std::ptrdiff_t allocations_until_failure = none;
thread_local bool failed = false;

}  // namespace

FailingAllocation::FailingAllocation(std::size_t before) {
  failed = false;
  allocations_until_failure = static_cast<std::ptrdiff_t>(before);
}

FailingAllocation::~FailingAllocation() {
  allocations_until_failure = none;
}

bool FailingAllocation::has_failed() {
  return failed;
}

}  // namespace dirwell::test

// In front of the library's own, which a sanitizer may have replaced; it is freed as ever.
// NOLINTNEXTLINE(misc-new-delete-overloads)
void *operator new(std::size_t size) {
  using namespace dirwell::test;
  if (allocations_until_failure >= 0 && allocations_until_failure-- == 0) {
    failed = true;
    throw std::bad_alloc();
  }
  static auto *const next = reinterpret_cast<void *(*)(std::size_t)>(::dlsym(RTLD_NEXT, "_Znwm"));
  return next(size);
}
