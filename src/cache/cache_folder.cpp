#include "cache/cache_folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <string_view>

#include "platform/include/strata_config.h"
#include "platform/include/strata_nasauth.h"
#include "service/log.h"
#include "service/unique_fd.h"

namespace dirwell {

namespace {

// The record that the platform's library writes to is of this size, whatever is read of it.
static_assert(sizeof(auth_session) == 2800);

constexpr mode_t open_to_everyone = 0777;

struct CloseFolder {
  void operator()(DIR *folder) const { ::closedir(folder); }
};

bool sessionAlive(const std::string &sid) {
  auth_session record{};
  return auth_get_session_ex(sid.c_str(), 1, &record) == 0;
}

// The daemon may be root and the volume's top folder writable by others: a link planted in the folder's place must lead
// nowhere. Invalid when there is no folder of its own.
UniqueFd openFolder(const std::string &path) {
  return UniqueFd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

}  // namespace

std::string defaultVolume() {
  std::array<char, 4096> value{};
  Get_Private_Profile_String("SHARE_DEF", "defVolMP", "", value.data(), static_cast<int>(value.size()),
                             "/etc/config/def_share.info");
  std::string volume = value.data();
  if (volume.empty()) {
    log_warning("[cache] no default volume");
  }
  return volume;
}

std::string cacheFolder(const std::string &volume) {
  return volume + "/.fs";
}

void prepareCacheFolder() {
  const std::string volume = defaultVolume();
  if (volume.empty()) {
    return;
  }
  const std::string folder = cacheFolder(volume);
  ::mkdir(folder.c_str(), open_to_everyone);
  if (const UniqueFd opened = openFolder(folder); opened.valid()) {
    ::fchmod(opened.get(), open_to_everyone);
  }
}

void cleanCacheFolder() {
  const std::string volume = defaultVolume();
  if (volume.empty()) {
    return;
  }
  const std::string path = cacheFolder(volume);
  UniqueFd opened = openFolder(path);
  if (!opened.valid()) {
    return;
  }
  const std::unique_ptr<DIR, CloseFolder> folder(::fdopendir(opened.get()));
  if (!folder) {
    return;
  }
  opened.release();  // the stream closes it
  while (const dirent *file = ::readdir(folder.get())) {
    const std::string_view name = file->d_name;
    const std::string sid(name.substr(0, name.find('.')));
    if (sid.empty() || sessionAlive(sid)) {
      continue;
    }
    log_debug(SourcePlace::here("cache"), "[cache] remove %s/%s", path.c_str(), file->d_name);
    ::unlinkat(::dirfd(folder.get()), file->d_name, 0);
  }
}

}  // namespace dirwell
