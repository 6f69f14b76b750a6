#include "entry/names.h"

#include <grp.h>
#include <pwd.h>
#include <sys/types.h>

#include <array>
#include <cerrno>
#include <unordered_map>

namespace dirwell {
namespace {

constexpr std::size_t record_size = 1024;  // an account or group whose record needs more has no name
constexpr const char *no_name = "---";

std::string accountName(uid_t uid) {
  std::array<char, record_size> buffer{};
  passwd record{};
  passwd *found = nullptr;
  while (::getpwuid_r(uid, &record, buffer.data(), buffer.size(), &found) == EINTR) {
  }
  return found != nullptr ? found->pw_name : no_name;
}

std::string groupNameOf(gid_t gid) {
  std::array<char, record_size> buffer{};
  group record{};
  group *found = nullptr;
  while (::getgrgid_r(gid, &record, buffer.data(), buffer.size(), &found) == EINTR) {
  }
  return found != nullptr ? found->gr_name : no_name;
}

// The name of `id`, looked up when it is asked for first. References into the map outlive its growth.
const std::string &remembered(std::unordered_map<id_t, std::string> &names, id_t id, std::string (*lookup)(id_t)) {
  const auto known = names.find(id);
  return known != names.end() ? known->second : names.emplace(id, lookup(id)).first->second;
}

}  // namespace

const std::string &ownerName(const ResourceEntry &entry) {
  static std::unordered_map<id_t, std::string> owner_names;
  return remembered(owner_names, entry.stat.st_uid, accountName);
}

const std::string &groupName(const ResourceEntry &entry) {
  static std::unordered_map<id_t, std::string> group_names;
  return remembered(group_names, entry.stat.st_gid, groupNameOf);
}

}  // namespace dirwell
