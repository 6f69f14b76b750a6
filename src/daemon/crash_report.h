// The last words of a crashing process.
#pragma once

namespace dirwell {

// Loads what a backtrace needs, so that the handler finds it ready. Start-up only.
void prepare_crash_report();

// Signal handler: writes the signal and the stack as F lines and ends the process with status 1. Never returns.
void on_crash_signal(int signal_number);

}  // namespace dirwell
