// When the log server may judge its modules, and what of its verdicts has been told.
#ifndef BSP_LOG_WATCHDOG_PASS_H_
#define BSP_LOG_WATCHDOG_PASS_H_

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "bsp/base/macros.h"
#include "bsp/log/sys_wdg.h"

namespace bsp {

// The rhythm of the passes and their verdicts. A verdict costs the device a reset, so a fair one is
// given only on evidence: not by a pass that itself comes late, when feeds may wait unread and the
// modules may have stood still with the server; and not while feeds may have been lost inside the
// module's own window. Both are bounded, so that neither a slow server nor a flood hides a dead
// module for good: the next pass judges, and a module is spared for one more of its time-outs.
//
// Times are ClockSecond. Threads: one at a time.
class BSP_EXPORT WatchdogPass {
 public:
  // Not fair: every pass judges, and spares nobody.
  explicit WatchdogPass(bool is_fair) : is_fair_(is_fair) {}

  // The loop begins: the next pass is due from here.
  void Begin(int64_t now);

  bool IsDue(int64_t now) const { return now - time_ > kWdgPassSeconds; }

  // A pass begins. False when it must judge nobody.
  bool Enter(int64_t now);

  // Datagrams that may have been feeds have been lost since the last look.
  void NoteLostFeeds(int64_t now) { lost_time_ = now; }

  // Takes out of *late whose feeds may have been lost; gives those of them that were not spared
  // before.
  std::vector<LateModule> Spare(std::vector<LateModule>* late, int64_t now);

  // Those of `late` that were not late at the last call.
  std::vector<LateModule> TakeNew(const std::vector<LateModule>& late);

 private:
  const bool is_fair_;
  int64_t time_ = 0;              // of the last pass
  int64_t lost_time_ = -1;        // when feeds were last lost; -1: never
  bool is_skipped_ = false;       // the last pass judged nobody
  std::set<std::string> late_;    // names at the last TakeNew
  std::set<std::string> spared_;  // names at the last Spare
};

}  // namespace bsp

#endif  // BSP_LOG_WATCHDOG_PASS_H_
