// A lock between processes that goes with a shared-memory segment.
#ifndef BSP_SHMC_SVIPC_MUTEX_H_
#define BSP_SHMC_SVIPC_MUTEX_H_

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "bsp/base/macros.h"

namespace shmc {
namespace impl {

// Lock on a System V semaphore set: shared by all processes that open it under the name of one
// segment, free when nobody is inside, given back by the kernel when its holder dies.
//
// Threads: Lock and UnLock any; Open before them. Not recursive.
class BSP_EXPORT SVIPCMutex {
 public:
  // Until Open, the mutex works on the set that has the id 0 on this machine.
  SVIPCMutex() = default;

  // Finds the set of the segment `segment_name` (a number as strtol with base 0 reads it), or
  // creates it, free. False, with errno saying why, when the set cannot be had; Lock and UnLock
  // then return -1 until an Open succeeds.
  bool Open(const std::string& segment_name);

  // Waits without a bound until the lock is free, and takes it. 0, or -1 with errno; the lock is
  // not held then.
  int Lock() const;

  // The same, at most for so long; -1 with EAGAIN after that. The kernel takes the lock back from
  // a process that ends, but not from one that calls exec while one of its threads is inside: the
  // new program then holds it for all its life.
  int LockFor(int timeout_ms) const;

  // The process that holds the lock, 0 when it is free or its holder cannot be seen from here.
  pid_t Holder() const;

  // Gives the lock back. Only its holder may call this: on a free lock it waits until somebody
  // takes it. 0, or -1 with errno.
  int UnLock() const;

 private:
  int32_t sem_id_ = 0;
};

// Holds the lock for its scope. When the lock could not be taken the scope runs unlocked, and
// nothing is unlocked at its end.
class BSP_EXPORT SVIPCGuard {
 public:
  // `mutex` must outlive the guard.
  explicit SVIPCGuard(SVIPCMutex* mutex) : mutex_(mutex), is_locked_(mutex->Lock() == 0) {}
  // With LockFor.
  SVIPCGuard(SVIPCMutex* mutex, int timeout_ms)
      : mutex_(mutex), is_locked_(mutex->LockFor(timeout_ms) == 0) {}
  ~SVIPCGuard() {
    // Fails only when the set was removed meanwhile; there is nothing to give back then.
    if (is_locked_) mutex_->UnLock();
  }
  SVIPCGuard(const SVIPCGuard&) = delete;
  SVIPCGuard& operator=(const SVIPCGuard&) = delete;

  bool is_locked() const { return is_locked_; }

 private:
  SVIPCMutex* const mutex_;
  const bool is_locked_;
};

}  // namespace impl
}  // namespace shmc

#endif  // BSP_SHMC_SVIPC_MUTEX_H_
