// The description of one entry as the JSON object that the web file manager shows.
#pragma once

#include <jansson.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "describe/places.h"
#include "entry/resource_entry.h"

namespace dirwell {

// Describes the entries of one request, in listing order. One thread; always held by a std::shared_ptr.
class Formatter {
 public:
  // A new JSON object with one reference, owned by the caller. Never fails as a whole: a probe that fails leaves its
  // key at its default.
  virtual json_t *format(const ResourceEntry &entry) = 0;
  // Adds the machine-wide settings to `object`; the base adds none.
  virtual void formatSettings(json_t *object);
  virtual ~Formatter() = default;
};

// The type index must stand before the first entry is described (buildTypeIndex).
class LegacyFormatter final : public Formatter {
 public:
  json_t *format(const ResourceEntry &entry) override;
  // Seven integers. "has_h265" covers the entries that this object has described so far.
  void formatSettings(json_t *object) override;

 private:
  // Which of the folders may stand in a directory that hold what belongs to its media files.
  struct Companions {
    bool thumbnails = false;
    bool audio = false;
  };
  // What all entries of the request share, asked for at the first of them.
  struct Request {
    ShareList shares;
    std::string userName;
    std::unordered_map<std::string, Companions> companions;  // by directory, each looked at once between videos
  };

  const Companions &companionsOf(std::string_view directory);

  std::int32_t projectionType = 0;  // carried from one JPEG or MP4 entry to all that follow it
  std::int32_t aclRight = 0;
  std::int32_t hasH265 = 0;
  std::optional<Request> request;
};

}  // namespace dirwell
