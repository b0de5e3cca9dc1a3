// Database wrapper.
#include "bsp/db/database.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "bsp/log/log.h"
#include "bsp/util/file_util.h"
#include "tests/support/child.h"
#include "tests/support/rows.h"
#include "tests/support/sqlite_fault.h"
#include "tests/support/test_env.h"

// In front of the C library's: the pauses between tries are none of the tests' matter.
extern "C" int nanosleep(const timespec*, timespec*) { return 0; }
extern "C" int clock_nanosleep(clockid_t, int, const timespec*, timespec*) { return 0; }

namespace {

using bsp::DataBase;
using bsp::DataBaseOptions;
using bsp::FileUtil;

constexpr DataBaseOptions kAllOptions = {true, true};
const std::string kInsert = "INSERT INTO t VALUES (?, ?)";

// Failures are expected here, and each is told in a line.
const bool g_is_silent = (g_log_level = BSP_LEVEL_EMERG, true);

#define EXPECT_OK(call) EXPECT_EQ(TextOf(call), "")
#define EXPECT_FAILS(call, part) EXPECT_NE(TextOf(call).find(part), std::string::npos)

std::string TextOf(const std::shared_ptr<MSError>& error) { return error ? error->Message() : ""; }

std::string One(DataBase& db, const std::string& sql) { return test::Query(db, sql).at(0); }

std::string BytesOf(const std::string& path) {
  std::string bytes;
  FileUtil::ReadToString(path, bytes);
  return bytes;
}

// A file with one table "t" of `rows` rows.
std::string MakeDatabase(const std::string& path, int rows, const DataBaseOptions& options = {}) {
  DataBase db(options);
  EXPECT_OK(db.Init(path));
  EXPECT_OK(db.Exec("CREATE TABLE t (a INTEGER, b TEXT); CREATE INDEX i ON t (b); BEGIN;"));
  for (int i = 0; i < rows; ++i) EXPECT_OK(db.ExecBound(kInsert, {i, {"some text", 9}}));
  EXPECT_OK(db.Exec("COMMIT;"));
  return path;
}

// Each setting really holds, and a file may change hands between the journals without loss.
TEST(DataBase, SettingsHoldAndContentStays) {
  const std::string path = MakeDatabase(test::MakeTempDir() + "/d", 300);
  for (const bool journal : {false, true, true, false}) {
    DataBase db(DataBaseOptions{journal, false});
    EXPECT_OK(db.Init(path));
    std::string settings = One(db, "SELECT count(*) FROM t");
    for (const char* name : {"journal_mode", "synchronous", "mmap_size", "temp_store", "cache_size",
                             "soft_heap_limit", "page_size", "locking_mode", "auto_vacuum"}) {
      settings += " " + One(db, std::string("PRAGMA ") + name);
    }
    EXPECT_EQ(settings, std::string("300 ") + (journal ? "wal" : "memory") +
                            " 2 0 2 200 1048576 4096 exclusive 0");
    EXPECT_FALSE(FileUtil::IsFileExist(path + "-shm"));
  }
  EXPECT_FALSE(FileUtil::IsFileExist(path + "-wal"));  // an orderly close leaves one file
}

// Whatever is wrong with a file, Init ends with a working empty one. The stock one leaves nothing
// of the old; with keep_damaged the first stays to be looked at, byte for byte, and no side file of
// the old is taken for one of the new.
TEST(DataBase, DamagedFileIsReplaced) {
  const std::pair<int, std::string> damages[] = {
      {0, std::string(90000, 'g')}, {4096, std::string(4096, '\x7f')}, {16, "\xff\xff"}, {-1, ""}};
  for (const auto& damage : damages) {
    for (const DataBaseOptions& options : {DataBaseOptions(), kAllOptions}) {
      const std::string path = MakeDatabase(test::MakeTempDir() + "/d", 1000, options);
      std::fstream(path, std::ios::in | std::ios::out).seekp(damage.first) << damage.second;
      if (damage.first == -1) std::filesystem::resize_file(path, 3 * 4096 + 100);
      const std::string first = BytesOf(path);
      for (int twice = 0; twice < 2; ++twice) {
        FileUtil::WriteToFile(path + "-shm", "leftover");
        EXPECT_EQ(test::QueryFile(path, "SELECT count(*) FROM sqlite_master", options).at(0), "0");
        EXPECT_EQ(FileUtil::IsFileExist(path + "-shm"), !options.keep_damaged);
        EXPECT_TRUE(BytesOf(path + ".damaged") == (options.keep_damaged ? first : ""));
        FileUtil::WriteToFile(path, std::string(5000, 'g'));
      }
    }
  }
}

// A database as a killed process left it: of its 199 committed rows, those of the journal's kind
// are in the write-ahead log alone.
void MakeCrashed(const std::string& path, const DataBaseOptions& options) {
  const auto crash = [&] {
    DataBase db(options);
    EXPECT_OK(db.Init(path));
    EXPECT_OK(db.Exec("CREATE TABLE t (a INTEGER, b TEXT)"));
    for (int i = 0; i < 199; ++i) {
      EXPECT_OK(db.ExecBound(kInsert, {i, i}));
      if (i != 99) continue;
      EXPECT_OK(db.Exec("PRAGMA wal_checkpoint(TRUNCATE)"));
    }
    _exit(testing::Test::HasFailure() ? 1 : 0);
    return 0;
  };
  ASSERT_EQ(test::Child::Fork(crash).Wait(), 0);
}

// Whichever system call of an opening fails, once or from then on, costs no row and sets nothing
// aside: Init succeeds in spite of it, or fails and names the remedy.
TEST(DataBase, FaultsAtOpening) {
  using test::SqliteFault;
  const std::string dir = test::MakeTempDir();
  const std::string path = dir + "/d";
  for (const bool journal : {false, true}) {
    const DataBaseOptions options = {journal, true};
    std::filesystem::remove_all(dir + "/crashed");
    std::filesystem::create_directory(dir + "/crashed");
    MakeCrashed(dir + "/crashed/d", options);
    for (const auto kind :
         {SqliteFault::kRead, SqliteFault::kWrite, SqliteFault::kTruncate, SqliteFault::kOpen}) {
      for (const bool is_lasting : {false, true}) {
        bool was_hit = true;
        for (int n = 1; was_hit; ++n) {
          SCOPED_TRACE(std::to_string(journal) + " " + std::to_string(kind) + " " +
                       std::to_string(is_lasting) + " " + std::to_string(n));
          std::filesystem::copy(dir + "/crashed", dir,
                                std::filesystem::copy_options::overwrite_existing |
                                    std::filesystem::copy_options::recursive);
          {
            const SqliteFault fault(kind, n, EIO, is_lasting);
            DataBase db(options);
            const std::string failure = TextOf(db.Init(path));
            was_hit = SqliteFault::was_hit();
            ASSERT_TRUE(is_lasting || failure.empty()) << failure;
            ASSERT_TRUE(failure.empty() || failure.find("cannot use database") == 0) << failure;
          }
          ASSERT_FALSE(FileUtil::IsFileExist(path + ".damaged"));
          ASSERT_EQ(test::QueryFile(path, "SELECT count(*) FROM t", options).at(0), "199");
        }
      }
    }
  }
}

// A damaged file takes its write-ahead log with it, byte for byte, and the files set aside are
// numbered; past their budget nothing is touched.
TEST(DataBase, SetAsideWithItsLog) {
  const std::string path = test::MakeTempDir() + "/d";
  MakeCrashed(path, kAllOptions);
  std::fstream(path, std::ios::in | std::ios::out) << std::string(4096, 'g');
  const std::string log = BytesOf(path + "-wal");
  for (const char* kept : {".damaged", ".damaged.1", ".damaged.2"}) {
    FileUtil::WriteToFile(path + "-wal", log);
    EXPECT_EQ(test::QueryFile(path, "SELECT count(*) FROM sqlite_master", kAllOptions).at(0), "0");
    EXPECT_TRUE(BytesOf(path + kept + "-wal") == log) << kept;
    FileUtil::WriteToFile(path, std::string(5000, 'g'));
  }
  DataBase db(DataBaseOptions{true, true, 1000});
  EXPECT_FAILS(db.Init(path), "look at them and remove them");
  EXPECT_TRUE(BytesOf(path) == std::string(5000, 'g'));
}

// What cannot be used is a failure that leaves nothing open and names the remedy, and with
// keep_damaged it never costs a sound file. A closed object refuses all.
TEST(DataBase, UnusableFiles) {
  const std::string dir = test::MakeTempDir();
  const std::string path = MakeDatabase(dir + "/d", 10);
  const auto open_files = [] {
    const std::filesystem::directory_iterator files("/proc/self/fd");
    return std::distance(begin(files), end(files));
  };
  const auto before = open_files();
  DataBase stock;
  DataBase db(kAllOptions);
  EXPECT_FAILS(stock.Init(dir), "errno=39");  // a folder that is not empty
  EXPECT_FAILS(db.Init(dir + "/none/d"), "is its folder there?");
  EXPECT_OK(stock.Init(path));
  EXPECT_OK(stock.Exec("DELETE FROM t WHERE a = 0"));  // takes the lock for good
  EXPECT_FAILS(db.Init(path), "does another process hold it?");
  EXPECT_OK(stock.Init(path));  // closes first
  EXPECT_OK(stock.Close());
  EXPECT_EQ(open_files(), before);
  EXPECT_FAILS(db.Query("SELECT 1", nullptr), "not initialized");
  EXPECT_FAILS(db.ExecBound("SELECT 1", {}), "db_ is nullptr");
  EXPECT_FAILS(db.Backup(dir + "/b"), "db_ is nullptr");
  EXPECT_EQ(test::QueryFile(path, "SELECT count(*) FROM t").at(0), "9");
}

// A failed statement or callback leaves connection and transaction usable; a row callback that
// calls back is told so, at once, by every operation.
TEST(DataBase, FailuresLeaveTheConnectionUsable) {
  const std::string path = MakeDatabase(test::MakeTempDir() + "/d", 3);
  DataBase db;
  EXPECT_OK(db.Init(path));
  EXPECT_OK(db.Rollback());  // nothing begun, nothing sent
  EXPECT_OK(db.Transaction());
  EXPECT_OK(db.Exec("DELETE FROM t"));
  EXPECT_FAILS(db.Exec("DELETE FROM x"), "Exec: DELETE FROM x failed, rc = 1, errmsg = no such ta");
  EXPECT_FAILS(db.Transaction(), "within a transaction");
  EXPECT_TRUE(db.IsInTransaction());
  EXPECT_OK(db.Rollback());
  for (const bool throws : {false, true}) {
    const auto end = [throws](int, char**, char**) { return throws ? throw 1 : 1; };
    EXPECT_FAILS(db.Query("SELECT * FROM t", end), "rc = 4,");
  }
  EXPECT_OK(db.Query("SELECT 1", [&](int, char**, char**) {
    for (const auto& error :
         {db.Exec("SELECT 1"), db.ExecBound("SELECT 1", {}), db.Query("SELECT 1", nullptr),
          db.Transaction(), db.Commit(), db.Rollback(), db.Backup(path + "b"), db.Init(path)}) {
      EXPECT_FAILS(error, "called by a row callback of this database");
    }
    EXPECT_OK(db.Close());  // always succeeds, here by doing nothing
    EXPECT_FALSE(db.IsInTransaction());
    return 0;
  }));
  EXPECT_OK(db.Commit());       // the refused calls have begun nothing
  EXPECT_OK(db.Transaction());  // and ends with its connection
  EXPECT_OK(db.Init(path));
  EXPECT_OK(db.Commit());
  EXPECT_EQ(One(db, "SELECT count(*) FROM t"), "3");
}

// The count of changed rows is exact, what is not one statement with as many parameters is refused,
// and no prepared statement outlives its connection.
TEST(DataBase, BoundValues) {
  DataBase db;
  const std::string path = MakeDatabase(test::MakeTempDir() + "/d", 2);
  EXPECT_OK(db.Init(path));
  int64_t changed = -1;
  EXPECT_OK(db.ExecBound("UPDATE t SET a = a WHERE a < ?", {2}, &changed));
  EXPECT_EQ(changed, 2);
  EXPECT_OK(db.ExecBound("SELECT * FROM t", {}, &changed));
  EXPECT_EQ(changed, 0);
  EXPECT_FAILS(db.ExecBound("DELETE FROM t WHERE a = ?", {}), "1 parameters, not 0");
  EXPECT_FAILS(db.ExecBound("DELETE FROM t; DELETE FROM t", {}), "is not one statement");
  for (int i = 0; i < 100; ++i) {  // more texts than are kept prepared
    EXPECT_OK(db.ExecBound("INSERT INTO t VALUES (?, " + std::to_string(i) + ")", {i}));
  }
  EXPECT_EQ(One(db, "SELECT count(*) FROM t"), "102");
  EXPECT_OK(db.Init(path));
  EXPECT_OK(db.ExecBound(kInsert, {1000, 1}));
}

// Threads that share the object neither lose a statement nor meet a connection that one closes.
TEST(DataBase, ThreadsShareIt) {
  DataBase db;
  const std::string path = MakeDatabase(test::MakeTempDir() + "/d", 0);
  EXPECT_OK(db.Init(path));
  std::atomic<int> inserted{0};
  const auto insert = [&] {
    while (inserted < 600) {  // one that meets no connection is refused
      inserted += db.ExecBound(kInsert, {1, 2}) == nullptr;
      inserted += db.Exec("INSERT INTO t VALUES (1, 2)") == nullptr;
      db.Query("SELECT max(a) FROM t", [](int, char**, char**) { return 0; });
    }
  };
  std::thread threads[] = {std::thread(insert), std::thread(insert), std::thread(insert)};
  for (int i = 0; i < 5; ++i) EXPECT_OK(db.Init(path));
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(One(db, "SELECT count(*) FROM t"), std::to_string(inserted));
}

// A backup is a database of its own with the content of that moment, whatever was in the file; one
// that could not be written says so.
TEST(DataBase, Backup) {
  NEED_PRIVATE_WORLD();
  for (const DataBaseOptions& options : {DataBaseOptions(), kAllOptions}) {
    const std::string dir = test::MakeTempDir();
    DataBase db(options);
    EXPECT_OK(db.Init(MakeDatabase(dir + "/d", 2000, options)));
    EXPECT_OK(db.Backup(MakeDatabase(dir + "/b", 3000)));
    EXPECT_EQ(test::QueryFile(dir + "/b", "SELECT count(*), sum(a) FROM t").at(0), "2000 1999000");
    EXPECT_FAILS(db.Backup(dir), "Failed to open backup db");
    ASSERT_EQ(mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=64k"), 0);
    EXPECT_FAILS(db.Backup(dir + "/full"), "Backup failed");
    ASSERT_EQ(umount(dir.c_str()), 0);
  }
}

}  // namespace
