// The log store: one SQLite file, one table for each stored type of record.
#ifndef BSP_LOG_SYS_LOG_REC_H_
#define BSP_LOG_SYS_LOG_REC_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bsp/base/error.h"
#include "bsp/base/macros.h"
#include "bsp/db/database.h"
#include "bsp/log/log_msg.h"
#include "bsp/log/loss_ledger.h"

namespace bsp {

// Records go into transactions of at most 100 rows or 60 seconds. Until its commit a row is not
// durable: a crash, and the destructor, lose the open batch; an orderly stop calls Flush first.
// After Init no failure stops the store: it is logged, its rows are lost, and the next batch works.
//
// Threads: one at a time.
class BSP_EXPORT SysLogRec {
 public:
  // Opens nothing. cfg has to outlive the object; its three sizes are read by Init.
  explicit SysLogRec(LogSrvCfg& cfg, const DataBaseOptions& options = DataBaseOptions());
  // The same; what the store loses is counted in *ledger, and each batch that it commits carries
  // the rows that tell of losses. *ledger has to outlive the object.
  SysLogRec(LogSrvCfg& cfg, const DataBaseOptions& options, LossLedger* ledger);
  SysLogRec(const SysLogRec&) = delete;
  SysLogRec& operator=(const SysLogRec&) = delete;

  // Opens the file (see DataBase::Init for a damaged one) and makes the tables. False, with the
  // reason in InitError(), when that fails. May be called again; an open batch is lost then.
  bool Init(const std::string& db_path);

  // Why the last Init failed; null when it did not.
  std::shared_ptr<MSError> InitError() const { return init_error_; }

  // Whether records of this type are stored.
  static bool HasTable(int32_t type);

  // Stores timems, level, trace_id, flow_id and the text, byte for byte up to its terminator. A
  // type without a table is logged and dropped.
  void Record(const LogMsg& msg);

  // Commits the open batch, if any.
  void Flush();

  // Gives the open batch up, if any, and counts its rows as lost.
  void Abandon();

  // Commits a batch that has been open for more than 60 seconds, and trims each table that has
  // grown past 110 percent of its size to 90 percent (and one row). Cheap when there is nothing to
  // do; the server calls it at every turn.
  void Recycle();

  // Appends the matching rows to `out`: timems, level, trace_id, flow_id and text (at most 1023
  // bytes); the other fields are those of the prototype. A number stored below 0 reads back as 0.
  // At most 100 rows, by id, unless offset or limit is -1. 0, or -1 on failure.
  int Search(const SearchReq& req, std::vector<LogMsg>& out);

  // Counts the matching rows; offset and limit play no part. 0, or -1 on failure.
  int SearchCount(const SearchReq& req, int& count);

  // The conditions of a request, each with a leading " AND ".
  std::string GenSearchFilterSql(const SearchReq& req);

 private:
  // What the store keeps in mind of a table.
  struct Table {
    std::string insert_sql;
    std::string trim_sql;
    int64_t low = 0;            // the trim leaves this many rows and one
    int64_t high = 0;           // rows that the table may hold
    int64_t rows = 0;           // exact, the open batch included
    int64_t rows_at_begin = 0;  // when the open transaction began
    int64_t trim_time = 0;      // ClockSecond from which a trim may be tried, after one that failed
  };

  std::shared_ptr<MSError> Open(const std::string& db_path);
  std::shared_ptr<MSError> Insert(Table& table, const LogMsg& msg);
  void BeginBatch();
  void CommitBatch();
  void BeginForLosses();
  void CarryLosses();
  void NoteRollback(const MSError& why);
  void Trim(Table& table);

  LogSrvCfg& cfg_;
  DataBase db_;
  int32_t pending_ = 0;     // rows since the batch was begun, failed ones included; 0: none is open
  int64_t batch_time_ = 0;  // ClockSecond when the open batch began or Record last committed
  std::map<int32_t, LogTypeCfg> types_;

  std::map<int32_t, Table> tables_;  // by type, the keys of types_
  bool is_in_transaction_ = false;   // a BEGIN went through and its end has not been seen
  LossLedger* const ledger_;
  int64_t batch_rows_ = 0;  // in the open transaction, but for those of losses
  std::shared_ptr<MSError> init_error_;
};

}  // namespace bsp

#endif  // BSP_LOG_SYS_LOG_REC_H_
