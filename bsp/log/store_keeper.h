// The log store as the server has it: it may be missing for a while.
#ifndef BSP_LOG_STORE_KEEPER_H_
#define BSP_LOG_STORE_KEEPER_H_

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include "bsp/base/error.h"
#include "bsp/db/database.h"
#include "bsp/log/log_msg.h"
#include "bsp/log/loss_ledger.h"
#include "bsp/log/sys_log_rec.h"

namespace bsp {

// What a keeper does beyond opening the store once; all off by default.
struct StoreKeeperOptions {
  // A store that cannot be opened is tried again every minute; the newest records are kept in
  // memory meanwhile, 1000 at most, and stored when it opens.
  bool may_be_absent = false;

  // A file that was removed or replaced under the open database is noticed within a minute, told,
  // and a new one begun. Its rows have gone with it.
  bool watches_file = false;
};

// Owns the store, opens it, and opens it again.
//
// Threads: one at a time.
class StoreKeeper {
 public:
  // cfg has to outlive the object, and so has *ledger, where losses are counted; null: nowhere.
  StoreKeeper(LogSrvCfg& cfg, const DataBaseOptions& database, const StoreKeeperOptions& options,
              LossLedger* ledger);

  // Opens the store at cfg.log_db_file. The reason when that fails; null with may_be_absent.
  std::shared_ptr<MSError> Open();

  void Record(const LogMsg& msg);
  void Recycle();
  void Flush();

  // To be called about once a second: looks after the store once a minute.
  void LookAfter(int64_t now);

  // Null while there is no store.
  SysLogRec* store() { return store_.get(); }

 private:
  std::shared_ptr<MSError> TryOpen();
  bool IsFileGone() const;
  void StoreKept();

  LogSrvCfg& cfg_;
  const DataBaseOptions database_;
  const StoreKeeperOptions options_;
  LossLedger* const ledger_;
  std::unique_ptr<SysLogRec> store_;
  std::deque<LogMsg> kept_;  // while there is no store
  int64_t look_time_ = 0;    // ClockSecond of the last look
  dev_t device_ = 0;         // of the open file
  ino_t inode_ = 0;
};

}  // namespace bsp

#endif  // BSP_LOG_STORE_KEEPER_H_
