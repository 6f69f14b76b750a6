#include "client/session_files.h"

#include <pwd.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "client/failure.h"
#include "client/instance.h"
#include "client/text.h"

namespace dirwell::client {
namespace {

[[noreturn]] void refuse(const std::string &what, int error) {
  throw Failure(Status::refused, display_text(what) + ": " + std::strerror(error));
}

// mkdir -p with the mode of a folder that only its owner fills, whatever the process's mask would let through.
void make_folders(const std::string &path) {
  for (std::size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const std::string folder = path.substr(0, slash);
    if (::mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) {
      refuse(folder, errno);
    }
    if (slash == std::string::npos) {
      return;
    }
  }
}

// A file under a name of its own, until it is complete.
class Draft {
 public:
  // The name's dot keeps the draft from ever being a session itself.
  explicit Draft(const std::string &folder) : path_(folder + "/.draft.XXXXXX"), descriptor_(::mkstemp(path_.data())) {
    if (descriptor_ < 0) {
      refuse(folder, errno);
    }
  }
  ~Draft() {
    ::unlink(path_.c_str());
    ::close(descriptor_);
  }
  Draft(const Draft &) = delete;
  Draft &operator=(const Draft &) = delete;

  void fill(const std::string &content) const {
    if (::write(descriptor_, content.data(), content.size()) != static_cast<ssize_t>(content.size()) ||
        ::fchmod(descriptor_, 0644) != 0) {
      refuse(path_, errno);
    }
  }
  // Gives the complete file its name as well; false when the name is taken.
  [[nodiscard]] bool publish(const std::string &name) const {
    if (::link(path_.c_str(), name.c_str()) == 0) {
      return true;
    }
    if (errno != EEXIST) {
      refuse(name, errno);
    }
    return false;
  }

 private:
  std::string path_;
  int descriptor_;
};

std::string_view without_blanks(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t\r");
  return first == std::string_view::npos ? std::string_view()
                                         : text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

bool is_key(std::string_view text, std::string_view key) {
  return text.size() == key.size() && std::equal(text.begin(), text.end(), key.begin(), [](char one, char other) {
           return (one >= 'A' && one <= 'Z' ? one - 'A' + 'a' : one) == other;
         });
}

}  // namespace

std::string current_user() {
  const passwd *account = ::getpwuid(::geteuid());
  if (account == nullptr) {
    throw Failure(Status::refused, "the user " + std::to_string(::geteuid()) + " has no account; name one with --user");
  }
  return account->pw_name;
}

void begin_session(const std::string &root, const SessionRecord &session) {
  if (::getpwnam(session.user.c_str()) == nullptr) {
    throw Failure(Status::refused, "there is no account \"" + display_text(session.user) + "\"");
  }
  const std::string folder = session_folder(root);
  make_folders(folder);
  std::string content = "user = " + session.user + "\n";
  if (session.expires) {
    content += "expires = " + std::to_string(*session.expires) + "\n";
  }
  const Draft draft(folder);
  draft.fill(content);
  if (!draft.publish(folder + "/" + session.sid)) {
    throw Failure(Status::refused, "the session " + session.sid + " exists already");
  }
}

void end_session(const std::string &root, const std::string &sid) {
  const std::string path = session_folder(root) + "/" + sid;
  if (::unlink(path.c_str()) != 0) {
    if (errno == ENOENT) {
      throw Failure(Status::refused, "there is no session " + sid);
    }
    refuse(path, errno);
  }
}

SessionRecord read_session(std::string sid, std::string_view content) {
  SessionRecord session;
  session.sid = std::move(sid);
  bool has_user = false;
  bool has_expires = false;
  while (!content.empty()) {
    const std::size_t end = std::min(content.find('\n'), content.size());
    const std::string_view line = without_blanks(content.substr(0, end));
    content.remove_prefix(std::min(end + 1, content.size()));
    const std::size_t equals = line.find('=');
    if (line.starts_with('[')) {
      break;  // sections are no concern of the session's
    }
    if (equals == std::string_view::npos || line.starts_with('#') || line.starts_with(';')) {
      continue;
    }
    const std::string_view key = without_blanks(line.substr(0, equals));
    const std::string_view value = without_blanks(line.substr(equals + 1));
    if (is_key(key, "user") && !has_user) {
      has_user = true;
      session.user = value;
    } else if (is_key(key, "expires") && !has_expires) {
      has_expires = true;
      std::int64_t when = 0;
      const auto [rest, error] = std::from_chars(value.data(), value.data() + value.size(), when);
      // The service takes a time that it cannot read for one that is over.
      session.expires = error == std::errc{} && rest == value.data() + value.size() ? when : 0;
    }
  }
  return session;
}

std::vector<SessionRecord> list_sessions(const std::string &root) {
  std::vector<SessionRecord> sessions;
  std::error_code error;
  for (std::filesystem::directory_iterator each(session_folder(root), error), end; !error && each != end;
       each.increment(error)) {
    std::error_code ignored;  // a file that has just gone is no session
    const std::string sid = each->path().filename().string();
    if (!is_sid(sid) || each->is_symlink(ignored) || !each->is_regular_file(ignored)) {
      continue;
    }
    std::ifstream file(each->path(), std::ios::binary);
    sessions.push_back(
        read_session(sid, std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>())));
  }
  if (error && error != std::errc::no_such_file_or_directory) {
    refuse(session_folder(root), error.value());
  }
  std::sort(sessions.begin(), sessions.end(),
            [](const SessionRecord &left, const SessionRecord &right) { return left.sid < right.sid; });
  return sessions;
}

}  // namespace dirwell::client
