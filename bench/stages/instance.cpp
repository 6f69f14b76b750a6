#include "instance.h"

#include <malloc.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "cache/cache_folder.h"
#include "daemon/warm_up.h"
#include "listing/type_table.h"
#include "platform/include/hxservice.h"
#include "service/log.h"
#include "service/session.h"

namespace dirwell::bench {

namespace {

constexpr const char *session_id = "stages";
constexpr std::int32_t only_errors = 3;

// Writes the file at a fixed path of the instance; returns where it really is.
std::string configure(std::string_view path, const std::string &content) {
  const std::filesystem::path file = hx_root() + std::string(path);
  std::filesystem::create_directories(file.parent_path());
  std::ofstream stream(file, std::ios::trunc);
  stream << content;
  if (!stream.flush()) {
    throw std::runtime_error("cannot write " + file.string());
  }
  return file.string();
}

std::string ownAccount() {
  const passwd *account = ::getpwuid(::geteuid());
  if (account == nullptr) {
    throw std::runtime_error("this user has no account");
  }
  return account->pw_name;
}

// A request runs in a fresh process, whose memory comes from the kernel, page by page. Left to itself the allocator
// would learn to keep what an iteration frees, and the next one would get it for nothing.
void allocateAsAFreshProcess() {
  constexpr int usual = 128 << 10;
  ::mallopt(M_MMAP_THRESHOLD, usual);
  ::mallopt(M_TRIM_THRESHOLD, usual);
}

}  // namespace

ScratchFolder::ScratchFolder() {
  path_ = (std::filesystem::temp_directory_path() / "dirwell-stages-XXXXXX").string();
  if (::mkdtemp(path_.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), path_);
  }
}

ScratchFolder::~ScratchFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void setUpInstance(const std::string &root) {
  allocateAsAFreshProcess();
  ::umask(S_IWGRP | S_IWOTH);  // a session's file that others may write is not believed
  ::setenv("DIRWELL_ROOT", root.c_str(), 1);
  configure(std::string("/var/run/dirwell/sessions/") + session_id, "user = " + ownAccount() + "\n");
  configure("/etc/config/def_share.info", "[SHARE_DEF]\ndefVolMP = " + root + "/volume\n");
  configure("/etc/samba/smb.conf", "[files]\npath = " + shareFolder() + "\ndirwell:type = 2\n");
  std::filesystem::create_directory(root + "/volume");
  std::filesystem::create_directory(shareFolder());
  log_level = 0;
  Session::instance().set_sid(session_id);
  log_level = only_errors;
  if (!Session::instance().alive()) {
    throw std::runtime_error("the session is not alive");
  }
  buildTypeIndex();
  prepareCacheFolder();
  warm_up();
}

std::string shareFolder() {
  return hx_root() + std::string("/files");
}

ScopedVetoList::ScopedVetoList(const std::string &list)
    : file_(configure("/etc/config/wfm2.conf", "[global]\nveto files = " + list + "\n")) {}

ScopedVetoList::~ScopedVetoList() {
  ::unlink(file_.c_str());
}

}  // namespace dirwell::bench
