/* The operations that the platform has for the daemon, as src/platform/include/ declares them: they can fail like calls
 * of the C library. The build reads this list too. */
#ifndef DIRWELL_TESTS_FAULTS_OPERATIONS_H
#define DIRWELL_TESTS_FAULTS_OPERATIONS_H

// clang-format off
#define FAULT_OPERATIONS(X)                                                                                     \
  X(hx_rest_create) X(hx_rest_endpoint) X(hx_rest_dispatch) X(hx_rest_destroy)                                  \
  X(hx_root) X(hx_create) X(hx_worker_init) X(hx_worker_fini) X(hx_start) X(hx_stop) X(hx_free) X(hx_signal)    \
  X(hx_io_create) X(hx_io_free) X(hx_io_size) X(hx_io_read) X(hx_io_write) X(hx_io_realloc) X(hx_io_alive)      \
  X(hx_reply) X(hx_call) X(hx_io_execv)                                                                         \
  X(Get_Private_Profile_String) X(Get_Private_Profile_Integer)                                                  \
  X(SMB_Get_Share_Info) X(SMB_Free_Share_Info) X(Is_MTP_Share) X(Is_ODD_Share) X(NAS_Snapshot_Get_Id_Path)      \
  X(Is_MediaLib_Enabled) X(Is_Realtime_Transcoding_Support) X(MediaLib_Transcoding_CheckFile)                   \
  X(Get_ACL_User_Group_Security_For_Share)                                                                      \
  X(Is_ACL_Enabled) X(Is_RichACL_Enabled) X(Is_Win_ACL_Enabled) X(Is_Win_ACL_Supported)                         \
  X(auth_get_session_ex)
// clang-format on

#endif
