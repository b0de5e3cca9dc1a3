// How bytes of a shared segment are read and written.
//
// Another process may write any byte at any moment. So fields are read and written by atomic
// accesses: the compiler neither splits, repeats nor invents one. All are relaxed; order comes from
// the two fences and from the accesses of link_buf_t. Fences, and not acquiring loads, since a node
// may start at any address and an acquiring load of a misaligned word faults on aarch64.
//
// The bytes of a string need less. A copy that was torn is thrown away by the reader's final check,
// so that nothing depends on how many bytes one access moves; it only must not move over a fence.
// No atomic is wider than 8 bytes, and copying 1 KiB in words of 8 costs half as much again as
// memcpy. Hence accesses of 16 bytes, volatile so that they are made as written; the fences, which
// hold back all accesses, volatile or not, order them. memcpy itself would serve between two
// fences, but leaves the accesses to the library.
#ifndef BSP_SHMC_SHM_ACCESS_H_
#define BSP_SHMC_SHM_ACCESS_H_

#include <cstddef>
#include <cstdint>

namespace shmc {
namespace impl {

// A naturally aligned field.
template <typename T>
T Load(const volatile T* field) {
  return __atomic_load_n(field, __ATOMIC_RELAXED);
}

template <typename T, typename V>
void Store(volatile T* field, V value) {
  __atomic_store_n(field, static_cast<T>(value), __ATOMIC_RELAXED);
}

#if defined(__SANITIZE_THREAD__) && !defined(__clang__)
// ThreadSanitizer does not model fences, and says so; nor does it need them to see that all
// accesses are atomic.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wtsan"
#endif

// All loads before stay before all loads and stores after. Partner: ReleaseFence of the writer.
inline void AcquireFence() { __atomic_thread_fence(__ATOMIC_ACQUIRE); }

// All loads and stores before stay before all stores after. Partner: AcquireFence of a reader.
inline void ReleaseFence() { __atomic_thread_fence(__ATOMIC_RELEASE); }

#if defined(__SANITIZE_THREAD__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

inline bool IsAligned(const void* at, size_t size) {
  return reinterpret_cast<uintptr_t>(at) % size == 0;
}

#if defined(__SANITIZE_THREAD__)

// Byte by byte, so that ThreadSanitizer sees atomic accesses only.
inline void Copy(void* to, const void* from, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    Store(static_cast<uint8_t*>(to) + i, Load(static_cast<const uint8_t*>(from) + i));
  }
}

#else

// One access of 16, 8 or 4 bytes at any address.
using Bytes16 __attribute__((vector_size(16), aligned(1), may_alias)) = unsigned char;
using Bytes8 __attribute__((aligned(1), may_alias)) = uint64_t;
using Bytes4 __attribute__((aligned(1), may_alias)) = uint32_t;

inline void Move16(char* to, const char* from) {
  *reinterpret_cast<volatile Bytes16*>(to) = *reinterpret_cast<const volatile Bytes16*>(from);
}
inline void Move8(char* to, const char* from) {
  *reinterpret_cast<volatile Bytes8*>(to) = *reinterpret_cast<const volatile Bytes8*>(from);
}
inline void Move4(char* to, const char* from) {
  *reinterpret_cast<volatile Bytes4*>(to) = *reinterpret_cast<const volatile Bytes4*>(from);
}

inline void Copy(void* to, const void* from, size_t n) {
  auto* out = static_cast<char*>(to);
  const auto* in = static_cast<const char*>(from);
  for (; n >= 64; n -= 64, out += 64, in += 64) {
    Move16(out, in);
    Move16(out + 16, in + 16);
    Move16(out + 32, in + 32);
    Move16(out + 48, in + 48);
  }
  for (; n >= 16; n -= 16, out += 16, in += 16) Move16(out, in);
  if (n >= 8) {
    Move8(out, in);
    n -= 8, out += 8, in += 8;
  }
  if (n >= 4) {
    Move4(out, in);
    n -= 4, out += 4, in += 4;
  }
  for (; n > 0; --n) Store(out++, Load(in++));
}

#endif

// Whether `n` shared bytes are all zero.
inline bool IsZero(const void* shared, size_t n) {
  const auto* const bytes = static_cast<const uint8_t*>(shared);
  for (size_t i = 0; i < n; ++i) {
    if (Load(bytes + i) != 0) return false;
  }
  return true;
}

// Copies `n` shared bytes at any address to private memory.
inline void CopyOut(void* to, const void* shared, size_t n) { Copy(to, shared, n); }

// Copies `n` private bytes into shared memory at any address.
inline void CopyIn(void* shared, const void* from, size_t n) { Copy(shared, from, n); }

// A 32-bit word at any address: one access where it is aligned, else byte by byte. A reader may see
// a misaligned word half written; what it takes from there it must not trust before its final
// check.
inline uint32_t LoadWord(const void* at) {
  if (IsAligned(at, 4)) return Load(static_cast<const uint32_t*>(at));
  uint32_t word = 0;
  CopyOut(&word, at, sizeof word);
  return word;
}

inline void StoreWord(void* at, uint32_t word) {
  if (IsAligned(at, 4)) return Store(static_cast<uint32_t*>(at), word);
  CopyIn(at, &word, sizeof word);
}

}  // namespace impl
}  // namespace shmc

#endif  // BSP_SHMC_SHM_ACCESS_H_
