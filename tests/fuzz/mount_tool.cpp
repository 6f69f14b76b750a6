// What the machine's tools print: the mount tool's answer about encrypted folders, and the outputs in which the video
// tool and the media database are searched for a word.
//
// Input: a line with the full path, then the output.
#include <jansson.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "describe/cache_state.h"
#include "describe/media_probes.h"
#include "describe/storage_state.h"
#include "fuzz/support/check.h"
#include "fuzz/support/input.h"
#include "fuzz/support/quiet.h"
#include "fuzz/support/stand_ins.h"
#include "service/json.h"

namespace dirwell::fuzz {
namespace {

// The segment of the path from byte `from` on; `from` moves behind the "/" that ends it.
std::string segment(const std::string &path, std::size_t &from) {
  std::string result;
  while (from < path.size() && path[from] != '/') {
    result += path[from++];
  }
  ++from;
  return result;
}

void check_encrypted_folder(const std::string &path, const std::string &output) {
  machine().runs.clear();
  EncryptedFolder record{7, 7, "as it was"};
  const int result = readEncryptedFolderStatus(path, record);
  if (path.empty()) {
    check(result == -1 && machine().runs.empty(), "no path is asked about");
    return;
  }
  check_equal(machine().runs.size(), std::size_t{1}, "the tool runs once");
  std::size_t at = 20;
  const std::string connection = segment(path, at);
  const std::string uuid = segment(path, at);
  const std::vector<std::string> arguments{
      "/usr/local/bin/remote_mount_tool", "--func", "get_encrypted_folder_runtime_status", connection, "--uuid", uuid};
  check(machine().runs[0] == arguments, "the tool is told the names in the path", path);

  const JsonRef reply(json_loads(output.c_str(), 0, nullptr));
  const json_t *data = json_object_get(reply.get(), "data");
  const json_t *folder = json_object_get(data, "encrypted_folder");
  const json_t *status = json_object_get(data, "status");
  if (!json_is_string(folder) || !json_is_integer(status)) {
    check(result == -1 && record.isEncrypted == 7 && record.lockState == 7 && record.encryptedFolder == "as it was",
          "an answer that is none leaves the record alone");
    return;
  }
  check_equal(result, 0, "an answer is one");
  check_equal(record.isEncrypted, 1, "the folder is encrypted");
  check_equal(record.encryptedFolder, std::string(json_string_value(folder)), "it is the one of the answer");
  const json_int_t number = json_integer_value(status);
  check_equal(record.lockState, number == 1 ? 0 : (number == -2 ? -2 : 1), "it is open, locked or neither");

  const CacheState folder_state = readCacheState(path, true);
  check(folder_state.folderIsEncrypted == (record.encryptedFolder == path ? 1 : 0),
        "only the encrypted folder itself is shown as one");
  check_equal(readCacheState(path, false).folderIsEncrypted, 0, "a file is no encrypted folder");
}

void check_searched_outputs(const std::string &path, const std::string &output) {
  const std::string text = c_text(output);
  const auto holds = [&text](std::string_view part) { return text.find(part) != std::string::npos; };
  machine().runs.clear();
  ResourceEntry entry;
  entry.extension = "mkv";
  check_equal(probeH265(entry, path), holds(": hevc (") || holds(": hevc,") ? 1 : 0, "the video tool names the codec");
  check(machine().runs.at(0) == std::vector<std::string>{"/usr/bin/ffmpeg", "-hide_banner", "-i", path},
        "the video tool is told the path and nothing else");
  const bool projected = holds("<media-info projection-type=\"1\"") || holds("<media-info projection-type=\\\"1\\\"");
  check_equal(queryMediaProjection(path), projected ? 1 : -1, "the database names the projection");
  entry.extension = "iso";
  machine().runs.clear();
  check(probeH265(entry, path) == 0 && machine().runs.empty(), "disc images are not opened");
}

}  // namespace
}  // namespace dirwell::fuzz

extern "C" int LLVMFuzzerInitialize(int * /*count*/, char *** /*arguments*/) {
  dirwell::fuzz::silence();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  using namespace dirwell::fuzz;
  std::string_view input = text_of(data, size);
  const std::string path = c_text(take_line(input));
  const std::string output(input);
  machine() = {};
  machine().program_output = output;
  check_encrypted_folder(path, output);
  check_searched_outputs(path, output);
  return 0;
}
