// Login sessions: one small file a session, whose ownership and mode say that an administrator or this service's own
// user wrote it.
#include <pwd.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <string_view>

#include "platform/host/config_line.h"
#include "platform/host/regular_file.h"
#include "platform/host/text.h"
#include "platform/include/hxservice.h"
#include "platform/include/strata_nasauth.h"

static_assert(sizeof(auth_session) == 2800);

namespace dirwell::host {
namespace {

constexpr std::size_t longest_sid = 64;
constexpr std::size_t largest_record_file = std::size_t{64} << 10;

bool is_sid(std::string_view sid) {
  return !sid.empty() && sid.size() <= longest_sid && std::all_of(sid.begin(), sid.end(), [](char letter) {
    return (letter >= 'A' && letter <= 'Z') || (letter >= 'a' && letter <= 'z') || (letter >= '0' && letter <= '9') ||
           letter == '_' || letter == '-';
  });
}

struct SessionFile {
  std::optional<std::string_view> user;
  std::optional<std::string_view> expires;
};

SessionFile parse(std::string_view content) {
  SessionFile file;
  while (!content.empty()) {
    const Line line = take_line(content);
    if (line.kind == LineKind::section || line.kind == LineKind::broken_section) {
      break;  // what stands in a section is no statement about the session
    }
    if (line.kind != LineKind::value) {
      continue;
    }
    if (equal_ignoring_case(line.name, "user") && !file.user) {
      file.user = line.value;
    } else if (equal_ignoring_case(line.name, "expires") && !file.expires) {
      file.expires = line.value;
    }
  }
  return file;
}

// A time that cannot be read counts as reached: nobody keeps a session through a misspelt limit.
bool reached(std::string_view expires) {
  std::int64_t when = 0;
  const auto [end, error] = std::from_chars(expires.data(), expires.data() + expires.size(), when);
  return error != std::errc{} || end != expires.data() + expires.size() || when <= ::time(nullptr);
}

// The real id stays the daemon's own when a request process takes on another effective one.
bool trusted(const struct stat &status) {
  return (status.st_uid == 0 || status.st_uid == ::getuid()) && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

constexpr int no_session = -1;

// The answer of a look-up that failed with `error`: the session is taken for ended only where that is what was found.
int failed_look_up(int error) {
  switch (error) {
    case EMFILE:
    case ENFILE:
    case ENOMEM:
    case ENOBUFS:
    case EIO:
    case EAGAIN:
    case EINTR:
      return AUTH_SESSION_UNKNOWN;
    default:
      return no_session;
  }
}

struct Account {
  std::string name;
  uid_t uid;
  gid_t gid;
};

// The account, when its record fits the buffer in which the session's user is looked up later, by name and by id. With
// less than that the daemon would find no such user and keep its own identity. Without one, `error` tells whether the
// name service failed; 0 where it knows no such account.
std::optional<Account> find_account(const std::string &name, int &error) {
  std::array<char, 1024> buffer{};
  passwd entry{};
  passwd *found = nullptr;
  while ((error = ::getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found)) == EINTR) {
  }
  if (error != 0 || found == nullptr) {
    return std::nullopt;
  }
  Account account{found->pw_name, found->pw_uid, found->pw_gid};
  while ((error = ::getpwuid_r(account.uid, &entry, buffer.data(), buffer.size(), &found)) == EINTR) {
  }
  if (error != 0 || found == nullptr) {
    return std::nullopt;
  }
  return account;
}

int look_up(const char *sid, auth_session &record) {
  struct stat status {};
  const std::optional<std::string> content = read_regular_file(
      std::string(hx_root()) + "/var/run/dirwell/sessions/" + sid, Links::refuse, largest_record_file, status);
  if (!content) {
    return failed_look_up(errno);
  }
  const SessionFile file = parse(*content);
  if (!trusted(status) || !file.user || file.user->find('\0') != std::string_view::npos ||
      (file.expires && reached(*file.expires))) {
    return no_session;
  }
  int error = 0;
  const std::optional<Account> account = find_account(std::string(*file.user), error);
  if (!account) {
    return failed_look_up(error);
  }
  if (account->name.size() >= sizeof record.user) {
    return no_session;
  }
  auth_session filled{};
  std::memcpy(filled.user, account->name.data(), account->name.size());
  filled.uid = account->uid;
  filled.gid = account->gid;
  record = filled;
  return 0;
}

}  // namespace
}  // namespace dirwell::host

using namespace dirwell::host;

int auth_get_session_ex(const char *sid, int flags, auth_session *record) {
  static_cast<void>(flags);  // looking at a session never prolongs it here
  if (sid == nullptr || record == nullptr || !is_sid(sid)) {
    return no_session;
  }
  try {
    return look_up(sid, *record);
  } catch (const std::bad_alloc &) {
    return AUTH_SESSION_UNKNOWN;
  }
}
