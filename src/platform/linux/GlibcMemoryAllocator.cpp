#include "platform/MemoryAllocator.h"

#include <malloc.h>

namespace tavix {

void tuneAllocatorForLargePayloads() {
  // 32 MiB is the largest mapping threshold glibc accepts: anything smaller comes from
  // the heap. Freed memory stays up to 128 MiB before it is trimmed.
  mallopt(M_MMAP_THRESHOLD, 32 * 1024 * 1024);
  mallopt(M_TRIM_THRESHOLD, 128 * 1024 * 1024);
  mallopt(M_ARENA_MAX, 1);
}

} // namespace tavix
