/* Files and folders, their attributes, and memory that is mapped from them. */
#include <dirent.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "plan.h"

static int mode_of(int flags, va_list arguments) {
  return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, int) : 0;
}

#define OPEN(name)                                                                 \
  EXPORT int name(const char *path, int flags, ...) {                              \
    va_list arguments;                                                             \
    va_start(arguments, flags);                                                    \
    const int mode = mode_of(flags, arguments);                                    \
    va_end(arguments);                                                             \
    REAL(int (*)(const char *, int, ...), #name);                                  \
    return fault_strikes_blocking(call_open, path) ? -1 : real(path, flags, mode); \
  }
OPEN(open)
OPEN(open64)

/* What open becomes where the compiler cannot see that the flags need no mode. */
#define OPEN_CHECKED(name)                                                   \
  EXPORT int name(const char *path, int flags) {                             \
    REAL(int (*)(const char *, int), #name);                                 \
    return fault_strikes_blocking(call_open, path) ? -1 : real(path, flags); \
  }
OPEN_CHECKED(__open_2)
OPEN_CHECKED(__open64_2)

#define OPENAT(name)                                                                       \
  EXPORT int name(int folder, const char *path, int flags, ...) {                          \
    va_list arguments;                                                                     \
    va_start(arguments, flags);                                                            \
    const int mode = mode_of(flags, arguments);                                            \
    va_end(arguments);                                                                     \
    REAL(int (*)(int, const char *, int, ...), #name);                                     \
    return fault_strikes_blocking(call_open, path) ? -1 : real(folder, path, flags, mode); \
  }
OPENAT(openat)
OPENAT(openat64)

#define FOPEN(name)                                                   \
  EXPORT FILE *name(const char *path, const char *mode) {             \
    REAL(FILE *(*)(const char *, const char *), #name);               \
    return fault_strikes(call_fopen, path) ? NULL : real(path, mode); \
  }
FOPEN(fopen)
FOPEN(fopen64)

EXPORT DIR *opendir(const char *path) {
  REAL(DIR * (*)(const char *), "opendir");
  return fault_strikes(call_opendir, path) ? NULL : real(path);
}

EXPORT DIR *fdopendir(int descriptor) {
  REAL(DIR * (*)(int), "fdopendir");
  return fault_strikes(call_fdopendir, NULL) ? NULL : real(descriptor);
}

EXPORT struct dirent *readdir(DIR *folder) {
  REAL(struct dirent * (*)(DIR *), "readdir");
  return fault_strikes(call_readdir, NULL) ? NULL : real(folder);
}

EXPORT struct dirent64 *readdir64(DIR *folder) {
  REAL(struct dirent64 * (*)(DIR *), "readdir64");
  return fault_strikes(call_readdir, NULL) ? NULL : real(folder);
}

#define STAT(name, type)                                             \
  EXPORT int name(const char *path, struct type *status) {           \
    REAL(int (*)(const char *, struct type *), #name);               \
    return fault_strikes(call_stat, path) ? -1 : real(path, status); \
  }
STAT(stat, stat)
STAT(stat64, stat64)
STAT(lstat, stat)
STAT(lstat64, stat64)

#define FSTAT(name, type)                                                   \
  EXPORT int name(int descriptor, struct type *status) {                    \
    REAL(int (*)(int, struct type *), #name);                               \
    return fault_strikes(call_fstat, NULL) ? -1 : real(descriptor, status); \
  }
FSTAT(fstat, stat)
FSTAT(fstat64, stat64)

#define FSTATAT(name, type)                                                            \
  EXPORT int name(int folder, const char *path, struct type *status, int flags) {      \
    REAL(int (*)(int, const char *, struct type *, int), #name);                       \
    return fault_strikes(call_fstatat, path) ? -1 : real(folder, path, status, flags); \
  }
FSTATAT(fstatat, stat)
FSTATAT(fstatat64, stat64)

EXPORT int access(const char *path, int rights) {
  REAL(int (*)(const char *, int), "access");
  return fault_strikes(call_access, path) ? -1 : real(path, rights);
}

EXPORT int faccessat(int folder, const char *path, int rights, int flags) {
  REAL(int (*)(int, const char *, int, int), "faccessat");
  return fault_strikes(call_access, path) ? -1 : real(folder, path, rights, flags);
}

EXPORT ssize_t readlink(const char *path, char *target, size_t size) {
  REAL(ssize_t(*)(const char *, char *, size_t), "readlink");
  return fault_strikes(call_readlink, path) ? -1 : real(path, target, size);
}

EXPORT char *realpath(const char *path, char *resolved) {
  REAL(char *(*)(const char *, char *), "realpath");
  return fault_strikes(call_realpath, path) ? NULL : real(path, resolved);
}

EXPORT ssize_t getxattr(const char *path, const char *name, void *value, size_t size) {
  REAL(ssize_t(*)(const char *, const char *, void *, size_t), "getxattr");
  return fault_strikes(call_getxattr, path) ? -1 : real(path, name, value, size);
}

EXPORT int setxattr(const char *path, const char *name, const void *value, size_t size, int flags) {
  REAL(int (*)(const char *, const char *, const void *, size_t, int), "setxattr");
  return fault_strikes(call_setxattr, path) ? -1 : real(path, name, value, size, flags);
}

EXPORT ssize_t read(int descriptor, void *bytes, size_t size) {
  REAL(ssize_t(*)(int, void *, size_t), "read");
  /* An event counter or a timer is read as a whole. */
  return fault_strikes_blocking(call_read, NULL) ? -1 : real(descriptor, bytes, size > 8 ? fault_size(size) : size);
}

EXPORT ssize_t write(int descriptor, const void *bytes, size_t size) {
  REAL(ssize_t(*)(int, const void *, size_t), "write");
  return fault_strikes_blocking(call_write, NULL) ? -1 : real(descriptor, bytes, size > 8 ? fault_size(size) : size);
}

#define PREAD(name, offset_type)                                                                  \
  EXPORT ssize_t name(int descriptor, void *bytes, size_t size, offset_type offset) {             \
    REAL(ssize_t (*)(int, void *, size_t, offset_type), #name);                                   \
    return fault_strikes_blocking(call_pread, NULL) ? -1 : real(descriptor, bytes, size, offset); \
  }
PREAD(pread, off_t)
PREAD(pread64, off64_t)

#define PWRITE(name, offset_type)                                                                  \
  EXPORT ssize_t name(int descriptor, const void *bytes, size_t size, offset_type offset) {        \
    REAL(ssize_t (*)(int, const void *, size_t, offset_type), #name);                              \
    return fault_strikes_blocking(call_pwrite, NULL) ? -1 : real(descriptor, bytes, size, offset); \
  }
PWRITE(pwrite, off_t)
PWRITE(pwrite64, off64_t)

#define FTRUNCATE(name, offset_type)                                                   \
  EXPORT int name(int descriptor, offset_type size) {                                  \
    REAL(int (*)(int, offset_type), #name);                                            \
    return fault_strikes_blocking(call_ftruncate, NULL) ? -1 : real(descriptor, size); \
  }
FTRUNCATE(ftruncate, off_t)
FTRUNCATE(ftruncate64, off64_t)

EXPORT int fsync(int descriptor) {
  REAL(int (*)(int), "fsync");
  return fault_strikes_blocking(call_fsync, NULL) ? -1 : real(descriptor);
}

EXPORT int unlink(const char *path) {
  REAL(int (*)(const char *), "unlink");
  return fault_strikes(call_unlink, path) ? -1 : real(path);
}

EXPORT int unlinkat(int folder, const char *path, int flags) {
  REAL(int (*)(int, const char *, int), "unlinkat");
  return fault_strikes(call_unlink, path) ? -1 : real(folder, path, flags);
}

EXPORT int mkdir(const char *path, mode_t mode) {
  REAL(int (*)(const char *, mode_t), "mkdir");
  return fault_strikes(call_mkdir, path) ? -1 : real(path, mode);
}

EXPORT int fchmod(int descriptor, mode_t mode) {
  REAL(int (*)(int, mode_t), "fchmod");
  return fault_strikes(call_fchmod, NULL) ? -1 : real(descriptor, mode);
}

EXPORT int flock(int descriptor, int operation) {
  REAL(int (*)(int, int), "flock");
  return fault_strikes_blocking(call_flock, NULL) ? -1 : real(descriptor, operation);
}

#define FCNTL(name)                                                                    \
  EXPORT int name(int descriptor, int command, ...) {                                  \
    va_list arguments;                                                                 \
    va_start(arguments, command);                                                      \
    void *argument = va_arg(arguments, void *);                                        \
    va_end(arguments);                                                                 \
    REAL(int (*)(int, int, ...), #name);                                               \
    return fault_strikes(call_fcntl, NULL) ? -1 : real(descriptor, command, argument); \
  }
FCNTL(fcntl)
FCNTL(fcntl64)

EXPORT int ioctl(int descriptor, unsigned long request, ...) {
  va_list arguments;
  va_start(arguments, request);
  void *argument = va_arg(arguments, void *);
  va_end(arguments);
  REAL(int (*)(int, unsigned long, ...), "ioctl");
  return fault_strikes(call_ioctl, NULL) ? -1 : real(descriptor, request, argument);
}

#define MMAP(name, offset_type)                                                                                \
  EXPORT void *name(void *place, size_t size, int rights, int flags, int descriptor, offset_type offset) {     \
    REAL(void *(*)(void *, size_t, int, int, int, offset_type), #name);                                        \
    return fault_strikes(call_mmap, NULL) ? MAP_FAILED : real(place, size, rights, flags, descriptor, offset); \
  }
MMAP(mmap, off_t)
MMAP(mmap64, off64_t)

EXPORT int memfd_create(const char *name, unsigned flags) {
  REAL(int (*)(const char *, unsigned), "memfd_create");
  return fault_strikes(call_memfd_create, NULL) ? -1 : real(name, flags);
}
