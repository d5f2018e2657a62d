// A libnuma of the tests' own, in as many forms as a machine may show. It counts what is allocated and freed.
#include <stddef.h>
#include <stdlib.h>

size_t fake_numa_bytes;    // Allocated and not freed yet.
size_t fake_numa_buffers;  // Allocated at all.

#if !defined(WITHOUT_AVAILABLE)
int numa_available(void) {
#if defined(NOT_AVAILABLE)
  return -1;
#else
  return 0;
#endif
}
#endif

#if !defined(WITHOUT_ALLOC_LOCAL)
void* numa_alloc_local(size_t size) {
  __atomic_add_fetch(&fake_numa_bytes, size, __ATOMIC_RELAXED);
  __atomic_add_fetch(&fake_numa_buffers, 1, __ATOMIC_RELAXED);
  return malloc(size);
}
#endif

#if !defined(WITHOUT_FREE)
void numa_free(void* memory, size_t size) {
  if (memory == NULL) return;
  __atomic_sub_fetch(&fake_numa_bytes, size, __ATOMIC_RELAXED);
  free(memory);
}
#endif
