// Formatting, splitting, bounded copy, prefix compare, number parsing.
#ifndef BSP_UTIL_STRING_HELPER_H_
#define BSP_UTIL_STRING_HELPER_H_

#include <string>
#include <vector>

#include "bsp/base/macros.h"

namespace bsp {

// Threads: any.
class BSP_EXPORT StringHelper {
 public:
  // printf into a string of any length; empty when the formatter fails.
  static std::string Format(const char* fmt, ...) BSP_PRINTF(1, 2);

  // The pieces between the delimiters, empty ones included. An empty text or delimiter gives none.
  static std::vector<std::string> Split(const std::string& text, const std::string& delimiter);

  // Copies what fits, cut at dst_size - 1, and terminates it; returns the characters copied. 0,
  // with dst untouched, for a null pointer, a size of 0 or an empty source.
  static unsigned long Copy(char* dst, unsigned long dst_size, const char* src);

  // memcmp over the smaller length, so that a prefix compares equal: a fixed-width field is
  // compared with a text by the width of the one and the length of the other. -1 for a null pointer
  // or a length of 0 or below.
  static int Compare(const char* a, int a_length, const char* b, int b_length);

  // Decimal digits only, no sign. Anything else, an empty text, or a number that does not fit gives
  // the default.
  static int ToInt32(const std::string& text, int default_value);
  static long ToInt64(const std::string& text, long default_value);
};

}  // namespace bsp

#endif  // BSP_UTIL_STRING_HELPER_H_
