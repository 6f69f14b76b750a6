/* Access control. One thread at a time. */
#ifndef DIRWELL_PLATFORM_STRATA_NASACL_H
#define DIRWELL_PLATFORM_STRATA_NASACL_H

#ifdef __cplusplus
extern "C" {
#endif

/*
 * The right of `user` on `path`. The host platform answers with what the kernel grants the calling process's effective
 * identity (links followed): 4 read + 2 write + 1 execute or search, 0 for what does not exist.
 */
int Get_ACL_User_Group_Security_For_Share(const char *user, const char *path);

/* Switches of the machine: 0 when off or unknown. */
int Is_ACL_Enabled(void);
int Is_RichACL_Enabled(void);
int Is_Win_ACL_Enabled(void);
int Is_Win_ACL_Supported(void);

#ifdef __cplusplus
}
#endif
#endif
