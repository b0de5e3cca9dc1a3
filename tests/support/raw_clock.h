// The raw monotonic clock, set by the test, for the program and the library under test alike: no
// test waits a minute. In one source file of a program.
#ifndef BSP_TESTS_SUPPORT_RAW_CLOCK_H_
#define BSP_TESTS_SUPPORT_RAW_CLOCK_H_

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <utility>

namespace test {

// Added to its seconds. At kFrozen the clock stands there.
inline std::atomic<time_t> g_clock_shift{0};
constexpr time_t kFrozen = 1000000;

// While it exists, the clock stands but for what the test adds.
struct FrozenClock {
  FrozenClock() { g_clock_shift = kFrozen; }
  ~FrozenClock() { g_clock_shift = 0; }
};

// Called at each look at that clock by this thread: a place to interfere in the midst of an
// operation. Off while it runs.
inline thread_local std::function<void()> g_on_clock;

inline void CallOnClock() {
  const std::function<void()> call = std::exchange(g_on_clock, nullptr);
  if (!call) return;
  call();
  if (!g_on_clock) g_on_clock = call;
}

}  // namespace test

// In front of the C library's.
extern "C" int clock_gettime(clockid_t clock, struct timespec* now) noexcept {
  const int result = static_cast<int>(syscall(SYS_clock_gettime, clock, now));
  const time_t shift = test::g_clock_shift;
  if (clock != CLOCK_MONOTONIC_RAW) return result;
  now->tv_sec = shift < test::kFrozen ? now->tv_sec + shift : shift;
  test::CallOnClock();
  return result;
}

#endif  // BSP_TESTS_SUPPORT_RAW_CLOCK_H_
