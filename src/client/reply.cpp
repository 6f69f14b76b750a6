#include "client/reply.h"

#include <array>
#include <utility>

#include "client/failure.h"
#include "client/json.h"
#include "client/text.h"

namespace dirwell::client {
namespace {

// Keys that are worth a word when they are not 0.
constexpr std::array<std::pair<const char *, const char *>, 6> marks = {{
    {"is_link", "link"},
    {"is_cached", "cached"},
    {"is_autotier", "autotier"},
    {"is_h265", "h265"},
    {"trans", "transcoded"},
    {"has_thumbnail", "thumbnail"},
}};

Entry read_entry(const json_t *value) {
  Entry entry;
  entry.name = text_member(value, "filename");
  entry.path = text_member(value, "filepath");
  entry.size = integer_member(value, "filesize");
  entry.folder = integer_member(value, "isfolder") != 0;
  entry.owner = text_member(value, "owner");
  entry.group = text_member(value, "group");
  entry.permissions = text_member(value, "privilege");
  entry.modified = text_member(value, "mt");
  for (const auto &[key, word] : marks) {
    if (integer_member(value, key) != 0) {
      entry.marks.emplace_back(word);
    }
  }
  if (json_object_get(value, "snapshot_id") != nullptr) {  // 0 is an id like any other
    entry.marks.emplace_back("snapshot");
  }
  return entry;
}

}  // namespace

Listing read_listing(std::string_view reply) {
  const JsonRef object = parse_json(reply);
  if (!json_is_object(object.get()) || !json_is_integer(json_object_get(object.get(), "error_code"))) {
    throw Failure(Status::unreachable, "the answer is none of this service");
  }
  if (const std::int64_t code = integer_member(object.get(), "error_code"); code != 0) {
    throw Failure(Status::refused, "the service says: " + display_text(text_member(object.get(), "error_message")) +
                                       " (error " + std::to_string(code) + ")");
  }
  const json_t *entries = json_object_get(object.get(), "datas");
  if (!json_is_array(entries)) {
    throw Failure(Status::unreachable, "the answer holds no listing");
  }
  Listing listing;
  listing.total = integer_member(object.get(), "total");
  listing.entries.reserve(json_array_size(entries));
  for (std::size_t i = 0; i < json_array_size(entries); ++i) {
    listing.entries.push_back(read_entry(json_array_get(entries, i)));
  }
  const json_t *clusters = json_object_get(object.get(), "cluster");
  for (std::size_t i = 0; i < json_array_size(clusters); ++i) {
    const json_t *cluster = json_array_get(clusters, i);
    listing.clusters.push_back({text_member(cluster, "value"), integer_member(cluster, "count")});
  }
  return listing;
}

}  // namespace dirwell::client
