// What the tests of entry description stand on: a private root with a live session, configuration and tools placed
// under it for the length of a scope, and short ways to make entries and to read descriptions.
#pragma once

#include <jansson.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "describe/formatter.h"
#include "entry/resource_entry.h"
#include "service/json.h"

namespace dirwell::test {

inline constexpr const char *session_id = "describe-test";

// The test binary's DIRWELL_ROOT.
std::string rootPath();

// A file under the root. It is replaced as a whole, so that a reader who goes by the file's status sees each change.
class ScopedConfig {
 public:
  ScopedConfig(std::string_view name, std::string_view content);
  ~ScopedConfig();
  ScopedConfig(const ScopedConfig &) = delete;
  ScopedConfig &operator=(const ScopedConfig &) = delete;

 private:
  std::string path_;
};

// The share list: each share's folder and type.
struct Share {
  std::string path;
  int type;
};
class ScopedShares {
 public:
  explicit ScopedShares(const std::vector<Share> &shares);

 private:
  ScopedConfig config_;
};

// A program under the root that notes its arguments and gives fixed answers.
class ScopedTool {
 public:
  // `path` is the fixed path that the daemon knows the program by.
  ScopedTool(const std::string &path, std::string_view output, std::string_view error);
  ~ScopedTool();
  ScopedTool(const ScopedTool &) = delete;
  ScopedTool &operator=(const ScopedTool &) = delete;

  // The arguments of each run, in order, without the program's own name.
  [[nodiscard]] std::vector<std::vector<std::string>> runs() const;

 private:
  std::string program_;
  std::string notes_;
};

inline constexpr const char *ffmpeg = "/usr/bin/ffmpeg";
inline constexpr const char *media_database = "/usr/local/medialibrary/bin/mymediadbcmd";
inline constexpr const char *mount_tool = "/usr/local/bin/remote_mount_tool";

// A private folder whose path is BASE + "/dw-" and six more characters, whatever TMPDIR is.
class PlacedDir {
 public:
  explicit PlacedDir(const std::string &base = "/tmp");
  ~PlacedDir();
  PlacedDir(const PlacedDir &) = delete;
  PlacedDir &operator=(const PlacedDir &) = delete;

  [[nodiscard]] std::string path() const { return path_; }
  // Each makes missing parents and returns the path.
  std::string write(const std::string &name, std::string_view content = "") const;
  std::string mkdir(const std::string &name) const;
  std::string link(const std::string &name, const std::string &target) const;

 private:
  std::string path_;
};

// A private folder "/share/dw-XXXXXX" on the machine itself. "/share" is made for it, and goes with the last such
// folder, where the machine has none; tests of several processes may do so at the same time.
class ShareDir {
 public:
  ShareDir();
  ~ShareDir();
  ShareDir(const ShareDir &) = delete;
  ShareDir &operator=(const ShareDir &) = delete;

  const PlacedDir *operator->() const { return dir_.get(); }

 private:
  std::unique_ptr<PlacedDir> dir_;
};

void setAttribute(const std::string &path, const char *name, std::string_view value);
// The attribute's bytes; "(none)" where it is missing.
std::string attributeOf(const std::string &path, const char *name);

// A name in a folder, shown in "/Pub", with its own status.
ResourceEntry entryOf(const std::string &directory, std::string_view name, const std::string &display = "/Pub");
// The same below a subfolder of the listed one.
ResourceEntry entryBelow(const std::string &directory, const std::string &subPath, std::string_view name,
                         const std::string &display = "/Pub");

JsonRef described(Formatter &formatter, const ResourceEntry &entry);
JsonRef described(const ResourceEntry &entry);  // by a formatter of its own
JsonRef settingsOf(Formatter &formatter);

// The members of an object; a test failure and -999 or "(none)" when the member is missing or of another type.
json_int_t integerOf(const JsonRef &object, const char *key);
std::string textOf(const JsonRef &object, const char *key);
std::vector<std::string> keysOf(const JsonRef &object);
std::string dumped(const JsonRef &object);

}  // namespace dirwell::test
