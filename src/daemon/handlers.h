// The endpoint handlers: read the request, list, keep, describe, reply.
//
// Each writes its own reply and never fails as a whole. `request_object` is borrowed; after its parameters are read it
// is emptied and becomes the reply. They run in a request process, watch_handler on the daemon's pool.
#pragma once

#include <string>

#include "platform/include/hxrest.h"

namespace dirwell {

// What watch_handler reads of a request object, as a short text that says the same to it; "{}" for what is no object.
std::string watch_text(const json_t *object);

void watch_handler(hx_request *request, hx_io *io, json_t *object, int descriptor);
void fetch_cache_handler(hx_request *request, hx_io *io, json_t *object, int descriptor);
void delete_cache_handler(hx_request *request, hx_io *io, json_t *object, int descriptor);
void create_cache_handler(hx_request *request, hx_io *io, json_t *object, int descriptor);
void fetch_resource_handler(hx_request *request, hx_io *io, json_t *object, int descriptor);

}  // namespace dirwell
