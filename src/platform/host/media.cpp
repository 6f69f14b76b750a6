// What the machine's media library can do.
#include <fnmatch.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/host/config.h"
#include "platform/host/path_list.h"
#include "platform/include/strata_config.h"
#include "platform/include/strata_nas.h"

namespace dirwell::host {
namespace {

struct TranscodedFiles {
  explicit TranscodedFiles(const ConfigFile &config)
      : patterns(split_list(config.value("MEDIA", "transcoded").value_or(std::string_view{}))) {}

  std::vector<std::string> patterns;
};

// Never destroyed: see the cache of configuration files.
FromConfig<TranscodedFiles> &transcoded_files() {
  static auto &only = *new FromConfig<TranscodedFiles>(platform_file);
  return only;
}

int media_switch(const char *key) {
  return Get_Private_Profile_Integer("MEDIA", key, 0, platform_file) != 0 ? 1 : 0;
}

}  // namespace
}  // namespace dirwell::host

int Is_MediaLib_Enabled(void) {
  return dirwell::host::media_switch("library");
}

int Is_Realtime_Transcoding_Support(void) {
  return dirwell::host::media_switch("realtime_transcoding");
}

int MediaLib_Transcoding_CheckFile(int kind, const char *path) {
  static_cast<void>(kind);  // the configured patterns name videos only
  const auto files = dirwell::host::transcoded_files().get();
  if (path == nullptr || !files) {
    return 0;
  }
  return std::any_of(files->patterns.begin(), files->patterns.end(),
                     [path](const std::string &pattern) { return ::fnmatch(pattern.c_str(), path, 0) == 0; })
             ? 1
             : 0;
}
