// The command line.
#pragma once

namespace dirwell {

enum class StartUp {
  serve,    // go on and serve the session
  cleared,  // the cache clean-up ran; the process is done
};

// Reads the options in argument order and acts on each at once: the level, the session id, and the clean-up, which ends
// the reading. What is no option, or lacks its argument, is passed over. Start-up only.
StartUp read_options(int argc, char *const argv[]);

}  // namespace dirwell
