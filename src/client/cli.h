// The command line of dirwellctl.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace dirwell::client {

// Does what `arguments` (without the program's name) ask for. Output goes to `out`, what is wrong to `err`. Returns the
// process's exit status: 0 done, 1 the service or the machine refused, 2 no whole answer, 64 a command line without
// sense.
int run(std::vector<std::string> arguments, std::ostream &out, std::ostream &err);

}  // namespace dirwell::client
