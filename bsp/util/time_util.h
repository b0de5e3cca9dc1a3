// Clocks and time texts.
#ifndef BSP_UTIL_TIME_UTIL_H_
#define BSP_UTIL_TIME_UTIL_H_

#include <cstdint>
#include <ctime>

#include "bsp/base/macros.h"

namespace bsp {

// Two time bases stand strictly apart: Time* is CLOCK_REALTIME, for people; Clock* is
// CLOCK_MONOTONIC_RAW, for delays, deadlines and frame timestamps, which no setting of the wall
// clock may move.
//
// Threads: any.
class BSP_EXPORT TimeUtil {
 public:
  static int64_t TimeMillis();
  static int64_t TimeSecond();
  static int64_t ClockMillis();
  static int64_t ClockSecond();

  // Fills `out` with the local time of `seconds` since the epoch; 0 means now. The result of
  // localtime_r.
  static struct tm* LocalTime(struct tm* out, int64_t seconds);

  // Now in local time, "2026-11-18 15:55:47.042" or without the milliseconds. The text lies in a
  // buffer of the calling thread, good until that thread's next call of the same operation.
  static const char* TimeMillisStr();
  static const char* TimeSecondStr();

  // Suspends the calling thread, for the whole time whatever signals come.
  static void SleepMs(unsigned int milliseconds);
};

}  // namespace bsp

#endif  // BSP_UTIL_TIME_UTIL_H_
