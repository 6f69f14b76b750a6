// The pid file: one running instance a session.
#pragma once

#include <string>

namespace dirwell {

// Takes the pid file of the instance and holds its lock as long as the process runs. Ends the process with status 1 and
// one E line when the file cannot be opened or another instance holds it. Start-up only.
void create_pid_file(const std::string &instance_name);

// Unlinks the file, then releases the lock and closes it. Shutdown only; does nothing without a pid file.
void remove_pid_file();

}  // namespace dirwell
