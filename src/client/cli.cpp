#include "client/cli.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <array>
#include <exception>
#include <ostream>
#include <sstream>

#include "client/commands.h"
#include "client/failure.h"
#include "client/instance.h"

namespace dirwell::client {
namespace {

constexpr std::array commands = {add_list_command, add_cache_command, add_watch_command, add_session_command};

// Whether the argument is an option of one of the commands that takes a value.
bool takes_value(const CLI::App &app, const std::string &argument) {
  if (!argument.starts_with("--")) {
    return false;  // the library finds folders' and uuids' own names, too
  }
  const auto subcommands = app.get_subcommands([](const CLI::App *) { return true; });
  return std::any_of(subcommands.begin(), subcommands.end(), [&argument](const CLI::App *command) {
    const CLI::Option *option = command->get_option_no_throw(argument);
    return (option != nullptr && option->get_items_expected_max() > 0) || takes_value(*command, argument);
  });
}

// The option library would take "[a]" for a list of values where an argument may stand repeatedly. Only a folder can be
// meant there, which keeps its meaning with "./" in front; the values of options are left as they are.
void protect_folder_names(const CLI::App &app, std::vector<std::string> &arguments) {
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    std::string &argument = arguments[i];
    if (argument.starts_with('[') && argument.ends_with(']') && (i == 0 || !takes_value(app, arguments[i - 1]))) {
      argument.insert(0, "./");
    }
  }
}

int status(Status value) {
  return static_cast<int>(value);
}

}  // namespace

std::string Context::root() const {
  return find_root(root_option);
}

Instance Context::instance() const {
  const std::string where = root();
  const std::string sid = find_sid(where, sid_option);
  return {sid, socket_path(where, sid), std::chrono::seconds(timeout_seconds)};
}

std::string Context::reply(std::string_view endpoint, const std::string &request, bool json) const {
  std::string text = call(instance(), endpoint, request);
  if (json) {
    out << text << '\n';
  }
  return text;
}

int run(std::vector<std::string> arguments, std::ostream &out, std::ostream &err) {
  Context context(out);
  CLI::App app("Speaks to a running dirwell: lists folders and keeps login sessions.", "dirwellctl");
  app.require_subcommand(1);
  app.add_option("--sid", context.sid_option,
                 "Session to use (default: environment DIRWELL_SID, else the only running instance)")
      ->type_name("SID");
  app.add_option("--root", context.root_option,
                 "Folder in front of all fixed paths (default: environment DIRWELL_ROOT)")
      ->type_name("DIR");
  app.add_option("--timeout", context.timeout_seconds, "Give up when the service is silent for so long")
      ->type_name("SECONDS")
      ->capture_default_str()
      ->check(CLI::Range(1, 86400));
  for (const auto add : commands) {
    add(app, context);
  }
  try {
    protect_folder_names(app, arguments);
    std::reverse(arguments.begin(), arguments.end());  // the order in which the library takes them off
    app.parse(arguments);
    return status(Status::success);
  } catch (const CLI::ParseError &error) {
    return app.exit(error, out, err) == 0 ? status(Status::success) : status(Status::usage);
  } catch (const Failure &failure) {
    out.flush();
    err << "dirwellctl: " << failure.what() << '\n';
    return status(failure.status());
  } catch (const std::exception &error) {
    err << "dirwellctl: " << error.what() << '\n';
    return status(Status::refused);
  }
}

}  // namespace dirwell::client
