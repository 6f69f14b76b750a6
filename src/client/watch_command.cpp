// dirwellctl watch: what has changed so far no longer counts.
#include <CLI/Option.hpp>
#include <memory>

#include "client/commands.h"
#include "client/options.h"
#include "client/reply.h"
#include "client/request.h"

namespace dirwell::client {

void add_watch_command(CLI::App &app, Context &context) {
  CLI::App *command = app.add_subcommand("watch", "Watch the folders of a cache from now on")->fallthrough();
  command->footer(
      "A new cache is watched by itself. This is for a daemon that has been started again, and for changes that are "
      "known: they no longer count.");
  const auto options = std::make_shared<CacheOptions>();
  add_index_option(*command, *options);
  command->callback([&context, options] { read_done(context.reply("watch", cache_request(*options))); });
}

}  // namespace dirwell::client
