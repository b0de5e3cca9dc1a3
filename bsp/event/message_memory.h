// Memory of queued messages, recycled between the threads that post and the threads that run.
//
// A message is always allocated on one thread and freed on another. General allocators give such
// memory back to the heap of the first thread under that heap's lock, and in a burst the two
// threads sleep on it in turn: it was the larger part of the cost of a message. So the memory goes
// round here. Each thread keeps a few free blocks and gives or fetches them through a shared depot
// in bundles, one lock for every kBundleSize messages.
//
// What is kept is bounded: two bundles a thread, kDepotBundles in the depot; the rest goes back to
// the system. The depot is never destroyed, a thread's blocks go when it ends.
#ifndef BSP_EVENT_MESSAGE_MEMORY_H_
#define BSP_EVENT_MESSAGE_MEMORY_H_

#include <cstddef>

namespace bsp {

// Threads: any.
class MessageMemory {
 public:
  // All blocks have the size of the first one asked for. Throws std::bad_alloc.
  static void* Take(size_t size);
  static void Give(void* block);
};

}  // namespace bsp

#endif  // BSP_EVENT_MESSAGE_MEMORY_H_
