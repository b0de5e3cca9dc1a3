// Which process this is, without a system call: what a fork leaves behind is not the child's to
// use.
#ifndef BSP_BASE_PROCESS_H_
#define BSP_BASE_PROCESS_H_

#include <sys/types.h>

#include "bsp/base/macros.h"

namespace bsp {

// The pid of the calling process; follows a fork. Any thread, also right behind a fork.
BSP_EXPORT pid_t ProcessId();

// Remembers which process made an object. A forked child gets a copy of every object but only one
// of the threads: locks may be held for ever, descriptors and what the kernel keeps behind them are
// still the parent's. An object with a thread, an epoll set or a connection asks IsForeign() first,
// before it takes a lock, and then touches nothing.
//
// Threads: any.
class ProcessMark {
 public:
  ProcessMark() : pid_(ProcessId()) {}

  // True in a child of the process that made the object. Not after a vfork or a bare clone, which
  // run no fork handlers: what follows them may only exec.
  bool IsForeign() const { return pid_ != ProcessId(); }

  pid_t owner() const { return pid_; }

 private:
  const pid_t pid_;
};

// In a child: keeps its copy of an object of the parent as it is until the process ends. No
// destructor may run on one that a thread which is not there was changing, and a leak checker finds
// it here. Any thread, no lock.
BSP_EXPORT void KeepForGood(const void* copy);

}  // namespace bsp

#endif  // BSP_BASE_PROCESS_H_
