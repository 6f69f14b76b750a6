// Where a request runs: in a process of its own under the session user's identity, or on the daemon's pool.
#pragma once

#include "platform/include/hxrest.h"
#include "service/thread_pool.h"

namespace dirwell {

// Pre-handler of every endpoint that touches files: forks twice, takes on the user's identity and calls the handler in
// the grandchild. The daemon keeps nothing of the request. A failing fork drops the request without a reply. Bus
// worker.
void fork_prehandler(hx_request *request, hx_rest_handler handler, hx_io *io, json_t *parameters, int descriptor);

// Pre-handler of "watch": queues the request on the pool and returns at once. Bus worker.
void watch_prehandler(hx_request *request, hx_rest_handler handler, hx_io *io, json_t *parameters, int descriptor);

// Closes what the daemon had open, except descriptors below 3, sockets (one of them is the client's) and files that
// were deleted. Only in a process of its own.
void close_inherited_fds();

// The process-wide pool of watch_prehandler: made when the worker starts, stopped and joined when it ends.
void start_thread_pool();
void stop_thread_pool();

}  // namespace dirwell
