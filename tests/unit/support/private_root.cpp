#include "support/private_root.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "support/temp_dir.h"

namespace dirwell::test {

namespace {

struct PrivateRoot {
  PrivateRoot() {
    ::chmod(folder.path().c_str(), 0755);  // tests become other users
    ::setenv("DIRWELL_ROOT", folder.path().c_str(), 1);
  }

  TempDir folder;
  std::string path = folder.path();
};

const PrivateRoot root;

}  // namespace

const std::string &private_root() {
  return root.path;
}

std::string write_below_root(std::string_view path, std::string_view content) {
  const std::filesystem::path file = private_root() + "/" + std::string(path);
  std::filesystem::create_directories(file.parent_path());
  std::ofstream stream(file, std::ios::binary | std::ios::trunc);
  stream << content;
  if (!stream.flush()) {
    throw std::runtime_error("cannot write " + file.string());
  }
  return file.string();
}

ScopedSession::ScopedSession(std::string_view sid, std::string_view user)
    : file_(write_below_root("var/run/dirwell/sessions/" + std::string(sid), "user = " + std::string(user) + "\n")) {
  ::chmod(file_.c_str(), 0644);
}

ScopedSession::~ScopedSession() {
  ::unlink(file_.c_str());
}

}  // namespace dirwell::test
