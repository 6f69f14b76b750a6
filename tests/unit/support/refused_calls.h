// Calls that the kernel refuses.
#pragma once

#include <cstdint>
#include <optional>

namespace dirwell::test {

struct Argument {
  unsigned place;  // from 0 on
  std::uint32_t value;
};

// From now on the kernel refuses the call with the error to this process and to all that it starts; with an argument,
// only where the argument has the value. The error 0 is a call that does nothing and gives 0. Only in a child of
// in_child, which ends with status 98 where the kernel does not know of such refusals.
void refuse_calls(long number, int error, std::optional<Argument> argument = {});
// The same for what has several numbers, of which not all machines know all.
void refuse_poll(int error);
void refuse_chmod(int error);

}  // namespace dirwell::test
