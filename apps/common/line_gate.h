// Lets one line a second through for each reason, after a handful at first, and counts the rest.
#ifndef BSP_APPS_COMMON_LINE_GATE_H_
#define BSP_APPS_COMMON_LINE_GATE_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace app {

// The format of a line is its reason. A reason has places for kBurst lines, and gets one back a
// second: what a handful of clients does at once is told in full. A line that finds no place is
// counted, and the latest of them kept; the next place goes to a line that tells both. So a lasting
// flood gives one line a second, and every line is told or counted exactly once, in order.
//
// The table of reasons is fixed. While it is full of reasons that are not quiet, the lines of
// further ones count as one reason, so that nobody gets more through by inventing them.
//
// Threads: one at a time. Nothing is allocated.
class LineGate {
 public:
  static constexpr int kBurst = 5;
  static constexpr int64_t kRefillMs = 1000;
  static constexpr size_t kMostBytes = 1280;  // kept of a line: 1022 of text, and its place

  // What was held back of one reason.
  struct Repeat {
    int level = 0;
    size_t count = 0;       // lines, the latest one included
    bool is_mixed = false;  // of several reasons
    size_t size = 0;
    char latest[kMostBytes];
  };

  // True when the line is to be told now.
  bool Admit(const char* format, int level, std::string_view line, int64_t now_ms);

  // What is to be told by `now_ms` of the next reason that has held something back; null when there
  // is none. Good until the next call.
  const Repeat* TakeDue(int64_t now_ms);

  // When to call TakeDue next; INT64_MAX when all reasons are quiet.
  int64_t NextDueMs() const;

 private:
  // 32: the lines that one peer can provoke in a broker are about ten.
  static constexpr size_t kReasons = 32;

  struct Reason {
    uint64_t hash = 0;   // of the format
    int told = 0;        // places in use; 0: quiet, and free for another reason
    int64_t due_ms = 0;  // when the next place comes back
    Repeat held;
  };

  Reason& Find(uint64_t hash);

  std::array<Reason, kReasons + 1> reasons_;  // the last one is shared
  Repeat due_;
};

}  // namespace app

#endif  // BSP_APPS_COMMON_LINE_GATE_H_
