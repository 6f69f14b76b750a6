#include "describe/program.h"

#include <memory>

#include "platform/include/hxservice.h"

namespace dirwell {

namespace {

struct IoRelease {
  void operator()(hx_io *io) const { hx_io_free(io); }
};

}  // namespace

std::string captureProgram(const std::vector<const char *> &arguments, CapturedStream stream) {
  const std::unique_ptr<hx_io, IoRelease> capture(hx_io_create());
  if (!capture) {
    return {};
  }
  std::vector<const char *> list(arguments);
  list.push_back(nullptr);
  // How the program ended does not count: the tools end with a failure in the very runs that tell what is asked.
  hx_io_execv(nullptr, stream == CapturedStream::output ? capture.get() : nullptr,
              stream == CapturedStream::error ? capture.get() : nullptr, list.data());
  return hx_io_size(capture.get()) == 0 ? std::string() : std::string(hx_io_read(capture.get(), 0));
}

}  // namespace dirwell
