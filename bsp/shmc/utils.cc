#include "bsp/shmc/utils.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace shmc {
namespace impl {

int32_t Utils<void>::create_flags = kCreateIfMissing;
int32_t Utils<void>::log_level = 0;

namespace {

// Nobody runs the destructor of a member.
union NeverDestroyed {
  NeverDestroyed() : func() {}
  ~NeverDestroyed() {}  // NOLINT(modernize-use-equals-default): that one would be deleted
  std::function<void(LogLevel, const char*)> func;
} g_hook;

}  // namespace

std::function<void(LogLevel, const char*)>& Utils<void>::log_func = g_hook.func;

void Utils<void>::Log(LogLevel level, const char* fmt, ...) {
  if (level > log_level || !log_func) return;
  const int saved = errno;  // callers report first and pass errno on afterwards
  char text[4096];
  va_list args;
  va_start(args, fmt);
  const int length = vsnprintf(text, sizeof text, fmt, args);
  va_end(args);
  if (length >= 0) log_func(level, text);
  errno = saved;
}

const char* Utils<void>::Perror() {
  thread_local char buffer[128];
  memset(buffer, 0, sizeof buffer);
  // The GNU form: the text may stand in the buffer or be a constant of libc.
  const char* text = strerror_r(errno, buffer, sizeof buffer);
  const auto failed = reinterpret_cast<const char*>(static_cast<intptr_t>(-1));
  return text == nullptr || text == failed ? buffer : text;
}

namespace {

// 1 has no divisor and counts as prime, so that a search that starts above 0 always ends well.
bool IsPrime(size_t number) {
  if (number < 4) return number != 0;
  if (number % 2 == 0 || number % 3 == 0) return false;
  // All other primes are 6k - 1 or 6k + 1. Division instead of a square: no overflow.
  for (size_t i = 5; i <= number / i; i += 6) {
    if (number % i == 0 || number % (i + 2) == 0) return false;
  }
  return true;
}

}  // namespace

bool Utils<void>::GetPrimeArray(size_t number, size_t n, size_t* primes) {
  size_t found = 0;
  for (; number > 0 && found < n; --number) {
    if (IsPrime(number)) primes[found++] = number;
  }
  return found == n;
}

}  // namespace impl
}  // namespace shmc
