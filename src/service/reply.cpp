#include "service/reply.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "service/json.h"
#include "service/log.h"

namespace dirwell {

namespace {

constexpr std::string_view reply_head = "Content-Type: application/json; charset=utf-8\r\n\r\n";

// Collects the serialiser's many small pieces, so that a page of entries costs a few writes and not some hundred
// thousand. Nothing follows a piece that could not be written: the serialiser goes on behind the failure of a key.
class BufferedWriter {
 public:
  explicit BufferedWriter(int descriptor) : descriptor_(descriptor) {}

  bool append(const char *data, std::size_t size) {
    while (size > 0) {
      if (used_ == buffer_.size() && !flush()) {
        return false;
      }
      const std::size_t piece = std::min(size, buffer_.size() - used_);
      std::memcpy(buffer_.data() + used_, data, piece);
      used_ += piece;
      data += piece;
      size -= piece;
    }
    return true;
  }

  bool flush() {
    std::size_t done = 0;
    while (!failed_ && done < used_) {
      const ssize_t written = ::write(descriptor_, buffer_.data() + done, used_ - done);
      if (written < 0 && errno == EINTR) {
        continue;
      }
      failed_ = written <= 0;
      done += failed_ ? 0 : static_cast<std::size_t>(written);
    }
    if (failed_) {
      return false;
    }
    used_ = 0;
    return true;
  }

 private:
  int descriptor_;
  bool failed_ = false;
  std::size_t used_ = 0;
  std::array<char, 65536> buffer_;
};

// The same for an io object.
class IoWriter {
 public:
  explicit IoWriter(hx_io *io) : io_(io) {}

  bool append(const char *data, std::size_t size) {
    failed_ = failed_ || hx_io_write(io_, data, size) != size;
    return !failed_;
  }
  [[nodiscard]] bool failed() const { return failed_; }

 private:
  hx_io *io_;
  bool failed_ = false;
};

template <class Writer>
int append_to(const char *data, std::size_t size, void *writer) {
  return static_cast<Writer *>(writer)->append(data, size) ? 0 : -1;
}

// False when not all of it is out: the client is going away, or memory is short.
bool write_to_descriptor(int descriptor, const json_t *object) {
  BufferedWriter writer(descriptor);
  const bool written = writer.append(reply_head.data(), reply_head.size()) &&
                       json_dump_callback(object, append_to<BufferedWriter>, &writer, reply_json_flags) == 0 &&
                       writer.flush();
  // Matters where the bus hands out a file; a socket has nothing to sync and says so.
  ::fsync(descriptor);
  return written;
}

}  // namespace

bool dump_json(const json_t *value, hx_io *io) {
  IoWriter writer(io);
  return json_dump_callback(value, append_to<IoWriter>, &writer, reply_json_flags) == 0 && !writer.failed();
}

void write_reply(hx_io *io, int descriptor, json_t *result, const ErrorRecord &record) {
  if (hx_io_alive(io) == 0) {
    return;
  }
  if (record.code != error_none && result != nullptr) {
    json_object_clear(result);
  }
  const JsonRef own(result == nullptr ? json_object() : nullptr);
  json_t *object = result == nullptr ? own.get() : result;
  json_put(object, "error_code", json_integer(record.code));
  // A message quotes only fixed texts and texts of the database, which need not be well-formed.
  json_put(object, "error_message", json_text(record.message).release());
  hx_io_realloc(io, 0);
  // A text that memory was too short to cut would be sent with the reply, which without it is whole as it is written.
  const bool emptied = hx_io_size(io) == 0;
  // Half a reply must not pass for a whole one, so it is not completed: the bus then tells the client.
  if (descriptor < 0 ? emptied && dump_json(object, io) : write_to_descriptor(descriptor, object) && emptied) {
    hx_reply(io);
  }
}

}  // namespace dirwell
