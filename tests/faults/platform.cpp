// A platform that fails on demand: what stands between the daemon's rooms and the real one in the program of
// tests/system/test_faults_platform.py. An operation that is told to fail does so as its header says, in the way that
// the plan's error chooses where there is more than one; all others are the real ones.
#include <cerrno>
#include <new>

#include "plan.h"
#include "platform/include/hxrest.h"
#include "platform/include/hxservice.h"
#include "platform/include/strata_config.h"
#include "platform/include/strata_nas.h"
#include "platform/include/strata_nasacl.h"
#include "platform/include/strata_nasauth.h"

// Without the library of the faults this is the daemon as ever.
#pragma weak fault_strikes

namespace {

bool strikes(fault_call call, const char *place = nullptr) {
  return fault_strikes != nullptr && fault_strikes(call, place);
}

// Shortages are errors; what is no error at all is another kind of failure.
bool without_error() {
  return errno == 0;
}

}  // namespace

extern "C" {

#define X(name) extern decltype(name) __real_##name;
FAULT_OPERATIONS(X)
#undef X

// One way to fail, or none: `failed` takes the place of the real result.
#define OPERATION(type, name, place, failed, parameters, arguments)                           \
  type __wrap_##name parameters {                                                             \
    return strikes(call_##name, place) ? static_cast<type>(failed) : __real_##name arguments; \
  }
// No way to fail: only counted.
#define SURE_OPERATION(type, name, place, parameters, arguments) \
  type __wrap_##name parameters {                                \
    static_cast<void>(strikes(call_##name, place));              \
    return __real_##name arguments;                              \
  }

// --- The endpoint table ---

OPERATION(hx_rest *, hx_rest_create, nullptr, nullptr, (void), ())
OPERATION(int, hx_rest_endpoint, name, -1,
          (hx_rest * rest, hx_rest_handler handler, const char *name, hx_rest_prehandler prehandler, const char *usage),
          (rest, handler, name, prehandler, usage))

// An exception of a pre-handler passes through.
int __wrap_hx_rest_dispatch(hx_rest *rest, hx_request *request, hx_io *io, int descriptor) {
  if (strikes(call_hx_rest_dispatch)) {
    throw std::bad_alloc();
  }
  return __real_hx_rest_dispatch(rest, request, io, descriptor);
}

SURE_OPERATION(void, hx_rest_destroy, nullptr, (hx_rest * rest), (rest))

// --- Services ---

SURE_OPERATION(const char *, hx_root, nullptr, (void), ())
OPERATION(hx_service *, hx_create, name, nullptr,
          (const char *name, int backlog_class, int workers, hx_request_callback callback),
          (name, backlog_class, workers, callback))
SURE_OPERATION(void, hx_worker_init, nullptr, (hx_service * service, hx_worker_hook hook, void *argument),
               (service, hook, argument))
SURE_OPERATION(void, hx_worker_fini, nullptr, (hx_service * service, hx_worker_hook hook, void *argument),
               (service, hook, argument))

// It cannot listen; with EIO its loop fails in the end.
int __wrap_hx_start(hx_service *service) {
  if (!strikes(call_hx_start)) {
    return __real_hx_start(service);
  }
  if (errno == EIO) {
    __real_hx_start(service);
    errno = EIO;
  }
  return -1;
}

SURE_OPERATION(void, hx_stop, nullptr, (hx_service * service), (service))
SURE_OPERATION(void, hx_free, nullptr, (hx_service * service), (service))
SURE_OPERATION(void, hx_signal, nullptr, (int signal_number, hx_signal_handler handler), (signal_number, handler))

// --- Io objects ---

OPERATION(hx_io *, hx_io_create, nullptr, nullptr, (void), ())
SURE_OPERATION(void, hx_io_free, nullptr, (hx_io * io), (io))
SURE_OPERATION(size_t, hx_io_size, nullptr, (const hx_io *io), (io))
OPERATION(const char *, hx_io_read, nullptr, "", (const hx_io *io, size_t offset), (io, offset))

// Half is taken, or nothing. Of nothing, all is taken always.
size_t __wrap_hx_io_write(hx_io *io, const void *data, size_t size) {
  const bool fails = size > 0 && strikes(call_hx_io_write);
  return __real_hx_io_write(io, data, !fails ? size : without_error() ? 0 : size / 2);
}

OPERATION(int, hx_io_realloc, nullptr, -1, (hx_io * io, size_t size), (io, size))
OPERATION(int, hx_io_alive, nullptr, 0, (const hx_io *io), (io))

void __wrap_hx_reply(hx_io *io) {
  if (!strikes(call_hx_reply)) {
    __real_hx_reply(io);
  }
}

// --- Calls and programs ---

// There is no reply, or one that is a refusal.
int __wrap_hx_call(const char *service, const char *endpoint, hx_io *io, int timeout_seconds, int reply_descriptor) {
  constexpr int refusal = 503;
  if (strikes(call_hx_call, endpoint)) {
    return without_error() ? refusal : -1;
  }
  return __real_hx_call(service, endpoint, io, timeout_seconds, reply_descriptor);
}

// It cannot be started, or is killed before it says anything.
int __wrap_hx_io_execv(hx_io *input, hx_io *output, hx_io *error, const char *const arguments[]) {
  constexpr int killed = 128 + 9;
  if (strikes(call_hx_io_execv, arguments[0])) {
    return without_error() ? killed : -1;
  }
  return __real_hx_io_execv(input, output, error, arguments);
}

// --- Configuration ---

// The fallback: as from a file that is not there.
int __wrap_Get_Private_Profile_String(const char *section, const char *key, const char *fallback, char *buffer,
                                      int size, const char *file) {
  return __real_Get_Private_Profile_String(section, key, fallback, buffer, size,
                                           strikes(call_Get_Private_Profile_String, key) ? "/dev/null/missing" : file);
}

OPERATION(int, Get_Private_Profile_Integer, key, fallback,
          (const char *section, const char *key, int fallback, const char *file), (section, key, fallback, file))

// --- Shares, media library, access control, sessions ---

OPERATION(const SMB_Share_Info *, SMB_Get_Share_Info, nullptr, nullptr, (void), ())
SURE_OPERATION(void, SMB_Free_Share_Info, nullptr, (const SMB_Share_Info *info), (info))
OPERATION(int, Is_MTP_Share, virtual_directory, 0, (const char *virtual_directory), (virtual_directory))
OPERATION(int, Is_ODD_Share, virtual_directory, 0, (const char *virtual_directory), (virtual_directory))
OPERATION(int, NAS_Snapshot_Get_Id_Path, path, -1, (const char *path, int *volume, int *id, char *mount, size_t size),
          (path, volume, id, mount, size))
OPERATION(int, Is_MediaLib_Enabled, nullptr, 0, (void), ())
OPERATION(int, Is_Realtime_Transcoding_Support, nullptr, 0, (void), ())
OPERATION(int, MediaLib_Transcoding_CheckFile, path, 0, (int kind, const char *path), (kind, path))
OPERATION(int, Get_ACL_User_Group_Security_For_Share, path, 0, (const char *user, const char *path), (user, path))
OPERATION(int, Is_ACL_Enabled, nullptr, 0, (void), ())
OPERATION(int, Is_RichACL_Enabled, nullptr, 0, (void), ())
OPERATION(int, Is_Win_ACL_Enabled, nullptr, 0, (void), ())
OPERATION(int, Is_Win_ACL_Supported, nullptr, 0, (void), ())
OPERATION(int, auth_get_session_ex, sid, -1, (const char *sid, int flags, auth_session *record), (sid, flags, record))

}  // extern "C"
