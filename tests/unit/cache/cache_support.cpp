#include "cache_support.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <stdexcept>

#include "service/log.h"
#include "service/session.h"
#include "support/private_root.h"

namespace dirwell::test {

namespace {

constexpr const char *volume_configuration = "etc/config/def_share.info";

// The session lives as long as the binary: its timer would end a process whose session is gone.
class SessionOfAllTests : public testing::Environment {
 public:
  void SetUp() override {
    captured_stderr([] { Session::instance().set_sid(session_id); });
  }

 private:
  ScopedSession session_{session_id};
};

[[maybe_unused]] const auto *const session_of_all_tests =
    testing::AddGlobalTestEnvironment(std::make_unique<SessionOfAllTests>().release());

}  // namespace

CacheTest::CacheTest() {
  log_level = 6;
  ::chmod(volume().c_str(), 0755);
  volume_.mkdir(".fs");
  ::chmod(folder().c_str(), 0777);
  configure("[SHARE_DEF]\ndefVolMP = " + volume() + "\n");
}

CacheTest::~CacheTest() {
  log_level = 6;
  configureNothing();
}

void CacheTest::configure(std::string_view content) {
  write_below_root(volume_configuration, content);
}

void CacheTest::configureNothing() {
  std::filesystem::remove(private_root() + "/" + volume_configuration);
}

std::string CacheTest::file(std::size_t index) const {
  return folder() + "/" + session_id + "." + std::to_string(index);
}

std::string logged(const std::function<void()> &action) {
  static const std::regex stamp("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\+0530 \\[");
  static const std::regex line("\\(cache:[1-9][0-9]*\\)");
  const std::string process = "dirwell\\(" + std::to_string(::getpid()) + "\\): ";
  std::string text = captured_stderr(action);
  text = std::regex_replace(text, stamp, "STAMP [");
  text = std::regex_replace(text, line, "(cache:LINE)");
  return std::regex_replace(text, std::regex(process), "dirwell(PID): ");
}

std::vector<std::string> rows(sqlite3 *connection, const std::string &sql) {
  std::vector<std::string> result;
  const auto row = [](void *to, int count, char **values, char ** /*names*/) {
    std::string text;
    for (int i = 0; i < count; ++i) {
      text += (i == 0 ? "" : "|") + std::string(values[i] == nullptr ? "NULL" : values[i]);
    }
    static_cast<std::vector<std::string> *>(to)->push_back(text);
    return 0;
  };
  if (sqlite3_exec(connection, sql.c_str(), row, &result, nullptr) != SQLITE_OK) {
    result.assign(1, std::string("error: ") + sqlite3_errmsg(connection));
  }
  return result;
}

std::vector<std::string> rowsOf(const std::string &file, const std::string &sql) {
  const OtherConnection connection(file);
  return rows(connection.handle(), sql);
}

OtherConnection::OtherConnection(const std::string &file) {
  if (sqlite3_open(file.c_str(), &handle_) != SQLITE_OK) {
    throw std::runtime_error("cannot open " + file);
  }
}

OtherConnection::~OtherConnection() {
  sqlite3_close(handle_);
}

void OtherConnection::run(const std::string &sql) {
  if (sqlite3_exec(handle_, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
    throw std::runtime_error(sqlite3_errmsg(handle_));
  }
}

ResourceEntry entry(const SharedText &directory, std::string_view name, std::string_view cluster) {
  struct ::stat status {};
  status.st_mode = S_IFREG | 0644;
  ResourceEntry made = ResourceEntry::fromStatus(directory, name, status, directory);
  made.cluster = cluster;
  return made;
}

json_t *RememberingFormatter::format(const ResourceEntry &described) {
  entries.push_back(described);
  json_t *object = json_object();
  json_object_set_new(object, "name", json_text(described.name).release());
  return object;
}

void RememberingFormatter::formatSettings(json_t *object) {
  json_object_set_new(object, "first", json_integer(1));
  json_object_set_new(object, "second", json_integer(static_cast<json_int_t>(entries.size())));
}

std::vector<std::string> RememberingFormatter::names() const {
  std::vector<std::string> result;
  for (const ResourceEntry &described : entries) {
    result.push_back(described.name);
  }
  return result;
}

std::string dump(const JsonRef &value) {
  char *text = json_dumps(value.get(), JSON_COMPACT | JSON_ENCODE_ANY);
  std::string result = text == nullptr ? "null" : text;
  std::free(text);
  return result;
}

std::int64_t threadCount() {
  const std::filesystem::directory_iterator threads("/proc/self/task");
  return std::distance(begin(threads), end(threads));
}

bool exists(const std::string &path) {
  struct ::stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

std::string uuidIn(const JsonRef &reply) {
  const char *uuid = json_string_value(json_object_get(reply.get(), "uuid"));
  return uuid == nullptr ? "" : uuid;
}

}  // namespace dirwell::test
