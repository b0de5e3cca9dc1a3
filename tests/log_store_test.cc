// Log store and INI reader.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <random>
#include <sstream>
#include <stdexcept>

#include "bsp/log/ini.h"
#include "bsp/log/log.h"
#include "bsp/log/sys_log_rec.h"
#include "bsp/util/file_util.h"
#include "tests/support/child.h"
#include "tests/support/test_env.h"

namespace {

std::atomic<time_t> g_ahead{0};  // seconds by which the raw clock is set ahead

}  // namespace

// In place of libc's, for the library too: a test does not wait a minute.
extern "C" int clock_gettime(clockid_t clock, struct timespec* now) noexcept {
  const long result = syscall(SYS_clock_gettime, clock, now);
  if (clock == CLOCK_MONOTONIC_RAW) now->tv_sec += g_ahead;
  return static_cast<int>(result);
}

namespace {

using bsp::DataBase;
using bsp::DataBaseOptions;
using bsp::LogMsg;
using bsp::SearchReq;
using bsp::SysLogRec;

constexpr DataBaseOptions kAllOptions = {true, true};

// Failures are expected here, and each is told in a line.
const bool g_is_silent = (g_log_level = BSP_LEVEL_EMERG, true);

LogMsg Message(int type, int64_t timems, const std::string& text = "text") {
  LogMsg msg = bsp::kLogMsgPrototype;
  msg.type = type;
  msg.timems = timems;
  memcpy(msg.log, text.data(), text.size());
  return msg;
}

SearchReq All(int type) {
  SearchReq req;
  req.type = type;
  req.start_ms = req.end_ms = req.limit = -1;
  return req;
}

// A store with a file of its own. All three sizes are `size`.
struct Store {
  explicit Store(int size = 1000, const DataBaseOptions& options = {},
                 const std::string& file = test::MakeTempDir() + "/log.db")
      : path(file), rec(cfg, options) {
    cfg.log_bus_size = cfg.log_ctrl_size = cfg.log_sys_size = size;
    is_open = rec.Init(path);
  }
  int Count(int type) {
    int count = -1;
    EXPECT_EQ(rec.SearchCount(All(type), count), 0);
    return count;
  }
  void Fill(int type, int rows) {
    for (int i = 0; i < rows; ++i) {
      rec.Record(Message(type, i));
      rec.Recycle();
    }
  }
  bsp::LogSrvCfg cfg;
  std::string path;
  SysLogRec rec;
  bool is_open;
};

// What the next start finds in the file; a value of each row.
std::vector<std::string> RowsOf(const std::string& path, const std::string& column,
                                const std::string& table = "tbl_ctrl_log") {
  std::vector<std::string> rows;
  DataBase db;
  EXPECT_EQ(db.Init(path), nullptr);
  EXPECT_EQ(db.Query("SELECT " + column + " FROM " + table,
                     [&](int, char** values, char**) {
                       rows.emplace_back(values[0]);
                       return 0;
                     }),
            nullptr);
  return rows;
}

// Text reaches its column byte for byte and comes back so, whatever it holds, and none of it is
// taken for a statement; numbers keep their sign in the file, though a search reads digits only.
TEST(LogStore, ValuesAreStoredAsTheyAre) {
  std::string all_bytes;
  for (int c = 1; c < 1023; ++c) all_bytes += static_cast<char>(c % 255 + 1);
  const std::vector<std::string> texts = {"", "\"); DROP TABLE tbl_ctrl_log; --",
                                          "it's \"quoted\"; %s %n ?1 :a @b $c \\",
                                          "\xff\xfe\xc3(\x80 not utf-8", all_bytes + "x"};
  std::string path;
  {
    Store store;
    path = store.path;
    for (const std::string& text : texts) {
      LogMsg msg = Message(LOG_TYPE_CTRL, INT64_MIN, text);
      msg.level = msg.flow_id = INT32_MIN;
      msg.trace_id = INT64_MAX;
      store.rec.Record(msg);
    }
    LogMsg unterminated = Message(LOG_TYPE_CTRL, 1, std::string(1024, 'u'));
    store.rec.Record(unterminated);
    std::vector<LogMsg> found;
    ASSERT_EQ(store.rec.Search(All(LOG_TYPE_CTRL), found), 0);
    ASSERT_EQ(found.size(), texts.size() + 1);
    for (size_t i = 0; i < texts.size(); ++i) {
      LogMsg expected = Message(0, 0, texts[i]);
      expected.trace_id = INT64_MAX;
      expected.level = 0;
      EXPECT_EQ(memcmp(&found[i], &expected, sizeof expected), 0) << i;
    }
    EXPECT_EQ(strlen(found.back().log), 1023u);
    store.rec.Flush();
  }
  const std::string row = "typeof(log) || length(CAST(log AS BLOB)) || timems || level || flow_id";
  EXPECT_EQ(RowsOf(path, row)[4], "text1023-9223372036854775808-2147483648-2147483648");
  EXPECT_EQ(RowsOf(path, row)[5], "text1024160");
}

// Rows are durable with the 100th of a batch, with Flush and a minute after the batch began, and
// not before; a type without table opens no batch.
TEST(LogStore, BatchesCommit) {
  const auto left_by = [](const std::function<void(SysLogRec&)>& calls) {
    const std::string path = test::MakeTempDir() + "/log.db";
    EXPECT_EQ(test::Child::Fork([&] {
                Store store(1000, kAllOptions, path);
                calls(store.rec);
                _exit(0);  // as a crash: no destructor
                return 0;
              }).Wait(),
              0);
    return RowsOf(path, "id").size();
  };
  const auto record = [](SysLogRec& rec, int rows) {
    for (int i = 0; i < rows; ++i) rec.Record(Message(LOG_TYPE_CTRL, i));
  };
  EXPECT_EQ(left_by([&](SysLogRec& rec) { record(rec, 99); }), 0u);
  EXPECT_EQ(left_by([&](SysLogRec& rec) { record(rec, 250); }), 200u);
  EXPECT_EQ(left_by([&](SysLogRec& rec) { record(rec, 42), rec.Flush(), record(rec, 9); }), 42u);
  EXPECT_EQ(left_by([&](SysLogRec& rec) { rec.Record(Message(3, 1)), record(rec, 99); }), 0u);
  for (const int seconds : {58, 61}) {
    const auto wait = [&] { g_ahead += seconds; };
    const size_t is_over = seconds > 60 ? 1 : 0;
    EXPECT_EQ(left_by([&](SysLogRec& rec) { record(rec, 1), wait(), rec.Recycle(); }), is_over);
    EXPECT_EQ(left_by([&](SysLogRec& rec) { record(rec, 1), wait(), record(rec, 1); }),
              is_over * 2);
  }
}

// However records come, over restarts and with rows that somebody else deleted in between, a table
// holds all up to the upper mark, and then the newest of the lower mark and one.
TEST(LogStore, TrimKeepsTheNewest) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  for (const int size : {1, 7, 15, 100, 1234}) {
    const int low = static_cast<int>(size - size * 0.1);
    const int high = static_cast<int>(size + size * 0.1);
    const std::string path = test::MakeTempDir() + "/log.db";
    std::vector<std::string> model;
    int trims = 0;
    for (int life = 0; life < 4; ++life) {
      {
        Store store(size, {}, path);
        for (int i = 0; i < size * 2; ++i) {
          const int64_t stamp = life * 100000 + i;
          store.rec.Record(Message(LOG_TYPE_CTRL, stamp));
          if (i % 3 == 0) store.rec.Record(Message(LOG_TYPE_BUS, stamp));
          store.rec.Recycle();
          model.push_back(std::to_string(stamp));
          if (static_cast<int>(model.size()) <= high) continue;
          model.erase(model.begin(), model.end() - low - 1);
          ++trims;
        }
        store.rec.Flush();
      }
      ASSERT_EQ(RowsOf(path, "timems"), model);
      const auto victim = model.begin() + static_cast<ptrdiff_t>(random() % model.size());
      DataBase db;
      ASSERT_EQ(db.Init(path), nullptr);
      ASSERT_EQ(db.Exec("DELETE FROM tbl_ctrl_log WHERE timems = " + *victim), nullptr);
      model.erase(victim);
    }
    EXPECT_GE(trims, 4);
  }
}

// Every filter narrows the page and the count alike, the page is held to 100 rows whatever is asked
// for, and what makes no sense does not turn into the whole table.
TEST(LogStore, Searches) {
  Store store(100000);
  for (int i = 0; i < 1000; ++i) {
    LogMsg msg = Message(LOG_TYPE_BUS, i);
    msg.level = i % 8;
    msg.trace_id = i % 5;
    msg.flow_id = i % 3;
    store.rec.Record(msg);
  }
  using Found = std::pair<size_t, int64_t>;  // rows, timems of the first
  const auto found = [&](const SearchReq& req) {
    std::vector<LogMsg> rows(1);  // rows are appended
    EXPECT_EQ(store.rec.Search(req, rows), 0);
    return Found(rows.size() - 1, rows.size() > 1 ? rows[1].timems : -1);
  };
  SearchReq req;
  req.type = LOG_TYPE_BUS;
  EXPECT_EQ(found(req), Found(1, 0));  // the default times filter, too
  req = All(LOG_TYPE_BUS);
  EXPECT_EQ(store.rec.GenSearchFilterSql(req), "");
  EXPECT_EQ(found(req).first, 1000u);
  req.level = req.flow_id = 2;
  req.trace_id = 3;
  req.start_ms = 9;
  req.end_ms = 500;
  EXPECT_EQ(store.rec.GenSearchFilterSql(req),
            " AND level = 2 AND trace_id = 3 AND flow_id = 2 AND timems >= 9 AND timems <= 500");
  EXPECT_EQ(found(req), Found(4, 98));
  req.offset = 1;
  req.limit = 2;
  EXPECT_EQ(found(req), Found(2, 218));
  int count = 0;
  EXPECT_EQ(store.rec.SearchCount(req, count), 0);
  EXPECT_EQ(count, 4);
  req = All(LOG_TYPE_BUS);
  for (const int limit : {500, 100, 1, 0, -5}) {
    req.limit = limit;
    EXPECT_EQ(found(req).first, static_cast<size_t>(std::max(0, std::min(limit, 100))));
  }
  req.offset = -7;
  req.limit = 3;
  EXPECT_EQ(found(req), Found(3, 0));
  std::vector<LogMsg> rows;
  req.type = LOG_TYPE_FEED_DOG;
  EXPECT_EQ(store.rec.Search(req, rows), -1);
  EXPECT_EQ(store.rec.SearchCount(req, count), -1);
}

// A COMMIT that another process's reader holds up loses nothing: the rows go with the next one.
TEST(LogStore, CommitWaitsForAReader) {
  const std::string path = test::MakeTempDir() + "/log.db";
  { Store make_tables(10, {}, path); }
  DataBase reader;
  ASSERT_EQ(reader.Init(path), nullptr);  // its check took the shared lock, for good
  Store store(200, {}, path);
  store.Fill(LOG_TYPE_CTRL, 250);
  EXPECT_TRUE(store.is_open);
  EXPECT_EQ(store.Count(LOG_TYPE_CTRL), 181 + 29);  // trimmed at the 221st, within the transaction
  reader.Close();
  store.rec.Flush();
  store.Fill(LOG_TYPE_CTRL, 11);
  store.rec.Init(test::MakeTempDir() + "/other.db");
  EXPECT_EQ(RowsOf(path, "id").size(), 210u);  // the open batch of 11 went with its connection
}

// A full disk costs the rows of the failed batches, not the counts: when there is room again the
// next batch goes in, and the table is trimmed at exactly its mark.
TEST(LogStore, FullDisk) {
  NEED_PRIVATE_WORLD();
  for (const DataBaseOptions& options : {DataBaseOptions(), kAllOptions}) {
    const std::string dir = test::MakeTempDir();
    ASSERT_EQ(mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=600k"), 0);
    {
      Store store(2000, options, dir + "/log.db");
      ASSERT_TRUE(store.is_open);
      const LogMsg big = Message(LOG_TYPE_CTRL, 7, std::string(1000, 'b'));
      for (int i = 0; i < 3000; ++i) {
        store.rec.Record(big);
        store.rec.Recycle();
      }
      store.rec.Flush();
      const int kept = store.Count(LOG_TYPE_CTRL);
      EXPECT_GT(kept, 50);
      EXPECT_LT(kept, 600);
      ASSERT_EQ(mount(nullptr, dir.c_str(), nullptr, MS_REMOUNT, "size=20m"), 0);
      store.Fill(LOG_TYPE_CTRL, 2200 - kept);
      EXPECT_EQ(store.Count(LOG_TYPE_CTRL), 2200);
      store.Fill(LOG_TYPE_CTRL, 1);
      EXPECT_EQ(store.Count(LOG_TYPE_CTRL), 1801);
      store.rec.Flush();
    }
    EXPECT_EQ(RowsOf(dir + "/log.db", "id").size(), 1801u);
    ASSERT_EQ(umount(dir.c_str()), 0);
  }
}

// Killed at any moment at full speed: with the journal every file is sound and every committed row
// is there; without it the next start still always has a working store, if need be an empty one.
TEST(LogStore, Killed) {
  NEED_PRIVATE_WORLD();  // in memory, where the time goes to writes instead of waits for a disk
  void* shared = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  auto& committed = *new (shared) std::atomic<int64_t>(0);
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  constexpr int kRounds = 100;
  for (const DataBaseOptions& options : {DataBaseOptions(), kAllOptions}) {
    const std::string path = options.journal ? "/mnt/journal.db" : "/mnt/stock.db";
    committed = 0;
    int lossy = 0;
    for (int round = 0; round < kRounds; ++round) {
      const int64_t begin = committed;
      test::Child child = test::Child::Fork([&] {
        Store store(1500, options, path);
        for (int64_t i = begin + 1;; ++i) {
          store.rec.Record(
              Message(LOG_TYPE_CTRL, i, std::string(static_cast<size_t>(i) % 900, 'k')));
          store.rec.Recycle();
          if ((i - begin) % 100 == 0) committed = i;
        }
        return 0;
      });
      while (committed == begin) usleep(100);
      usleep(static_cast<useconds_t>(random() % 4000));
      child.Signal(SIGKILL);
      ASSERT_EQ(child.Wait(), 128 + SIGKILL);

      Store store(1500, options, path);
      ASSERT_TRUE(store.is_open);
      SearchReq req = All(LOG_TYPE_CTRL);
      req.start_ms = std::max<int64_t>(1, committed - 999);
      req.end_ms = committed;
      int found = 0;
      ASSERT_EQ(store.rec.SearchCount(req, found), 0);
      if (found != req.end_ms - req.start_ms + 1) {
        ASSERT_FALSE(options.journal) << found << " of " << req.end_ms << " in round " << round;
        ++lossy;
        committed = 0;
        ASSERT_EQ(remove(path.c_str()), 0);
        continue;
      }
      // The last commit may have gone through untold.
      req.start_ms = committed + 1;
      req.end_ms = -1;
      ASSERT_EQ(store.rec.SearchCount(req, found), 0);
      committed += found;
    }
    printf("%s: %d of %d files lost rows\n", options.journal ? "journal" : "stock", lossy, kRounds);
    EXPECT_FALSE(bsp::FileUtil::IsFileExist(path + ".damaged"));
  }
  munmap(shared, 4096);
}

// What a file says, and where it breaks the grammar.
TEST(Ini, Decode) {
  ini::IniFile file;
  const auto decode = [&file](const std::string& text) {
    std::istringstream is(text);
    try {
      file.decode(is);
    } catch (const std::logic_error& error) {
      return std::string(error.what());
    }
    return std::string();
  };
  EXPECT_EQ(decode("; all comment\n \t\n [ a ] rest\r\nk = 1 ; note\nk2=x\\#y\\;z\\\\#\n=v\nkey=\n"
                   "[b]\nx = y = z\n[ a ]\nk = 2\nlast = [1]"),
            "");
  auto& a = file[" a "];
  EXPECT_EQ(a["k"].as<int>(), 2);
  EXPECT_EQ(a["k2"].as<std::string>(), "x#y;z\\#");
  EXPECT_EQ(a[""].as<std::string>(), "v");
  EXPECT_EQ(a["key"].as<std::string>(), "");
  EXPECT_EQ(a["last"].as<std::string>(), "[1]");
  EXPECT_EQ(file["b"]["x"].as<std::string>(), "y = z");
  EXPECT_EQ(file.size(), 2u);
  EXPECT_EQ(a.size(), 5u);

  const std::string failed = ": ini parsing failed, ";
  EXPECT_EQ(decode("[a]\nk=1\n\n[x"), "l.4" + failed + "section not closed");
  EXPECT_EQ(file["a"]["k"].as<int>(), 1);  // what was read so far
  EXPECT_EQ(decode("# c\n[]"), "l.2" + failed + "section is empty");
  EXPECT_EQ(decode("k"), "l.1" + failed +
                             "field has no section or ini file in use by another "
                             "application");
  EXPECT_EQ(decode("[a]\nk ; = 1"), "l.2" + failed + "no '=' found");
  EXPECT_EQ(file.size(), 1u);
  file.load("/nonexistent/file");
  EXPECT_TRUE(file.empty());
  // A megabyte of escapes takes no longer than a megabyte of text.
  EXPECT_EQ(decode("[a]\nk=" +
                   [] {
                     std::string escapes;
                     for (int i = 0; i < 500000; ++i) escapes += "\\#";
                     return escapes;
                   }()),
            "");
  EXPECT_EQ(file["a"]["k"].as<std::string>(), std::string(500000, '#'));
}

TEST(Ini, Numbers) {
  const std::pair<const char*, int> numbers[] = {
      {"010", 10}, {"0x10", 16}, {"1f", 31}, {"abc", 2748}, {"-5", -5}, {"", 0}, {"4294967297", 1}};
  for (const auto& number : numbers) {
    EXPECT_EQ(ini::IniField(number.first).as<int>(), number.second) << number.first;
  }
  for (const char* bad : {"12x", "-", "1 2", "0x", "1.5"}) {
    EXPECT_THROW(ini::IniField(bad).as<int>(), std::invalid_argument) << bad;
  }
}

}  // namespace
