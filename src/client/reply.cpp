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

// The reply's object, which holds no error.
JsonRef read_reply(std::string_view reply) {
  JsonRef object = parse_json(reply);
  if (!json_is_object(object.get()) || !json_is_integer(json_object_get(object.get(), "error_code"))) {
    throw Failure(Status::unreachable, "the answer is none of this service");
  }
  if (const std::int64_t code = integer_member(object.get(), "error_code"); code != 0) {
    throw Failure(Status::refused, "the service says: " + display_text(text_member(object.get(), "error_message")) +
                                       " (error " + std::to_string(code) + ")");
  }
  return object;
}

std::vector<Cluster> read_clusters(const json_t *reply) {
  const json_t *values = json_object_get(reply, "cluster");
  std::vector<Cluster> clusters;
  for (std::size_t i = 0; i < json_array_size(values); ++i) {
    const json_t *value = json_array_get(values, i);
    clusters.push_back({text_member(value, "value"), integer_member(value, "count")});
  }
  return clusters;
}

}  // namespace

Listing read_listing(std::string_view reply) {
  const JsonRef object = read_reply(reply);
  const json_t *entries = json_object_get(object.get(), "datas");
  if (!json_is_array(entries)) {
    throw Failure(Status::unreachable, "the answer holds no listing");
  }
  Listing listing;
  listing.clusters = read_clusters(object.get());
  listing.total = integer_member(object.get(), "total");
  listing.changed = json_is_true(json_object_get(object.get(), "changed"));
  listing.entries.reserve(json_array_size(entries));
  for (std::size_t i = 0; i < json_array_size(entries); ++i) {
    listing.entries.push_back(read_entry(json_array_get(entries, i)));
  }
  return listing;
}

CreatedCache read_created(std::string_view reply) {
  const JsonRef object = read_reply(reply);
  CreatedCache created{text_member(object.get(), "uuid"), read_clusters(object.get()),
                       integer_member(object.get(), "total")};
  if (created.uuid.empty()) {
    throw Failure(Status::unreachable, "the answer names no cache");
  }
  return created;
}

void read_done(std::string_view reply) {
  read_reply(reply);
}

}  // namespace dirwell::client
