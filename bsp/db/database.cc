// One connection behind one mutex.
//
// Opening is where the care goes. A file is used only after a fixed list of settings and an
// integrity check have passed; one that fails is replaced, so that a device always comes up with a
// working log, if need be an empty one. The stock settings keep the rollback journal in memory: the
// fewest bytes on flash, but a process killed while a commit writes its pages leaves a file with
// half of them. The journal option answers that. It is a write-ahead log and not a persistent
// rollback journal, since the latter writes each page twice and syncs three times a commit, the
// former once and once (bench/log_store_bench.cc shows both); with the exclusive lock taken first
// it also needs no shared index file.
//
// With keep_damaged only damage leads to a replacement: SQLite's word for it (corrupt, not a
// database) or a failed check, and each twice, since a check that meets an I/O error may count the
// page as damaged. Whatever else keeps the file from use passes, or would keep the next one from
// use too, or is somebody's mistake that must not cost the log. A write-ahead log goes with its
// file, before it: left behind, it would be taken for one of the new file. Until a file has passed
// its check nothing is written to it: SQLite's own checkpoint at a close is held off.
//
// Prepared statements are kept by their text rather than handed out, so that no handle can outlive
// its connection: Close has to finalise them all before SQLite lets the connection go.
#include "bsp/db/database.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <utility>

#include "bsp/log/log.h"

// Logs the text at level 3 and gives the error of it; the arguments are evaluated twice.
#define DB_REFUSE(...) (BSP_LOG_ERROR(MOD_BSP, __VA_ARGS__), BSP_NEW_ERROR(-1, __VA_ARGS__))

namespace bsp {
namespace {

const std::shared_ptr<MSError> kOk;

// Applied to each connection in this order.
constexpr const char* kStockSettings[] = {
    "PRAGMA synchronous = FULL;", "PRAGMA journal_mode = MEMORY;",
    "PRAGMA mmap_size = 0;",      "PRAGMA temp_store = MEMORY;",
    "PRAGMA cache_size = 200;",   "PRAGMA soft_heap_limit = 1048576;",
    "PRAGMA page_size = 4096;",   "PRAGMA locking_mode = EXCLUSIVE;",
    "PRAGMA auto_vacuum = NONE;", nullptr,
};

// The same with a write-ahead log. The lock comes before it, so that its index lies in this
// process's memory, and the page size, which is fixed from then on.
constexpr const char* kJournalSettings[] = {
    "PRAGMA locking_mode = EXCLUSIVE;",  "PRAGMA page_size = 4096;",
    "PRAGMA auto_vacuum = NONE;",        "PRAGMA synchronous = FULL;",
    "PRAGMA journal_mode = WAL;",        "PRAGMA mmap_size = 0;",
    "PRAGMA temp_store = MEMORY;",       "PRAGMA cache_size = 200;",
    "PRAGMA soft_heap_limit = 1048576;", nullptr,
};

// As sqlite3_open, but without SQLite's own lock on each call: the connection is used under mutex_
// alone, and the lock costs an insert a twentieth of its time.
constexpr int kOpenFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;

// With the rows that their file lacks; those set aside first.
constexpr const char* kJournals[] = {"-wal", "-journal", ""};
constexpr const char kWalIndex[] = "-shm";  // holds nothing of its own

// Pauses between the tries to open a file that cannot be used. Together half a second: longer than
// most hiccups of a medium, short enough for a start.
constexpr int kRetryPausesMs[] = {50, 150, 300};

// Most statements kept prepared. A user of ExecBound has a handful; one that pastes values into its
// texts gets them prepared anew now and then, and no growth.
constexpr size_t kMaxPrepared = 32;

bool IsDamage(int result) { return result == SQLITE_CORRUPT || result == SQLITE_NOTADB; }

// What a failed integrity check comes to. It counts pages that could not be read as damaged.
int CheckResult(const char* text) {
  const char kUnread[] = "error code=";
  const char* code = strstr(text, kUnread);
  const int result = code != nullptr ? atoi(code + strlen(kUnread)) & 0xff : SQLITE_CORRUPT;
  return result != SQLITE_OK ? result : SQLITE_CORRUPT;
}

// Bytes in a file and its journals; -1 when there is none of them.
int64_t SizeOf(const std::string& path) {
  int64_t bytes = -1;
  for (const char* suffix : kJournals) {
    struct stat info = {};
    if (stat((path + suffix).c_str(), &info) == 0)
      bytes = std::max<int64_t>(bytes, 0) + info.st_size;
  }
  return bytes;
}

const char* Remedy(int result) {
  switch (result) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return "does another process hold it?";
    case SQLITE_READONLY:
    case SQLITE_PERM:
    case SQLITE_AUTH:
      return "may this process write it?";
    case SQLITE_CANTOPEN:
      return "is it a file, and is its folder there?";
    case SQLITE_FULL:
      return "is there space left?";
    case SQLITE_IOERR:
      return "does its medium fail? See the kernel's log";
    default:
      return "is there memory left?";
  }
}

std::shared_ptr<MSError> StatementFailed(const char* operation, const std::string& sql, int result,
                                         const char* message) {
  BSP_LOG_ERROR(MOD_BSP, "%s failed, rc = %d, errmsg = %s", sql.c_str(), result, message);
  return BSP_NEW_ERROR(-1, "%s: %s failed, rc = %d, errmsg = %s", operation, sql.c_str(), result,
                       message);
}

int Bind(sqlite3_stmt* statement, int index, const DbValue& value) {
  if (value.text == nullptr) return sqlite3_bind_int64(statement, index, value.integer);
  return sqlite3_bind_text64(statement, index, value.text, value.text_size, SQLITE_STATIC,
                             SQLITE_UTF8);
}

}  // namespace

DataBase::DataBase(const DataBaseOptions& options) : options_(options) {}

DataBase::~DataBase() { Close(); }

std::shared_ptr<MSError> DataBase::Init(const std::string& db_path) {
  if (IsInRowCallback()) return DB_REFUSE("Init: called by a row callback of this database");
  std::lock_guard<std::mutex> lock(mutex_);
  CloseConnection();
  if (options_.keep_damaged ? OpenPatiently(db_path) : Open(db_path)) return kOk;

  BSP_LOG_ERROR(MOD_BSP, "Open failed, db_path = %s", db_path.c_str());
  if (options_.keep_damaged) {
    if (!IsDamage(open_result_)) {
      return DB_REFUSE("cannot use database %s: %s, rc = %d: %s", db_path.c_str(),
                       sqlite3_errstr(open_result_), open_result_, Remedy(open_result_));
    }
    if (auto error = SetAside(db_path)) return error;
  } else if (remove(db_path.c_str()) != 0) {
    const int saved = errno;
    return DB_REFUSE("Failed to remove corrupted database: %s, errno=%d", db_path.c_str(), saved);
  }
  if (Open(db_path)) return kOk;
  return DB_REFUSE("Open failed, db_path = %s", db_path.c_str());
}

bool DataBase::OpenPatiently(const std::string& path) {
  if (Open(path)) return true;
  for (const int pause_ms : kRetryPausesMs) {
    const bool was_damaged = IsDamage(open_result_);
    std::this_thread::sleep_for(std::chrono::milliseconds(pause_ms));
    if (Open(path)) return true;
    if (was_damaged && IsDamage(open_result_)) return false;
  }
  return false;
}

bool DataBase::Open(const std::string& path) {
  sqlite3* opened = nullptr;
  open_result_ = sqlite3_open_v2(path.c_str(), &opened, kOpenFlags, nullptr);
  db_ = opened;
  if (open_result_ != SQLITE_OK) {
    BSP_LOG_ERROR(MOD_BSP, "Open: sqlite3_open failed, path=%s, err=%s, rc=%d", path.c_str(),
                  sqlite3_errmsg(opened), open_result_);
    CloseConnection();  // SQLite hands out a connection here too
    return false;
  }
  CheckpointAtClose(!options_.keep_damaged);
  if (!Config()) {
    BSP_LOG_ERROR(MOD_BSP, "Config: Config failed, db_path = %s", path.c_str());
    CloseConnection();
    return false;
  }
  if (!Check()) {
    BSP_LOG_ERROR(MOD_BSP, "Check: Check failed, db_path = %s", path.c_str());
    CloseConnection();
    return false;
  }
  // SQLite opens a file that it may not write for reading, and every row would be lost.
  if (options_.keep_damaged && sqlite3_db_readonly(db_, "main") == 1) {
    open_result_ = SQLITE_READONLY;
    CloseConnection();
    return false;
  }
  CheckpointAtClose(true);
  return true;
}

void DataBase::CheckpointAtClose(bool is_on) {
  sqlite3_db_config(db_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, is_on ? 0 : 1, nullptr);
}

bool DataBase::Config() {
  const char* const* settings = options_.journal ? kJournalSettings : kStockSettings;
  for (; *settings != nullptr; ++settings) {
    char* message = nullptr;
    open_result_ = sqlite3_exec(db_, *settings, nullptr, nullptr, &message);
    if (open_result_ == SQLITE_OK) continue;
    BSP_LOG_ERROR(MOD_BSP, "Config: %s failed, rc = %d, errmsg = %s", *settings, open_result_,
                  message != nullptr ? message : "");
    sqlite3_free(message);
    return false;
  }
  return true;
}

bool DataBase::Check() {
  sqlite3_stmt* statement = nullptr;
  open_result_ = sqlite3_prepare_v2(db_, "PRAGMA integrity_check;", -1, &statement, nullptr);
  if (open_result_ != SQLITE_OK) return false;

  open_result_ = sqlite3_step(statement);
  bool sound = false;
  if (open_result_ == SQLITE_ROW) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
    sound = text != nullptr && strcmp(text, "ok") == 0;
    if (!sound) {
      BSP_LOG_ERROR(MOD_BSP, "Database integrity check failed: %s", text != nullptr ? text : "");
      open_result_ = CheckResult(text != nullptr ? text : "");
    }
  }
  sqlite3_finalize(statement);
  return sound;
}

// Makes room for a new file in place of a damaged one.
std::shared_ptr<MSError> DataBase::SetAside(const std::string& path) {
  const std::string first = path + ".damaged";
  std::string kept = first;
  int64_t bytes = 0;  // in what is set aside already
  for (int number = 1; SizeOf(kept) != -1; ++number) {
    bytes += SizeOf(kept);
    kept = first + "." + std::to_string(number);
  }
  if (bytes != 0 && bytes + SizeOf(path) > options_.most_damaged_bytes) {
    return DB_REFUSE(
        "damaged database %s cannot be set aside: %ld bytes are kept as %s*, look at "
        "them and remove them",
        path.c_str(), static_cast<long>(bytes), first.c_str());
  }
  for (const char* suffix : kJournals) {
    if (rename((path + suffix).c_str(), (kept + suffix).c_str()) == 0) continue;
    const int saved = errno;
    if (saved == ENOENT && *suffix != '\0') continue;
    return DB_REFUSE("Failed to remove corrupted database: %s, errno=%d", path.c_str(), saved);
  }
  remove((path + kWalIndex).c_str());  // most often there is none
  BSP_LOG_ERROR(MOD_BSP, "damaged database %s is kept as %s", path.c_str(), kept.c_str());
  return kOk;
}

std::shared_ptr<MSError> DataBase::Close() {
  if (IsInRowCallback()) {
    BSP_LOG_ERROR(MOD_BSP, "Close: called by a row callback of this database");
    return kOk;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  CloseConnection();
  return kOk;
}

void DataBase::CloseConnection() {
  for (const auto& entry : prepared_) sqlite3_finalize(entry.second);
  prepared_.clear();
  sqlite3_close(db_);  // a null connection is nothing to do
  db_ = nullptr;
  in_transaction_ = false;  // SQLite has rolled back what was open
}

bool DataBase::IsInRowCallback() const {
  // Only this thread itself can have stored its own id, so no order is needed.
  return callback_thread_.load(std::memory_order_relaxed) == std::this_thread::get_id();
}

std::shared_ptr<MSError> DataBase::Exec(const std::string& sql) {
  if (db_ == nullptr) return DB_REFUSE("Exec: db_ is nullptr");
  if (IsInRowCallback()) return DB_REFUSE("Exec: called by a row callback of this database");
  std::lock_guard<std::mutex> lock(mutex_);
  if (db_ == nullptr) return DB_REFUSE("Exec: db_ is nullptr");  // closed meanwhile
  exec_callback_ = nullptr;
  return Run("Exec", sql, nullptr);
}

std::shared_ptr<MSError> DataBase::Query(const std::string& sql, RowCallback callback) {
  if (db_ == nullptr) return DB_REFUSE("Query: database not initialized");
  if (IsInRowCallback()) return DB_REFUSE("Query: called by a row callback of this database");
  std::lock_guard<std::mutex> lock(mutex_);
  if (db_ == nullptr) return DB_REFUSE("Query: database not initialized");
  exec_callback_ = std::move(callback);
  callback_thread_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  auto error = Run("Query", sql, Callback);
  callback_thread_.store(std::thread::id(), std::memory_order_relaxed);
  if (error == kOk) exec_callback_ = nullptr;
  return error;
}

std::shared_ptr<MSError> DataBase::Run(const char* operation, const std::string& sql,
                                       int (*row)(void*, int, char**, char**)) {
  char* message = nullptr;
  const int result = sqlite3_exec(db_, sql.c_str(), row, this, &message);
  if (result == SQLITE_OK) return kOk;
  auto error = StatementFailed(operation, sql, result, message != nullptr ? message : "");
  sqlite3_free(message);
  return error;
}

int DataBase::Callback(void* data, int count, char** values, char** names) {
  auto* self = static_cast<DataBase*>(data);
  if (self == nullptr || !self->exec_callback_) {
    BSP_LOG_ERROR(MOD_BSP, "data is nullptr or exec_callback_ is nullptr");
    return 0;
  }
  try {
    return self->exec_callback_(count, values, names);
  } catch (const std::exception& exception) {  // none may unwind SQLite's frames
    BSP_LOG_ERROR(MOD_BSP, "row callback threw: %s", exception.what());
  } catch (...) {
    BSP_LOG_ERROR(MOD_BSP, "row callback threw");
  }
  return -1;
}

std::shared_ptr<MSError> DataBase::ExecBound(const std::string& sql,
                                             std::initializer_list<DbValue> values,
                                             int64_t* changed_rows) {
  if (changed_rows != nullptr) *changed_rows = 0;
  if (db_ == nullptr) return DB_REFUSE("Exec: db_ is nullptr");
  if (IsInRowCallback()) return DB_REFUSE("Exec: called by a row callback of this database");
  std::lock_guard<std::mutex> lock(mutex_);
  if (db_ == nullptr) return DB_REFUSE("Exec: db_ is nullptr");

  sqlite3_stmt* statement = nullptr;
  if (auto error = Prepare(sql, &statement)) return error;
  if (static_cast<size_t>(sqlite3_bind_parameter_count(statement)) != values.size()) {
    return DB_REFUSE("Exec: %s has %d parameters, not %zu", sql.c_str(),
                     sqlite3_bind_parameter_count(statement), values.size());
  }
  // SQLite's own count of one statement keeps that of the last INSERT, UPDATE or DELETE behind all
  // other statements.
  const auto before = static_cast<unsigned>(sqlite3_total_changes(db_));
  int result = SQLITE_OK;
  int index = 0;
  for (const DbValue& value : values) {
    if (result == SQLITE_OK) result = Bind(statement, ++index, value);
  }
  while (result == SQLITE_OK || result == SQLITE_ROW) result = sqlite3_step(statement);
  if (result != SQLITE_DONE) {
    auto error = StatementFailed("Exec", sql, result, sqlite3_errmsg(db_));
    sqlite3_reset(statement);  // repeats the failure just told
    return error;
  }
  if (changed_rows != nullptr) {
    *changed_rows = static_cast<unsigned>(sqlite3_total_changes(db_)) - before;
  }
  sqlite3_reset(statement);
  return kOk;
}

std::shared_ptr<MSError> DataBase::Prepare(const std::string& sql, sqlite3_stmt** statement) {
  const auto found = prepared_.find(sql);
  if (found != prepared_.end()) {
    *statement = found->second;
    return kOk;
  }
  const char* rest = nullptr;
  const int result = sqlite3_prepare_v2(db_, sql.c_str(), -1, statement, &rest);
  if (result != SQLITE_OK) return StatementFailed("Exec", sql, result, sqlite3_errmsg(db_));
  if (*statement == nullptr || *rest != '\0') {
    sqlite3_finalize(*statement);
    return DB_REFUSE("Exec: %s is not one statement", sql.c_str());
  }
  if (prepared_.size() >= kMaxPrepared) {
    for (const auto& entry : prepared_) sqlite3_finalize(entry.second);
    prepared_.clear();
  }
  prepared_[sql] = *statement;
  return kOk;
}

std::shared_ptr<MSError> DataBase::Transaction() {
  if (IsInRowCallback()) return DB_REFUSE("Transaction: called by a row callback of this database");
  in_transaction_ = true;
  return Exec("BEGIN TRANSACTION;");
}

std::shared_ptr<MSError> DataBase::Commit() {
  if (IsInRowCallback()) return DB_REFUSE("Commit: called by a row callback of this database");
  if (!in_transaction_.exchange(false)) return kOk;
  auto error = Exec("COMMIT;");
  if (error != kOk) BSP_LOG_ERROR(MOD_BSP, "Commit transaction failed");
  return error;
}

std::shared_ptr<MSError> DataBase::Rollback() {
  if (IsInRowCallback()) return DB_REFUSE("Rollback: called by a row callback of this database");
  if (!in_transaction_.exchange(false)) return kOk;
  auto error = Exec("ROLLBACK;");
  if (error != kOk) BSP_LOG_ERROR(MOD_BSP, "Transaction rollback failed");
  return error;
}

bool DataBase::IsInTransaction() {
  if (IsInRowCallback()) return sqlite3_get_autocommit(db_) == 0;  // this thread has the mutex
  std::lock_guard<std::mutex> lock(mutex_);
  return db_ != nullptr && sqlite3_get_autocommit(db_) == 0;
}

std::shared_ptr<MSError> DataBase::Backup(const std::string& path) {
  if (IsInRowCallback()) return DB_REFUSE("Backup: called by a row callback of this database");
  std::lock_guard<std::mutex> lock(mutex_);
  if (db_ == nullptr) return DB_REFUSE("db_ is nullptr");

  sqlite3* opened = nullptr;
  const int result = sqlite3_open(path.c_str(), &opened);
  const std::unique_ptr<sqlite3, int (*)(sqlite3*)> target(opened, sqlite3_close);
  if (result != SQLITE_OK) {
    BSP_LOG_ERROR(MOD_BSP, "Failed to open backup db: %s, err: %s", path.c_str(),
                  sqlite3_errmsg(opened));
    return BSP_NEW_ERROR(-1, "Failed to open backup db");
  }
  sqlite3_backup* backup = sqlite3_backup_init(opened, "main", db_, "main");
  if (backup == nullptr) return DB_REFUSE("Failed to initialize backup");

  sqlite3_backup_step(backup, -1);  // all pages; what went wrong shows in the codes below
  int copied = sqlite3_errcode(opened);
  const int pages = sqlite3_backup_pagecount(backup);
  const int remaining = sqlite3_backup_remaining(backup);
  const int finished = sqlite3_backup_finish(backup);
  // SQLite tells a full disk only at the finish. A target that another process holds is told
  // nowhere: nothing is copied, and that passes as an incomplete backup does.
  if (copied == SQLITE_OK || copied == SQLITE_DONE) copied = finished;
  if (copied != SQLITE_OK && copied != SQLITE_DONE) {
    BSP_LOG_ERROR(MOD_BSP, "Backup failed, rc=%d, msg=%s", copied, sqlite3_errmsg(opened));
    return BSP_NEW_ERROR(-1, "Backup failed");
  }
  if (pages > 0 && remaining > 0) {
    BSP_LOG_WARN(MOD_BSP, "Backup incomplete: %d/%d pages copied", pages - remaining, pages);
  }
  return kOk;
}

}  // namespace bsp
