// Which snapshot a path lies in.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "platform/host/config.h"
#include "platform/host/config_line.h"
#include "platform/host/path_list.h"
#include "platform/host/text.h"
#include "platform/include/strata_nas.h"

namespace dirwell::host {
namespace {

struct Snapshot {
  std::string path;
  int volume;
  int id;
  std::string mount;
};

// The path in a section name "SNAPSHOT /some/path", or nothing.
std::string_view snapshot_path(std::string_view section) {
  constexpr std::string_view word = "SNAPSHOT";
  if (!equal_ignoring_case(section.substr(0, word.size()), word)) {
    return {};
  }
  section.remove_prefix(word.size());
  const std::size_t start = section.find_first_not_of(" \t");
  if (start == 0 || start == std::string_view::npos || section[start] != '/') {
    return {};
  }
  return section.substr(start);
}

struct SnapshotList {
  explicit SnapshotList(const ConfigFile &config) {
    for (const ConfigFile::Section &section : config.sections()) {
      const std::string_view path = snapshot_path(section.name);
      if (!path.empty()) {
        snapshots.push_back({std::string(without_trailing_slashes(path)), number(section, "volume"),
                             number(section, "id"), std::string(section.value("mount").value_or(std::string_view{}))});
      }
    }
    std::stable_sort(snapshots.begin(), snapshots.end(),
                     [](const Snapshot &left, const Snapshot &right) { return left.path.size() > right.path.size(); });
  }

  std::vector<Snapshot> snapshots;  // longest path first

 private:
  static int number(const ConfigFile::Section &section, std::string_view key) {
    return leading_integer(section.value(key).value_or(std::string_view{}));
  }
};

// Never destroyed: see the cache of configuration files.
FromConfig<SnapshotList> &snapshot_list() {
  static auto &only = *new FromConfig<SnapshotList>(platform_file);
  return only;
}

}  // namespace
}  // namespace dirwell::host

int NAS_Snapshot_Get_Id_Path(const char *path, int *volume, int *id, char *mount, size_t size) {
  const auto list = dirwell::host::snapshot_list().get();
  if (path == nullptr || !list) {
    return -1;
  }
  const auto &snapshots = list->snapshots;
  const auto found = std::find_if(snapshots.begin(), snapshots.end(), [path](const dirwell::host::Snapshot &each) {
    return dirwell::host::lies_within(path, each.path);
  });
  if (found == snapshots.end()) {
    return -1;
  }
  if (volume != nullptr) {
    *volume = found->volume;
  }
  if (id != nullptr) {
    *id = found->id;
  }
  if (mount != nullptr && size > 0) {
    const std::size_t length = std::min(found->mount.size(), size - 1);
    std::memcpy(mount, found->mount.data(), length);
    mount[length] = '\0';
  }
  return 0;
}
