// Runs of the machine's own tools.
#pragma once

#include <string>
#include <vector>

namespace dirwell {

enum class CapturedStream { output, error };

// Runs arguments[0], a fixed path, with the whole list as its arguments and returns what it wrote to one of its
// streams, up to the first NUL; the other stream is dropped. Empty when the program cannot be started or writes
// nothing. Waits for the program's end. Any thread of any process.
std::string captureProgram(const std::vector<const char *> &arguments, CapturedStream stream);

}  // namespace dirwell
