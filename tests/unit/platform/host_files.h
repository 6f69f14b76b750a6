// Files below this test binary's private root.
#pragma once

#include <string>
#include <string_view>

namespace dirwell::test {

// The real path of a fixed path: with the root in front.
std::string below_root(std::string_view fixed_path);

// Writes (or replaces the content of) the file at a fixed path, making its folders; returns its real path.
std::string put(std::string_view fixed_path, std::string_view content);

// Removes whatever stands at a fixed path.
void remove(std::string_view fixed_path);

// Lets a file's time stamps grow old enough for its parsed form to be kept.
void let_settle();

}  // namespace dirwell::test
