// dirwellctl list: one page of a listing as a table, or as the service's own JSON.
#include <CLI/Option.hpp>
#include <memory>
#include <ostream>

#include "client/bus_client.h"
#include "client/commands.h"
#include "client/reply.h"
#include "client/request.h"
#include "client/table.h"

namespace dirwell::client {
namespace {

struct Options {
  ListOptions listing;
  bool json = false;
};

void list(const Context &context, const Options &options) {
  const std::string request = list_request(options.listing);
  const std::string reply = call(context.instance(), "fetch.resource", request);
  if (options.json) {
    context.out << reply << '\n';
    read_listing(reply);  // an error in the reply is the command's, too
    return;
  }
  ListingLayout layout;
  layout.width = terminal_width();
  layout.offset = options.listing.offset.value_or(0);
  layout.clustered = options.listing.cluster.has_value();
  layout.paths = options.listing.recursive || options.listing.folders.size() > 1;
  context.out << render_listing(read_listing(reply), layout);
}

}  // namespace

void add_list_command(CLI::App &app, Context &context) {
  CLI::App *command = app.add_subcommand("list", "List the entries of one or more folders")->fallthrough();
  const auto options = std::make_shared<Options>();
  ListOptions &listing = options->listing;
  // Parameters are checked by the service alone, which knows what it accepts.
  command->add_option("FOLDER", listing.folders, "Folders to list, shown as \"/\" and their own name")->required();
  command
      ->add_option("--alias", listing.aliases,
                   "Show a folder under this name instead; repeated, for the folders in their order")
      ->allow_extra_args(false);
  command->add_option("--sort", listing.sort, "name, date, type, size, owner, group or permission, then :asc or :desc")
      ->type_name("F[:DIR]");
  command->add_option("--cluster", listing.cluster, "Group by a field of --sort, under a heading for each cluster")
      ->type_name("F[:DIR]");
  command->add_option("--type", listing.type, "music, video, photo, file, folder or extname:EXTENSION")->type_name("T");
  command->add_option("--name", listing.name, "Shell pattern, in any letter case")->type_name("PATTERN");
  command->add_option("--size", listing.size, "Bytes or K, M, G, T, P after >, >=, ==, <= or <, as in '>=10K'")
      ->type_name("COND");
  command
      ->add_option("--date", listing.dates,
                   "Day of modification after >, >=, ==, <= or <, in seconds since 1970; repeat it for a range")
      ->type_name("COND")
      ->allow_extra_args(false);
  command->add_option("--owner", listing.owner, "Entries of this user")->type_name("U");
  command->add_option("--group", listing.group, "Entries of this group")->type_name("G");
  command->add_flag("--hidden", listing.hidden, "Hidden entries as well");
  command->add_flag("--recursive", listing.recursive, "The folders below, too; names are shown with their folders");
  command->add_option("--lang", listing.lang, "Language of the order: ENG, GER, FRE, ...")->type_name("L");
  command->add_option("--limit", listing.limit, "Entries to show, 50 to 2000")->type_name("N");
  command->add_option("--offset", listing.offset, "Entries to pass over first")->type_name("N");
  command->add_flag("--json", options->json, "Print the answer exactly as the service gives it");
  command->callback([&context, options] { list(context, *options); });
}

}  // namespace dirwell::client
