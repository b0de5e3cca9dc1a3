// Programs whose calls fail where a test says so (faults/faults.cc), and how often they did.
#ifndef BSP_TESTS_SUPPORT_FAULTS_H_
#define BSP_TESTS_SUPPORT_FAULTS_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/faults/fault_count.h"
#include "tests/support/test_env.h"

namespace test {

// Threads: one at a time.
class Faults {
 public:
  // `rules` as in BSP_FAULTS. A gated set counts only after Begin.
  enum class From { kStart, kBegin };
  explicit Faults(const std::string& rules, From from = From::kBegin)
      : dir_(MakeTempDir()), words_({"/usr/bin/env", "BSP_FAULTS=" + rules}) {
    words_.push_back("BSP_FAULTS_COUNT=" + dir_ + "/count");
    if (from == From::kBegin) words_.push_back("BSP_FAULTS_GATE=" + dir_ + "/gate");
    words_.push_back("LD_PRELOAD=" BSP_TEST_FAULTS);
  }

  // What stands in front of the words of the program.
  const std::vector<std::string>& words() const { return words_; }

  void Begin() const { std::ofstream{dir_ + "/gate"}; }

  // Of a call since counting began.
  uint64_t Seen(const std::string& call) const { return Read(call).seen; }
  uint64_t Failed(const std::string& call) const { return Read(call).failed; }

 private:
  FaultCount Read(const std::string& call) const {
    FaultCount count;
    std::ifstream file(dir_ + "/count", std::ios::binary);
    while (file.read(reinterpret_cast<char*>(&count), sizeof count)) {
      if (call == count.name) return count;
    }
    ADD_FAILURE() << "no count of " << call << ": the program was not started, or not preloaded";
    return FaultCount();
  }

  std::string dir_;
  std::vector<std::string> words_;
};

}  // namespace test

// First line of a test that makes calls fail.
#define NEED_FAULTS()       \
  NEED_PRIVATE_WORLD();     \
  if (::test::kIsSanitized) \
  GTEST_SKIP() << "the sanitizer's runtime must be the first library to be loaded"

#endif  // BSP_TESTS_SUPPORT_FAULTS_H_
