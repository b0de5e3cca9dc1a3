// Small shared utilities of the shared-memory containers: the log hook, magic numbers and versions
// of table heads, and the prime search that sizes hash rows.
//
// The containers know neither the library's log nor its error object. They report by boolean and
// null results, and say why through a hook that is empty until a host sets it:
//
//   shmc::impl::Utils<void>::log_level = shmc::kLogInfo;
//   shmc::impl::Utils<void>::log_func = [](shmc::LogLevel level, const char* text) {
//     fprintf(stderr, "shmc %d: %s", level, text);  // the text ends with a line feed
//   };
#ifndef BSP_SHMC_UTILS_H_
#define BSP_SHMC_UTILS_H_

#include <cstddef>
#include <cstdint>
#include <functional>

#include "bsp/base/macros.h"

namespace shmc {

// Graver is smaller.
enum LogLevel { kLogError = 1, kLogWarning = 2, kLogInfo = 3, kLogDebug = 4 };

// Create flags of InitForWrite, a bit set.
enum CreateFlags {
  kCreateIfMissing = 1,        // a segment that does not exist is created
  kRecreateIfSizeMismatch = 2  // one that exists with too small a size is removed and created anew
};

namespace impl {

template <typename T>
class Utils;

// Threads: any, once the three statics are set; set them before other threads use the containers.
template <>
class BSP_EXPORT Utils<void> {
 public:
  static int32_t create_flags;  // what the tables create their segments with; kCreateIfMissing
  static int32_t log_level;     // highest level that reaches log_func; 0: none
  // Empty: nothing is reported. Never destroyed: threads may still report at exit.
  static std::function<void(LogLevel, const char*)>& log_func;

  // Hands the text, cut at 4095 bytes, to log_func when `level` is at most log_level. Keeps errno.
  static void Log(LogLevel level, const char* fmt, ...) BSP_PRINTF(2, 3);

  // Text of the present errno; valid until the next call on this thread.
  static const char* Perror();

  static int32_t DefaultCreateFlags() { return create_flags; }

  // The first 8 bytes of `text` as they lie in memory, zeros behind a shorter text.
  static constexpr uint64_t GenMagic(const char* text) {
    uint64_t magic = 0;
    for (unsigned i = 0; i < 8 && text[i] != '\0'; ++i) {
      magic |= static_cast<uint64_t>(static_cast<unsigned char>(text[i])) << (8 * i);
    }
    return magic;
  }

  static constexpr uint32_t MakeVer(uint32_t major, uint32_t minor) {
    return (major << 16) + (minor & 0xffff);
  }
  static constexpr uint32_t MajorVer(uint32_t ver) { return ver >> 16; }

  // The least multiple of `align` that is not below `value`.
  template <typename T>
  static constexpr T RoundAlign(T value, T align) {
    return static_cast<T>((value + align - 1) / align * align);
  }

  // Stores the `n` largest primes not above `number`, largest first; 1 counts as prime here.
  // False when there are fewer; the rest of `primes` is then untouched. Fast below 2^32: a search
  // costs at most some hundred trial divisions by the numbers up to the square root.
  static bool GetPrimeArray(size_t number, size_t n, size_t* primes);

  // Whether `holds`; if not, reports `message`, which formats the value that was found instead.
  template <typename Found>
  static bool Check(bool holds, const char* message, Found found) {
    if (!holds) Log(kLogError, message, found);
    return holds;
  }
};

}  // namespace impl
}  // namespace shmc

#endif  // BSP_SHMC_UTILS_H_
