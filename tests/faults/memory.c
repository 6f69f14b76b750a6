/* Allocations: those of the C++ library, of SQLite, ICU, Jansson and of the C library all come through these. */
#include <errno.h>
#include <stddef.h>

#include "plan.h"

/* The C library's own names for what is replaced here. */
extern void *__libc_malloc(size_t size);
extern void *__libc_calloc(size_t count, size_t size);
extern void *__libc_realloc(void *memory, size_t size);
extern void *__libc_memalign(size_t alignment, size_t size);

/* Tells plan.c that this file is part of the library. */
EXPORT const int fault_fails_memory = 1;

EXPORT void *malloc(size_t size) {
  return fault_strikes_memory() ? NULL : __libc_malloc(size);
}

EXPORT void *calloc(size_t count, size_t size) {
  return fault_strikes_memory() ? NULL : __libc_calloc(count, size);
}

EXPORT void *realloc(void *memory, size_t size) {
  return size != 0 && fault_strikes_memory() ? NULL : __libc_realloc(memory, size);
}

EXPORT void *memalign(size_t alignment, size_t size) {
  return fault_strikes_memory() ? NULL : __libc_memalign(alignment, size);
}

EXPORT void *aligned_alloc(size_t alignment, size_t size) {
  return memalign(alignment, size);
}

EXPORT int posix_memalign(void **memory, size_t alignment, size_t size) {
  void *made = memalign(alignment, size);
  if (made == NULL) {
    return ENOMEM;
  }
  *memory = made;
  return 0;
}
