// A private folder that goes with its test.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <string_view>

namespace dirwell::test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;

  [[nodiscard]] std::string path() const { return path_.string(); }
  // The path of a name below the folder; missing parent folders are made.
  [[nodiscard]] std::string at(std::string_view name) const;
  // Writes a file below the folder, making its parents; returns its path.
  std::string write(std::string_view name, std::string_view content = "") const;
  // Makes a folder below the folder; returns its path.
  std::string mkdir(std::string_view name) const;

 private:
  std::filesystem::path path_;
  pid_t owner_;  // a forked child that ends by exit() must leave the folder alone
};

}  // namespace dirwell::test
