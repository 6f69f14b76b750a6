#include "client/options.h"

#include <CLI/App.hpp>
#include <CLI/Option.hpp>

namespace dirwell::client {

// Parameters are checked by the service alone, which knows what it accepts.

void add_listing_options(CLI::App &command, ListOptions &listing) {
  command.add_option("FOLDER", listing.folders, "Folders to list, shown as \"/\" and their own name")->required();
  command
      .add_option("--alias", listing.aliases,
                  "Show a folder under this name instead; repeated, for the folders in their order")
      ->allow_extra_args(false);
  command.add_option("--sort", listing.sort, "name, date, type, size, owner, group or permission, then :asc or :desc")
      ->type_name("F[:DIR]");
  command.add_option("--cluster", listing.cluster, "Group by a field of --sort, under a heading for each cluster")
      ->type_name("F[:DIR]");
  command.add_option("--type", listing.type, "music, video, photo, file, folder or extname:EXTENSION")->type_name("T");
  command.add_option("--name", listing.name, "Shell pattern, in any letter case")->type_name("PATTERN");
  command.add_option("--size", listing.size, "Bytes or K, M, G, T, P after >, >=, ==, <= or <, as in '>=10K'")
      ->type_name("COND");
  command
      .add_option("--date", listing.dates,
                  "Day of modification after >, >=, ==, <= or <, in seconds since 1970; repeat it for a range")
      ->type_name("COND")
      ->allow_extra_args(false);
  command.add_option("--owner", listing.owner, "Entries of this user")->type_name("U");
  command.add_option("--group", listing.group, "Entries of this group")->type_name("G");
  command.add_flag("--hidden", listing.hidden, "Hidden entries as well");
  command.add_flag("--recursive", listing.recursive, "The folders below, too; names are shown with their folders");
  command.add_option("--lang", listing.lang, "Language of the order: ENG, GER, FRE, ...")->type_name("L");
}

void add_page_options(CLI::App &command, Selection &selection) {
  command.add_option("--limit", selection.limit, "Entries to show, 50 to 2000")->type_name("N");
  command.add_option("--offset", selection.offset, "Entries to pass over first")->type_name("N");
}

void add_index_option(CLI::App &command, Selection &selection) {
  command.add_option("--index", selection.index, "Which of the session's caches: 1 (default) or 2")->type_name("N");
}

void add_json_option(CLI::App &command, bool &json) {
  command.add_flag("--json", json, "Print the answer exactly as the service gives it");
}

}  // namespace dirwell::client
