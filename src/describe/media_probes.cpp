#include "describe/media_probes.h"

#include <sys/xattr.h>

#include <cstdlib>
#include <string_view>

#include "describe/attributes.h"
#include "describe/program.h"
#include "entry/paths.h"
#include "listing/type_table.h"

namespace dirwell {

namespace {

constexpr const char *video_tool = "/usr/bin/ffmpeg";
constexpr const char *media_database_tool = "/usr/local/medialibrary/bin/mymediadbcmd";

constexpr const char *projection_tag = "user.marker_fs";
constexpr std::size_t projection_tag_capacity = 128;
constexpr int tag_projected = 2;
constexpr int tag_flat = 0;

bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

}  // namespace

int probeH265(const ResourceEntry &entry) {
  return probeH265(entry, fullPath(entry));
}

int probeH265(const ResourceEntry &entry, const std::string &fullPath) {
  if (entry.extension == "iso") {
    return 0;
  }
  // Without an output file the tool describes the input's streams on its error stream and stops.
  const std::string streams =
      captureProgram({video_tool, "-hide_banner", "-i", fullPath.c_str()}, CapturedStream::error);
  return contains(streams, ": hevc (") || contains(streams, ": hevc,") ? 1 : 0;
}

int probeProjection(const ResourceEntry &entry) {
  return probeProjection(fullPath(entry));
}

int probeProjection(const std::string &fullPath) {
  if (!fullPath.starts_with("/share/")) {
    return 0;
  }
  if (const auto tag = readAttribute(fullPath, projection_tag, projection_tag_capacity)) {
    if (tag->empty()) {
      return -1;
    }
    // The low bits of the saturated 64-bit value: any digits have a defined answer.
    return (std::strtol(tag->c_str(), nullptr, 10) & tag_projected) != 0 ? 1 : 0;
  }
  // A tag that cannot be written, on a read-only mount for example, only means that the database is asked again.
  writeProjectionTag(fullPath, queryMediaProjection(fullPath) == 1 ? tag_projected : tag_flat);
  return 0;
}

int queryMediaProjection(const ResourceEntry &entry) {
  return queryMediaProjection(fullPath(entry));
}

int queryMediaProjection(const std::string &fullPath) {
  const std::string record =
      captureProgram({media_database_tool, "getMediaInfo", fullPath.c_str()}, CapturedStream::error);
  // The record is XML; where the tool quotes it as a text, the attribute's quotes are escaped.
  return contains(record, R"(<media-info projection-type="1")") ||
                 contains(record, R"(<media-info projection-type=\"1\")")
             ? 1
             : -1;
}

int writeProjectionTag(const ResourceEntry &entry, int value) {
  return writeProjectionTag(fullPath(entry), value);
}

int writeProjectionTag(const std::string &fullPath, int value) {
  if (fullPath.empty()) {
    return -1;
  }
  const std::string text = std::to_string(value);
  return ::setxattr(fullPath.c_str(), projection_tag, text.data(), text.size(), 0) == 0 ? 0 : -1;
}

int hasThumbnail(const ResourceEntry &entry) {
  const TypeRow *type = findType(entry.extension);
  return hasThumbnail(entry, type == nullptr ? 0 : type->mediaClass);
}

int hasThumbnail(const ResourceEntry &entry, std::uint32_t mediaClass) {
  // A class is one bit, so that media files and documents need a single look between them.
  if ((mediaClass & (media_classes | document_classes)) == 0) {
    return 0;
  }
  ResourceEntry thumbnail;
  thumbnail.directory = entry.directory;
  thumbnail.name = "/.@__thumb/s100" + entry.name;
  return pathExists(thumbnail, 1);
}

}  // namespace dirwell
