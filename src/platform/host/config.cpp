#include "platform/host/config.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <unordered_map>

#include "platform/host/config_line.h"
#include "platform/host/file_state.h"
#include "platform/host/regular_file.h"
#include "platform/host/text.h"
#include "platform/include/hxservice.h"
#include "platform/include/strata_config.h"

namespace dirwell::host {
namespace {

// Configuration is written by people; what is larger than this is some other file in the place of one.
constexpr std::size_t largest_file = std::size_t{16} << 20;

struct CachedFile {
  FileState state;
  bool settled = false;
  std::shared_ptr<const ConfigFile> parsed;
};

struct Cache {
  std::mutex mutex;
  std::map<std::string, CachedFile, std::less<>> files;
};

// Never destroyed: threads may still ask while the process ends.
Cache &cache() {
  static Cache &only = *new Cache;
  return only;
}

constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";

}  // namespace

ConfigFile::ConfigFile(std::string content) : content_(std::move(content)) {
  std::string_view rest = content_;
  if (rest.starts_with(byte_order_mark)) {
    rest.remove_prefix(byte_order_mark.size());
  }
  constexpr std::size_t none = static_cast<std::size_t>(-1);
  std::unordered_map<std::string, std::size_t> places;
  std::size_t current = none;
  while (!rest.empty()) {
    const Line line = take_line(rest);
    switch (line.kind) {
      case LineKind::section: {
        const auto [place, added] = places.try_emplace(folded_name(line.name), sections_.size());
        if (added) {
          sections_.push_back({line.name, {}});
        }
        current = place->second;
        break;
      }
      case LineKind::broken_section:
        // What follows was meant for another section: it must not change the meaning of the one before.
        current = none;
        break;
      case LineKind::value:
        if (current != none && !line.name.empty()) {
          sections_[current].values.emplace_back(line.name, line.value);
        }
        break;
      case LineKind::nothing:
        break;
    }
  }
}

std::optional<std::string_view> ConfigFile::Section::value(std::string_view key) const {
  const auto found = std::find_if(values.begin(), values.end(),
                                  [key](const auto &pair) { return equal_ignoring_case(pair.first, key); });
  if (found == values.end()) {
    return std::nullopt;
  }
  return found->second;
}

std::optional<std::string_view> ConfigFile::value(std::string_view section, std::string_view key) const {
  const auto found = std::find_if(sections_.begin(), sections_.end(),
                                  [section](const Section &each) { return equal_ignoring_case(each.name, section); });
  if (found == sections_.end()) {
    return std::nullopt;
  }
  return found->value(key);
}

std::shared_ptr<const ConfigFile> config_file(const char *file) {
  if (file == nullptr) {
    return nullptr;
  }
  const std::string path = std::string(hx_root()) + file;
  const std::lock_guard lock(cache().mutex);
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    cache().files.erase(path);
    return nullptr;
  }
  const auto known = cache().files.find(path);
  if (known != cache().files.end() && known->second.settled && known->second.state == FileState(status)) {
    return known->second.parsed;
  }
  std::optional<std::string> content = read_regular_file(path, Links::follow, largest_file, status);
  if (!content) {
    cache().files.erase(path);
    return nullptr;
  }
  CachedFile &cached = cache().files[path];
  cached.state = FileState(status);
  cached.settled = cached.state.settled();
  if (!cached.parsed || cached.parsed->content() != *content) {
    cached.parsed = std::make_shared<const ConfigFile>(*std::move(content));
  }
  return cached.parsed;
}

}  // namespace dirwell::host

using dirwell::host::config_file;

int Get_Private_Profile_String(const char *section, const char *key, const char *fallback, char *buffer, int size,
                               const char *file) {
  if (buffer == nullptr || size <= 0) {
    return 0;
  }
  std::string_view value = fallback != nullptr ? fallback : "";
  const auto config = config_file(file);
  if (config && section != nullptr && key != nullptr) {
    value = config->value(section, key).value_or(value);
  }
  const std::size_t length = std::min(value.size(), static_cast<std::size_t>(size) - 1);
  if (length > 0) {                              // an empty value has no bytes to point to
    std::memmove(buffer, value.data(), length);  // the fallback may be the buffer itself
  }
  buffer[length] = '\0';
  return static_cast<int>(length);
}

int Get_Private_Profile_Integer(const char *section, const char *key, int fallback, const char *file) {
  const auto config = config_file(file);
  if (!config || section == nullptr || key == nullptr) {
    return fallback;
  }
  const auto value = config->value(section, key);
  return value ? dirwell::host::leading_integer(*value) : fallback;
}
