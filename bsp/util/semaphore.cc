#include "bsp/util/semaphore.h"

#include <cerrno>
#include <ctime>
#include <limits>

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

}  // namespace

// The POSIX condition variable instead of the standard class: that one reports a time-out whenever
// the deadline has passed by the time it looks, and so would leave a count behind that came in time
// for a thread that was merely scheduled late.
Semaphore::Semaphore(int count) : count_(count) {
  pthread_condattr_t monotonic;
  pthread_condattr_init(&monotonic);
  pthread_condattr_setclock(&monotonic, CLOCK_MONOTONIC);
  pthread_cond_init(&is_signalled_, &monotonic);
  pthread_condattr_destroy(&monotonic);
}

Semaphore::~Semaphore() { pthread_cond_destroy(&is_signalled_); }

bool Semaphore::Wait(int timeout_ms) { return WaitNanos(timeout_ms * kNanosPerMilli); }

bool Semaphore::WaitNanos(int64_t timeout_ns) {
  const std::lock_guard<std::mutex> lock(mutex_);
  while (count_ <= 0) {
    if (timeout_ns <= 0) return false;
    const struct timespec deadline = DeadlineIn(timeout_ns);
    const int result = pthread_cond_timedwait(&is_signalled_, mutex_.native_handle(), &deadline);
    if (result == ETIMEDOUT) return false;
  }
  --count_;
  return true;
}

void Semaphore::Signal() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (count_ < std::numeric_limits<int32_t>::max()) ++count_;
  pthread_cond_signal(&is_signalled_);
}

std::shared_ptr<SemaphorePool> SemaphorePool::Instance() {
  // Held by a plain pointer that nobody deletes: it outlives every static.
  static const auto* const pool = new std::shared_ptr<SemaphorePool>(new SemaphorePool);
  return *pool;
}

std::shared_ptr<Semaphore> SemaphorePool::Get() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
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
  const std::lock_guard<std::mutex> lock(mutex_);
  if (spare_.empty()) {
    free_.push_back(sem);
    return;
  }
  spare_.front() = sem;
  free_.splice(free_.end(), spare_, spare_.begin());
}

}  // namespace bsp
