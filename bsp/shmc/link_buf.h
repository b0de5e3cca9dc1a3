// The name of a string in a ShmLinkTable.
#ifndef BSP_SHMC_LINK_BUF_H_
#define BSP_SHMC_LINK_BUF_H_

#include <cstdint>

#include "bsp/shmc/shm_access.h"

namespace shmc {

// Name of a stored string: index of its first node, and its tag without bit 31. (0, 0): none.
// Eight bytes, head first; one 64-bit access whenever it lies in shared memory.
class link_buf_t {
 public:
  link_buf_t() = default;
  link_buf_t(uint32_t head, uint32_t tag) : word_(static_cast<uint64_t>(tag) << 32 | head) {}
  link_buf_t(const link_buf_t&) = default;
  link_buf_t& operator=(const link_buf_t&) = default;

  // From shared memory. The acquiring load pairs with the releasing store below: who sees a
  // link_buf_t sees the string behind it.
  link_buf_t(const volatile link_buf_t& shared)
      : word_(__atomic_load_n(&shared.word_, __ATOMIC_ACQUIRE)) {}
  link_buf_t& operator=(const volatile link_buf_t& shared) {
    word_ = __atomic_load_n(&shared.word_, __ATOMIC_ACQUIRE);
    return *this;
  }

  // Into shared memory.
  void operator=(const link_buf_t& other) volatile {
    __atomic_store_n(&word_, other.word_, __ATOMIC_RELEASE);
  }
  void clear() volatile { __atomic_store_n(&word_, 0, __ATOMIC_RELEASE); }

  void clear() { word_ = 0; }
  uint32_t head() const { return static_cast<uint32_t>(word_); }
  uint32_t tag() const { return static_cast<uint32_t>(word_ >> 32); }
  explicit operator bool() const { return word_ != 0; }
  explicit operator bool() const volatile { return impl::Load(&word_) != 0; }

  // By value, so that a shared operand is loaded once.
  friend bool operator==(link_buf_t a, link_buf_t b) { return a.word_ == b.word_; }
  friend bool operator!=(link_buf_t a, link_buf_t b) { return a.word_ != b.word_; }

 private:
  alignas(8) uint64_t word_ = 0;  // little-endian: the head lies at offset 0
};
static_assert(sizeof(link_buf_t) == 8 && alignof(link_buf_t) == 8, "one 64-bit word");

}  // namespace shmc

#endif  // BSP_SHMC_LINK_BUF_H_
