/*
 * Which calls are to fail: a page of memory that the tests share with the daemon and with all that it forks, so that
 * they can arm a fault, read the counts and arm the next one while the daemon runs on. tests/system/harness/faults.py
 * is the other side of it.
 */
#ifndef DIRWELL_TESTS_FAULTS_PLAN_H
#define DIRWELL_TESTS_FAULTS_PLAN_H

#include <stdbool.h>
#include <stdint.h>

#include "operations.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The calls that can fail; names that do the same count as one. Laid out by hand: the tool knows no end of it. */
// clang-format off
#define FAULT_CALLS(X)                                                                                          \
  X(open) X(fopen) X(opendir) X(fdopendir) X(readdir) X(stat) X(fstat) X(fstatat) X(access) X(readlink)         \
  X(realpath) X(getxattr) X(setxattr) X(read) X(pread) X(write) X(pwrite) X(ftruncate) X(fsync) X(unlink)       \
  X(mkdir) X(fchmod) X(flock) X(fcntl) X(ioctl) X(mmap) X(memfd_create) X(inotify_init1) X(inotify_add_watch)   \
  X(eventfd) X(timerfd_create) X(timerfd_settime) X(socket) X(socketpair) X(connect) X(accept) X(send)          \
  X(sendmsg) X(recv) X(getsockopt) X(setsockopt) X(poll) X(epoll_wait) X(epoll_ctl) X(pipe) X(fork) X(clone)    \
  X(waitpid) X(pthread_create) X(getgrouplist) X(getpwnam_r) X(getpwuid_r) X(getgrgid_r) X(setgroups)           \
  X(setegid) X(seteuid) X(setfsuid) X(setfsgid) X(raw_setgroups) X(raw_setsid) X(raw_setresgid)                 \
  X(raw_setresuid) X(raw_capset) X(raw_dup3) X(raw_close_range) X(raw_execve) X(raw_pidfd_open) X(prctl)        \
  X(malloc) FAULT_OPERATIONS(X)
// clang-format on

enum fault_call {
#define X(name) call_##name,
  FAULT_CALLS(X)
#undef X
      call_count
};

/* Who calls. Counts are kept apart, since each is asked about by itself. */
enum fault_process {
  process_daemon,  /* the daemon's main thread: the bus worker */
  process_threads, /* its other threads */
  process_between, /* what the daemon forks, and what forks the request process and ends */
  process_request, /* the request process, all its threads */
  process_tool,    /* what becomes a program, until it executes it */
  process_count
};

enum fault_mode {
  mode_none,
  mode_fail,      /* the chosen occurrences of one call fail with `error` */
  mode_interrupt, /* every call that may be interrupted is, once, before it really runs */
  mode_piecemeal, /* reads and writes move one byte */
  mode_signal     /* the process gets the signal `error` just before the chosen occurrences, which succeed */
};

enum { fault_magic = 0x44574654, names_size = 2048, journal_size = 1 << 18 };

struct fault_plan {
  uint32_t magic;
  uint32_t calls;     /* call_count: the tests make sure that they mean the same */
  uint32_t processes; /* process_count */
  uint32_t memory;    /* whether malloc can fail */
  char names[names_size];

  /* Written by the tests. The mode is written last when a fault is armed, and first when it is taken back. */
  uint32_t mode;
  uint32_t call;
  uint32_t process;
  uint32_t first; /* the first occurrence that fails, from 1 on */
  uint32_t times; /* how many in a row fail; 0 for all from there on */
  uint32_t error; /* errno, or a signal; 0 for a switch of identity that reports success and does nothing, and see
                     platform.cpp */
  uint32_t recording;
  uint32_t hastened; /* milliseconds: no timer of the daemon ticks more slowly; 0 leaves them alone */

  /* Written here, set to 0 by the tests. */
  uint32_t injected;
  uint32_t born;  /* request processes */
  uint32_t ended; /* request processes that ended of their own accord */
  uint32_t counts[process_count][call_count];
  uint32_t journal_used;
  char journal[journal_size]; /* "process call path\n", while recording */
};

/* Counts one call; true when it must fail, with errno set. `path` may be NULL. */
bool fault_strikes(enum fault_call call, const char *path);
/* The same for one that a signal may interrupt. */
bool fault_strikes_blocking(enum fault_call call, const char *path);
/* For allocations: touches nothing that could allocate. */
bool fault_strikes_memory(void);
/* The period that a timer is to have instead of `seconds`, in milliseconds. */
uint64_t fault_period(uint64_t seconds);
/* How much of `size` a read or write may move now. */
uint64_t fault_size(uint64_t size);

/* The process ends: what it still does is not the daemon's, as where counters of lines are written. */
void fault_leave(void);

/* Looks the next library's function up at the first use. */
void *fault_real(void **known, const char *name);

#define EXPORT __attribute__((visibility("default")))
#define REAL(type, name)   \
  static void *known_real; \
  const __typeof__(type) real = (__typeof__(type))fault_real(&known_real, name)

#ifdef __cplusplus
}
#endif
#endif
