// The life of an instance, from its command line to its exit status.
#pragma once

namespace dirwell {

// Runs the daemon and returns the process's exit status: 0 after an orderly stop or a clean-up, 1 when it cannot serve.
// Called once, by main().
int run(int argc, char *argv[]);

}  // namespace dirwell
