// The private machine that the stages run on: a root of their own with a live session, a default volume and a share.
#pragma once

#include <string>

namespace dirwell::bench {

// A folder below the machine's folder for temporary files, removed with all that is in it when the object goes.
class ScratchFolder {
 public:
  ScratchFolder();
  ~ScratchFolder();
  ScratchFolder(const ScratchFolder &) = delete;
  ScratchFolder &operator=(const ScratchFolder &) = delete;
  [[nodiscard]] const std::string &path() const { return path_; }

 private:
  std::string path_;
};

// Makes `root` the process's root, configures it and warms up as the daemon does before its first request. Once, before
// anything else of the platform is called. Throws on failure.
void setUpInstance(const std::string &root);

// Where files to list are made, inside a share whose content no media tool is run on.
std::string shareFolder();

// The administrator's vetoed names for the length of a scope.
class ScopedVetoList {
 public:
  explicit ScopedVetoList(const std::string &list);
  ~ScopedVetoList();
  ScopedVetoList(const ScopedVetoList &) = delete;
  ScopedVetoList &operator=(const ScopedVetoList &) = delete;

 private:
  std::string file_;
};

}  // namespace dirwell::bench
