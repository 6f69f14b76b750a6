// dirwellctl, the client: main() hands the command line to run() (cli.cpp), which finds the command (list_command.cpp,
// cache_command.cpp, watch_command.cpp, session_command.cpp). A command that asks the service makes a request
// (request.cpp), posts it (bus_client.cpp over unix_socket.cpp), reads the reply (reply.cpp) and prints it (table.cpp,
// text.cpp). Where instances and sessions are found stands in instance.cpp and session_files.cpp.
#include <clocale>
#include <iostream>
#include <string>
#include <vector>

#include "client/cli.h"

int main(int argc, char **argv) {
  // The character set of the user's terminal; numbers and texts stay as they are everywhere.
  std::setlocale(LC_CTYPE, "");
  const int status = dirwell::client::run(std::vector<std::string>(argv + 1, argv + argc), std::cout, std::cerr);
  std::cout.flush();
  if (status == 0 && !std::cout) {
    std::cerr << "dirwellctl: standard output cannot be written\n";
    return 2;
  }
  return status;
}
