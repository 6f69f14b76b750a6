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
#include <chrono>
#include <cstdint>
#include <cstring>
#include <mutex>
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

// A time that cannot be read counts as reached long ago: nobody keeps a session through a misspelt limit.
std::int64_t time_of(std::string_view expires) {
  std::int64_t when = 0;
  const auto [end, error] = std::from_chars(expires.data(), expires.data() + expires.size(), when);
  return error == std::errc{} && end == expires.data() + expires.size() ? when : 0;
}

// The real id stays the daemon's own when a request process takes on another effective one.
bool trusted(const struct stat &status) {
  return (status.st_uid == 0 || status.st_uid == ::getuid()) && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

enum class Answer { lives, ended, unknown };

// A look-up that failed with `error` has found out that there is no such session, or nothing.
Answer failed_look_up(int error) {
  switch (error) {
    case EMFILE:
    case ENFILE:
    case ENOMEM:
    case ENOBUFS:
    case EIO:
    case EAGAIN:
    case EINTR:
      return Answer::unknown;
    default:
      return Answer::ended;
  }
}

// The session that was found last. A machine that is out of descriptors or memory for a while, or whose disk or name
// service fails, does not end a session: until its time is over, or that state has lasted, it counts as it was.
class LastFound {
 public:
  void remember(std::string_view sid, const auth_session &record, std::optional<std::int64_t> expires) {
    const std::lock_guard lock(mutex_);
    sid_size_ = sid.copy(sid_.data(), sid_.size());
    record_ = record;
    expires_ = expires;
    found_ = Clock::now();
  }

  void forget(std::string_view sid) {
    const std::lock_guard lock(mutex_);
    if (is(sid)) {
      sid_size_ = 0;
    }
  }

  bool recall(std::string_view sid, auth_session &record) {
    const std::lock_guard lock(mutex_);
    if (!is(sid) || Clock::now() - found_ > longest || (expires_ && *expires_ <= ::time(nullptr))) {
      return false;
    }
    record = record_;
    return true;
  }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::minutes longest{5};

  [[nodiscard]] bool is(std::string_view sid) const { return std::string_view(sid_.data(), sid_size_) == sid; }

  std::mutex mutex_;
  std::array<char, longest_sid> sid_{};
  std::size_t sid_size_ = 0;
  auth_session record_{};
  std::optional<std::int64_t> expires_;
  Clock::time_point found_;
};

LastFound &last_found() {
  static LastFound last;
  return last;
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

Answer look_up(const char *sid, auth_session &record) {
  struct stat status {};
  const std::optional<std::string> content = read_regular_file(
      std::string(hx_root()) + "/var/run/dirwell/sessions/" + sid, Links::refuse, largest_record_file, status);
  if (!content) {
    return failed_look_up(errno);
  }
  const SessionFile file = parse(*content);
  const std::optional<std::int64_t> expires = file.expires ? std::optional(time_of(*file.expires)) : std::nullopt;
  if (!trusted(status) || !file.user || file.user->find('\0') != std::string_view::npos ||
      (expires && *expires <= ::time(nullptr))) {
    return Answer::ended;
  }
  int error = 0;
  const std::optional<Account> account = find_account(std::string(*file.user), error);
  if (!account) {
    return failed_look_up(error);
  }
  if (account->name.size() >= sizeof record.user) {
    return Answer::ended;
  }
  auth_session filled{};
  std::memcpy(filled.user, account->name.data(), account->name.size());
  filled.uid = account->uid;
  filled.gid = account->gid;
  record = filled;
  last_found().remember(sid, record, expires);
  return Answer::lives;
}

Answer look_up_if_memory_suffices(const char *sid, auth_session &record) {
  try {
    return look_up(sid, record);
  } catch (const std::bad_alloc &) {
    return Answer::unknown;
  }
}

}  // namespace
}  // namespace dirwell::host

using namespace dirwell::host;

int auth_get_session_ex(const char *sid, int flags, auth_session *record) {
  static_cast<void>(flags);  // looking at a session never prolongs it here
  constexpr int no_session = -1;
  if (sid == nullptr || record == nullptr || !is_sid(sid)) {
    return no_session;
  }
  switch (look_up_if_memory_suffices(sid, *record)) {
    case Answer::lives:
      return 0;
    case Answer::unknown:
      return last_found().recall(sid, *record) ? 0 : no_session;
    case Answer::ended:
      break;
  }
  last_found().forget(sid);
  return no_session;
}
