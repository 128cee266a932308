#pragma once
// The process's memory allocator, tuned for multi-megabyte payloads.

namespace tavix {

// Keeps large buffers (screenshots, pastes) in the allocator's heap and keeps freed heap
// memory for the next request, instead of mapping fresh pages for each buffer and
// returning them afterwards: on a virtual machine every fresh page costs a fault, which
// made a 6.7 MB reply several times slower than its copies. One arena serves all threads,
// so a buffer freed on one thread is reused by the next request on another.
void tuneAllocatorForLargePayloads();

} // namespace tavix
