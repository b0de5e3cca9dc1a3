// Counting semaphore with a bounded wait, and a process-wide store of semaphores for calls that
// need one for a moment.
#ifndef BSP_UTIL_SEMAPHORE_H_
#define BSP_UTIL_SEMAPHORE_H_

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>

#include "bsp/base/macros.h"
#include "bsp/base/pi_mutex.h"

namespace bsp {

// Threads: any, of whatever priorities: there is no lock inside that a waiter could find held. Who
// has got the last count may destroy the object at once, also while the Signal that gave it has not
// returned yet. There is no wait without a limit.
class BSP_EXPORT Semaphore {
 public:
  explicit Semaphore(int count = 0);
  Semaphore(const Semaphore&) = delete;
  Semaphore& operator=(const Semaphore&) = delete;

  // Takes one from the count, waiting for it if need be. False when `timeout_ms` passed without;
  // at once when it is 0 or below. The time is measured on the monotonic clock and starts anew when
  // another thread snatches the count that woke this one.
  bool Wait(int timeout_ms);

  // The same with the finer unit of a timer.
  bool WaitNanos(int64_t timeout_ns);

  // Adds one to the count and wakes one waiter. Signals without a waiter add up.
  void Signal();

 private:
  // Takes one from the count, and the caller from the waiters if it is one of them.
  bool TryTake(bool is_waiter);

  // The count in the lower half, as a signed number; in the upper one, the threads that wait.
  std::atomic<uint64_t> state_;
};

// Free list of semaphores: what a call in flight borrows instead of building a mutex and a
// condition variable. Holds at most as many as were ever out at the same time, until the process
// ends.
//
// Threads: any.
class BSP_EXPORT SemaphorePool {
 public:
  // The one pool of the process. Never destroyed, so that also the destructors of static objects
  // may use it.
  static std::shared_ptr<SemaphorePool> Instance();

  // The semaphore that has lain here longest, or a new one with count 0. It has the count that it
  // was put back with.
  std::shared_ptr<Semaphore> Get();

  // Gives one back; null is ignored. Who signals it now, or left it a count, speaks to the next
  // borrower: the caller drains it first.
  void Put(const std::shared_ptr<Semaphore>& sem);

 private:
  SemaphorePool() = default;

  PiMutex mutex_;  // guards the fields below
  std::list<std::shared_ptr<Semaphore>> free_;
  std::list<std::shared_ptr<Semaphore>> spare_;  // empty nodes, so that lending allocates nothing
};

}  // namespace bsp

#endif  // BSP_UTIL_SEMAPHORE_H_
