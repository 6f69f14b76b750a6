// What stands behind hx_io and hx_request.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/host/reply_mark.h"
#include "platform/include/hxservice.h"

// One incoming request, as its handler and the endpoint table see it. Made by the bus, owned by the request's hx_io.
struct hx_request {
  std::string method;
  std::string path;                                             // percent-decoded
  std::vector<std::pair<std::string, std::string>> parameters;  // percent-decoded, in the order of the query

  int descriptor = -1;  // the handler's end; the handler closes it, so the number alone proves nothing
  dev_t device = 0;     // what the number must lead to for it to be that end still
  ino_t inode = 0;
  dirwell::host::ReplyMark mark;
  std::atomic<bool> replied = false;
};

struct hx_io {
  std::string content;
  std::unique_ptr<hx_request> request;  // null: no client
};

namespace dirwell::host {

// Writes a CGI-style response and nothing else to the request's descriptor, and completes the reply. For short texts:
// called on the worker, which cannot wait for itself to read them. False when it was not taken whole.
bool answer(hx_io &io, std::string_view response);

}  // namespace dirwell::host
