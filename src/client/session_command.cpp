// dirwellctl session: the sessions that instances serve.
#include <time.h>

#include <CLI/Option.hpp>
#include <array>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "client/commands.h"
#include "client/failure.h"
#include "client/instance.h"
#include "client/session_files.h"
#include "client/table.h"
#include "client/text.h"

namespace dirwell::client {
namespace {

struct CreateOptions {
  std::string user;
  std::optional<std::int64_t> expires;
};

const std::string &checked(const std::string &sid) {
  if (!is_sid(sid)) {
    throw Failure(Status::usage, "\"" + display_text(sid) + "\" is no session id (1 to 64 of A-Z a-z 0-9 _ -)");
  }
  return sid;
}

void create(const Context &context, const CreateOptions &options) {
  SessionRecord session;
  // The environment's id names the session to talk to, not the one to make.
  session.sid = context.sid_option.empty() ? new_sid() : checked(context.sid_option);
  session.user = options.user.empty() ? current_user() : options.user;
  if (options.expires) {
    const std::int64_t now = ::time(nullptr);
    if (*options.expires < 1 || *options.expires > std::numeric_limits<std::int64_t>::max() - now) {
      throw Failure(Status::usage, "--expires: not a number of seconds that can be waited for");
    }
    session.expires = now + *options.expires;
  }
  begin_session(context.root(), session);
  context.out << session.sid << '\n';
}

std::string expiry(const std::optional<std::int64_t> &expires) {
  if (!expires) {
    return "never";
  }
  const time_t when = *expires;
  if (when <= ::time(nullptr)) {
    return "expired";
  }
  tm parts{};
  std::array<char, 64> text{};
  if (::localtime_r(&when, &parts) == nullptr ||
      ::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts) == 0) {
    return std::to_string(when);
  }
  return text.data();
}

void list(const Context &context) {
  const std::string root = context.root();
  std::vector<std::vector<std::string>> rows;
  for (const SessionRecord &session : list_sessions(root)) {
    rows.push_back({session.sid, display_text(session.user), expiry(session.expires),
                    is_running(root, session.sid) ? "running" : "-"});
  }
  for (const std::string &line : table_lines({{"SID"}, {"USER"}, {"EXPIRES"}, {"INSTANCE"}}, rows, terminal_width())) {
    context.out << line << '\n';
  }
}

}  // namespace

void add_session_command(CLI::App &app, Context &context) {
  CLI::App *session = app.add_subcommand("session", "Create, end and list login sessions")->fallthrough();
  session->require_subcommand(1);

  CLI::App *creating = session->add_subcommand("create", "Begin a session and print its id")->fallthrough();
  creating->footer("--sid chooses the id; without it the id is made up.");
  const auto options = std::make_shared<CreateOptions>();
  creating->add_option("--user", options->user, "Whose session it is (default: the current user)")->type_name("NAME");
  creating->add_option("--expires", options->expires, "End it by itself after so many seconds")->type_name("SECONDS");
  creating->callback([&context, options] { create(context, *options); });

  CLI::App *ending = session->add_subcommand("end", "End a session; its instance ends soon after")->fallthrough();
  const auto ended = std::make_shared<std::string>();
  ending->add_option("SID", *ended, "Id of the session")->required();
  ending->callback([&context, ended] { end_session(context.root(), checked(*ended)); });

  CLI::App *listing = session->add_subcommand("list", "Show the sessions and whether an instance serves them");
  listing->fallthrough();
  listing->callback([&context] { list(context); });
}

}  // namespace dirwell::client
