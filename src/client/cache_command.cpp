// dirwellctl cache: listings that the service keeps.
#include <CLI/Option.hpp>
#include <CLI/Validators.hpp>
#include <algorithm>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "client/cache_follow.h"
#include "client/commands.h"
#include "client/options.h"
#include "client/reply.h"
#include "client/request.h"
#include "client/table.h"

namespace dirwell::client {
namespace {

template <typename Request>
struct Options {
  Request request;
  bool json = false;
};
using CreateOptions = Options<ListOptions>;
using FetchOptions = Options<CacheOptions>;

void create(const Context &context, const CreateOptions &options) {
  const CreatedCache created = read_created(context.reply("create.cache", list_request(options.request), options.json));
  if (!options.json) {
    context.out << render_created(created, options.request.cluster.has_value(), terminal_width());
  }
}

// A kept listing does not tell which folders were asked for; the page shows whether their names are needed.
bool from_several_folders(const std::vector<Entry> &entries) {
  const auto folder = [](const Entry &entry) {
    return std::string_view(entry.path).substr(0, std::min(entry.path.rfind('/'), entry.path.size()));
  };
  return std::any_of(entries.begin(), entries.end(),
                     [&](const Entry &entry) { return folder(entry) != folder(entries.front()); });
}

void fetch(const Context &context, const FetchOptions &options) {
  const Listing listing = read_listing(context.reply("fetch.cache", cache_request(options.request), options.json));
  if (!options.json) {
    ListingLayout layout;
    layout.width = terminal_width();
    layout.paths = from_several_folders(listing.entries);
    context.out << render_listing(listing, layout) << freshness(listing.changed) << '\n';
  }
}

// A subcommand of `cache` about one kept listing.
CLI::App &add_subcommand(CLI::App &cache, const char *name, const char *about, CacheOptions &options) {
  CLI::App &command = *cache.add_subcommand(name, about)->fallthrough();
  command.add_option("UUID", options.uuid, "The cache, as \"cache create\" named it")->required();
  add_index_option(command, options);
  return command;
}

}  // namespace

void add_cache_command(CLI::App &app, Context &context) {
  CLI::App *cache = app.add_subcommand("cache", "Keep listings; read, follow and delete them")->fallthrough();
  cache->require_subcommand(1);

  CLI::App *creating = cache->add_subcommand("create", "Keep a listing and print its uuid")->fallthrough();
  creating->footer("Each session has two caches; a new listing takes the place of the one under its index.");
  const auto created = std::make_shared<CreateOptions>();
  add_listing_options(*creating, created->request);
  creating->add_option("--limit", created->request.limit, "Keep no more entries than this, 50 to 2000")->type_name("N");
  add_index_option(*creating, created->request);
  add_json_option(*creating, created->json);
  creating->callback([&context, created] { create(context, *created); });

  const auto fetched = std::make_shared<FetchOptions>();
  CLI::App &fetching =
      add_subcommand(*cache, "fetch", "Show a page of a cache, and whether its folders have changed", fetched->request);
  add_page_options(fetching, fetched->request);
  add_json_option(fetching, fetched->json);
  fetching.callback([&context, fetched] { fetch(context, *fetched); });

  const auto followed = std::make_shared<FollowOptions>();
  CLI::App &following =
      add_subcommand(*cache, "follow", "Wait until the folders of a cache have changed; print a line", followed->cache);
  following.add_option("--interval", followed->interval, "Ask the service so often")
      ->type_name("SECONDS")
      ->capture_default_str()
      ->check(CLI::Range(0.05, 86400.0));
  following.add_flag("--keep", followed->keep, "Go on, with a line whenever the cache goes stale or is watched anew");
  following.callback([&context, followed] { follow_cache(context.instance(), *followed, context.out); });

  const auto deleted = std::make_shared<CacheOptions>();
  add_subcommand(*cache, "delete", "Forget a cache", *deleted).callback([&context, deleted] {
    read_done(context.reply("delete.cache", cache_request(*deleted)));
  });
}

}  // namespace dirwell::client
