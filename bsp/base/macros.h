// Macros that every header shares: export of symbols, printf checking, the place of a call.
// Valid C11 and C++17.
#ifndef BSP_BASE_MACROS_H_
#define BSP_BASE_MACROS_H_

// Symbols are hidden unless they carry this.
#define BSP_EXPORT __attribute__((visibility("default")))

// The format is argument number `text`, the first value argument number `first` (0: a va_list),
// counted from 1; a member function counts its object as 1.
#define BSP_PRINTF(text, first) __attribute__((__format__(__printf__, text, first)))

// BSP_FILE: last component of the source path, worked out at compile time: the text behind the
// last "/", else behind the last backslash, else the whole path.
#ifdef __cplusplus

#include <cstddef>
#include <type_traits>

namespace bsp {
namespace detail {

constexpr std::size_t BaseNameOffset(const char* path) {
  std::size_t behind_slash = 0;
  std::size_t behind_backslash = 0;
  for (std::size_t i = 0; path[i] != '\0'; ++i) {
    if (path[i] == '/') behind_slash = i + 1;
    if (path[i] == '\\') behind_backslash = i + 1;
  }
  return behind_slash != 0 ? behind_slash : behind_backslash;
}

}  // namespace detail
}  // namespace bsp

#define BSP_FILE \
  (&__FILE__[std::integral_constant<std::size_t, ::bsp::detail::BaseNameOffset(__FILE__)>::value])

#else

// C has no constant expressions of this kind, but gcc and clang fold these built-ins.
#define BSP_FILE                                                               \
  (__builtin_strrchr(__FILE__, '/')    ? __builtin_strrchr(__FILE__, '/') + 1  \
   : __builtin_strrchr(__FILE__, '\\') ? __builtin_strrchr(__FILE__, '\\') + 1 \
                                       : __FILE__)

#endif  // __cplusplus

#endif  // BSP_BASE_MACROS_H_
