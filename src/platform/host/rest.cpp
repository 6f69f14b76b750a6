// The endpoint table and the routing of requests to it.

#include <jansson.h>

#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "platform/host/io.h"
#include "platform/host/problem.h"
#include "platform/include/hxrest.h"

struct hx_rest {
  struct Endpoint {
    const char *name;
    const char *usage;
    hx_rest_handler handler;
    hx_rest_prehandler prehandler;
  };
  std::vector<Endpoint> endpoints;
};

namespace dirwell::host {

namespace {

// What the table answers itself is written on the worker, into the buffer of a socket.
constexpr std::size_t usage_limit = 64UL * 1024;

struct JsonRelease {
  void operator()(json_t *value) const { json_decref(value); }
};
using Json = std::unique_ptr<json_t, JsonRelease>;

const hx_rest::Endpoint *find(const hx_rest &rest, std::string_view name) {
  const auto found = std::ranges::find_if(rest.endpoints, [&](const auto &endpoint) { return endpoint.name == name; });
  return found == rest.endpoints.end() ? nullptr : &*found;
}

std::string endpoint_list(const hx_rest &rest) {
  std::string response = "Content-Type: text/plain; charset=utf-8\r\n\r\n";
  for (const hx_rest::Endpoint &endpoint : rest.endpoints) {
    response.append(endpoint.name).push_back('\n');
  }
  return response;
}

std::string usage_text(const hx_rest::Endpoint &endpoint) {
  return std::string("Content-Type: text/plain; charset=utf-8\r\nAllow: OPTIONS, POST\r\n\r\n").append(endpoint.usage);
}

// The table's own answer; for a POST to an endpoint there is none.
std::string own_answer(const hx_rest &rest, const hx_request &request, const hx_rest::Endpoint *endpoint) {
  constexpr std::string_view no_method = "The resource does not offer this method.";
  if (request.path == "/") {
    return request.method == "GET" ? endpoint_list(rest) : problem_response(405, no_method, "GET");
  }
  if (endpoint == nullptr) {
    return problem_response(404, "There is no such endpoint.");
  }
  return request.method == "OPTIONS" ? usage_text(*endpoint) : problem_response(405, no_method, "OPTIONS, POST");
}

Json parameters_of(const hx_request &request) {
  Json parameters(json_object());
  if (!parameters) {
    throw std::bad_alloc();
  }
  for (const auto &[name, value] : request.parameters) {
    // Both are well-formed: the target would have been refused otherwise.
    if (json_object_set_new(parameters.get(), name.c_str(), json_stringn(value.data(), value.size())) != 0) {
      throw std::bad_alloc();
    }
  }
  return parameters;
}

}  // namespace

}  // namespace dirwell::host

hx_rest *hx_rest_create(void) {
  return new (std::nothrow) hx_rest;
}

int hx_rest_endpoint(hx_rest *rest, hx_rest_handler handler, const char *name, hx_rest_prehandler prehandler,
                     const char *usage) {
  if (dirwell::host::find(*rest, name) != nullptr) {
    errno = EEXIST;
    return -1;
  }
  if (std::string_view(usage).size() > dirwell::host::usage_limit) {
    errno = EMSGSIZE;
    return -1;
  }
  try {
    rest->endpoints.push_back({name, usage, handler, prehandler});
    return 0;
  } catch (const std::bad_alloc &) {
    errno = ENOMEM;
    return -1;
  }
}

int hx_rest_dispatch(hx_rest *rest, hx_request *request, hx_io *io, int descriptor) {
  using namespace dirwell::host;
  const std::string_view path = request->path;
  const hx_rest::Endpoint *endpoint = path.starts_with('/') ? find(*rest, path.substr(1)) : nullptr;
  if (endpoint != nullptr && request->method == "POST") {
    const Json parameters = parameters_of(*request);
    endpoint->prehandler(request, endpoint->handler, io, parameters.get(), descriptor);
    return 0;
  }
  answer(*io, own_answer(*rest, *request, endpoint));
  ::close(descriptor);
  hx_io_free(io);
  return 1;
}

void hx_rest_destroy(hx_rest *rest) {
  delete rest;
}
