// A count and the number of its waiters in one word, over a futex.
//
// A mutex and a condition variable would do, and did. But the waiter is mostly a thread of
// real-time priority, which a signal switches in at once, only to find the mutex still held by the
// thread that signalled it: two more switches for each hand-over, and with a third thread of middle
// priority a wait without an end. Here nothing is held.
//
// Both numbers stand in one word because a waiter may destroy the object as soon as it has its
// count: a Signal learns by the same access that gives the count whether somebody waits, and
// afterwards hands the bare address to the kernel, which at worst wakes a stranger for nothing.
#include "bsp/util/semaphore.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <ctime>
#include <mutex>
#include <utility>

namespace bsp {
namespace {

constexpr int64_t kNanosPerMilli = 1000000;
constexpr int64_t kNanosPerSecond = 1000000000;

struct timespec DeadlineIn(int64_t timeout_ns) {
  struct timespec deadline = {};
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += static_cast<time_t>(timeout_ns / kNanosPerSecond);
  deadline.tv_nsec += static_cast<long>(timeout_ns % kNanosPerSecond);
  if (deadline.tv_nsec >= kNanosPerSecond) {
    deadline.tv_nsec -= static_cast<long>(kNanosPerSecond);
    ++deadline.tv_sec;
  }
  return deadline;
}

constexpr uint64_t kOneWaiter = uint64_t{1} << 32;

int32_t CountOf(uint64_t state) { return static_cast<int32_t>(static_cast<uint32_t>(state)); }

uint64_t WithCount(uint64_t state, int32_t count) {
  return (state & ~(kOneWaiter - 1)) | static_cast<uint32_t>(count);
}

// What the kernel looks at.
uint32_t* CountWord(std::atomic<uint64_t>* state) {
  static_assert(sizeof *state == sizeof(uint64_t) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
                "the count is the first half of the word");
  return reinterpret_cast<uint32_t*>(state);
}

// Where the time of this build has 64 bits and a long has not, the call that takes it so.
#ifdef SYS_futex_time64
constexpr long kFutex = sizeof(time_t) > sizeof(long) ? SYS_futex_time64 : SYS_futex;
#else
constexpr long kFutex = SYS_futex;
#endif

// Sleeps while the count is `count`, until a wake or the deadline. False at the deadline.
bool Sleep(uint32_t* word, int32_t count, const struct timespec& deadline) {
  for (;;) {
    const long result = syscall(kFutex, word, FUTEX_WAIT_BITSET_PRIVATE, count, &deadline, nullptr,
                                FUTEX_BITSET_MATCH_ANY);
    if (result == 0 || errno == EAGAIN) return true;
    if (errno != EINTR) return false;
  }
}

}  // namespace

Semaphore::Semaphore(int count) : state_(static_cast<uint32_t>(count)) {}

bool Semaphore::Wait(int timeout_ms) { return WaitNanos(timeout_ms * kNanosPerMilli); }

bool Semaphore::WaitNanos(int64_t timeout_ns) {
  if (TryTake(false)) return true;
  if (timeout_ns <= 0) return false;
  state_.fetch_add(kOneWaiter, std::memory_order_relaxed);
  while (!TryTake(true)) {
    const int32_t count = CountOf(state_.load(std::memory_order_relaxed));
    if (count > 0) continue;  // came this moment
    if (Sleep(CountWord(&state_), count, DeadlineIn(timeout_ns))) continue;
    state_.fetch_sub(kOneWaiter, std::memory_order_relaxed);
    return false;
  }
  return true;
}

bool Semaphore::TryTake(bool is_waiter) {
  uint64_t state = state_.load(std::memory_order_relaxed);
  while (CountOf(state) > 0) {
    const uint64_t taken = WithCount(state, CountOf(state) - 1) - (is_waiter ? kOneWaiter : 0);
    // The acquire pairs with the release in Signal.
    if (state_.compare_exchange_weak(state, taken, std::memory_order_acquire,
                                     std::memory_order_relaxed)) {
      return true;
    }
  }
  return false;
}

void Semaphore::Signal() {
  uint32_t* const word = CountWord(&state_);
  uint64_t state = state_.load(std::memory_order_relaxed);
  do {
    if (CountOf(state) == INT32_MAX) return;
    // After the exchange the object may be gone.
  } while (!state_.compare_exchange_weak(state, WithCount(state, CountOf(state) + 1),
                                         std::memory_order_release, std::memory_order_relaxed));
  if (state >= kOneWaiter) syscall(kFutex, word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

std::shared_ptr<SemaphorePool> SemaphorePool::Instance() {
  // Held by a plain pointer that nobody deletes: it outlives every static.
  static const auto* const pool = new std::shared_ptr<SemaphorePool>(new SemaphorePool);
  return *pool;
}

std::shared_ptr<Semaphore> SemaphorePool::Get() {
  {
    const std::lock_guard<PiMutex> lock(mutex_);
    if (!free_.empty()) {
      std::shared_ptr<Semaphore> sem = std::move(free_.front());
      spare_.splice(spare_.begin(), free_, free_.begin());
      return sem;
    }
  }
  return std::make_shared<Semaphore>();
}

void SemaphorePool::Put(const std::shared_ptr<Semaphore>& sem) {
  if (!sem) return;
  const std::lock_guard<PiMutex> lock(mutex_);
  if (spare_.empty()) {
    free_.push_back(sem);
    return;
  }
  spare_.front() = sem;
  free_.splice(free_.end(), spare_, spare_.begin());
}

}  // namespace bsp
