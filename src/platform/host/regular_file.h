// Reading small files of which only the path is known, without ever waiting for one.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <optional>
#include <string>

namespace dirwell::host {

enum class Links { follow, refuse };

// The whole content of the regular file `path`, and in `status` the file's status as it was before the first byte was
// read. Nothing when the file is missing, unreadable, larger than `limit` bytes, no regular file (a fifo or a device is
// left alone, not waited for) or, with Links::refuse, a symbolic link; errno then tells why, EINVAL standing for a file
// of the wrong kind or size. Any thread, any process.
std::optional<std::string> read_regular_file(const std::string &path, Links links, std::size_t limit,
                                             struct stat &status);

}  // namespace dirwell::host
