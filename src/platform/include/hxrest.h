/*
 * The REST layer of the service bus: a table of endpoints and the routing of requests to them.
 * One thread uses a table at a time.
 */
#ifndef DIRWELL_PLATFORM_HXREST_H
#define DIRWELL_PLATFORM_HXREST_H

#include <jansson.h>

#include "hxservice.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct hx_rest hx_rest;

/* Answers one request. `request_object` is borrowed; the handler writes its reply to `descriptor` and ends it with
 * hx_reply. */
typedef void (*hx_rest_handler)(hx_request *request, hx_io *io, json_t *request_object, int descriptor);

/*
 * Called in front of the handler; decides where and when it runs. `parameters` (a JSON object with string values, the
 * request's query) is borrowed for the length of the call. The pre-handler owns `io` and `descriptor`.
 */
typedef void (*hx_rest_prehandler)(hx_request *request, hx_rest_handler handler, hx_io *io, json_t *parameters,
                                   int descriptor);

/* A new, empty table, or NULL when memory is short. */
hx_rest *hx_rest_create(void);

/*
 * Adds an endpoint. `name` and `usage` must live as long as the table. Returns 0, or -1 with errno EEXIST when the name
 * is taken, EMSGSIZE when the usage text exceeds 64 KiB, or ENOMEM.
 */
int hx_rest_endpoint(hx_rest *rest, hx_rest_handler handler, const char *name, hx_rest_prehandler prehandler,
                     const char *usage);

/*
 * Routes a request to its endpoint's pre-handler, or answers it at once where no handler is asked for (usage texts, the
 * list of endpoints, refusals). Takes over `io` and `descriptor` in every case but one: an exception, of a pre-handler
 * or for want of memory, passes through, and both are the caller's still. Returns 0 when a pre-handler ran, 1 when the
 * table answered itself.
 */
int hx_rest_dispatch(hx_rest *rest, hx_request *request, hx_io *io, int descriptor);

/* Frees the table; NULL is allowed. */
void hx_rest_destroy(hx_rest *rest);

#ifdef __cplusplus
}
#endif
#endif
