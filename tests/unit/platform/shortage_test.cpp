#include "platform/shortage.h"
#include "support/refused_calls.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <string>

#include "support/environment.h"

namespace dirwell::test {
namespace {

TEST(FailingAllocation, IsOneOfThoseInTheScope) {
  {
    const FailingAllocation second(1);
    EXPECT_FALSE(FailingAllocation::has_failed());
    // Called by name: a compiler may leave out what only an expression asks for.
    ::operator delete(::operator new(8));
    EXPECT_FALSE(FailingAllocation::has_failed());
    EXPECT_THROW(::operator delete(::operator new(8)), std::bad_alloc);
    EXPECT_TRUE(FailingAllocation::has_failed());
    ::operator delete(::operator new(8));
  }
  const FailingAllocation first(0);
  std::string text("short");
  EXPECT_THROW(text.append(1000, 'x'), std::bad_alloc);  // in the library's own code
  EXPECT_EQ(text, "short");
}

TEST(RefuseCalls, RefusesOneCallOrOneArgumentOfIt) {
  EXPECT_EQ(in_child([] {
              refuse_calls(SYS_getppid, EPERM);
              refuse_calls(SYS_dup, EMFILE, Argument{0, 2});
              ::_exit(::getppid() == -1 && ::dup(2) == -1 && errno == EMFILE && ::dup(1) >= 0 ? 0 : 1);
            }),
            0);
}

}  // namespace
}  // namespace dirwell::test
