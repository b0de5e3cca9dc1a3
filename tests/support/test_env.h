// The private world of a test program: its own IPC, network (loopback up) and mount namespaces with
// an empty tmpfs on /mnt, so that fixed keys, ports and paths never clash with another program.
#ifndef BSP_TESTS_SUPPORT_TEST_ENV_H_
#define BSP_TESTS_SUPPORT_TEST_ENV_H_

#include <gtest/gtest.h>

#include <string>

namespace test {

// Whether a sanitizer's runtime stands in front of the C library and keeps memory of its own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = false;
#endif

// Why the program is not isolated; empty when it is.
const std::string& IsolationFailure();

// A new empty folder, removed with all content at the end of the program.
std::string MakeTempDir();

}  // namespace test

// First line of a test that uses fixed keys, port 12122, port numbers or /mnt.
#define NEED_PRIVATE_WORLD()               \
  if (!::test::IsolationFailure().empty()) \
  GTEST_SKIP() << "needs private namespaces, and the kernel refused: " << ::test::IsolationFailure()

#endif  // BSP_TESTS_SUPPORT_TEST_ENV_H_
