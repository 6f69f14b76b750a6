// Options that several commands take. The fields outlive the command line that is worked on.
#pragma once

#include <CLI/App.hpp>

#include "client/request.h"

namespace dirwell::client {

// The folders, and what is wanted of them in which order.
void add_listing_options(CLI::App &command, ListOptions &listing);

// --limit and --offset, --index, --json.
void add_page_options(CLI::App &command, Selection &selection);
void add_index_option(CLI::App &command, Selection &selection);
void add_json_option(CLI::App &command, bool &json);

}  // namespace dirwell::client
