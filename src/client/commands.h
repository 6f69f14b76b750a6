// The commands. A new one is one file with its add_…_command function and one line in cli.cpp.
#pragma once

#include <CLI/App.hpp>
#include <chrono>
#include <iosfwd>
#include <string>
#include <string_view>

#include "client/bus_client.h"

namespace dirwell::client {

// What all commands share: the options before them, and where their output goes. It lives as long as the command line
// is being worked on.
struct Context {
  explicit Context(std::ostream &output) : out(output) {}

  std::ostream &out;
  std::string root_option;
  std::string sid_option;
  int timeout_seconds = 300;

  [[nodiscard]] std::string root() const;
  // The instance that the command speaks to; a Failure when none can be told.
  [[nodiscard]] Instance instance() const;
  // The instance's reply to a request, which with `json` is printed as it came, before anyone looks for an error in it.
  [[nodiscard]] std::string reply(std::string_view endpoint, const std::string &request, bool json = false) const;
};

// Each adds one subcommand, whose callback does the work while the command line is parsed, and throws a Failure.
void add_list_command(CLI::App &app, Context &context);
void add_cache_command(CLI::App &app, Context &context);
void add_watch_command(CLI::App &app, Context &context);
void add_session_command(CLI::App &app, Context &context);

}  // namespace dirwell::client
