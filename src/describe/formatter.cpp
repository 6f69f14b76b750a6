#include "describe/formatter.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <string_view>

#include "describe/cache_state.h"
#include "describe/media_probes.h"
#include "describe/storage_state.h"
#include "entry/names.h"
#include "entry/paths.h"
#include "listing/type_table.h"
#include "platform/include/strata_config.h"
#include "platform/include/strata_nas.h"
#include "platform/include/strata_nasacl.h"
#include "service/json.h"
#include "service/session.h"

namespace dirwell {

namespace {

struct TranscodeRow {
  const char *key;
  std::string_view suffix;  // behind the video's own name
};

constexpr std::array<TranscodeRow, 6> transcode_table{{
    {"mp4_240", ".mobile240p"},
    {"mp4_360", ".mobile360p"},
    {"mp4_480", ".mobile480p"},
    {"mp4_720", ".ipad720p"},
    {"mp4_1080", ".mobile1080p"},
    {"mp4_org", ".original"},
}};

constexpr int media_library_video = 2;

// Videos on these shares are not opened: their content may have to come over a network first.
constexpr std::array<std::int32_t, 3> closed_share_types{1, 2, 8};

// Only these, in this letter case, can be 360-degree pictures or clips.
constexpr std::array<std::string_view, 4> projection_extensions{"jpeg", "jpg", "jpe", "mp4"};

constexpr std::size_t snapshot_path_room = 256;  // by which a mount path may exceed the entry's own

template <typename Range, typename Value>
bool holds(const Range &range, const Value &value) {
  return std::ranges::find(range, value) != range.end();
}

void putInteger(json_t *object, const char *key, json_int_t value) {
  json_put(object, key, json_integer(value));
}

void putText(json_t *object, const char *key, std::string_view value) {
  json_put(object, key, json_text(value).release());
}

std::string privilegeText(mode_t mode) {
  std::array<char, 8> text{};
  std::snprintf(text.data(), text.size(), "%03o", mode & 0777U);
  return text.data();
}

// Empty for a time that the C library cannot break down or whose text is longer than years of four digits make it.
std::string modificationText(std::time_t seconds) {
  std::tm fields{};
  std::array<char, 20> text{};
  if (::localtime_r(&seconds, &fields) == nullptr) {
    return {};
  }
  return {text.data(), std::strftime(text.data(), text.size(), "%F %T", &fields)};
}

// Whether `name` exists below the listed directory itself, wherever in the listing the entry was found.
int existsInListed(const ResourceEntry &entry, std::string name) {
  ResourceEntry path;
  path.directory = entry.directory;
  path.name = std::move(name);
  return pathExists(path, 1);
}

struct Transcodes {
  std::array<int, transcode_table.size()> flags{};
  int any = 0;  // all copies are there, or the media library has one
};

Transcodes findTranscodes(const ResourceEntry &entry, const std::string &path, bool thumbnailFolder) {
  Transcodes found;
  if (thumbnailFolder) {
    const std::string copy = "/.@__thumb/transcode/" + entry.name;
    std::ranges::transform(transcode_table, found.flags.begin(), [&](const TranscodeRow &row) {
      return existsInListed(entry, std::string(copy).append(row.suffix));
    });
  }
  found.any = !holds(found.flags, 0) || MediaLib_Transcoding_CheckFile(media_library_video, path.c_str()) != 0 ? 1 : 0;
  return found;
}

struct Status {
  json_int_t size;
  bool folder;
};

// What a link leads to counts; a dangling one is an empty file.
Status statusOf(const ResourceEntry &entry, const std::string &path) {
  if (!entry.isLink()) {
    return {entry.stat.st_size, entry.isDirectory()};
  }
  struct ::stat target {};
  if (::stat(path.c_str(), &target) != 0) {
    return {0, false};
  }
  return {target.st_size, S_ISDIR(target.st_mode)};
}

struct Snapshot {
  int id = -1;
  int volume = -1;
  std::string mountPath;
};

Snapshot snapshotOf(std::int32_t shareType, std::string_view virtualPlace, const std::string &path) {
  Snapshot snapshot;
  const auto place = classifyByText(shareType, virtualPlace);
  if (place == PathClass::snapshot || place == PathClass::snapshot_vault) {
    std::string mount(path.size() + snapshot_path_room, '\0');
    NAS_Snapshot_Get_Id_Path(path.c_str(), &snapshot.volume, &snapshot.id, mount.data(), mount.size());
    mount.resize(std::min(mount.find('\0'), mount.size()));
    snapshot.mountPath = std::move(mount);
  }
  return snapshot;
}

}  // namespace

void Formatter::formatSettings(json_t * /*object*/) {}

json_t *LegacyFormatter::format(const ResourceEntry &entry) {
  if (!request) {
    request.emplace(Request{ShareList(), Session::instance().user_name(), {}});
  }
  const std::string path = fullPath(entry);
  const std::string virtualPlace = virtualDirectory(entry);
  const std::string shownPath = joinPath({virtualPlace, entry.name});
  const TypeRow *type = findType(entry.extension);
  const std::uint32_t mediaClass = type == nullptr ? 0 : type->mediaClass;
  const bool video = mediaClass == class_video;
  const std::int32_t shareType = request->shares.typeOf(path);

  const bool opened = video && !holds(closed_share_types, shareType);
  const int h265 = opened ? probeH265(entry, path) : 0;
  if (opened) {
    request->companions.clear();  // the tool takes its time, and a copy may have come meanwhile
  }
  if (h265 != 0) {
    hasH265 = 1;
  }
  const Companions &companions = companionsOf(entry.directory);
  const Transcodes transcodes = video ? findTranscodes(entry, path, companions.thumbnails) : Transcodes();
  if (holds(projection_extensions, entry.extension)) {
    projectionType = probeProjection(path) == 1 ? 1 : 0;
  }
  const bool link = entry.isLink();
  const bool cached = shareType == share_cloud_cache;
  const int autotier = link ? isAutotierLink(path) : 0;
  const Status status = statusOf(entry, path);
  const CacheState cache = cached ? readCacheState(path, status.folder) : CacheState();
  const Snapshot snapshot = snapshotOf(shareType, virtualPlace, path);
  aclRight = Get_ACL_User_Group_Security_For_Share(request->userName.c_str(), path.c_str());

  JsonRef described(json_object());
  json_t *object = described.get();
  putText(object, "filename", entry.name);
  putText(object, "filepath", shownPath.empty() ? entry.name : shownPath);
  putInteger(object, "filesize", status.size);
  putInteger(object, "isfolder", status.folder ? 1 : 0);
  putText(object, "group", groupName(entry));
  putText(object, "owner", ownerName(entry));
  putText(object, "privilege", privilegeText(entry.stat.st_mode));
  putText(object, "mt", modificationText(entry.stat.st_mtime));
  putInteger(object, "epochmt", entry.stat.st_mtime);
  putInteger(object, "sticky_bit", 0);  // no longer told, but readers expect the key
  putInteger(object, "is_h265", h265);
  for (std::size_t row = 0; row < transcode_table.size(); ++row) {
    putInteger(object, transcode_table[row].key, transcodes.flags[row]);
  }
  putInteger(object, "mp3", companions.audio ? existsInListed(entry, "Video2audio/" + entry.name + ".mp3") : 0);
  putInteger(object, "play", entry.directory.view().rfind("@Transcode/") != 0 ? 1 : 0);
  putInteger(object, "has_thumbnail", companions.thumbnails ? hasThumbnail(entry, mediaClass) : 0);
  putInteger(object, "acl", aclRight);
  putInteger(object, "trans", transcodes.any);
  putText(object, "randno", std::to_string(entry.stat.st_size) + std::to_string(entry.stat.st_mtime));
  putInteger(object, "projection_type", projectionType);
  putInteger(object, "encrypt_folder", 0);  // as the sticky bit
  putInteger(object, "is_link", link ? 1 : 0);
  putInteger(object, "is_cached", cached ? 1 : 0);
  putInteger(object, "is_autotier", autotier);
  putInteger(object, "cache_file_status", cache.fileStatus);
  putInteger(object, "cache_priority", cache.priority);
  putInteger(object, "cache_upload_progress", cache.uploadProgress);
  putInteger(object, "cache_folder_is_encypted", cache.folderIsEncrypted);  // spelled as its readers spell it
  putInteger(object, "cache_folder_is_locked", cache.folderIsLocked);
  putInteger(object, "cache_root_status", cache.rootStatus);
  putInteger(object, "upload_failed_count", cache.failedCount);
  if (snapshot.id != -1) {
    putInteger(object, "snapshot_id", snapshot.id);
    putInteger(object, "snapshot_vol_id", snapshot.volume);
    putText(object, "snapshot_mount_path", snapshot.mountPath);
  }
  return described.release();
}

// Most folders have neither, which spares every entry of theirs two looks. What cannot be told counts as there: then
// the entry's own files are looked for.
const LegacyFormatter::Companions &LegacyFormatter::companionsOf(std::string_view directory) {
  const auto [place, unknown] = request->companions.try_emplace(std::string(directory));
  if (unknown) {
    const auto exists = [directory](const char *folder) {
      struct ::stat status {};
      return ::stat(joinPath({directory, folder}).c_str(), &status) == 0 || (errno != ENOENT && errno != ENOTDIR);
    };
    place->second = {exists(".@__thumb"), exists("Video2audio")};
  }
  return place->second;
}

void LegacyFormatter::formatSettings(json_t *object) {
  putInteger(object, "has_h265", hasH265);
  putInteger(object, "medialib",
             Get_Private_Profile_Integer("DISABLE", "mediaLibrary", 0, "/var/.application.conf") == 0 ? 1 : 0);
  putInteger(object, "rtt_support", Is_Realtime_Transcoding_Support());
  putInteger(object, "medialib_enable", Is_MediaLib_Enabled());
  putInteger(object, "is_acl_enable", Is_ACL_Enabled() != 0 || Is_RichACL_Enabled() != 0 ? 1 : 0);
  putInteger(object, "is_winacl_enable", Is_Win_ACL_Enabled());
  putInteger(object, "is_winacl_support", Is_Win_ACL_Supported());
}

}  // namespace dirwell
