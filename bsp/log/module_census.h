// The semaphore set beside the status block: who registers, and which modules live.
//
// The block itself has room for neither. A set of 34 semaphores under the block's own System V key:
//
//   0       the lock of registrations: 0 free, 1 held
//   1       the gate: the lock can be taken only while it is 0; we never change it, so that a
//           maintainer can hold all registrations off from outside
//   2 + i   the processes that live and hold record i
//
// The kernel takes back what a process has added when it ends, however it ends (SEM_UNDO): a lock
// is never left behind, and a record that was held and is not any more belongs to a dead module. A
// new set is all zero, which is what it has to be, so nobody initialises it.
//
// Rejected: a pid in the block, which may live again as another process, and means nothing to a
// process of another pid namespace; a file lock, for want of a place that every device has.
#ifndef BSP_LOG_MODULE_CENSUS_H_
#define BSP_LOG_MODULE_CENSUS_H_

#include "bsp/base/macros.h"

namespace bsp {

// Holds off all other registrations, in any process, for its scope. The wait for them is bounded,
// since a stopped process may hold the lock, and the set may not be had at all: then the scope runs
// unlocked, and one name may take two records.
class RegistrationLock {
 public:
  RegistrationLock();
  ~RegistrationLock();
  RegistrationLock(const RegistrationLock&) = delete;
  RegistrationLock& operator=(const RegistrationLock&) = delete;

 private:
  bool is_locked_;
};

// This process holds the record `index`, 0 to 31, or does so no more. Each hold is given back once.
void HoldModule(int index);
void ReleaseModule(int index);

// Nobody holds the record any more.
void ForgetHolders(int index);

// How many processes hold the record; -1 when that is unknown, as without a set.
BSP_EXPORT int CountHolders(int index);

}  // namespace bsp

#endif  // BSP_LOG_MODULE_CENSUS_H_
