/* Processes, threads, identities, and the name service that tells of users and groups. */
#include <errno.h>
#include <grp.h>
#include <pthread.h>
#include <pwd.h>
#include <sched.h>
#include <stdarg.h>
#include <sys/fsuid.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "plan.h"

EXPORT pid_t fork(void) {
  REAL(pid_t(*)(void), "fork");
  return fault_strikes(call_fork, NULL) ? -1 : real();
}

EXPORT int clone(int (*entry)(void *), void *stack, int flags, void *argument, ...) {
  REAL(int (*)(int (*)(void *), void *, int, void *, ...), "clone");
  return fault_strikes(call_clone, NULL) ? -1 : real(entry, stack, flags, argument);
}

EXPORT pid_t waitpid(pid_t process, int *status, int options) {
  REAL(pid_t(*)(pid_t, int *, int), "waitpid");
  return fault_strikes_blocking(call_waitpid, NULL) ? -1 : real(process, status, options);
}

EXPORT int pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*entry)(void *), void *argument) {
  REAL(int (*)(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *), "pthread_create");
  return fault_strikes(call_pthread_create, NULL) ? errno : real(thread, attributes, entry, argument);
}

/* --- Identity --- */

static int refused(void) {
  return errno == 0 ? 0 : -1;
}

EXPORT int setgroups(size_t count, const gid_t *groups) {
  REAL(int (*)(size_t, const gid_t *), "setgroups");
  return fault_strikes(call_setgroups, NULL) ? refused() : real(count, groups);
}

EXPORT int setegid(gid_t group) {
  REAL(int (*)(gid_t), "setegid");
  return fault_strikes(call_setegid, NULL) ? refused() : real(group);
}

EXPORT int seteuid(uid_t user) {
  REAL(int (*)(uid_t), "seteuid");
  return fault_strikes(call_seteuid, NULL) ? refused() : real(user);
}

/* These two tell the id before and nothing of a failure. An id that cannot be only asks. */
EXPORT int setfsuid(uid_t user) {
  REAL(int (*)(uid_t), "setfsuid");
  return user != (uid_t)-1 && fault_strikes(call_setfsuid, NULL) ? real((uid_t)-1) : real(user);
}

EXPORT int setfsgid(gid_t group) {
  REAL(int (*)(gid_t), "setfsgid");
  return group != (gid_t)-1 && fault_strikes(call_setfsgid, NULL) ? real((gid_t)-1) : real(group);
}

EXPORT int prctl(int option, ...) {
  va_list arguments;
  va_start(arguments, option);
  const unsigned long a = va_arg(arguments, unsigned long);
  const unsigned long b = va_arg(arguments, unsigned long);
  const unsigned long c = va_arg(arguments, unsigned long);
  const unsigned long d = va_arg(arguments, unsigned long);
  va_end(arguments);
  REAL(int (*)(int, ...), "prctl");
  return fault_strikes(call_prctl, NULL) ? -1 : real(option, a, b, c, d);
}

static bool raw_strikes(long number) {
  switch (number) {
    case SYS_setgroups:
      return fault_strikes(call_raw_setgroups, NULL);
    case SYS_setsid:
      return fault_strikes(call_raw_setsid, NULL);
    case SYS_setresgid:
      return fault_strikes(call_raw_setresgid, NULL);
    case SYS_setresuid:
      return fault_strikes(call_raw_setresuid, NULL);
    case SYS_capset:
      return fault_strikes(call_raw_capset, NULL);
    case SYS_dup3:
      return fault_strikes(call_raw_dup3, NULL);
    case SYS_close_range:
      return fault_strikes(call_raw_close_range, NULL);
    case SYS_execve:
      return fault_strikes(call_raw_execve, NULL);
    case SYS_pidfd_open:
      return fault_strikes(call_raw_pidfd_open, NULL);
    default:
      return false;
  }
}

EXPORT long syscall(long number, ...) {
  va_list arguments;
  va_start(arguments, number);
  const long a = va_arg(arguments, long);
  const long b = va_arg(arguments, long);
  const long c = va_arg(arguments, long);
  const long d = va_arg(arguments, long);
  const long e = va_arg(arguments, long);
  const long f = va_arg(arguments, long);
  va_end(arguments);
  REAL(long (*)(long, ...), "syscall");
  return raw_strikes(number) ? -1 : real(number, a, b, c, d, e, f);
}

/* What the new process calls must have been looked up before it is made: it shares its maker's memory and locks. */
__attribute__((constructor)) static void look_up(void) {
  syscall(SYS_getpid);
  prctl(PR_GET_DUMPABLE, 0, 0, 0, 0);
}

/* --- Name service --- */

EXPORT int getgrouplist(const char *user, gid_t group, gid_t *groups, int *count) {
  REAL(int (*)(const char *, gid_t, gid_t *, int *), "getgrouplist");
  return fault_strikes(call_getgrouplist, NULL) ? -1 : real(user, group, groups, count);
}

EXPORT int getpwnam_r(const char *name, struct passwd *record, char *buffer, size_t size, struct passwd **found) {
  REAL(int (*)(const char *, struct passwd *, char *, size_t, struct passwd **), "getpwnam_r");
  if (fault_strikes_blocking(call_getpwnam_r, NULL)) {
    *found = NULL;
    return errno;
  }
  return real(name, record, buffer, size, found);
}

EXPORT int getpwuid_r(uid_t user, struct passwd *record, char *buffer, size_t size, struct passwd **found) {
  REAL(int (*)(uid_t, struct passwd *, char *, size_t, struct passwd **), "getpwuid_r");
  if (fault_strikes_blocking(call_getpwuid_r, NULL)) {
    *found = NULL;
    return errno;
  }
  return real(user, record, buffer, size, found);
}

EXPORT int getgrgid_r(gid_t group, struct group *record, char *buffer, size_t size, struct group **found) {
  REAL(int (*)(gid_t, struct group *, char *, size_t, struct group **), "getgrgid_r");
  if (fault_strikes_blocking(call_getgrgid_r, NULL)) {
    *found = NULL;
    return errno;
  }
  return real(group, record, buffer, size, found);
}
