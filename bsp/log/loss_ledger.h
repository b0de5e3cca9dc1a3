// What the log server has lost, until a row tells it.
#ifndef BSP_LOG_LOSS_LEDGER_H_
#define BSP_LOG_LOSS_LEDGER_H_

#include <cstdint>
#include <string>

#include "bsp/base/macros.h"

namespace bsp {

enum class Loss {
  kBufferFull,  // dropped by the kernel, the receive buffer was full
  kStore,       // the database did not take the row, or rolled its batch back
  kNoStore,     // there was no database, and no room to keep the record in memory
  kRefused,     // no record: length, magic, type or sender
  kCount
};

// Counts losses by reason, exactly: each is told by one row that a committed batch carries. The
// store asks for the texts when it ends a batch, and says what became of them: a batch that is
// rolled back has told nothing, so the next one tells it again.
//
// Threads: one at a time.
class BSP_EXPORT LossLedger {
 public:
  // detail: what the reason was in this case, such as SQLite's words; the last one is told.
  void Add(Loss why, uint64_t count, const std::string& detail = std::string());

  // Something is lost that no row tells yet, be it of the open batch.
  bool HasUntold() const;

  // What no row tells yet of this reason, those of the open batch included; empty: nothing.
  std::string Text(Loss why) const;

  // The open batch has a row with that text.
  void Carried(Loss why);

  // The batch has ended, with its rows or without them.
  void Committed();
  void RolledBack();

 private:
  struct Entry {
    uint64_t lost = 0;     // ever
    uint64_t carried = 0;  // of these, told by rows of the open batch or committed ones
    uint64_t told = 0;     // by committed rows
    std::string since;     // wall clock of the first one that is not told
    std::string detail;
  };
  Entry entries_[static_cast<size_t>(Loss::kCount)];
};

}  // namespace bsp

#endif  // BSP_LOG_LOSS_LEDGER_H_
