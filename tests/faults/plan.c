#include "plan.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

static const char *const call_names[call_count] = {
#define X(name) #name,
    FAULT_CALLS(X)
#undef X
};
static const char *const process_names[process_count] = {"daemon", "threads", "between", "request", "tool"};

static struct fault_plan *plan;
static enum fault_process own_process = process_daemon;
static long own_pid;
static bool leaving;
static __thread uint8_t interrupted[call_count];

/* Not the library's calls: they are wrapped, and one of them is counted. */
static long kernel(long number, long a, long b, long c, long d, long e, long f) {
  register long r10 __asm__("r10") = d;
  register long r8 __asm__("r8") = e;
  register long r9 __asm__("r9") = f;
  long result;
  __asm__ volatile("syscall"
                   : "=a"(result)
                   : "a"(number), "D"(a), "S"(b), "d"(c), "r"(r10), "r"(r8), "r"(r9)
                   : "rcx", "r11", "memory");
  return result;
}

static bool left_alone(void) {
  return plan == NULL || __atomic_load_n(&leaving, __ATOMIC_RELAXED);
}

void *fault_real(void **known, const char *name) {
  if (*known == NULL) {
    *known = dlsym(RTLD_NEXT, name);
  }
  return *known;
}

static enum fault_process caller(void) {
  const long pid = kernel(SYS_getpid, 0, 0, 0, 0, 0, 0);
  if (pid != own_pid) {
    return process_tool; /* it shares our memory, so nobody has told it what it is */
  }
  if (own_process == process_daemon && kernel(SYS_gettid, 0, 0, 0, 0, 0, 0) != pid) {
    return process_threads;
  }
  return own_process;
}

static void record(enum fault_process process, enum fault_call call, const char *path) {
  char line[512];
  const int length =
      snprintf(line, sizeof line, "%s %s %.400s\n", process_names[process], call_names[call], path != NULL ? path : "");
  const uint32_t at = __atomic_fetch_add(&plan->journal_used, (uint32_t)length, __ATOMIC_RELAXED);
  if (length <= 0 || at + (uint32_t)length > journal_size) {
    return;
  }
  /* Not by memcpy, which the thread sanitizer watches: it would not know that the tests have begun a new journal. */
  for (uint32_t place = 0; place < (uint32_t)length; ++place) {
    __atomic_store_n(&plan->journal[at + place], line[place], __ATOMIC_RELAXED);
  }
}

static bool chosen(enum fault_process process, enum fault_call call) {
  const uint32_t count = __atomic_add_fetch(&plan->counts[process][call], 1, __ATOMIC_RELAXED);
  if ((plan->mode != mode_fail && plan->mode != mode_signal) || plan->call != (uint32_t)call ||
      plan->process != (uint32_t)process || count < plan->first ||
      (plan->times != 0 && count - plan->first >= plan->times)) {
    return false;
  }
  __atomic_add_fetch(&plan->injected, 1, __ATOMIC_RELAXED);
  if (plan->mode == mode_signal) {
    kernel(SYS_kill, own_pid, (long)plan->error, 0, 0, 0, 0);
    return false;
  }
  errno = (int)plan->error;
  return true;
}

EXPORT bool fault_strikes(enum fault_call call, const char *path) {
  if (left_alone()) {
    return false;
  }
  const int before = errno;
  const enum fault_process process = caller();
  if (plan->recording != 0 && process != process_tool) {
    record(process, call, path);
    errno = before;
  }
  return chosen(process, call);
}

bool fault_strikes_blocking(enum fault_call call, const char *path) {
  if (fault_strikes(call, path)) {
    return true;
  }
  if (left_alone() || plan->mode != mode_interrupt || caller() != (enum fault_process)plan->process) {
    return false;
  }
  interrupted[call] = !interrupted[call];
  if (interrupted[call] == 0) {
    return false;
  }
  __atomic_add_fetch(&plan->injected, 1, __ATOMIC_RELAXED);
  errno = EINTR;
  return true;
}

bool fault_strikes_memory(void) {
  if (left_alone()) {
    return false;
  }
  const enum fault_process process = own_process == process_daemon ? caller() : own_process;
  const int before = errno;
  if (!chosen(process, call_malloc)) {
    errno = before;
    return false;
  }
  errno = ENOMEM;
  return true;
}

uint64_t fault_size(uint64_t size) {
  if (left_alone() || plan->mode != mode_piecemeal || size < 2 || caller() != (enum fault_process)plan->process) {
    return size;
  }
  __atomic_add_fetch(&plan->injected, 1, __ATOMIC_RELAXED);
  return 1;
}

uint64_t fault_period(uint64_t seconds) {
  const uint64_t asked = seconds * 1000;
  return plan == NULL || plan->hastened == 0 || plan->hastened > asked ? asked : plan->hastened;
}

static void in_child(void) {
  own_pid = kernel(SYS_getpid, 0, 0, 0, 0, 0, 0);
  memset(interrupted, 0, sizeof interrupted);
  own_process = own_process == process_daemon ? process_between : process_request;
  if (own_process == process_request) {
    __atomic_add_fetch(&plan->born, 1, __ATOMIC_RELAXED);
  }
}

EXPORT void fault_leave(void) {
  if (left_alone() || caller() == process_tool) {
    return;
  }
  if (own_process == process_request) {
    __atomic_add_fetch(&plan->ended, 1, __ATOMIC_RELAXED);
  }
  __atomic_store_n(&leaving, true, __ATOMIC_RELAXED);
}

EXPORT __attribute__((noreturn)) void _exit(int status) {
  fault_leave();
  for (;;) {
    kernel(SYS_exit_group, status, 0, 0, 0, 0, 0);
  }
}

/* Programs that the daemon runs are left alone. */
static bool is_daemon(void) {
  char path[4096];
  const long length = kernel(SYS_readlink, (long)"/proc/self/exe", (long)path, sizeof path - 1, 0, 0, 0);
  if (length <= 0) {
    return false;
  }
  path[length] = '\0';
  const char *name = strrchr(path, '/');
  return name != NULL && strcmp(name, "/dirwell") == 0;
}

__attribute__((constructor)) static void begin(void) {
  const char *file = getenv("DIRWELL_FAULTS");
  if (file == NULL || !is_daemon()) {
    return;
  }
  const long descriptor = kernel(SYS_open, (long)file, O_RDWR | O_CLOEXEC, 0, 0, 0, 0);
  if (descriptor < 0) {
    return;
  }
  const long mapped = kernel(SYS_mmap, 0, sizeof *plan, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
  kernel(SYS_close, descriptor, 0, 0, 0, 0, 0);
  if (mapped < 0) {
    return;
  }
  struct fault_plan *made = (struct fault_plan *)mapped;
  own_pid = kernel(SYS_getpid, 0, 0, 0, 0, 0, 0);
  made->calls = call_count;
  made->processes = process_count;
  made->names[0] = '\0'; /* a daemon before this one has written them, too */
  for (int call = 0; call < call_count; ++call) {
    strncat(made->names, call_names[call], names_size - strlen(made->names) - 2);
    strcat(made->names, "\n");
  }
  made->memory = dlsym(RTLD_DEFAULT, "fault_fails_memory") != NULL;
  made->magic = fault_magic;
  pthread_atfork(NULL, NULL, in_child);
  unsetenv("LD_PRELOAD");
  plan = made;
}
