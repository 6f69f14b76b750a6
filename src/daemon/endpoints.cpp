#include "daemon/endpoints.h"

#include <algorithm>
#include <array>
#include <map>
#include <new>
#include <span>
#include <string_view>

#include "daemon/handlers.h"
#include "daemon/request_process.h"
#include "service/languages.h"

namespace dirwell {

namespace {

// One option line of a usage text; the second and further lines of the description stand below the first.
struct OptionLine {
  std::string_view option;
  std::string_view description;
  std::array<std::string_view, 2> more{};
  bool lists_languages = false;
};

constexpr std::string_view format_of_size = "string format as [>|>=|==|<=|<][size][K|M|G|T], ex: >=1024K (means >=1M)";
constexpr std::string_view format_of_date =
    "string format as [>|>=|==|<=|<][timestamp], ex: <=1310572800 (means <=2011/06/14)";
constexpr std::string_view format_of_field = "string format as [name|date|type|size|owner|group|permission]:[asc|desc]";

constexpr OptionLine option_uuid{"uuid=(str)", "cache uuid"};
constexpr OptionLine option_index{"index=(int)", "cache index"};
constexpr OptionLine option_limit{"limit=(int)", "cache entries limit"};
constexpr OptionLine option_offset{"offset=(int)", "cache entries offset"};

constexpr std::array reference_options{option_uuid, option_index};
constexpr std::array page_options{option_uuid, option_index, option_limit, option_offset};
// The longest text first: "create.cache" takes all but the last two.
constexpr std::array listing_options{
    OptionLine{"lang=(str)", "sorting by language", {}, true},
    OptionLine{"path=(str/array)", "folder path(s)"},
    OptionLine{"name=(str)", "which name file/folder contians"},
    OptionLine{"type=(str)",
               "string format as mime(:name)?, and avaiable mime types:",
               {"music, video, photo, file, folder and extname", "only extname support name"}},
    OptionLine{"date=(str[])", format_of_date},
    OptionLine{"size=(str)", format_of_size},
    OptionLine{"owner=(str)", "owner name"},
    OptionLine{"group=(str)", "group name"},
    OptionLine{"index=(int)", "cache index (1 or 2), default is 1"},
    OptionLine{"sort=(str)", format_of_field},
    OptionLine{"cluster=(str/bool)", format_of_field, {"if input is boolean value, do not perform clustering"}},
    OptionLine{"reach_time=(int)", "time of seconds to read resources (<=0 is infinite)"},
    OptionLine{"reach_limit=(int)", "how many resources would be read (<=0 is infinite)"},
    OptionLine{"hidden=(bool)", "hide name is startwith . (default true)"},
    OptionLine{"recursive=(bool)", "read folder recursively (default false)"},
    option_limit,
    option_offset,
};
constexpr std::span<const OptionLine> create_options = std::span(listing_options).first(listing_options.size() - 2);

struct Endpoint {
  const char *name;
  std::string_view title;
  hx_rest_handler handler;
  hx_rest_prehandler prehandler;
  std::span<const OptionLine> options;
};

// A new endpoint is one row here and one handler.
constexpr std::array<Endpoint, 5> endpoints{{
    {"watch", "watch cached path", watch_handler, watch_prehandler, reference_options},
    {"fetch.cache", "fetch cached resources", fetch_cache_handler, fork_prehandler, page_options},
    {"delete.cache", "delete cached", delete_cache_handler, fork_prehandler, reference_options},
    {"create.cache", "create cache from fetched file and folder resources", create_cache_handler, fork_prehandler,
     create_options},
    {"fetch.resource", "fetche file and folder resources", fetch_resource_handler, fork_prehandler, listing_options},
}};

constexpr std::size_t option_width = 20;

void add_continuation(std::string &text, std::string_view line) {
  text += std::string(3 + option_width, ' ') + std::string(line) + '\n';
}

void add_option(std::string &text, const OptionLine &line) {
  std::string option(line.option);
  option.resize(std::max(option.size(), option_width), ' ');
  text += "   " + option + std::string(line.description) + '\n';
  for (const std::string_view more : line.more) {
    if (!more.empty()) {
      add_continuation(text, more);
    }
  }
  if (line.lists_languages) {
    for (const Language &language : LanguageTable) {
      add_continuation(text, std::string(language.code) + " (" + std::string(language.native) + ")");
    }
  }
}

std::string build_usage(const Endpoint &endpoint) {
  std::string text = std::string(endpoint.title) + "\n\nUsage: [General]\n\n[General]:\n   dirwell." + endpoint.name +
                     "\n\n[Options]:\n";
  for (const OptionLine &line : endpoint.options) {
    add_option(text, line);
  }
  return text + '\n';
}

const std::map<std::string, std::string> &usage_texts() {
  static const auto texts = [] {
    std::map<std::string, std::string> built;
    for (const Endpoint &endpoint : endpoints) {
      built.emplace(endpoint.name, build_usage(endpoint));
    }
    return built;
  }();
  return texts;
}

}  // namespace

void register_endpoints(hx_rest *rest) {
  for (const Endpoint &endpoint : endpoints) {
    // Refuses no other row than one that there is no memory for.
    if (hx_rest_endpoint(rest, endpoint.handler, endpoint.name, endpoint.prehandler,
                         usage_text(endpoint.name).c_str()) != 0) {
      throw std::bad_alloc();
    }
  }
}

const std::string &usage_text(const std::string &endpoint_name) {
  static const std::string none;
  const auto found = usage_texts().find(endpoint_name);
  return found == usage_texts().end() ? none : found->second;
}

}  // namespace dirwell
