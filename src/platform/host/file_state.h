// Whether a file is still as it was when it was read.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>

namespace dirwell::host {

// Everything that differs when a file's content may differ. Who reads belongs to it: a request process that has taken
// on a user's identity sees what that user may read, whatever the daemon had read before. The default one is that of a
// file that is not there.
class FileState {
 public:
  FileState() = default;
  explicit FileState(const struct stat &status);
  bool operator==(const FileState &) const = default;

  // Whether the next change of the file will show. Time stamps of files advance in steps of up to 10 ms: a file that
  // changed just before it was read could change once more, to the same size, without its status telling so.
  [[nodiscard]] bool settled() const;

 private:
  dev_t device_ = 0;
  ino_t inode_ = 0;
  off_t size_ = 0;
  std::int64_t modified_ = 0;
  std::int64_t changed_ = 0;
  uid_t reader_ = 0;
  gid_t reader_group_ = 0;
};

}  // namespace dirwell::host
