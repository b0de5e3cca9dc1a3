// One SQLite file: how it is opened, checked and, when damaged, replaced; statements, transactions,
// online backup.
#ifndef BSP_DB_DATABASE_H_
#define BSP_DB_DATABASE_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>

#include "bsp/base/error.h"
#include "bsp/base/macros.h"

struct sqlite3;
struct sqlite3_stmt;

namespace bsp {

// What goes beyond the stock behaviour; all off by default.
struct DataBaseOptions {
  // Keeps a write-ahead log on disk instead of the rollback journal in memory. A process that is
  // killed in the midst of a commit then leaves a sound file with every committed row; with the
  // journal in memory it can leave a damaged one, which the next Init replaces by an empty one.
  bool journal = false;

  // Init replaces a file only when it is damaged: when SQLite finds no database in it, or its
  // integrity check says so. The damaged one is kept with its journals as FILE.damaged, later ones
  // as FILE.damaged.1 and so on; none is ever deleted or overwritten. Whatever else keeps a file
  // from use (an I/O error, another process that holds it, no space, no right to write) is tried
  // again for half a second; then Init fails and the file stays as it is.
  bool keep_damaged = false;

  // With keep_damaged: most bytes that files set aside may hold, the first whatever its size. When
  // one more would pass it, Init fails and says so.
  int64_t most_damaged_bytes = 16 << 20;
};

// A value to bind to a parameter of a statement. Text is not copied: it has to live until the call
// returns, may hold any bytes and is stored byte for byte.
struct DbValue {
  DbValue(int64_t number) : integer(number) {}  // NOLINT: implicit
  DbValue(const char* bytes, size_t length) : text(bytes), text_size(length) {}

  int64_t integer = 0;
  const char* text = nullptr;  // null: the value is `integer`
  size_t text_size = 0;
};

// Every operation that fails says why in its result (code -1, SQLite's codes in the text) and in a
// log line, and leaves the connection open and usable; only a failed Init leaves it closed.
//
// Threads: any, one at a time: each operation holds the mutex to its end, row callbacks included.
// It is not held across a transaction: what other threads execute in between belongs to it. A row
// callback that calls the object it runs under is refused with an error.
class BSP_EXPORT DataBase {
 public:
  // One row: number of columns, their values as text (null for NULL), their names; all valid during
  // the call. Not 0 ends the query, which then counts as failed.
  using RowCallback = std::function<int(int, char**, char**)>;

  explicit DataBase(const DataBaseOptions& options = DataBaseOptions());
  ~DataBase();
  DataBase(const DataBase&) = delete;
  DataBase& operator=(const DataBase&) = delete;

  // Opens the file, creates it if need be, applies the settings and checks its integrity. A file
  // that fails in any of these is removed, whatever the reason, and made anew, so its content is
  // lost (but see DataBaseOptions::keep_damaged). An open connection is closed first.
  std::shared_ptr<MSError> Init(const std::string& db_path);

  // Always succeeds. An open transaction is rolled back by SQLite. Init may follow.
  std::shared_ptr<MSError> Close();

  // Runs all statements of the text.
  std::shared_ptr<MSError> Exec(const std::string& sql);
  std::shared_ptr<MSError> Query(const std::string& sql, RowCallback callback);

  // Runs one statement with values for its parameters, as many as it has. It is prepared at its
  // first use and kept by its text, so use few texts. *changed_rows, if wanted, is the number of
  // rows that it inserted, changed or deleted, by triggers too; 0 on failure.
  std::shared_ptr<MSError> ExecBound(const std::string& sql, std::initializer_list<DbValue> values,
                                     int64_t* changed_rows = nullptr);

  // Transactions do not nest. Commit and Rollback without Transaction do nothing and succeed, and
  // neither is ever run by itself.
  std::shared_ptr<MSError> Transaction();
  std::shared_ptr<MSError> Commit();
  std::shared_ptr<MSError> Rollback();

  // Whether SQLite has a transaction open. It ends one by itself, rolled back, when a statement
  // fails for lack of space or memory or by an I/O error; and leaves it open when a COMMIT fails
  // because another process reads the file.
  bool IsInTransaction();

  // Copies the whole database into a file, which is overwritten. The source is locked meanwhile.
  // On failure the content of the file is undefined. A target that another process holds makes no
  // failure: the copy is then incomplete.
  std::shared_ptr<MSError> Backup(const std::string& path);

 private:
  // One try to open; false with the connection closed and open_result_ set.
  bool Open(const std::string& path);
  bool Config();
  bool Check();
  bool OpenPatiently(const std::string& path);
  void CheckpointAtClose(bool is_on);
  std::shared_ptr<MSError> SetAside(const std::string& path);
  void CloseConnection();
  bool IsInRowCallback() const;
  std::shared_ptr<MSError> Prepare(const std::string& sql, sqlite3_stmt** statement);
  std::shared_ptr<MSError> Run(const char* operation, const std::string& sql,
                               int (*row)(void*, int, char**, char**));
  static int Callback(void* data, int count, char** values, char** names);

  RowCallback exec_callback_;  // of the Query in progress
  std::mutex mutex_;           // guards all fields but the atomics
  std::atomic<sqlite3*> db_{nullptr};
  std::atomic<bool> in_transaction_{false};  // between Transaction and Commit or Rollback

  const DataBaseOptions options_;
  int open_result_ = 0;  // why the last Open failed: a code of SQLite
  std::unordered_map<std::string, sqlite3_stmt*> prepared_;
  std::atomic<std::thread::id> callback_thread_{};  // that runs exec_callback_; else no thread
};

}  // namespace bsp

#endif  // BSP_DB_DATABASE_H_
