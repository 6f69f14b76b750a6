// The extended attributes of the cloud-cache service and the projection tag: whatever stands in them, each gives the
// numbers that its rules say.
//
// Input: a line with the full path, then the bytes of every attribute.
#include <jansson.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "describe/media_probes.h"
#include "describe/storage_state.h"
#include "fuzz/support/check.h"
#include "fuzz/support/input.h"
#include "fuzz/support/stand_ins.h"
#include "service/json.h"

namespace dirwell::fuzz {
namespace {

// --- The plain rules

using Words = std::initializer_list<std::pair<std::string_view, std::int32_t>>;

// 0 for a member that is no text.
std::int32_t code(const json_t *value, const Words &words, std::int32_t other) {
  if (!json_is_string(value)) {
    return 0;
  }
  for (const auto &[word, number] : words) {
    if (word == json_string_value(value)) {
      return number;
    }
  }
  return other;
}

std::string text(const json_t *value) {
  return json_is_string(value) ? json_string_value(value) : "";
}

// As a cast of the two's complement does it.
std::int32_t low_bits(std::int64_t value) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(static_cast<std::uint64_t>(value)));
}

FileStatus status_by_rule(const json_t *object, bool folder) {
  const auto member = [object](const char *key) { return json_object_get(object, key); };
  FileStatus record;
  record.stateText = text(member("state"));
  record.dirtinessText = text(member("dirtiness"));
  record.priorityText = text(member("priority"));
  record.errorType = text(member("error_type"));
  record.message = text(member("msg"));
  record.state = code(member("state"),
                      {{"non-cached", 1},
                       {"full-cached", 2},
                       {"partial-cached", 3},
                       {"downloading", 4},
                       {"uploading", 5},
                       {"error", 6},
                       {"wait-for-uploading", 9},
                       {"ignored", 10},
                       {"nospace", 11}},
                      -1);
  record.dirtiness = code(member("dirtiness"), {{"clean", 1}, {"dirty", 2}, {"error", 3}}, -1);
  record.priority = code(member("priority"), {{"pin", 1}, {"normal", 2}, {"low", 3}}, 2);
  record.statusCode = json_is_integer(member("status_code")) ? low_bits(json_integer_value(member("status_code"))) : 0;
  const double progress = json_is_real(member("upload_progress")) ? json_real_value(member("upload_progress")) : 0;
  record.uploadProgress =
      static_cast<float>(std::fmin(std::fmax(progress, -3.4028234663852886e38), 3.4028234663852886e38));
  if (object != nullptr) {
    if (record.statusCode == 4031) {
      record.derivedStatus = 6;
    } else if (record.state == 10 || record.state == 11) {
      record.derivedStatus = record.state;
    } else if (record.state != 6 && (record.statusCode == 2000 || record.statusCode == 10000)) {
      record.derivedStatus = (record.state >= 1 && record.state <= 5) || record.state == 9 ? record.state : 0;
    } else {
      record.derivedStatus = record.errorType == "download-error" ? 7
                             : record.errorType == "upload-error" ? 8
                                                                  : record.statusCode;
    }
  }
  if (record.derivedStatus == 2) {
    record.derivedPriority = record.dirtiness == 2 || record.statusCode == 10000 ? 2 : record.priority;
  } else if (record.derivedStatus == 5) {
    record.derivedPriority = record.priority;
    const double whole = std::trunc(static_cast<double>(record.uploadProgress));
    record.uploadPercent = whole >= 2147483647.0    ? 2147483647
                           : whole <= -2147483648.0 ? static_cast<std::int32_t>(-2147483648LL)
                                                    : static_cast<std::int32_t>(whole);
  } else if (folder && (record.derivedStatus == 4 || record.derivedStatus == 11)) {
    record.derivedPriority = record.priority;
  }
  return record;
}

// Up to the first "/" at or behind byte 35, that many characters; the whole path where there is none.
std::string root_by_rule(const std::string &path) {
  const std::size_t slash = path.find('/', 35);
  std::size_t left = slash;
  std::size_t at = 0;
  while (at < path.size() && (slash == std::string::npos || left-- > 0)) {
    const auto lead = static_cast<unsigned char>(path[at]);
    const std::size_t length = lead < 128   ? 1
                               : lead < 194 ? 0
                               : lead < 224 ? 2
                               : lead < 240 ? 3
                               : lead < 248 ? 4
                               : lead < 252 ? 5
                               : lead < 254 ? 6
                                            : 0;
    if (length == 0) {
      return {};
    }
    at = std::min(at + length, path.size());
  }
  return path.substr(0, at);
}

// --- The promises

void check_file_status(const std::string &path, const std::string &value, bool folder) {
  FileStatus record;
  const int result = readFileStatus(path, folder, record);
  if (path.empty()) {
    check_equal(result, -1, "no path has no state");
    check(record.stateText.empty() && record.derivedStatus == 0, "and leaves the record alone");
    return;
  }
  check_equal(result, 0, "a path has a state");
  const bool fits = value.size() <= 1024;
  const JsonRef object(fits ? json_loads(value.c_str(), 0, nullptr) : nullptr);
  const FileStatus expected = status_by_rule(object.get(), folder);
  check_equal(record.statusCode, expected.statusCode, "status code");
  check_equal(record.state, expected.state, "state");
  check_equal(record.dirtiness, expected.dirtiness, "dirtiness");
  check_equal(record.priority, expected.priority, "priority");
  check(record.uploadProgress == expected.uploadProgress, "upload progress", std::to_string(record.uploadProgress));
  check_equal(record.stateText, expected.stateText, "text of the state");
  check_equal(record.dirtinessText, expected.dirtinessText, "text of the dirtiness");
  check_equal(record.errorType, expected.errorType, "text of the error type");
  check_equal(record.priorityText, expected.priorityText, "text of the priority");
  check_equal(record.message, expected.message, "text of the message");
  check_equal(record.derivedStatus, expected.derivedStatus, "derived status");
  check_equal(record.derivedPriority, expected.derivedPriority, "derived priority");
  check_equal(record.uploadPercent, expected.uploadPercent, "upload percent");
}

void check_root(const std::string &path, const std::string &value) {
  const bool fits = value.size() <= 512;
  machine().asked.clear();
  const std::int32_t status = readRootStatus(path);
  const std::int32_t count = readFailedCount(path);
  if (path.empty()) {
    check(status == -1 && count == -1 && machine().asked.empty(), "no path has no root");
    return;
  }
  check_equal(machine().asked.size(), std::size_t{2}, "each asks once");
  check_equal(machine().asked[0], c_text(root_by_rule(path)), "the root of the mount is asked");
  check_equal(machine().asked[1], machine().asked[0], "by both");
  const JsonRef object(fits ? json_loads(value.c_str(), 0, nullptr) : nullptr);
  const json_t *member = json_object_get(object.get(), "status");
  check_equal(status, json_is_integer(member) ? low_bits(json_integer_value(member)) : -1, "the root's state");
  check_equal(count, fits ? low_bits(std::strtoll(value.c_str(), nullptr, 10)) : 0, "the count is the digits");
}

void check_projection(const std::string &path, const std::string &value) {
  machine().runs.clear();
  machine().set.clear();
  const int projection = probeProjection(path);
  check(machine().runs.size() <= 1 && machine().runs.size() == machine().set.size(), "the answer of a look-up is kept");
  if (!path.starts_with("/share/")) {
    check(projection == 0 && machine().runs.empty(), "only shares are asked about");
  } else if (value.size() > 128) {
    check(projection == 0 && machine().set.at(0).second == "0", "a tag that is too long is made anew");
  } else if (value.empty()) {
    check_equal(projection, -1, "an empty tag tells nothing");
  } else {
    check_equal(projection, (std::strtoll(value.c_str(), nullptr, 10) & 2) != 0 ? 1 : 0, "a tag is a number of bits");
    check(machine().runs.empty(), "what is tagged is not looked up");
  }
}

void check_missing(const std::string &path) {
  machine().attributes.clear();
  FileStatus record;
  readFileStatus(path, true, record);
  check(record.stateText.empty() && record.derivedStatus == 0 && record.derivedPriority == 0,
        "without an attribute all is zero");
  if (!path.empty()) {
    check_equal(readRootStatus(path), 2000, "a mount without an error is sound");
    check_equal(readFailedCount(path), 0, "and has failed at nothing");
  }
}

}  // namespace
}  // namespace dirwell::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  using namespace dirwell::fuzz;
  std::string_view input = text_of(data, size);
  const std::string path = c_text(take_line(input));  // a path holds no NUL
  const std::string value(input);
  machine() = {};
  for (const char *name :
       {"user.cm.meta_status", "user.cm.global_error", "trusted.cm.failed_files_count", "user.marker_fs"}) {
    machine().attributes[name] = value;
  }
  check_file_status(path, value, false);
  check_file_status(path, value, true);
  check_root(path, value);
  check_projection(path, value);
  check_missing(path);
  return 0;
}
