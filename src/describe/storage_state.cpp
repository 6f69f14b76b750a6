#include "describe/storage_state.h"

#include <stdlib.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cfloat>
#include <limits>
#include <memory>
#include <span>
#include <string_view>

#include "describe/attributes.h"
#include "describe/program.h"
#include "entry/paths.h"
#include "entry/text.h"
#include "service/json.h"

namespace dirwell {

namespace {

struct CodeRow {
  std::string_view text;
  std::int32_t code;
};

constexpr std::int32_t state_downloading = 4;
constexpr std::int32_t state_uploading = 5;
constexpr std::int32_t state_error = 6;
constexpr std::int32_t state_ignored = 10;
constexpr std::int32_t state_no_space = 11;
constexpr std::int32_t state_full_cached = 2;
constexpr std::int32_t state_unknown = -1;

constexpr std::array<CodeRow, 9> states{{
    {"non-cached", 1},
    {"full-cached", state_full_cached},
    {"partial-cached", 3},
    {"downloading", state_downloading},
    {"uploading", state_uploading},
    {"error", state_error},
    {"wait-for-uploading", 9},
    {"ignored", state_ignored},
    {"nospace", state_no_space},
}};

// What a state becomes for a file that the mount service has no fault to find with.
constexpr std::array<std::int32_t, 6> sound_states{1, 2, 3, 4, 5, 9};

// Not states: which way an error state failed.
constexpr std::array<CodeRow, 2> error_types{{{"download-error", 7}, {"upload-error", 8}}};

constexpr std::int32_t dirtiness_dirty = 2;
constexpr std::int32_t dirtiness_unknown = -1;
constexpr std::array<CodeRow, 3> dirtinesses{{{"clean", 1}, {"dirty", dirtiness_dirty}, {"error", 3}}};

constexpr std::int32_t priority_normal = 2;
constexpr std::array<CodeRow, 3> priorities{{{"pin", 1}, {"normal", priority_normal}, {"low", 3}}};

template <std::size_t Size>
constexpr bool rowsAreUnique(const std::array<CodeRow, Size> &rows) {
  return std::ranges::all_of(rows, [&rows](const CodeRow &row) {
    return std::ranges::count(rows, row.text, &CodeRow::text) == 1 &&
           std::ranges::count(rows, row.code, &CodeRow::code) == 1;
  });
}
static_assert(rowsAreUnique(states) && rowsAreUnique(error_types) && rowsAreUnique(dirtinesses) &&
              rowsAreUnique(priorities));

// Numbers of the mount service that change what is shown; all others are passed through.
constexpr std::int32_t status_sound = 2000;
constexpr std::int32_t status_account_error = 4031;
constexpr std::int32_t status_pending = 10000;

constexpr const char *file_attribute = "user.cm.meta_status";
constexpr std::size_t file_attribute_capacity = 1024;
constexpr const char *root_attribute = "user.cm.global_error";
constexpr const char *failed_attribute = "trusted.cm.failed_files_count";
constexpr std::size_t root_attribute_capacity = 512;

// Mounts lie at a fixed depth, so that the root ends, and the mount's name begins, at a known place of the path.
constexpr std::size_t root_end_from = 35;
constexpr std::size_t mount_name_at = 20;

constexpr const char *mount_tool = "/usr/local/bin/remote_mount_tool";
constexpr std::int64_t tool_open = 1;
constexpr std::int64_t tool_minus_two = -2;

constexpr std::string_view autotier_area = "/share/external/.autotier/";

std::int32_t codeOf(std::span<const CodeRow> rows, std::string_view text, std::int32_t fallback) {
  const auto row = std::ranges::find(rows, text, &CodeRow::text);
  return row == rows.end() ? fallback : row->code;
}

// Copies a member that is a string; returns whether it is one.
bool readText(const json_t *object, const char *key, std::string &text) {
  const char *value = json_string_value(json_object_get(object, key));
  if (value != nullptr) {
    text = value;
  }
  return value != nullptr;
}

// Out-of-range numbers become the nearest number that the type holds: plain conversions would be undefined.
float saturatedFloat(double value) {
  return static_cast<float>(std::clamp(value, -static_cast<double>(FLT_MAX), static_cast<double>(FLT_MAX)));
}

std::int32_t truncated(float value) {
  constexpr float bound = 2147483648.0F;
  if (value >= bound) {
    return std::numeric_limits<std::int32_t>::max();
  }
  return value <= -bound ? std::numeric_limits<std::int32_t>::min() : static_cast<std::int32_t>(value);
}

std::int32_t deriveStatus(const FileStatus &record) {
  if (record.statusCode == status_account_error) {
    return state_error;
  }
  if (record.state == state_ignored || record.state == state_no_space) {
    return record.state;
  }
  if (record.state != state_error && (record.statusCode == status_sound || record.statusCode == status_pending)) {
    return std::ranges::find(sound_states, record.state) != sound_states.end() ? record.state : 0;
  }
  return codeOf(error_types, record.errorType, record.statusCode);
}

void readMembers(const json_t *object, FileStatus &record) {
  if (readText(object, "state", record.stateText)) {
    record.state = codeOf(states, record.stateText, state_unknown);
  }
  if (readText(object, "dirtiness", record.dirtinessText)) {
    record.dirtiness = codeOf(dirtinesses, record.dirtinessText, dirtiness_unknown);
  }
  // 0 for a member of another type, which is the field's value already; an integer is no real here.
  record.uploadProgress = saturatedFloat(json_real_value(json_object_get(object, "upload_progress")));
  record.statusCode = static_cast<std::int32_t>(json_integer_value(json_object_get(object, "status_code")));
  readText(object, "error_type", record.errorType);
  readText(object, "msg", record.message);
  if (readText(object, "priority", record.priorityText)) {
    record.priority = codeOf(priorities, record.priorityText, priority_normal);
  }
}

void derivePriority(bool isFolder, FileStatus &record) {
  if (record.derivedStatus == state_full_cached) {
    const bool pending = record.dirtiness == dirtiness_dirty || record.statusCode == status_pending;
    record.derivedPriority = pending ? priority_normal : record.priority;
  } else if (record.derivedStatus == state_uploading) {
    record.derivedPriority = record.priority;
    record.uploadPercent = truncated(record.uploadProgress);
  } else if (isFolder && (record.derivedStatus == state_downloading || record.derivedStatus == state_no_space)) {
    record.derivedPriority = record.priority;
  }
}

// The byte position goes in as a number of characters: behind characters of several bytes the cut lies further on. No
// "/" gives the all-ones count, which takes the whole path.
std::string mountRoot(std::string_view fullPath) {
  static_assert(std::string_view::npos == all_characters);
  return std::string(utf8Substring(fullPath, 0, fullPath.find('/', root_end_from)));
}

struct MountNames {
  std::string connection;
  std::string uuid;
};

// Two segments of the path, each empty where the path ends before it.
MountNames mountNames(std::string_view fullPath) {
  std::string_view rest = fullPath.substr(std::min(mount_name_at, fullPath.size()));
  MountNames names;
  for (std::string *name : {&names.connection, &names.uuid}) {
    const std::size_t end = std::min(rest.find('/'), rest.size());
    *name = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return names;
}

}  // namespace

int readFileStatus(const ResourceEntry &entry, bool isFolder, FileStatus &record) {
  return readFileStatus(fullPath(entry), isFolder, record);
}

int readFileStatus(const std::string &fullPath, bool isFolder, FileStatus &record) {
  if (fullPath.empty()) {
    return -1;
  }
  if (const auto value = readAttribute(fullPath, file_attribute, file_attribute_capacity)) {
    if (const JsonRef object = json_parsed(value->c_str())) {
      readMembers(object.get(), record);
      record.derivedStatus = deriveStatus(record);
    }
  }
  derivePriority(isFolder, record);
  return 0;
}

std::int32_t readRootStatus(const ResourceEntry &entry) {
  return readRootStatus(fullPath(entry));
}

std::int32_t readRootStatus(const std::string &fullPath) {
  if (fullPath.empty()) {
    return -1;
  }
  const auto value = readAttribute(mountRoot(fullPath), root_attribute, root_attribute_capacity);
  if (!value) {
    return errno == ENODATA ? status_sound : -1;
  }
  const JsonRef object = json_parsed(value->c_str());
  const json_t *status = json_object_get(object.get(), "status");
  return json_is_integer(status) ? static_cast<std::int32_t>(json_integer_value(status)) : -1;
}

std::int32_t readFailedCount(const ResourceEntry &entry) {
  return readFailedCount(fullPath(entry));
}

std::int32_t readFailedCount(const std::string &fullPath) {
  if (fullPath.empty()) {
    return -1;
  }
  const auto value = readAttribute(mountRoot(fullPath), failed_attribute, root_attribute_capacity);
  return value ? static_cast<std::int32_t>(std::strtoll(value->c_str(), nullptr, 10)) : 0;
}

int readEncryptedFolderStatus(const ResourceEntry &entry, EncryptedFolder &record) {
  return readEncryptedFolderStatus(fullPath(entry), record);
}

int readEncryptedFolderStatus(const std::string &fullPath, EncryptedFolder &record) {
  if (fullPath.empty()) {
    return -1;
  }
  const MountNames names = mountNames(fullPath);
  const std::string told = captureProgram({mount_tool, "--func", "get_encrypted_folder_runtime_status",
                                           names.connection.c_str(), "--uuid", names.uuid.c_str()},
                                          CapturedStream::output);
  const JsonRef reply = json_parsed(told.c_str());
  const json_t *data = json_object_get(reply.get(), "data");
  const char *folder = json_string_value(json_object_get(data, "encrypted_folder"));
  const json_t *status = json_object_get(data, "status");
  if (folder == nullptr || !json_is_integer(status)) {
    return -1;
  }
  record.encryptedFolder = folder;
  record.isEncrypted = 1;
  switch (json_integer_value(status)) {
    case tool_open:
      record.lockState = 0;
      break;
    case tool_minus_two:
      record.lockState = -2;
      break;
    default:
      record.lockState = 1;
  }
  return 0;
}

int isAutotierLink(const ResourceEntry &entry) {
  return isAutotierLink(fullPath(entry));
}

int isAutotierLink(const std::string &fullPath) {
  struct Free {
    void operator()(char *text) const { ::free(text); }
  };
  const std::unique_ptr<char, Free> resolved(::realpath(fullPath.c_str(), nullptr));
  std::string_view tested = fullPath;
  if (resolved) {
    const std::string_view target = resolved.get();
    if (const std::size_t slash = target.rfind('/'); slash != std::string_view::npos) {
      // The folder that holds the target, so that a folder directly inside the area does not count. The byte position
      // goes in as a number of characters, as for the mount root.
      tested = utf8Substring(target, 0, slash);
    }
  }
  return tested.find(autotier_area) != std::string_view::npos ? 1 : 0;
}

}  // namespace dirwell
