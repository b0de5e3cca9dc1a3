#include "bsp/util/time_util.h"

#include <pthread.h>

#include <cerrno>
#include <cstdio>
#include <mutex>

namespace bsp {
namespace {

constexpr int64_t kNanosPerMilli = 1000000;
constexpr int64_t kNanosPerSecond = 1000000000;
constexpr size_t kTextSize = 64;

int64_t Nanos(clockid_t clock) {
  struct timespec now = {};
  clock_gettime(clock, &now);
  return static_cast<int64_t>(now.tv_sec) * kNanosPerSecond + now.tv_nsec;
}

// The C library reads the time zone under a lock of its own that a fork does not wait for: a child
// forked while another thread was in there would wait for it for ever at its first log line. So
// nobody is in there when one forks.
std::mutex g_zone_mutex;
const int g_fork_handlers = pthread_atfork(
    [] { g_zone_mutex.lock(); }, [] { g_zone_mutex.unlock(); }, [] { g_zone_mutex.unlock(); });

}  // namespace

int64_t TimeUtil::TimeMillis() { return Nanos(CLOCK_REALTIME) / kNanosPerMilli; }
int64_t TimeUtil::TimeSecond() { return Nanos(CLOCK_REALTIME) / kNanosPerSecond; }
int64_t TimeUtil::ClockMillis() { return Nanos(CLOCK_MONOTONIC_RAW) / kNanosPerMilli; }
int64_t TimeUtil::ClockSecond() { return Nanos(CLOCK_MONOTONIC_RAW) / kNanosPerSecond; }

struct tm* TimeUtil::LocalTime(struct tm* out, int64_t seconds) {
  if (out == nullptr) return nullptr;
  const auto when = static_cast<time_t>(seconds != 0 ? seconds : TimeMillis() / 1000);
  const std::lock_guard<std::mutex> lock(g_zone_mutex);
  return localtime_r(&when, out);
}

const char* TimeUtil::TimeMillisStr() {
  static thread_local char text[kTextSize];
  const int64_t now = TimeMillis();
  struct tm local = {};
  LocalTime(&local, now / 1000);
  snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03d", local.tm_year + 1900,
           local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
           static_cast<int>(now % 1000));
  return text;
}

const char* TimeUtil::TimeSecondStr() {
  static thread_local char text[kTextSize];
  struct tm local = {};
  LocalTime(&local, TimeSecond());
  snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d", local.tm_year + 1900,
           local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
  return text;
}

void TimeUtil::SleepMs(unsigned int milliseconds) {
  struct timespec left = {
      static_cast<time_t>(milliseconds / 1000),
      static_cast<long>(milliseconds % 1000) * static_cast<long>(kNanosPerMilli)};
  while (nanosleep(&left, &left) == -1 && errno == EINTR) {
  }
}

}  // namespace bsp
