// dirwellctl list: one page of a listing as a table, or as the service's own JSON.
#include <CLI/Option.hpp>
#include <memory>
#include <ostream>

#include "client/commands.h"
#include "client/options.h"
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
  const Listing listing = read_listing(context.reply("fetch.resource", list_request(options.listing), options.json));
  if (options.json) {
    return;
  }
  ListingLayout layout;
  layout.width = terminal_width();
  layout.offset = options.listing.offset.value_or(0);
  layout.clustered = options.listing.cluster.has_value();
  layout.paths = options.listing.recursive || options.listing.folders.size() > 1;
  context.out << render_listing(listing, layout);
}

}  // namespace

void add_list_command(CLI::App &app, Context &context) {
  CLI::App *command = app.add_subcommand("list", "List the entries of one or more folders")->fallthrough();
  const auto options = std::make_shared<Options>();
  add_listing_options(*command, options->listing);
  add_page_options(*command, options->listing);
  add_json_option(*command, options->json);
  command->callback([&context, options] { list(context, *options); });
}

}  // namespace dirwell::client
