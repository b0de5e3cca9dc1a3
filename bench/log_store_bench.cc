// The log store beside a bare prepared insert into the same table with the same settings, commits
// of 100 rows on both sides, texts of 80 bytes. The store keeps its table at the limit (it trims as
// it goes), the bare one grows. Files lie in $TMPDIR, else /tmp. Journal rows: what SQLite's two
// journals that survive a kill cost beside the one in memory.
#include <sqlite3.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench/support/pair.h"
#include "bsp/log/log.h"
#include "bsp/log/sys_log_rec.h"

namespace {

constexpr int kBatch = 100;

// A folder for the life of the program.
struct TempDir {
  TempDir() {
    const char* base = getenv("TMPDIR");
    path = std::string(base != nullptr ? base : "/tmp") + "/bsp-bench-XXXXXX";
    if (mkdtemp(&path[0]) == nullptr) abort();
  }
  ~TempDir() {
    std::error_code ignored;  // best effort: nothing depends on it
    std::filesystem::remove_all(path, ignored);
  }
  std::string path;
};

std::string NewFile() {
  static TempDir dir;
  static int count = 0;
  return dir.path + "/" + std::to_string(++count) + ".db";
}

void Check(bool good) {
  if (!good) abort();
}

bsp::LogMsg Message(int64_t number) {
  bsp::LogMsg msg = bsp::kLogMsgPrototype;
  msg.type = LOG_TYPE_CTRL;
  msg.timems = number;
  msg.flow_id = static_cast<int32_t>(number % 16);
  msg.len =
      snprintf(msg.log, sizeof msg.log, "valve %8ld moved to position %8ld of %8ld, all well %s",
               static_cast<long>(number), static_cast<long>(number * 7 % 1000),
               static_cast<long>(number % 77), "and good, x");
  return msg;
}

// What a receiver would do without a store: one connection, one prepared insert.
class BareTable {
 public:
  explicit BareTable(const std::string& path, const char* journal = "MEMORY") {
    Check(sqlite3_open(path.c_str(), &db_) == SQLITE_OK);
    Exec("PRAGMA locking_mode = EXCLUSIVE; PRAGMA synchronous = FULL;");
    Exec(("PRAGMA journal_mode = " + std::string(journal)).c_str());
    Exec(
        "PRAGMA mmap_size = 0; PRAGMA temp_store = MEMORY; PRAGMA cache_size = 200;"
        "PRAGMA soft_heap_limit = 1048576;");
    Exec(
        "CREATE TABLE t (id INTEGER, timems INTEGER NOT NULL, level INTEGER, trace_id INTEGER,"
        " flow_id INTEGER, log TEXT, PRIMARY KEY(id AUTOINCREMENT))");
    Check(sqlite3_prepare_v2(db_,
                             "INSERT INTO t (timems, level, trace_id, flow_id, log) "
                             "VALUES (?, ?, ?, ?, ?)",
                             -1, &insert_, nullptr) == SQLITE_OK);
  }
  ~BareTable() {
    sqlite3_finalize(insert_);
    sqlite3_close(db_);
  }
  BareTable(const BareTable&) = delete;
  BareTable& operator=(const BareTable&) = delete;

  void Record(const bsp::LogMsg& msg) {
    if (pending_ == 0) Exec("BEGIN");
    sqlite3_bind_int64(insert_, 1, msg.timems);
    sqlite3_bind_int64(insert_, 2, msg.level);
    sqlite3_bind_int64(insert_, 3, msg.trace_id);
    sqlite3_bind_int64(insert_, 4, msg.flow_id);
    sqlite3_bind_text(insert_, 5, msg.log, -1, SQLITE_STATIC);
    Check(sqlite3_step(insert_) == SQLITE_DONE);
    sqlite3_reset(insert_);
    if (++pending_ < kBatch) return;
    Exec("COMMIT");
    pending_ = 0;
  }

 private:
  void Exec(const char* sql) {
    Check(sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK);
  }

  sqlite3* db_ = nullptr;
  sqlite3_stmt* insert_ = nullptr;
  int pending_ = 0;
};

double Now(clockid_t clock) {
  struct timespec now = {};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

struct Cost {
  double wall_us = 0;  // a row
  double cpu_us = 0;
};

template <typename Store>
Cost Measure(int rows, Store&& record) {
  static int64_t number = 0;
  const double wall = Now(CLOCK_MONOTONIC);
  const double cpu = Now(CLOCK_PROCESS_CPUTIME_ID);
  for (int i = 0; i < rows; ++i) record(Message(++number));
  return {(Now(CLOCK_MONOTONIC) - wall) * 1e6 / rows,
          (Now(CLOCK_PROCESS_CPUTIME_ID) - cpu) * 1e6 / rows};
}

double MedianOf(const std::vector<Cost>& costs, double Cost::*field) {
  std::vector<double> values;
  for (const Cost& cost : costs) values.push_back(cost.*field);
  return bench::Median(values);
}

// Rounds of ours and the limit in turn, each a whole number of trims.
void Ingest(int limit, bool journal) {
  bsp::LogSrvCfg cfg;
  cfg.log_ctrl_size = limit;
  bsp::DataBaseOptions options;
  options.journal = journal;
  bsp::SysLogRec store(cfg, options);
  Check(store.Init(NewFile()));
  BareTable bare(NewFile(), journal ? "WAL" : "MEMORY");
  const auto ours = [&](const bsp::LogMsg& msg) {
    store.Record(msg);
    store.Recycle();
  };
  const auto limit_of_all = [&](const bsp::LogMsg& msg) { bare.Record(msg); };
  const int fill = limit + limit / 10;
  Measure(fill, ours);
  Measure(fill, limit_of_all);

  const int rows = std::max(4000, limit / 5);
  const int rounds = std::max(9, 240000 / rows);
  std::vector<Cost> our_costs;
  std::vector<Cost> limit_costs;
  for (int round = 0; round < rounds; ++round) {
    our_costs.push_back(Measure(rows, ours));
    limit_costs.push_back(Measure(rows, limit_of_all));
  }
  bsp::SearchReq all;
  all.type = LOG_TYPE_CTRL;
  all.start_ms = all.end_ms = -1;
  int count = 0;
  Check(store.SearchCount(all, count) == 0 && count <= fill && count > limit - limit / 10);

  const std::string topic =
      "log store: " + std::to_string(limit) + " rows" + (journal ? ", journal on disk" : "");
  bench::AddRow(topic + ", rate", 1e6 / MedianOf(our_costs, &Cost::wall_us),
                1e6 / MedianOf(limit_costs, &Cost::wall_us), "row/s",
                bench::Target::RatioAtLeast(0.85));
  bench::AddRow(topic + ", CPU a row", MedianOf(our_costs, &Cost::cpu_us),
                MedianOf(limit_costs, &Cost::cpu_us), "us", bench::Target::RatioAtMost(1.5));
}

// Bytes that this process has handed to write calls.
double BytesWritten() {
  std::ifstream io("/proc/self/io");
  std::string name;
  double value = 0;
  while (io >> name >> value) {
    if (name == "wchar:") return value;
  }
  return 0;
}

void Journals() {
  constexpr int kRows = 40000;
  struct {
    const char* name;
    double bytes;
    double us;
  } figures[] = {{"MEMORY", 0, 0}, {"WAL", 0, 0}, {"PERSIST", 0, 0}};
  for (auto& figure : figures) {
    BareTable table(NewFile(), figure.name);
    Measure(kRows / 2, [&](const bsp::LogMsg& msg) { table.Record(msg); });
    const double before = BytesWritten();
    figure.us = Measure(kRows, [&](const bsp::LogMsg& msg) { table.Record(msg); }).wall_us;
    figure.bytes = (BytesWritten() - before) / kRows;
  }
  for (const auto& figure : figures) {
    if (&figure == figures) continue;
    const std::string topic = std::string("journal ") + figure.name + " beside MEMORY";
    bench::AddRow(topic + ", bytes written a row", figure.bytes, figures[0].bytes, "B");
    bench::AddRow(topic + ", time a row", figure.us, figures[0].us, "us");
  }
}

// A store of 20000 rows that searches share.
bsp::SysLogRec& SearchedStore() {
  static bsp::LogSrvCfg cfg;
  static bsp::SysLogRec* store = [] {
    cfg.log_ctrl_size = 20000;
    auto* filled = new bsp::SysLogRec(cfg);  // for the life of the program
    Check(filled->Init(NewFile()));
    for (int i = 0; i < 20000; ++i) filled->Record(Message(i));
    filled->Flush();
    return filled;
  }();
  return *store;
}

void SearchPage(benchmark::State& state, const bsp::SearchReq& req, size_t expected) {
  bsp::SysLogRec& store = SearchedStore();
  std::vector<bsp::LogMsg> found;
  for (auto _ : state) {
    found.clear();
    Check(store.Search(req, found) == 0 && found.size() == expected);
  }
}

void RegisterSearches() {
  const auto search = [](const std::string& topic, const bsp::SearchReq& req, size_t expected) {
    bench::Single(
        "log search among 20000 rows: " + topic,
        [req, expected](benchmark::State& state) { SearchPage(state, req, expected); },
        bench::Target::AtMost(5e6));
  };
  bsp::SearchReq req;
  req.type = LOG_TYPE_CTRL;
  req.end_ms = INT64_MAX;
  search("first page", req, 100);
  req.offset = 19900;
  search("last page", req, 100);
  req.offset = 0;
  req.flow_id = 3;
  req.start_ms = 18400;
  search("page by flow and time", req, 100);
  req.flow_id = 99;
  search("no row matches", req, 0);
}

}  // namespace

void RegisterBenchmarks() {
  g_log_level = BSP_LEVEL_ERROR;
  RegisterSearches();
  for (const int limit : {1000, 20000, 200000}) {
    bench::Custom([limit] { Ingest(limit, false); });
  }
  bench::Custom([] { Ingest(20000, true); });
  bench::Custom(Journals);
}
