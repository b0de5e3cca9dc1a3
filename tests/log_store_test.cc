// Log store and INI reader.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <sstream>
#include <stdexcept>

#include "bsp/log/ini.h"
#include "bsp/log/log.h"
#include "bsp/log/sys_log_rec.h"
#include "bsp/util/string_helper.h"
#include "tests/support/child.h"
#include "tests/support/raw_clock.h"
#include "tests/support/rows.h"
#include "tests/support/sqlite_fault.h"
#include "tests/support/test_env.h"

namespace {

using bsp::DataBase;
using bsp::DataBaseOptions;
using bsp::LogMsg;
using bsp::SearchReq;
using bsp::SysLogRec;
using test::QueryFile;
using test::Rows;

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

std::string NewFile() { return test::MakeTempDir() + "/log.db"; }

// A store with all three sizes `size`.
struct Store {
  explicit Store(const std::string& path, int size = 1000, const DataBaseOptions& options = {})
      : rec(cfg, options, &losses) {
    cfg.log_bus_size = cfg.log_ctrl_size = cfg.log_sys_size = size;
    EXPECT_TRUE(rec.Init(path));
  }
  void Fill(int rows, const std::string& text = "text") {
    for (int i = 0; i < rows; ++i) {
      rec.Record(Message(LOG_TYPE_CTRL, i, text));
      rec.Recycle();
    }
  }
  int Count() {
    int count = -1;
    EXPECT_EQ(rec.SearchCount(All(LOG_TYPE_CTRL), count), 0);
    return count;
  }
  bsp::LogSrvCfg cfg;
  bsp::LossLedger losses;
  SysLogRec rec;
};

// Rows are durable with the 100th of a batch, with Flush and a minute after the batch began, and
// not before; a type without table opens no batch.
TEST(LogStore, BatchesCommit) {
  const test::FrozenClock clock;
  const auto left_by = [](const std::function<void(Store&)>& calls) {
    const std::string path = NewFile();
    const auto crash = [&] {
      Store store(path, 1000, kAllOptions);
      calls(store);
      _exit(0);  // no destructor
      return 0;
    };
    EXPECT_EQ(test::Child::Fork(crash).Wait(), 0);
    return QueryFile(path, "SELECT id FROM tbl_ctrl_log").size();
  };
  EXPECT_EQ(left_by([](Store& store) { store.rec.Record(Message(3, 1)), store.Fill(99); }), 0u);
  EXPECT_EQ(left_by([](Store& store) { store.Fill(250); }), 200u);
  EXPECT_EQ(left_by([](Store& store) { store.Fill(42), store.rec.Flush(), store.Fill(9); }), 42u);
  for (const int seconds : {60, 61}) {
    const auto wait = [seconds] { test::g_clock_shift += seconds; };
    const size_t is_over = seconds > 60 ? 1 : 0;
    EXPECT_EQ(left_by([&](Store& store) { store.Fill(1), wait(), store.rec.Recycle(); }), is_over);
    const auto record_alone = [&](Store& store) {
      store.Fill(1);
      wait();
      store.rec.Record(Message(LOG_TYPE_CTRL, 1));
    };
    EXPECT_EQ(left_by(record_alone), is_over * 2);
  }
}

// However records come, over restarts and with rows that somebody else deleted in between, a table
// holds all up to the upper mark, and then the newest of the lower mark and one.
TEST(LogStore, TrimKeepsTheNewest) {
  for (const int size : {-20, 1, 7, 15, 100, 1234}) {
    const int low = std::max(0, static_cast<int>(size - size * 0.1));
    const int high = std::max(0, static_cast<int>(size + size * 0.1));
    const std::string path = NewFile();
    Rows model;
    for (int life = 0; life < 4; ++life) {
      {
        Store store(path, size);
        for (int i = 0; i < std::abs(size) * 2; ++i) {
          const int64_t stamp = life * 100000 + i;
          store.rec.Record(Message(LOG_TYPE_CTRL, stamp));
          if (i % 3 == 0) store.rec.Record(Message(LOG_TYPE_BUS, stamp));
          store.rec.Recycle();
          model.push_back(std::to_string(stamp));
          const bool is_trimmed = static_cast<int>(model.size()) > high;
          if (is_trimmed) model.erase(model.begin(), model.end() - low - 1);
        }
        store.rec.Flush();
      }
      ASSERT_EQ(QueryFile(path, "SELECT timems FROM tbl_ctrl_log"), model);
      const auto victim = model.begin() + static_cast<ptrdiff_t>(model.size() / 2);
      QueryFile(path, "DELETE FROM tbl_ctrl_log WHERE timems = " + *victim);
      model.erase(victim);
    }
  }
}

// Every filter narrows the page and the count alike, the page is held to 100 rows whatever is asked
// for, and what makes no sense does not turn into the whole table. Texts come back byte for byte,
// up to 1023 of them.
TEST(LogStore, Searches) {
  Store store(NewFile(), 100000);
  std::string text = "\xff\xc3( it's \"%n ?1 \\;";
  text.resize(1023, 'u');
  for (int i = 0; i < 1000; ++i) {
    LogMsg msg = Message(LOG_TYPE_BUS, i, text + "u");
    msg.level = i % 8;
    msg.trace_id = i % 5;
    msg.flow_id = i % 3;
    store.rec.Record(msg);
  }
  // "rows: timems level trace flow text", all but the first of the first.
  const auto found = [&](const SearchReq& req) {
    std::vector<LogMsg> rows(1);  // rows are appended
    EXPECT_EQ(store.rec.Search(req, rows), 0);
    rows.push_back({});
    return bsp::StringHelper::Format("%zu: %ld %d %ld %d %s", rows.size() - 2, rows[1].timems,
                                     rows[1].level, rows[1].trace_id, rows[1].flow_id, rows[1].log);
  };
  SearchReq req = {9, 500, LOG_TYPE_BUS, 2, 2, 3, -1, -1};
  EXPECT_EQ(found(req), "4: 98 2 3 2 " + text);
  req.offset = 1;
  req.limit = 2;
  EXPECT_EQ(found(req), "2: 218 2 3 2 " + text);
  int count = 0;
  EXPECT_EQ(store.rec.SearchCount(req, count), 0);
  EXPECT_EQ(count, 4);
  req = All(LOG_TYPE_BUS);
  for (const auto& [limit, rows] :
       std::map<int, std::string>{{-1, "1000"}, {500, "100"}, {100, "100"}, {1, "1"}, {-5, "0"}}) {
    req.limit = limit;
    EXPECT_EQ(found(req).find(rows + ":"), 0u);
  }
  std::vector<LogMsg> rows;
  EXPECT_EQ(store.rec.Search(All(LOG_TYPE_FEED_DOG), rows), -1);
  EXPECT_EQ(store.rec.SearchCount(All(LOG_TYPE_FEED_DOG), count), -1);
}

// A COMMIT that another process's reader holds up loses nothing: the rows go with the next one.
TEST(LogStore, CommitWaitsForAReader) {
  const std::string path = NewFile();
  { Store make_tables(path); }
  DataBase reader;
  ASSERT_EQ(reader.Init(path), nullptr);  // its check took the shared lock, for good
  Store store(path, 200);
  store.Fill(250);
  EXPECT_EQ(store.Count(), 181 + 29);  // trimmed at the 221st, within the transaction
  reader.Close();
  store.rec.Flush();
  store.Fill(11);
  store.rec.Init(NewFile());  // the open batch of 11 goes with its connection
  EXPECT_EQ(QueryFile(path, "SELECT count(*) FROM tbl_ctrl_log"), Rows{"210"});
}

// A full disk costs the rows of the failed batches, not the counts: when there is room again the
// next batch goes in, and the table is trimmed at exactly its mark.
TEST(LogStore, FullDisk) {
  NEED_PRIVATE_WORLD();
  for (const DataBaseOptions& options : {DataBaseOptions(), kAllOptions}) {
    const std::string dir = test::MakeTempDir();
    ASSERT_EQ(mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=600k"), 0);
    {
      Store store(dir + "/log.db", 2000, options);
      store.Fill(3000, std::string(1000, 'b'));
      store.rec.Flush();
      const int kept = store.Count();
      EXPECT_GT(kept, 50);
      EXPECT_LT(kept, 600);
      ASSERT_EQ(mount(nullptr, dir.c_str(), nullptr, MS_REMOUNT, "size=20m"), 0);
      store.Fill(2200 - kept);
      EXPECT_EQ(store.Count(), 2200);
      store.Fill(1);
      EXPECT_EQ(store.Count(), 1801);
      store.rec.Flush();
    }
    EXPECT_EQ(QueryFile(dir + "/log.db", "SELECT count(*) FROM tbl_ctrl_log"), Rows{"1801"});
    ASSERT_EQ(umount(dir.c_str()), 0);
  }
}

// Whichever system call fails once the store is open, once or for a while: after it each record is
// a row or counted in one that tells of losses.
TEST(LogStore, EachRecordIsARowOrTold) {
  NEED_PRIVATE_WORLD();
  using test::SqliteFault;
  int hits = 0;
  for (const auto kind : {SqliteFault::kRead, SqliteFault::kWrite, SqliteFault::kTruncate}) {
    for (const bool is_lasting : {false, true}) {
      bool was_hit = true;
      for (int n = 1; was_hit; ++n) {
        SCOPED_TRACE(std::to_string(kind) + " " + std::to_string(is_lasting) + " " +
                     std::to_string(n));
        const std::string path = "/mnt/log.db";  // in memory
        remove(path.c_str());
        {
          Store store(path, 100, kAllOptions);
          store.Fill(50, "before");
          {
            const SqliteFault fault(kind, n, ENOSPC, is_lasting);
            store.Fill(150, std::string(500, 'f'));
            was_hit = SqliteFault::was_hit();
          }
          hits += was_hit ? 1 : 0;
          store.Fill(50, "after");
          store.losses.Add(bsp::Loss::kRefused, 7);
          store.rec.Flush();
          ASSERT_FALSE(store.losses.HasUntold());
        }
        const auto number = [&](const std::string& sql) {
          return atoi(QueryFile(path, "SELECT " + sql, kAllOptions).at(0).c_str());
        };
        const std::string told =
            "sum(cast(substr(log, 25) AS INTEGER)) FROM tbl_sys_log WHERE log ";
        const int trimmed = number("coalesce(min(id) - 1, 0) FROM tbl_ctrl_log");
        ASSERT_EQ(
            number("count(*) FROM tbl_ctrl_log") + trimmed + number(told + "LIKE '% rows lost%'"),
            250);
        ASSERT_EQ(number(told + "LIKE '% refused %'"), 7);
      }
    }
  }
  EXPECT_GT(hits, 20);
}

// A trim that ends the transaction loses its batch, which is told, and is not tried again at once.
TEST(LogStore, TrimThatRollsBack) {
  const test::FrozenClock clock;
  const std::string path = NewFile();
  { Store make_tables(path); }
  QueryFile(path,
            "CREATE TRIGGER no BEFORE DELETE ON tbl_ctrl_log BEGIN "
            "SELECT RAISE(ROLLBACK, 'no'); END");
  {
    Store store(path, 100);
    store.Fill(250);
    EXPECT_EQ(store.Count(), 239);  // 100, and those after the 11 of the trim
    test::g_clock_shift += 61;
    store.Fill(1);
    store.rec.Flush();
  }
  EXPECT_EQ(QueryFile(path, "SELECT count(*), max(id) FROM tbl_ctrl_log"), Rows{"240 240"});
  EXPECT_EQ(QueryFile(path, "SELECT sum(cast(substr(log, 25) AS INTEGER)) FROM tbl_sys_log"),
            Rows{"11"});
}

// What a file says, where it breaks the grammar, and which texts are numbers.
TEST(Ini, Decode) {
  ini::IniFile file;
  const auto decode = [&file](const std::string& text) {
    std::istringstream is(text);
    file.decode(is);
  };
  decode(
      "; all comment\n \t\n [ a ] rest\r\nk = 1 ; note\nk2=x\\#y\\;z\\\\#\n=v\nkey=\n"
      "[b]\nx = y = z\n[ a ]\nk = 2\nlast = [1]");
  std::string fields;
  for (const auto& section : file) {
    for (const auto& field : section.second) {
      fields += section.first + "|" + field.first + "|" + field.second.as<std::string>() + "\n";
    }
  }
  EXPECT_EQ(fields, " a ||v\n a |k|2\n a |k2|x#y;z\\#\n a |key|\n a |last|[1]\nb|x|y = z\n");
  for (const char* bad : {"[]", "k", "[b]\nk ; = 1", "[a]\nk=1\n\n[x"}) {
    EXPECT_THROW(decode(bad), std::logic_error) << bad;
  }
  EXPECT_EQ(file["a"]["k"].as<int>(), 1);  // what was read so far
  const std::pair<const char*, int> numbers[] = {
      {"010", 10}, {"0x10", 16}, {"1f", 31}, {"abc", 2748}, {"-5", -5}, {"", 0}, {"4294967297", 1}};
  for (const auto& [text, number] : numbers) EXPECT_EQ(ini::IniField(text).as<int>(), number);
  for (const char* bad : {"12x", "-", "1 2", "0x", "1.5"}) {
    EXPECT_THROW(ini::IniField(bad).as<int>(), std::invalid_argument) << bad;
  }
}

}  // namespace
