// The files that sessions live by: one below ROOT/var/run/dirwell/sessions each, named by the session's id.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace dirwell::client {

struct SessionRecord {
  std::string sid;
  std::string user;                     // "" when the file names none or cannot be read
  std::optional<std::int64_t> expires;  // seconds since the epoch; nothing: never
};

// The name of this process's user; a Failure (refused) when the account has none.
std::string current_user();

// Begins a session: its file appears whole or not at all, readable by everybody (the service may run as another user),
// writable by its owner alone. The folder is made when missing. A Failure (refused) when the account is unknown, the
// session exists or the file cannot be written.
void begin_session(const std::string &root, const SessionRecord &session);

// Removes a session's file; a Failure (refused) when there is none or it cannot be removed.
void end_session(const std::string &root, const std::string &sid);

// The sessions that have a file, sorted by id, living or not. No folder: none.
std::vector<SessionRecord> list_sessions(const std::string &root);

// What a session's file says.
SessionRecord read_session(std::string sid, std::string_view content);

}  // namespace dirwell::client
