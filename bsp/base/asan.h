// What pools do under AddressSanitizer: recycled memory would hide every use after its release. A
// pool of our own stands aside there (kAsan), or poisons what lies in it. Internal.
#ifndef BSP_BASE_ASAN_H_
#define BSP_BASE_ASAN_H_

#include <cstddef>

#ifndef __has_feature
#define __has_feature(name) 0
#endif

#if defined(__SANITIZE_ADDRESS__) || __has_feature(address_sanitizer)
#include <sanitizer/asan_interface.h>

namespace bsp {
constexpr bool kAsan = true;
inline void Poison(const void* memory, size_t size) { __asan_poison_memory_region(memory, size); }
inline void Unpoison(const void* memory, size_t size) {
  __asan_unpoison_memory_region(memory, size);
}
}  // namespace bsp

#else

namespace bsp {
constexpr bool kAsan = false;
inline void Poison(const void*, size_t) {}
inline void Unpoison(const void*, size_t) {}
}  // namespace bsp

#endif

#endif  // BSP_BASE_ASAN_H_
