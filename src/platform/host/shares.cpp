// The shares of the machine, and which virtual directories stand for devices.
#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/host/config.h"
#include "platform/host/config_line.h"
#include "platform/host/path_list.h"
#include "platform/host/text.h"
#include "platform/include/strata_nas.h"

namespace dirwell::host {
namespace {

// Sections of the share file that are no folders of their own.
constexpr std::array<std::string_view, 4> not_shares = {"global", "homes", "printers", "print$"};

bool is_share_name(std::string_view section) {
  return std::none_of(not_shares.begin(), not_shares.end(),
                      [section](std::string_view other) { return equal_ignoring_case(section, other); });
}

class ShareList {
 public:
  explicit ShareList(const ConfigFile &config) {
    for (const ConfigFile::Section &section : config.sections()) {
      const std::string_view path = section.value("path").value_or(std::string_view{});
      // A share without a path would lie in front of every path there is.
      if (!is_share_name(section.name) || path.empty() || path.front() == '\0') {
        continue;
      }
      texts_.push_back(std::make_unique<const Texts>(std::string(section.name), std::string(path)));
      shares_.push_back({texts_.back()->first.c_str(), texts_.back()->second.c_str(),
                         leading_integer(section.value("dirwell:type").value_or(std::string_view{}))});
    }
  }

  [[nodiscard]] const std::vector<SMB_Share> &shares() const { return shares_; }

 private:
  using Texts = std::pair<std::string, std::string>;
  std::vector<std::unique_ptr<const Texts>> texts_;
  std::vector<SMB_Share> shares_;
};

// What a caller holds between SMB_Get_Share_Info and SMB_Free_Share_Info: it keeps the list that it was given alive
// when the file changes meanwhile.
struct LentShareList : SMB_Share_Info {
  explicit LentShareList(std::shared_ptr<const ShareList> lent)
      : SMB_Share_Info{lent->shares().data(), lent->shares().size()}, list(std::move(lent)) {}
  std::shared_ptr<const ShareList> list;
};

struct DeviceShares {
  explicit DeviceShares(const ConfigFile &config) : mtp(directories(config, "mtp")), odd(directories(config, "odd")) {}

  std::vector<std::string> mtp;
  std::vector<std::string> odd;

 private:
  static std::vector<std::string> directories(const ConfigFile &config, std::string_view key) {
    std::vector<std::string> list = split_list(config.value("SHARES", key).value_or(std::string_view{}));
    for (std::string &directory : list) {
      directory.resize(without_trailing_slashes(directory).size());
    }
    return list;
  }
};

// Never destroyed: see the cache of configuration files.
FromConfig<ShareList> &share_list() {
  static auto &only = *new FromConfig<ShareList>(shares_file);
  return only;
}

FromConfig<DeviceShares> &device_shares() {
  static auto &only = *new FromConfig<DeviceShares>(platform_file);
  return only;
}

int is_device_share(const char *virtual_directory, std::vector<std::string> DeviceShares::*kind) {
  const auto shares = device_shares().get();
  if (virtual_directory == nullptr || !shares) {
    return 0;
  }
  const std::vector<std::string> &directories = (*shares).*kind;
  return std::any_of(directories.begin(), directories.end(),
                     [virtual_directory](const std::string &each) { return lies_within(virtual_directory, each); })
             ? 1
             : 0;
}

}  // namespace
}  // namespace dirwell::host

using namespace dirwell::host;

const SMB_Share_Info *SMB_Get_Share_Info(void) {
  auto shares = share_list().get();
  return shares ? new LentShareList(std::move(shares)) : nullptr;
}

void SMB_Free_Share_Info(const SMB_Share_Info *info) {
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-static-cast-downcast): only what was lent comes back
  delete static_cast<const LentShareList *>(info);
}

int Is_MTP_Share(const char *virtual_directory) {
  return is_device_share(virtual_directory, &DeviceShares::mtp);
}

int Is_ODD_Share(const char *virtual_directory) {
  return is_device_share(virtual_directory, &DeviceShares::odd);
}
