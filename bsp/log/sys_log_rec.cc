// A store that costs one prepared insert a row.
//
// The server calls Record and Recycle at every datagram, so neither may do work that grows with the
// tables. Counting rows does (SQLite walks the whole index), so the store keeps the counts itself:
// read once at Init, then corrected by what each statement says it changed. The connection holds
// the file exclusively, so nobody else can change them.
//
// What must always hold: Table::rows is what COUNT(*) would give on this connection, uncommitted
// rows included. Three things can break that, and all end in NoteRollback: a COMMIT that fails, and
// an insert or a trim whose failure (no space, no memory, I/O error) makes SQLite roll the whole
// transaction back. Then the counts go back to those at BEGIN, and the rest of the batch is given
// up, so that the next record begins a new one instead of committing each row by itself. A COMMIT
// that fails because another process reads the file leaves the transaction open: its rows stay, and
// the next batch, which joins it, commits them too.
//
// Every record that comes here becomes a row or is counted in the ledger, exactly once: the row
// that fails, and with a rollback all rows of the transaction. The rows that tell of losses go in
// last, and are told by the COMMIT that takes them, whenever that is.
//
// Values never become statement text, with one exception: the filters of a search, which are
// integers by type.
#include "bsp/log/sys_log_rec.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "bsp/log/log.h"
#include "bsp/log/own_record.h"
#include "bsp/util/string_helper.h"
#include "bsp/util/time_util.h"

namespace bsp {
namespace {

const std::shared_ptr<MSError> kOk;

constexpr int32_t kMaxBatchRows = 100;
constexpr int64_t kMaxBatchSeconds = 60;
constexpr int64_t kTrimRetrySeconds = 60;
constexpr int32_t kMaxPageRows = 100;
constexpr size_t kMaxTextRead = 1023;

// The trim band is a tenth on both sides, the part of a row going to the band below and to the
// table above: what truncating n - n * 0.1 and n + n * 0.1 gives, without their rounding. A size
// below 0 leaves one row, as 0 does.
int64_t LowMark(int64_t max_count) {
  return std::max<int64_t>(max_count - (max_count + 9) / 10, 0);
}
int64_t HighMark(int64_t max_count) { return std::max<int64_t>(max_count + max_count / 10, 0); }

// Deletes all but the newest ?2 rows and one; ?1 is the number of rows. Ids have no gaps unless
// somebody else has deleted rows, and then the first id to keep is a subtraction. The walk down the
// index to the row at OFFSET ?2 gives the same, but makes a trim take twice as long, and datagrams
// wait meanwhile.
std::string TrimSql(const std::string& name) {
  const std::string newest = "(SELECT max(id) FROM " + name + ")";
  const std::string oldest = "(SELECT min(id) FROM " + name + ")";
  return "DELETE FROM " + name + " WHERE id < CASE " + newest + " - " + oldest +
         " + 1 WHEN ?1 THEN " + newest + " - ?2 ELSE (SELECT id FROM " + name +
         " ORDER BY id DESC LIMIT 1 OFFSET ?2) END";
}

// Columns of a row that is searched.
enum Column { kId, kTimeMs, kLevel, kTraceId, kFlowId, kLog, kColumns };

LogMsg RowToMsg(char** values) {
  const auto text = [values](int column) {
    return values[column] != nullptr ? values[column] : "";
  };
  LogMsg msg = kLogMsgPrototype;
  msg.timems = StringHelper::ToInt64(text(kTimeMs), 0);
  msg.level = StringHelper::ToInt32(text(kLevel), 0);
  msg.trace_id = StringHelper::ToInt64(text(kTraceId), 0);
  msg.flow_id = StringHelper::ToInt32(text(kFlowId), 0);
  strncpy(msg.log, text(kLog), kMaxTextRead);
  return msg;
}

}  // namespace

SysLogRec::SysLogRec(LogSrvCfg& cfg, const DataBaseOptions& options)
    : SysLogRec(cfg, options, nullptr) {}

SysLogRec::SysLogRec(LogSrvCfg& cfg, const DataBaseOptions& options, LossLedger* ledger)
    : cfg_(cfg), db_(options), ledger_(ledger) {}

bool SysLogRec::Init(const std::string& db_path) {
  types_ = {{LOG_TYPE_BUS, {"tbl_bus_log", cfg_.log_bus_size}},
            {LOG_TYPE_CTRL, {"tbl_ctrl_log", cfg_.log_ctrl_size}},
            {LOG_TYPE_SYS, {"tbl_sys_log", cfg_.log_sys_size}}};
  tables_.clear();
  Abandon();
  init_error_ = Open(db_path);
  if (init_error_ != kOk) return false;

  BSP_LOG_INFO(MOD_BSP, "sys log rec init, db_path = %s", db_path.c_str());
  BSP_LOG_INFO(MOD_BSP, "sys log rec max count, bus=%d, ctrl=%d, sys=%d", cfg_.log_bus_size,
               cfg_.log_ctrl_size, cfg_.log_sys_size);
  return true;
}

std::shared_ptr<MSError> SysLogRec::Open(const std::string& db_path) {
  if (auto error = db_.Init(db_path)) {
    BSP_LOG_ERROR(MOD_BSP, "Init: db_.Open failed, err = %s", error->Message().c_str());
    return error;
  }
  for (const auto& entry : types_) {
    const std::string name = "\"" + entry.second.table + "\"";
    Table table;
    table.insert_sql = "INSERT INTO " + name +
                       " (\"timems\", \"level\", \"trace_id\", \"flow_id\", \"log\")"
                       " VALUES (?, ?, ?, ?, ?)";
    table.trim_sql = TrimSql(name);
    table.low = LowMark(entry.second.max_count);
    table.high = HighMark(entry.second.max_count);

    auto error = db_.Exec("CREATE TABLE if not exists " + name +
                          " (\"id\" INTEGER, \"timems\" INTEGER NOT NULL, \"level\" INTEGER,"
                          " \"trace_id\" INTEGER, \"flow_id\" INTEGER, \"log\" TEXT,"
                          " PRIMARY KEY(\"id\" AUTOINCREMENT))");
    if (error == kOk) {
      error = db_.Query("SELECT COUNT(*) FROM " + name, [&table](int, char** values, char**) {
        table.rows = strtoll(values[0], nullptr, 10);
        return 0;
      });
    }
    if (error != kOk) {
      BSP_LOG_ERROR(MOD_BSP, "Init: db_.Exec failed, err = %s", error->Message().c_str());
      return error;
    }
    tables_[entry.first] = table;
  }
  return kOk;
}

bool SysLogRec::HasTable(int32_t type) {
  return type == LOG_TYPE_BUS || type == LOG_TYPE_CTRL || type == LOG_TYPE_SYS;
}

void SysLogRec::Record(const LogMsg& msg) {
  const auto found = tables_.find(msg.type);
  if (found == tables_.end()) {
    BSP_LOG_ERROR(MOD_BSP, "Record: msg.type = %d not found", msg.type);
    if (ledger_ != nullptr) ledger_->Add(Loss::kRefused, 1);
    return;
  }
  if (pending_ == 0) BeginBatch();

  const auto error = Insert(found->second, msg);
  ++pending_;
  if (error == kOk) {
    ++batch_rows_;
  } else {
    if (ledger_ != nullptr) ledger_->Add(Loss::kStore, 1, error->Message());
    NoteRollback(*error);
  }

  const int64_t now = TimeUtil::ClockSecond();
  if (pending_ < kMaxBatchRows && now - batch_time_ <= kMaxBatchSeconds) return;
  Flush();
  batch_time_ = now;
}

std::shared_ptr<MSError> SysLogRec::Insert(Table& table, const LogMsg& msg) {
  const auto error = db_.ExecBound(table.insert_sql, {msg.timems,
                                                      msg.level,
                                                      msg.trace_id,
                                                      msg.flow_id,
                                                      {msg.log, strnlen(msg.log, sizeof msg.log)}});
  if (error == kOk) {
    ++table.rows;
  } else {
    BSP_LOG_ERROR(MOD_BSP, "db_.Exec failed, err = %s\n", error->Message().c_str());
  }
  return error;
}

void SysLogRec::BeginBatch() {
  batch_time_ = TimeUtil::ClockSecond();
  if (is_in_transaction_) return;  // a COMMIT could not go through; its transaction goes on
  db_.Transaction();
  is_in_transaction_ = db_.IsInTransaction();
  batch_rows_ = 0;
  for (auto& entry : tables_) entry.second.rows_at_begin = entry.second.rows;
}

void SysLogRec::Flush() {
  BeginForLosses();
  if (pending_ != 0 || is_in_transaction_) CommitBatch();
}

void SysLogRec::Abandon() {
  if (is_in_transaction_ && ledger_ != nullptr) {
    ledger_->RolledBack();
    ledger_->Add(Loss::kStore, static_cast<uint64_t>(batch_rows_), "it was given up");
  }
  db_.Close();  // rolls back
  is_in_transaction_ = false;
  pending_ = 0;
}

// A loss at a time without records must be told, too.
void SysLogRec::BeginForLosses() {
  if (pending_ != 0 || ledger_ == nullptr || !ledger_->HasUntold()) return;
  BeginBatch();
  ++pending_;
}

void SysLogRec::CommitBatch() {
  CarryLosses();
  pending_ = 0;
  auto error = db_.Commit();
  if (error == kOk && is_in_transaction_ && db_.IsInTransaction()) {
    error = db_.Exec("COMMIT;");  // for DataBase it ended at the Commit that failed
  }
  if (error != kOk) {
    NoteRollback(*error);
    return;
  }
  is_in_transaction_ = false;
  batch_rows_ = 0;
  if (ledger_ != nullptr) ledger_->Committed();
}

void SysLogRec::CarryLosses() {
  if (ledger_ == nullptr || !ledger_->HasUntold()) return;
  for (int i = 0; i < static_cast<int>(Loss::kCount); ++i) {
    const Loss why = static_cast<Loss>(i);
    const std::string text = ledger_->Text(why);
    if (text.empty()) continue;
    const auto error = Insert(tables_[LOG_TYPE_SYS], MakeOwnRecord(BSP_LEVEL_WARN, text));
    if (error != kOk) {
      NoteRollback(*error);
      return;
    }
    ledger_->Carried(why);
  }
}

// After a failure: if it has ended the transaction, its rows are gone.
void SysLogRec::NoteRollback(const MSError& why) {
  if (!is_in_transaction_ || db_.IsInTransaction()) return;
  is_in_transaction_ = false;
  pending_ = 0;
  for (auto& entry : tables_) entry.second.rows = entry.second.rows_at_begin;
  if (ledger_ != nullptr) {
    ledger_->RolledBack();
    ledger_->Add(Loss::kStore, static_cast<uint64_t>(batch_rows_), why.Message());
  }
  batch_rows_ = 0;
  BSP_LOG_ERROR(MOD_BSP, "the open batch was rolled back, its rows are lost");
}

void SysLogRec::Recycle() {
  BeginForLosses();
  if (TimeUtil::ClockSecond() - batch_time_ > kMaxBatchSeconds) CommitBatch();
  for (auto& entry : tables_) {
    if (entry.second.rows > entry.second.high) Trim(entry.second);
  }
}

// One that fails may have cost a batch, and would fail at the next record, too.
void SysLogRec::Trim(Table& table) {
  const int64_t now = TimeUtil::ClockSecond();
  if (now < table.trim_time) return;
  int64_t deleted = 0;
  const auto error = db_.ExecBound(table.trim_sql, {table.rows, table.low}, &deleted);
  table.rows -= deleted;
  if (error == kOk) return;
  table.trim_time = now + kTrimRetrySeconds;
  BSP_LOG_ERROR(MOD_BSP, "db_.Exec failed, err = %s\n", error->Message().c_str());
  NoteRollback(*error);
}

std::string SysLogRec::GenSearchFilterSql(const SearchReq& req) {
  std::string sql;
  const auto add = [&sql](const char* condition, int64_t value) {
    if (value != -1) sql += condition + std::to_string(value);
  };
  add(" AND level = ", req.level);
  add(" AND trace_id = ", req.trace_id);
  add(" AND flow_id = ", req.flow_id);
  add(" AND timems >= ", req.start_ms);
  add(" AND timems <= ", req.end_ms);
  BSP_LOG_DEBUG(MOD_BSP, "sql = %s\n", sql.c_str());
  return sql;
}

int SysLogRec::Search(const SearchReq& req, std::vector<LogMsg>& out) {
  const auto found = types_.find(req.type);
  if (found == types_.end()) {
    BSP_LOG_ERROR(MOD_BSP, "Search: req.type = %d not found", req.type);
    return -1;
  }
  std::string sql = "SELECT * FROM " + found->second.table + " WHERE 1=1" + GenSearchFilterSql(req);
  if (req.offset != -1 && req.limit != -1) {
    // SQLite takes a limit below 0 as none, so that the page would be the whole table.
    const int32_t limit = std::clamp(req.limit, 0, kMaxPageRows);
    sql += " ORDER BY id LIMIT " + std::to_string(limit) + " OFFSET " + std::to_string(req.offset);
  }
  BSP_LOG_DEBUG(MOD_BSP, "sql = %s\n", sql.c_str());
  const auto error = db_.Query(sql, [&out](int count, char** values, char**) {
    if (count < kColumns) return -1;  // a table of this name, but not ours
    out.push_back(RowToMsg(values));
    return 0;
  });
  if (error == kOk) return 0;
  BSP_LOG_ERROR(MOD_BSP, "db_.Query failed, err = %s", error->Message().c_str());
  return -1;
}

int SysLogRec::SearchCount(const SearchReq& req, int& count) {
  const auto found = types_.find(req.type);
  if (found == types_.end()) {
    BSP_LOG_ERROR(MOD_BSP, "Search: req.type = %d not found", req.type);
    return -1;
  }
  const std::string sql =
      "SELECT count(id) FROM " + found->second.table + " WHERE 1=1" + GenSearchFilterSql(req);
  const auto error = db_.Query(sql, [&count](int, char** values, char**) {
    count = static_cast<int>(strtol(values[0], nullptr, 10));
    return 0;
  });
  if (error == kOk) return 0;
  BSP_LOG_ERROR(MOD_BSP, "db_.Query failed, err = %s", error->Message().c_str());
  return -1;
}

}  // namespace bsp
