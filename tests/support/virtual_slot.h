// Where a virtual operation stands in the table of its class, which is part of the binary
// interface.
#ifndef BSP_TESTS_SUPPORT_VIRTUAL_SLOT_H_
#define BSP_TESTS_SUPPORT_VIRTUAL_SLOT_H_

#include <cstddef>
#include <cstring>

namespace test {

// Counted from 0; a destructor takes two. By the C++ ABI that gcc and clang share.
template <typename Member>
size_t VirtualSlot(Member member) {
  size_t words[2] = {};
  static_assert(sizeof member == sizeof words, "a place in the table, and a shift of the object");
  memcpy(words, &member, sizeof words);
  return words[0] / sizeof(void*);
}

}  // namespace test

#endif  // BSP_TESTS_SUPPORT_VIRTUAL_SLOT_H_
