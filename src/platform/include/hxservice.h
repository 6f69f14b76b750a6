/*
 * The service bus: services, workers, request io objects, calls to other services and the running of programs.
 *
 * All operations have C linkage and may be called from C. Unless an operation says otherwise it is called by the thread
 * that owns the object it works on. No operation throws.
 */
#ifndef DIRWELL_PLATFORM_HXSERVICE_H
#define DIRWELL_PLATFORM_HXSERVICE_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct hx_service hx_service; /* one service on the bus */
typedef struct hx_io hx_io;           /* a request's text, a reply, or the captured output of a program */
typedef struct hx_request hx_request; /* the context of one incoming request; lives as long as the request's hx_io */

/*
 * The directory that stands in front of every fixed path which the daemon or the platform opens (configuration files,
 * pid file, socket, session records, programs). Empty where there is none; never NULL; never ends in '/'. The text
 * lives as long as the process and is read from the environment once, at the first call. Any thread, any process.
 */
const char *hx_root(void);

/* --- Services ---------------------------------------------------------------------------------------------------- */

/*
 * Called on the worker thread for each incoming request. The callee owns `io` and `descriptor`: it frees the one and
 * closes the other, or passes both on. `descriptor` is a connected socket that takes a CGI-style response: header
 * lines, an empty line, the body. The worker itself reads its other end, so a response that is written on the worker,
 * within the callback, must fit into a socket (64 KiB always do); longer ones are written by other threads or
 * processes. A process that the callback forks holds this one socket of the bus and no other.
 */
typedef void (*hx_request_callback)(hx_request *request, hx_io *io, int descriptor);
typedef void (*hx_worker_hook)(void *argument);
typedef void (*hx_signal_handler)(int signal_number);

/*
 * Creates a service named `name` that hands its requests to `callback`. `backlog_class` and `workers` are the bus's own
 * tuning values; the host platform runs exactly one worker whatever they say. Nothing listens before hx_start.
 * Returns NULL with errno set on failure: ENAMETOOLONG when the socket's path exceeds what the kernel can hold, EINVAL
 * when the name is empty or holds a '/'. From here on SIGPIPE is ignored: a write to a client that has gone is an
 * error.
 */
hx_service *hx_create(const char *name, int backlog_class, int workers, hx_request_callback callback);

/*
 * Hooks around the life of the worker: init runs on the worker before the first request, fini after the last. An
 * exception of the init hook ends hx_start as a failure of the loop does.
 */
void hx_worker_init(hx_service *service, hx_worker_hook hook, void *argument);
void hx_worker_fini(hx_service *service, hx_worker_hook hook, void *argument);

/*
 * Listens and serves until hx_stop; the calling thread is the worker. Returns 0 after an orderly stop, or -1 with errno
 * set when the service cannot listen (then no hook has run) or its loop fails (then the fini hook has run).
 */
int hx_start(hx_service *service);

/*
 * Asks the loop to end; before hx_start it makes hx_start return as soon as its hooks have run. May be called from any
 * thread and from a signal handler; a forked child's call does nothing.
 */
void hx_stop(hx_service *service);

/* Frees the service after hx_start has returned. NULL is allowed. */
void hx_free(hx_service *service);

/*
 * Installs `handler` for a signal of this process. A forked request process falls back to the default action for every
 * signal but the faults (SIGSEGV, SIGBUS, SIGFPE, SIGILL), so that what is sent to it concerns it alone.
 */
void hx_signal(int signal_number, hx_signal_handler handler);

/* --- Io objects -------------------------------------------------------------------------------------------------- */

/* A new, empty io object without a client, or NULL when memory is short. */
hx_io *hx_io_create(void);
/* Frees the object; NULL is allowed. The descriptor that belongs to a request's io is not closed. */
void hx_io_free(hx_io *io);
/* Number of bytes held. */
size_t hx_io_size(const hx_io *io);
/*
 * The content from byte `offset` on, always terminated by a NUL beyond the content; "" when `offset` lies beyond the
 * end. The pointer is valid until the object next changes.
 */
const char *hx_io_read(const hx_io *io, size_t offset);
/* Appends `size` bytes; returns how many were taken (fewer than `size` only when memory is short). */
size_t hx_io_write(hx_io *io, const void *data, size_t size);
/* Cuts or zero-extends the content to `size` bytes; returns 0, or -1 when memory is short. */
int hx_io_realloc(hx_io *io, size_t size);
/*
 * 1 while the client of the io's request is there (always, for an io without a client), else 0; also after the reply. A
 * client that has shut down its sending side only is there. The request's descriptor must be open. Any thread, also in
 * a forked request process.
 */
int hx_io_alive(const hx_io *io);
/*
 * The reply is complete, whatever the handler does or writes afterwards. Content that the io object holds itself is
 * sent first, as a JSON response: empty it when the reply was written to the descriptor. The descriptor must be open
 * still; it takes no more. Later calls for the same request do nothing, and nothing happens for an io without a client.
 * A handler that ends without this call has replied when what it wrote is whole by its length or its JSON text, or of
 * another type.
 */
void hx_reply(hx_io *io);

/* --- Calls and programs ------------------------------------------------------------------------------------------ */

/*
 * Posts the content of `io` to `endpoint` of the service named `service` and waits at most `timeout_seconds` for the
 * reply. The reply's body replaces the content of `io` when `reply_descriptor` is -1, else it is written to that
 * descriptor. Returns the HTTP status of the reply, or -1 with errno set and the content as it was when there was none:
 * ETIMEDOUT, ENOENT or ECONNREFUSED without such a service, ECONNRESET or EPROTO for a reply that is not whole or not
 * HTTP, EMSGSIZE beyond 16 MiB, EINVAL for a time limit that is not positive. Any thread but the worker, which may have
 * to answer the call; any process.
 */
int hx_call(const char *service, const char *endpoint, hx_io *io, int timeout_seconds, int reply_descriptor);

/*
 * Runs the program arguments[0] (a fixed path) with the NULL-terminated argument list and waits for its end. Standard
 * input reads `input`'s content, or is empty when `input` is NULL; standard output and error output are appended to
 * `output` and `error`, each dropped when NULL, at most 1 MiB each (the rest is read and dropped). The program holds no
 * other descriptor, runs with the caller's effective identity as its only one, is killed after 10 seconds and dies with
 * the calling process. Returns its exit status (128 + the signal's number when a signal ended it), or -1 with errno set
 * when it could not be started. Any thread of any process.
 */
int hx_io_execv(hx_io *input, hx_io *output, hx_io *error, const char *const arguments[]);

#ifdef __cplusplus
}
#endif
#endif
