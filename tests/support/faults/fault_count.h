// The file of counts that the preloaded library keeps and a test reads.
#ifndef BSP_TESTS_SUPPORT_FAULTS_FAULT_COUNT_H_
#define BSP_TESTS_SUPPORT_FAULTS_FAULT_COUNT_H_

#include <cstdint>

namespace test {

// One call in the file of counts, of all processes that write to it.
struct FaultCount {
  char name[16];  // zero-terminated
  uint64_t seen;
  uint64_t failed;
};
static_assert(sizeof(FaultCount) == 32, "records of one file");

}  // namespace test

#endif  // BSP_TESTS_SUPPORT_FAULTS_FAULT_COUNT_H_
