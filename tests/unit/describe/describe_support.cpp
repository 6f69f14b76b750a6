#include "describe_support.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "listing/type_table.h"
#include "service/session.h"
#include "support/environment.h"
#include "support/temp_dir.h"

namespace dirwell::test {

namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail(const std::string &what) {
  throw std::system_error(errno, std::generic_category(), what);
}

void writeFile(const std::string &path, std::string_view content) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << content;
  if (!file.flush()) {
    fail("cannot write " + path);
  }
}

std::string shellQuoted(const std::string &path) {
  return "'" + path + "'";
}

// The root stands before anything of the platform is called, and the session lives as long as the tests run.
class RootEnvironment final : public ::testing::Environment {
 public:
  void SetUp() override {
    root_.emplace();
    ::setenv("DIRWELL_ROOT", root_->path().c_str(), 1);
    root_->write(std::string("var/run/dirwell/sessions/") + session_id, "user = root\n");
    captured_stderr([] { Session::instance().set_sid(session_id); });
    buildTypeIndex();
  }
  void TearDown() override { root_.reset(); }

  [[nodiscard]] std::string path() const { return root_.value().path(); }

 private:
  std::optional<TempDir> root_;
};

RootEnvironment *environment() {
  static auto *const instance =
      dynamic_cast<RootEnvironment *>(::testing::AddGlobalTestEnvironment(new RootEnvironment));
  return instance;
}

[[maybe_unused]] const RootEnvironment *const registered = environment();

constexpr const char *made_by_tests = "user.dirwell_test";

}  // namespace

std::string rootPath() {
  return environment()->path();
}

ScopedConfig::ScopedConfig(std::string_view name, std::string_view content)
    : path_(rootPath() + "/" + std::string(name)) {
  writeFile(path_ + ".new", content);
  fs::rename(path_ + ".new", path_);
}

ScopedConfig::~ScopedConfig() {
  std::error_code ignored;
  fs::remove(path_, ignored);
}

namespace {

std::string shareSections(const std::vector<Share> &shares) {
  std::ostringstream text;
  text << "[global]\nworkgroup = TEST\n";
  for (std::size_t i = 0; i < shares.size(); ++i) {
    text << "[share" << i << "]\npath = " << shares[i].path << "\ndirwell:type = " << shares[i].type << "\n";
  }
  return text.str();
}

}  // namespace

ScopedShares::ScopedShares(const std::vector<Share> &shares) : config_("etc/samba/smb.conf", shareSections(shares)) {}

ScopedTool::ScopedTool(const std::string &path, std::string_view output, std::string_view error)
    : program_(rootPath() + path), notes_(program_ + ".notes") {
  writeFile(program_ + ".output", output);
  writeFile(program_ + ".error", error);
  writeFile(program_, "#!/bin/sh\n{ printf '%s\\n' \"$@\"; echo '--end--'; } >> " + shellQuoted(notes_) +
                          "\n/bin/cat " + shellQuoted(program_ + ".error") + " >&2\nexec /bin/cat " +
                          shellQuoted(program_ + ".output") + "\n");
  fs::permissions(program_, fs::perms(0755));
}

ScopedTool::~ScopedTool() {
  std::error_code ignored;
  for (const std::string &path : {program_, program_ + ".output", program_ + ".error", notes_}) {
    fs::remove(path, ignored);
  }
}

std::vector<std::vector<std::string>> ScopedTool::runs() const {
  std::vector<std::vector<std::string>> runs;
  std::vector<std::string> arguments;
  std::ifstream notes(notes_);
  for (std::string line; std::getline(notes, line);) {
    if (line == "--end--") {
      runs.push_back(std::move(arguments));
      arguments.clear();
    } else {
      arguments.push_back(line);
    }
  }
  return runs;
}

PlacedDir::PlacedDir(const std::string &base) : path_(base + "/dw-XXXXXX") {
  if (::mkdtemp(path_.data()) == nullptr) {
    fail("cannot make a folder in " + base);
  }
}

PlacedDir::~PlacedDir() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::string PlacedDir::write(const std::string &name, std::string_view content) const {
  std::string path = path_ + "/" + name;
  writeFile(path, content);
  return path;
}

std::string PlacedDir::mkdir(const std::string &name) const {
  std::string path = path_ + "/" + name;
  fs::create_directories(path);
  return path;
}

std::string PlacedDir::link(const std::string &name, const std::string &target) const {
  std::string path = path_ + "/" + name;
  fs::create_directories(fs::path(path).parent_path());
  fs::create_symlink(target, path);
  return path;
}

ShareDir::ShareDir() {
  // Another test may remove the empty folder between the two steps: then it is made anew.
  while (!dir_) {
    if (::mkdir("/share", 0755) == 0) {
      setAttribute("/share", made_by_tests, "1");
    } else if (errno != EEXIST) {
      fail("cannot make /share");
    }
    try {
      dir_ = std::make_unique<PlacedDir>("/share");
    } catch (const std::system_error &error) {
      if (error.code().value() != ENOENT) {
        throw;
      }
    }
  }
}

ShareDir::~ShareDir() {
  dir_.reset();
  // The mark tells whether tests made it; only an empty one goes, so the last test to leave takes it away.
  if (attributeOf("/share", made_by_tests) == "1") {
    ::rmdir("/share");
  }
}

void setAttribute(const std::string &path, const char *name, std::string_view value) {
  if (::setxattr(path.c_str(), name, value.data(), value.size(), 0) != 0) {
    fail("cannot set " + std::string(name) + " on " + path);
  }
}

std::string attributeOf(const std::string &path, const char *name) {
  std::string value(4096, '\0');
  const ssize_t size = ::getxattr(path.c_str(), name, value.data(), value.size());
  return size < 0 ? "(none)" : value.substr(0, static_cast<std::size_t>(size));
}

ResourceEntry entryOf(const std::string &directory, std::string_view name, const std::string &display) {
  return entryBelow(directory, "", name, display);
}

ResourceEntry entryBelow(const std::string &directory, const std::string &subPath, std::string_view name,
                         const std::string &display) {
  struct ::stat status {};
  const std::string path = directory + subPath + "/" + std::string(name);
  if (::lstat(path.c_str(), &status) != 0) {
    fail("no " + path);
  }
  return ResourceEntry::child(ResourceEntry::queuedDirectory(directory, subPath, display), name, status);
}

JsonRef described(Formatter &formatter, const ResourceEntry &entry) {
  return JsonRef(formatter.format(entry));
}

JsonRef described(const ResourceEntry &entry) {
  const std::shared_ptr<Formatter> formatter = std::make_shared<LegacyFormatter>();
  return described(*formatter, entry);
}

JsonRef settingsOf(Formatter &formatter) {
  JsonRef settings(json_object());
  formatter.formatSettings(settings.get());
  return settings;
}

json_int_t integerOf(const JsonRef &object, const char *key) {
  const json_t *value = json_object_get(object.get(), key);
  if (!json_is_integer(value)) {
    ADD_FAILURE() << key << " is no integer";
    return -999;
  }
  return json_integer_value(value);
}

std::string textOf(const JsonRef &object, const char *key) {
  const json_t *value = json_object_get(object.get(), key);
  if (!json_is_string(value)) {
    ADD_FAILURE() << key << " is no text";
    return "(none)";
  }
  return json_string_value(value);
}

std::vector<std::string> keysOf(const JsonRef &object) {
  std::vector<std::string> keys;
  const char *key = nullptr;
  json_t *value = nullptr;
  json_object_foreach(object.get(), key, value) {
    keys.emplace_back(key);
  }
  return keys;
}

std::string dumped(const JsonRef &object) {
  char *text = json_dumps(object.get(), JSON_COMPACT);
  std::string result = text == nullptr ? "(invalid)" : text;
  ::free(text);
  return result;
}

}  // namespace dirwell::test
