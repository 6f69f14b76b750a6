/* Shares, media library and snapshots. One thread at a time; a fork must not happen during a call. */
#ifndef DIRWELL_PLATFORM_STRATA_NAS_H
#define DIRWELL_PLATFORM_STRATA_NAS_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct SMB_Share {
  const char *name; /* section name */
  const char *path; /* the share's folder, as configured */
  int type;         /* 0 ordinary, 1 cloud-cache mount, 2 remote; other values are passed through */
} SMB_Share;

typedef struct SMB_Share_Info {
  const SMB_Share *shares; /* in configuration order */
  size_t count;
} SMB_Share_Info;

/*
 * The shares as the configuration file has them now. The list is read again only when the file has changed. Returns
 * NULL when there is no readable list; else a list that the caller gives back with SMB_Free_Share_Info.
 */
const SMB_Share_Info *SMB_Get_Share_Info(void);
/* Gives a list back; NULL is allowed. */
void SMB_Free_Share_Info(const SMB_Share_Info *info);

/* 1 when the virtual directory is, or lies below, a phone or camera share; else 0. */
int Is_MTP_Share(const char *virtual_directory);
/* 1 when the virtual directory is, or lies below, an optical disc share; else 0. */
int Is_ODD_Share(const char *virtual_directory);

/*
 * The snapshot that `path` lies in: its volume, its id and, in `mount` of `size` bytes (cut to fit, always terminated),
 * the path it is mounted on. Returns 0, or -1 with the outputs untouched when the path lies in no snapshot.
 */
int NAS_Snapshot_Get_Id_Path(const char *path, int *volume, int *id, char *mount, size_t size);

/* 1 when the media library runs, else 0. */
int Is_MediaLib_Enabled(void);
/* 1 when the machine can transcode while it streams, else 0. */
int Is_Realtime_Transcoding_Support(void);
/* Non-zero when the media library holds a transcoded copy of the file; `kind` is 2 for video. */
int MediaLib_Transcoding_CheckFile(int kind, const char *path);

#ifdef __cplusplus
}
#endif
#endif
