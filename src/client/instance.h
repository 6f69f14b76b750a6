// Where the instances of a root and their sessions are found.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace dirwell::client {

// The root: `option` when it is not empty, else the environment's DIRWELL_ROOT, else none (""). Without slashes at its
// end.
std::string find_root(const std::string &option);

// Whether the text can name a session: 1 to 64 characters of A-Z a-z 0-9 _ -.
bool is_sid(std::string_view sid);

std::string session_folder(const std::string &root);
std::string socket_path(const std::string &root, std::string_view sid);

// A new session id of 64 random bits.
std::string new_sid();

// Whether somebody listens at the session's socket (also when this user may not connect to it).
bool is_running(const std::string &root, std::string_view sid);

// The sessions of all instances of the root that listen, sorted.
std::vector<std::string> running_instances(const std::string &root);

// The session that a command is about: `option` when it is not empty, else the environment's DIRWELL_SID, else the only
// running instance. A malformed id is a usage failure; when there is no instance, or more than one, the failure says
// so.
std::string find_sid(const std::string &root, const std::string &option);

}  // namespace dirwell::client
