/* Login sessions of the web file manager. Any thread; a fork must not happen during a call. */
#ifndef DIRWELL_PLATFORM_STRATA_NASAUTH_H
#define DIRWELL_PLATFORM_STRATA_NASAUTH_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The record of one session: 2800 bytes, all zero before the platform fills it. */
typedef struct auth_session {
  char user[256]; /* account name, NUL-terminated */
  uint32_t uid;   /* numeric id of that account */
  uint32_t gid;   /* its primary group */
  char reserved[2536];
} auth_session;

/*
 * Looks the session `sid` up and fills `record`. `flags` is 1 for a check that does not prolong the session. Returns 0
 * when the session exists and is valid, else non-zero with the record untouched. A NULL or malformed sid is no session.
 */
int auth_get_session_ex(const char *sid, int flags, auth_session *record);

#ifdef __cplusplus
}
#endif
#endif
