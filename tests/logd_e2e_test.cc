// bsp-logd and modules as the processes that they are on a device.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <random>
#include <vector>

#include "bsp/log/log.h"
#include "bsp/log/status_block.h"
#include "bsp/log/sys_log_cli.h"
#include "bsp/util/file_util.h"
#include "bsp/util/time_util.h"
#include "tests/support/child.h"
#include "tests/support/rows.h"
#include "tests/support/test_env.h"

namespace {

using bsp::FileUtil;
using test::Child;
using test::Rows;

// A folder on the private tmpfs with a configuration and the database log.db; with `disk_size`
// a file system of its own.
std::string MakeDir(const std::string& cfg = "", const char* disk_size = nullptr) {
  static int count = 0;
  const std::string dir = "/mnt/logd" + std::to_string(++count);
  std::filesystem::create_directories(dir);
  if (disk_size != nullptr) {
    EXPECT_EQ(mount("tmpfs", dir.c_str(), "tmpfs", 0, disk_size), 0);
  }
  FileUtil::WriteToFile(dir + "/com_srv_app.ini", "[record]\nlog_db_file = log.db\n" + cfg);
  return dir;
}

Child RunLogd(const std::string& dir, const Rows& options = {}) {
  Rows words = {std::string(BSP_TEST_BIN_DIR) + "/bsp-logd", "--dir", dir};
  words.insert(words.end(), options.begin(), options.end());
  return Child::Run(words);
}

Child StartLogd(const std::string& dir, const Rows& options = {}) {
  Child logd = RunLogd(dir, options);
  EXPECT_TRUE(logd.WaitForLine("bsp-logd ready on 0.0.0.0:12122")) << logd.output();
  return logd;
}

void EndLogd(Child* logd) {
  logd->Signal(SIGTERM);
  EXPECT_EQ(logd->Wait(), 0) << logd->output();
}

// A query on the database of a server that has ended.
Rows Query(const std::string& dir, const std::string& sql) {
  return test::QueryFile(dir + "/log.db", "SELECT " + sql, {true, true});
}
int Number(const std::string& dir, const std::string& sql) {
  return atoi(Query(dir, sql).at(0).c_str());
}

// The block as a tool sees it. This process itself is the module that the tests speak of.
struct Block : bsp::StatusBlockHandle {
  Block() { EXPECT_TRUE(InitForWrite(bsp::kSystemStatusName, bsp::kSystemStatusSize, 1)); }
};

// Sends from a module of its own.
void SendRecords(int count, int first = 0, int width = 1) {
  ASSERT_EQ(log_init_v2(6, "sender", 0), 0);
  for (int i = first; i < first + count; ++i) BSP_TRACE(i, i, "%*d", width, i);
  log_deinit();
}

// A record that becomes a log line and no row.
void SendUnknown() {
  bsp::LogMsg unknown = bsp::kLogMsgPrototype;
  unknown.type = 3;
  ASSERT_EQ(log_init_v2(6, "sender", 0), 0);
  log_send_msg(&unknown);
  log_deinit();
}

// What a module logs becomes rows, in order, across its restart, byte for byte; a level set in the
// block counts at its next call. A module that never feeds becomes late, which is told once.
TEST(Logd, FromModuleToRow) {
  NEED_PRIVATE_WORLD();
  const std::string dir = MakeDir(
      "[watchdog]\nmodule_0 = worker\nmodule_1 = ghost\nmodule_32 = none\n"
      "[log_size]\nlog_ctrl_size = fade\n[logs]\nx = 1\n");
  Child logd = StartLogd(dir);
  Block block;
  bsp::ModSta* worker = &block->mods[0];
  bsp::ModSta* ghost = &block->mods[1];
  for (int life = 0; life < 2; ++life) {
    ASSERT_EQ(log_init_v2(6, "worker", 0), 0);
    BSP_CONTROL(life, "it's 100%% \"quoted\"; -- \xff\t");
    BSP_SYSTEM(2, "system");
    EXPECT_FALSE(bsp::IsLogged("MOD_W", 7));
    bsp::SetModuleLevel(worker, 7);
    EXPECT_TRUE(bsp::IsLogged("MOD_W", 7));
    bsp::StoreWord(worker->logs[1].log_level, 6);  // of MOD_W, the second tag
    EXPECT_FALSE(bsp::IsLogged("MOD_W", 7));
    EXPECT_EQ(worker->timeout, 60);
    EXPECT_EQ(mod_is_running(), 0);
    BSP_FEED_DOG();
    log_deinit();
  }
  bsp::StoreWord(ghost->feed_time, int64_t{-1000});
  EXPECT_TRUE(logd.WaitForLine("timeout log: mod ghost("));
  bsp::StoreWord(worker->feed_cnt, 1);  // which the next pass counts down
  while (bsp::LoadWord(worker->feed_cnt) != 0) bsp::TimeUtil::SleepMs(20);
  EndLogd(&logd);
  for (const char* line : {"l.6: [watchdog] module_32 is unknown", "l.10: [logs] x is unknown",
                           "l.8: log_ctrl_size = fade is read as hexadecimal, 64222"}) {
    EXPECT_NE(logd.output().find(line), std::string::npos) << line;
  }
  const std::string text = "it's 100% \"quoted\"; -- \xff\t";
  EXPECT_EQ(Query(dir, "level, flow_id, log FROM tbl_ctrl_log"),
            (Rows{"6 0 " + text, "2 0 system", "6 1 " + text, "2 0 system"}));
  EXPECT_EQ(Number(dir, "count(*) FROM tbl_sys_log WHERE log LIKE '%not feed the dog%'"), 1);
}

// A module that was there first goes on behind the server's start, without name and levels; one
// that starts again is registered. A second server ends before it touches block or database.
TEST(Logd, StartOrder) {
  NEED_PRIVATE_WORLD();
  const std::string dir = MakeDir();
  Child logd = StartLogd(MakeDir());  // leaves an empty block
  EndLogd(&logd);
  for (const bool is_again : {false, true}) {
    ASSERT_EQ(log_init_v2(6, "early", 0), 0);
    BSP_CONTROL(1, "goes to nobody the first time");
    if (!is_again) logd = StartLogd(dir, {"--no-adopt"});
    BSP_CONTROL(1, "stored");
    EXPECT_EQ(mod_is_running(), is_again ? 1 : 0);
    EXPECT_EQ(g_log->GetLogLevel("early"), is_again ? 6 : 0);
    log_deinit();
  }
  Block block;
  const bsp::SystemStatus before = *block.ptr();
  const std::string other = MakeDir();
  Child second = RunLogd(other);
  EXPECT_EQ(second.Wait(), 1);
  EXPECT_NE(second.output().find("is another log server running?"), std::string::npos);
  EXPECT_FALSE(FileUtil::IsFileExist(other + "/log.db"));
  EXPECT_EQ(memcmp(block.ptr(), &before, sizeof before), 0);
  EndLogd(&logd);
  EXPECT_EQ(Number(dir, "count(*) FROM tbl_ctrl_log"), 3);
  EXPECT_EQ(Number(dir, "count(*) FROM tbl_sys_log"), 1);
}

// A server that was killed finds its modules again, and they it: records, levels, time-outs and
// feeds go on, a row says so, and what no module can have left is freed. A start that fails changes
// nothing.
TEST(Logd, TakesTheBlockOver) {
  NEED_PRIVATE_WORLD();
  const std::string dir = MakeDir("[watchdog]\nmodule_0 = configured\n");
  Child logd = StartLogd(dir, {"--no-adopt"});
  ASSERT_EQ(log_init_v2(5, "kept", 0), 0);
  Block block;
  bsp::ModSta* kept = &block->mods[1];
  strcpy(block->mods[2].mod_name, "damaged");  // without a time-out
  logd.Signal(SIGKILL);
  logd.Wait();
  bsp::StoreWord(kept->feed_time, int64_t{-1000});
  const bsp::SystemStatus before = *block.ptr();
  EXPECT_EQ(RunLogd(MakeDir("log_db_file = /mnt\n"), {"--no-run-without-store"}).Wait(), 1);
  EXPECT_EQ(memcmp(block.ptr(), &before, sizeof before), 0);

  logd = StartLogd(dir);
  EXPECT_EQ(mod_is_running(), 1);
  EXPECT_EQ(g_log->GetLogLevel("kept"), 5);
  EXPECT_GT(bsp::LoadWord(kept->feed_time), 0);
  BSP_FEED_DOG();
  while (bsp::LoadWord(kept->feed_cnt) == 0) bsp::TimeUtil::SleepMs(5);
  EXPECT_EQ(bsp::NameOf(block->mods[2].mod_name), "");
  log_deinit();
  EndLogd(&logd);
  EXPECT_EQ(Number(dir,
                   "count(*) FROM tbl_sys_log WHERE level = 5 AND log LIKE "
                   "'%2 modules taken over, 1 damaged records freed'"),
            1);
}

// Every failure to start ends with 1 and a line that names the thing and the fault; wrong usage
// ends with 2.
TEST(Logd, FailuresToStart) {
  NEED_PRIVATE_WORLD();
  const std::string folder = MakeDir();
  std::filesystem::remove(folder + "/com_srv_app.ini");
  std::filesystem::create_directory(folder + "/com_srv_app.ini");
  const std::string read_only = MakeDir("", "size=1m");
  test::QueryFile(read_only + "/log.db", "SELECT 1");
  ASSERT_EQ(mount(nullptr, read_only.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  const std::string ini = "bsp-logd: ./com_srv_app.ini: l.";
  const Rows without = {"--no-run-without-store"};
  const struct {
    std::string dir;
    Rows options;
    std::string line;
  } failures[] = {
      {"/mnt/none", {}, "bsp-logd: cannot change to the folder /mnt/none: No such file"},
      {MakeDir("[log_size]\nlog_bus_size = 1O\n"), {}, ini + "4: log_bus_size = 1O: field is not"},
      {MakeDir("[record\n"), {"--stock"}, ini + "3: ini parsing failed, section not closed"},
      {folder, {}, "bsp-logd: cannot read ./com_srv_app.ini in " + folder + ": Is a directory"},
      {MakeDir("log_db_file = /mnt\n"), without, "bsp-logd: log store: cannot use database /mnt"},
      {read_only, without, "bsp-logd: log store: cannot use database log.db"},
      {MakeDir(), {"--watchdog", "/mnt/none"}, "bsp-logd: watchdog device /mnt/none cannot be"},
      {MakeDir(), {"--watchdog", "/dev/null"}, "bsp-logd: /dev/null is no watchdog device"},
      {"/", {"--stock", "--watchdog", "/dev/null"}, "--watchdog"},
  };
  for (const auto& failure : failures) {
    Child logd = RunLogd(failure.dir, failure.options);
    EXPECT_EQ(logd.Wait(), failure.dir == "/" ? 2 : 1) << logd.output();
    EXPECT_NE(logd.output().find(failure.line), std::string::npos) << logd.output();
  }
  umount(read_only.c_str());
}

// A damaged or truncated database gives way to a new one and is kept aside.
TEST(Logd, DamagedDatabases) {
  NEED_PRIVATE_WORLD();
  for (const bool is_truncated : {false, true}) {
    const std::string dir = MakeDir();
    for (const int records : {300, 0}) {
      Child logd = StartLogd(dir);
      SendRecords(records);
      EndLogd(&logd);
      EXPECT_EQ(Number(dir, "count(*) FROM tbl_bus_log"), records) << logd.output();
      if (!is_truncated) FileUtil::WriteToFile(dir + "/log.db", std::string(9000, 'g'));
      std::filesystem::resize_file(dir + "/log.db", 9000);
    }
    EXPECT_EQ(std::filesystem::file_size(dir + "/log.db.damaged"), 9000u);
  }
}

// A full disk costs rows and nothing else: the server goes on, stores again when there is room, and
// tells the number of those lost, exactly.
TEST(Logd, FullDisk) {
  NEED_PRIVATE_WORLD();
  const std::string disk = MakeDir("", "size=512k");
  Child logd = StartLogd(disk);
  SendRecords(100);
  FileUtil::WriteToFile(disk + "/filler", std::string(200 << 10, 'x'));
  SendRecords(2000, 1000, 1000);
  EXPECT_TRUE(logd.WaitForLine("disk is full"));
  SendUnknown();
  EXPECT_TRUE(logd.WaitForLine("msg.type = 3 not found"));  // behind all others
  std::filesystem::remove(disk + "/filler");
  SendRecords(100, 100);
  EndLogd(&logd);
  const std::string rows = "count(*) FROM tbl_bus_log WHERE flow_id ";
  EXPECT_EQ(Number(disk, rows + "< 99"), 99);
  EXPECT_EQ(Number(disk, rows + "BETWEEN 100 AND 199"), 100);
  const int kept = Number(disk, rows + ">= 1000");
  EXPECT_LT(kept, 2000);
  // of the 99 and 100 above, one and none
  EXPECT_EQ(Number(disk,
                   "sum(cast(substr(log, 25) AS INTEGER)) FROM tbl_sys_log "
                   "WHERE log LIKE '% rows lost, the database did not store them%'"),
            2000 - kept + 100 - Number(disk, rows + "< 100"));
  umount(disk.c_str());
}

// A stream of searches leaves the loop its time.
TEST(Logd, SearchesAreGated) {
  NEED_PRIVATE_WORLD();
  Child logd = StartLogd(MakeDir());
  bsp::LogMsg ask = bsp::kLogMsgPrototype;
  ask.type = LOG_TYPE_SEARCH;
  ASSERT_EQ(log_init_v2(6, "asker", 0), 0);
  for (int i = 0; i < 600; ++i) log_send_msg(&ask);
  log_deinit();
  EndLogd(&logd);
  int answers = 0;
  for (size_t at = 0; (at = logd.output().find("resp size", at)) != std::string::npos; ++at) {
    ++answers;
  }
  EXPECT_GT(answers, 0);
  EXPECT_LT(answers, 300);
}

// Eight modules that feed in time are never told late, whatever happens to the server: a module
// that logs at full speed all the time, a stall longer than their time-outs, a kill, a full disk.
TEST(Logd, HealthyModulesAreNeverLate) {
  NEED_PRIVATE_WORLD();
  constexpr int kTimeoutSeconds = 8;
  const std::string dir = MakeDir("", "size=4m");
  Child logd = StartLogd(dir, {"--log-level=3"});
  std::vector<Child> modules;
  for (int i = 0; i < 8; ++i) {
    modules.push_back(Child::Fork([i] {
      if (log_init_v2(6, ("healthy" + std::to_string(i)).c_str(), 0) != 0) return 1;
      log_set_timeout(kTimeoutSeconds);
      for (;; bsp::TimeUtil::SleepMs(500)) BSP_FEED_DOG();
    }));
    EXPECT_TRUE(modules.back().WaitForLine("log level"));
  }
  const Child flood = Child::Fork([] {
    if (log_init_v2(6, "flood", 0) != 0) return 1;
    log_set_timeout(3600);
    for (int i = 0;; ++i) BSP_TRACE(i, i, "%1000d", i);
  });
  logd.Signal(SIGSTOP);
  bsp::TimeUtil::SleepMs((kTimeoutSeconds + 3) * 1000);
  logd.Signal(SIGCONT);
  bsp::TimeUtil::SleepMs(6000);
  logd.Signal(SIGKILL);
  logd.Wait();
  Child again = StartLogd(dir, {"--log-level=3"});  // the disk is filled by now, or soon
  bsp::TimeUtil::SleepMs((kTimeoutSeconds + 6) * 1000);
  flood.Signal(SIGKILL);
  Block block;
  std::string last;
  for (const bsp::ModSta& mod : block->mods) {
    const std::string name = bsp::NameOf(mod.mod_name);
    if (name.find("healthy") == 0) last += std::to_string(bsp::LoadWord(mod.timeout));
  }
  EXPECT_EQ(last, "88888888");
  EXPECT_TRUE(again.WaitForLine("full"));
  EndLogd(&again);
  for (const std::string& output : {logd.output(), again.output()}) {
    EXPECT_EQ(output.find("timeout log"), std::string::npos) << output.substr(0, 3000);
  }
  umount(dir.c_str());
}

// A burst at full speed, also one that the server sleeps through: each record is a row or counted
// as lost, and an orderly end right behind the last one loses none of those in the socket.
TEST(Logd, BurstIsStoredOrCounted) {
  NEED_PRIVATE_WORLD();
  constexpr int kBurst = 20000;
  for (const bool is_asleep : {false, true}) {
    const std::string dir = MakeDir("[log_size]\nlog_bus_size = 30000\n");
    Child logd = StartLogd(dir);
    if (is_asleep) logd.Signal(SIGSTOP);
    SendRecords(kBurst);
    logd.Signal(SIGCONT);
    EndLogd(&logd);
    const int rows = Number(dir, "count(DISTINCT flow_id) FROM tbl_bus_log");
    const int lost =
        Number(dir, "sum(cast(substr(log, 25) AS INTEGER)) FROM tbl_sys_log WHERE level = 4");
    EXPECT_EQ(Number(dir, "count(*) FROM tbl_bus_log"), rows);
    EXPECT_EQ(rows + lost, kBurst);
    EXPECT_TRUE(lost > 0 || !is_asleep);
    printf("burst of %d: %d rows, %d lost and counted\n", kBurst, rows, lost);
  }
}

// Asks for the search whose outcome bsp-logd logs, until it finds more rows than fit in one batch,
// and gives their number; 0 when that takes a minute. The last 99 may not be committed yet.
int AwaitRows(Child* logd) {
  bsp::LogMsg ask = bsp::kLogMsgPrototype;
  ask.type = LOG_TYPE_SEARCH;
  const int64_t end_ms = bsp::TimeUtil::ClockMillis() + 60000;
  int count = 0;
  while (count <= 100 && bsp::TimeUtil::ClockMillis() < end_ms) {
    if (!logd->WaitForLine("resp size", 2)) {
      log_send_msg(&ask);
      continue;
    }
    const std::string& log = logd->output();
    count = atoi(&log[log.rfind("total count ", log.rfind("resp size")) + 12]);
  }
  return count > 100 ? count : 0;
}

// Killed in the midst of its work, again and again: with the journal the database is sound and
// every committed row is there; the stock server may lose the file, but always starts again.
TEST(Logd, KilledUnderLoad) {
  NEED_PRIVATE_WORLD();
  constexpr int kRounds = 150;
  const unsigned seed = std::random_device()();
  std::mt19937 random(seed);
  const Child load = Child::Fork([] {
    if (log_init_v2(6, "load", 0) != 0) return 1;
    for (int i = 0;; ++i) BSP_TRACE(i, i, "%*d", i % 900 + 1, i);
  });
  ASSERT_EQ(log_init_v2(6, "asker", 0), 0);
  for (const bool is_stock : {true, false}) {
    std::string dir;
    int replaced = 0;
    for (int round = 0; round < kRounds; ++round) {
      SCOPED_TRACE("seed " + std::to_string(seed) + " round " + std::to_string(round));
      if (round % 10 == 0) dir = MakeDir("[log_size]\nlog_bus_size = 1000000\n");
      Child logd = StartLogd(dir, {is_stock ? "--stock" : "--log-level=6"});
      replaced += logd.output().find("Open failed, db_path") != std::string::npos ? 1 : 0;
      const int told = AwaitRows(&logd);
      ASSERT_GT(told, 0) << logd.output();
      usleep(static_cast<useconds_t>(random() % 3000));
      logd.Signal(SIGKILL);
      EXPECT_EQ(logd.Wait(), 128 + SIGKILL);
      if (is_stock) continue;
      const int rows = Number(dir, "count(*) FROM tbl_bus_log");
      EXPECT_GE(rows, told - 99);
      EXPECT_EQ(rows, Number(dir, "max(id) FROM tbl_bus_log"));
      EXPECT_FALSE(FileUtil::IsFileExist(dir + "/log.db.damaged"));
    }
    printf("%s: %d kills, %d files replaced\n", is_stock ? "stock" : "journal", kRounds, replaced);
  }
  log_deinit();
}

}  // namespace
