// Parsed configuration files, each read once per change of the file.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace dirwell::host {

// The files that the platform itself reads; fixed paths, without root.
inline constexpr const char *shares_file = "/etc/samba/smb.conf";
inline constexpr const char *platform_file = "/etc/config/host-platform.conf";

// One parsed file. Immutable. Sections of the same name are one, at the place of the first.
class ConfigFile {
 public:
  struct Section {
    std::string_view name;  // as first written
    std::vector<std::pair<std::string_view, std::string_view>> values;

    // The value of the first key of this name, or nothing. A view into the file.
    [[nodiscard]] std::optional<std::string_view> value(std::string_view key) const;
  };

  explicit ConfigFile(std::string content);
  ConfigFile(const ConfigFile &) = delete;  // the sections are views into content_
  ConfigFile &operator=(const ConfigFile &) = delete;

  [[nodiscard]] const std::vector<Section> &sections() const { return sections_; }
  [[nodiscard]] std::optional<std::string_view> value(std::string_view section, std::string_view key) const;
  [[nodiscard]] const std::string &content() const { return content_; }

 private:
  std::string content_;
  std::vector<Section> sections_;
};

// The file at the fixed path `file` as it is now, or null when there is no readable one. A file that has not changed
// since it was last asked for is not read again, and gives the same object. Any thread; a fork must not happen during a
// call.
std::shared_ptr<const ConfigFile> config_file(const char *file);

// What a configuration file means, worked out once per change of the file. T is made from a const ConfigFile &.
template <typename T>
class FromConfig {
 public:
  explicit FromConfig(const char *file) : file_(file) {}

  // Null when there is no readable file. Any thread; a fork must not happen during a call.
  std::shared_ptr<const T> get() {
    std::shared_ptr<const ConfigFile> source = config_file(file_);
    const std::lock_guard lock(mutex_);
    if (source_ != source) {
      meaning_ = source ? std::make_shared<const T>(*source) : nullptr;
      source_ = std::move(source);
    }
    return meaning_;
  }

 private:
  const char *file_;
  std::mutex mutex_;
  std::shared_ptr<const ConfigFile> source_;
  std::shared_ptr<const T> meaning_;
};

}  // namespace dirwell::host
