// What stands in the place of the machine: extended attributes and programs' outputs come from the input. A target that
// uses this is linked with the calls wrapped (dirwell_fuzz_target(... STAND_INS)).
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace dirwell::fuzz {

struct Machine {
  // By name, whatever the path; none: ENODATA.
  std::map<std::string, std::string, std::less<>> attributes;
  // What every program writes to the stream that is captured.
  std::string program_output;
  // The arguments of each run and the attributes set, in order.
  std::vector<std::vector<std::string>> runs;
  std::vector<std::pair<std::string, std::string>> set;
  // The paths that attributes were read of, in order.
  std::vector<std::string> asked;
};

Machine &machine();

}  // namespace dirwell::fuzz
