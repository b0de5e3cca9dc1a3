// bsp-logd and modules as the processes that they are on a device.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "bsp/db/database.h"
#include "bsp/log/log.h"
#include "bsp/log/status_block.h"
#include "bsp/log/sys_log_cli.h"
#include "bsp/util/file_util.h"
#include "bsp/util/time_util.h"
#include "tests/support/child.h"
#include "tests/support/test_env.h"

namespace {

using bsp::FileUtil;
using bsp::NameOf;
using test::Child;

const std::string kLogd = std::string(BSP_TEST_BIN_DIR) + "/bsp-logd";

// A folder on the private tmpfs with a configuration and the database log.db.
std::string MakeDir(const std::string& cfg = "") {
  static int count = 0;
  const std::string dir = "/mnt/logd" + std::to_string(++count);
  std::filesystem::create_directories(dir);
  FileUtil::WriteToFile(dir + "/com_srv_app.ini", "[record]\nlog_db_file = log.db\n" + cfg);
  return dir;
}

Child StartLogd(const std::string& dir, const std::vector<std::string>& options = {}) {
  std::vector<std::string> words = {kLogd, "--dir", dir};
  words.insert(words.end(), options.begin(), options.end());
  Child logd = Child::Run(words);
  EXPECT_TRUE(logd.WaitForLine("bsp-logd ready on 0.0.0.0:12122")) << logd.output();
  return logd;
}

void EndLogd(Child* logd) {
  logd->Signal(SIGTERM);
  EXPECT_EQ(logd->Wait(), 0) << logd->output();
}

// A module whose steps the test orders one by one; each prints what it likes, then a line "done".
class Module {
 public:
  Module(const std::string& name, std::vector<std::function<void()>> steps)
      : orders_(MakePipe()), child_(Child::Fork([this, name, steps] {
          if (log_init_v2(6, name.c_str(), 0) != 0) return 1;
          puts("done");
          char order;
          for (const auto& step : steps) {
            if (read(orders_[0], &order, 1) != 1) return 2;
            step();
            puts("done");
          }
          return 0;
        })) {
    EXPECT_TRUE(child_.WaitForLine("done")) << child_.output();
  }
  ~Module() {
    close(orders_[0]);
    close(orders_[1]);
  }
  // Runs the next step; gives what it printed.
  std::string Step() {
    const size_t before = child_.output().size();
    EXPECT_EQ(write(orders_[1], "x", 1), 1);
    EXPECT_TRUE(child_.WaitForLine("done")) << child_.output();
    return child_.output().substr(before);
  }
  int Wait() { return child_.Wait(); }

 private:
  static std::array<int, 2> MakePipe() {
    std::array<int, 2> ends = {-1, -1};
    EXPECT_EQ(pipe(ends.data()), 0);
    return ends;
  }
  std::array<int, 2> orders_;
  Child child_;
};

// What a database of a server that has ended holds.
struct Store {
  explicit Store(const std::string& dir) : db(bsp::DataBaseOptions{true, true}) {
    EXPECT_EQ(db.Init(dir + "/log.db"), nullptr);
  }
  std::vector<std::string> Column(const std::string& sql) {
    std::vector<std::string> values;
    EXPECT_EQ(db.Query(sql,
                       [&values](int, char** row, char**) {
                         values.emplace_back(row[0] != nullptr ? row[0] : "");
                         return 0;
                       }),
              nullptr);
    return values;
  }
  int Number(const std::string& sql) {
    const std::vector<std::string> values = Column(sql);
    return values.empty() || values[0].empty() ? 0 : std::stoi(values[0]);
  }
  bsp::DataBase db;
};

bsp::ModSta* RecordOf(bsp::StatusBlockHandle* block, const std::string& name) {
  if (!block->is_initialized()) {
    EXPECT_TRUE(block->InitForWrite(bsp::kSystemStatusName, bsp::kSystemStatusSize, 1));
  }
  const int index = bsp::FindModule(*block->ptr(), name);
  EXPECT_NE(index, -1) << name;
  return &block->ptr()->mods[std::max(index, 0)];
}

void SendRecords(int count, int first = 0) {
  for (int i = first; i < first + count; ++i) BSP_TRACE(i, i, "record %d", i);
}

// What modules log becomes rows, in order, across a restart of the module, byte for byte; a level
// set in the block counts at the running module's next call.
TEST(Logd, FromModuleToRow) {
  NEED_PRIVATE_WORLD();
  const std::string dir = MakeDir("[watchdog]\nmodule_0 = worker\n");
  Child logd = StartLogd(dir);
  bsp::StatusBlockHandle block;
  const auto debug = [] { BSP_LOG_DEBUG("MOD_W", "seen"); };
  for (int life = 0; life < 2; ++life) {
    Module module("worker",
                  {[life] {
                     BSP_CONTROL(life, "it's 100%% \"quoted\"; -- \xff\t");
                     BSP_SYSTEM(2, "system");
                   },
                   debug, debug, debug, [] { printf("running %d\n", mod_is_running()); }});
    bsp::ModSta* record = RecordOf(&block, "worker");
    module.Step();
    EXPECT_EQ(module.Step().find("seen"), std::string::npos);
    bsp::SetModuleLevel(record, 7);
    EXPECT_NE(module.Step().find("MOD_W <debug> logd_e2e_test.cc"), std::string::npos);
    record->logs[1].log_level = 6;  // of MOD_W, the second tag
    EXPECT_EQ(module.Step().find("seen"), std::string::npos);
    EXPECT_EQ(record->timeout, 60);
    EXPECT_NE(module.Step().find("running 0"), std::string::npos);
    EXPECT_EQ(module.Wait(), 0);
  }
  EndLogd(&logd);
  const std::string text = "it's 100% \"quoted\"; -- \xff\t";
  EXPECT_EQ(Store(dir).Column("SELECT level || ' ' || flow_id || ' ' || log FROM tbl_ctrl_log"),
            (std::vector<std::string>{"6 0 " + text, "2 0 system", "6 1 " + text, "2 0 system"}));
}

// A module that was there first goes on behind the server's start, without name and levels; one
// that starts again is registered. A second server ends before it touches block or database.
TEST(Logd, StartOrder) {
  NEED_PRIVATE_WORLD();
  const std::string dir = MakeDir();
  const auto state = [] {
    BSP_CONTROL(1, "early");
    printf("running %d level %d\n", mod_is_running(), g_log->GetLogLevel("early"));
  };
  Module early("early", {state, state});
  EXPECT_NE(early.Step().find("running 1 level 6"), std::string::npos);
  Child logd = StartLogd(dir);
  EXPECT_NE(early.Step().find("running 0 level 0"), std::string::npos);
  EXPECT_EQ(early.Wait(), 0);
  Module again("early", {state});
  EXPECT_NE(again.Step().find("running 1 level 6"), std::string::npos);

  bsp::StatusBlockHandle block;
  RecordOf(&block, "early");
  const std::string before(reinterpret_cast<char*>(block.ptr()), sizeof *block.ptr());
  for (const std::string& other : {dir, MakeDir()}) {
    Child second = Child::Run({kLogd, "--dir", other});
    EXPECT_EQ(second.Wait(), 1);
    EXPECT_NE(second.output().find("\nbsp-logd: cannot receive on UDP port 12122: is another log"),
              std::string::npos)
        << second.output();
    EXPECT_EQ(FileUtil::IsFileExist(other + "/log.db"), other == dir);
  }
  EXPECT_EQ(std::string(reinterpret_cast<char*>(block.ptr()), sizeof *block.ptr()), before);
  EndLogd(&logd);
  Store store(dir);
  EXPECT_EQ(store.Number("SELECT count(*) FROM tbl_ctrl_log"), 2);  // the first went to nobody
  EXPECT_EQ(store.Number("SELECT count(*) FROM tbl_sys_log"), 1);
}

// Every failure to start ends with 1 and a line that names the thing and the fault; wrong usage
// ends with 2; nothing is lost on the way.
TEST(Logd, FailuresToStart) {
  NEED_PRIVATE_WORLD();
  const auto refused = [](const std::string& dir, const std::vector<std::string>& options,
                          const std::string& line, int code = 1) {
    std::vector<std::string> words = {kLogd, "--dir", dir};
    words.insert(words.end(), options.begin(), options.end());
    Child logd = Child::Run(words);
    EXPECT_EQ(logd.Wait(), code) << logd.output();
    EXPECT_NE(logd.output().find(line), std::string::npos) << logd.output();
  };
  const auto with_cfg = [](const std::string& text) {
    const std::string dir = MakeDir();
    FileUtil::WriteToFile(dir + "/com_srv_app.ini", text);
    return dir;
  };
  refused("/mnt/none", {}, "bsp-logd: cannot change to the folder /mnt/none: No such file");
  refused(with_cfg("[log_size]\n\nlog_bus_size = 1O\n"), {},
          "bsp-logd: ./com_srv_app.ini: l.3: log_bus_size = 1O: field is not an int");
  refused(with_cfg("[record\n"), {"--stock"},
          "bsp-logd: ./com_srv_app.ini: l.1: ini parsing failed, section not closed");
  const std::string folder = MakeDir();
  std::filesystem::remove(folder + "/com_srv_app.ini");
  std::filesystem::create_directory(folder + "/com_srv_app.ini");
  refused(folder, {}, "bsp-logd: cannot read ./com_srv_app.ini in " + folder + ": Is a directory");
  refused(with_cfg("[record]\nlog_db_file = /mnt/none/log.db\n"), {}, "/mnt/none/log.db");
  refused(with_cfg("[record]\nlog_db_file = /mnt\n"), {},
          "bsp-logd: log store: cannot use database /mnt");
  refused(MakeDir(), {"--watchdog", "/mnt/none"}, "bsp-logd: watchdog device /mnt/none cannot be");
  refused(MakeDir(), {"--watchdog", "/dev/null"}, "bsp-logd: /dev/null is no watchdog device");
  refused("/", {"--stock", "--watchdog", "/dev/null"}, "--watchdog", 2);
  refused("/", {"--bogus"}, "--bogus", 2);

  // A file system that cannot be written: the database stays as it is.
  const std::string disk = MakeDir();
  ASSERT_EQ(mount("tmpfs", disk.c_str(), "tmpfs", 0, nullptr), 0);
  FileUtil::WriteToFile(disk + "/com_srv_app.ini", "[record]\nlog_db_file = log.db\n");
  Child logd = StartLogd(disk);
  EndLogd(&logd);
  std::string before;
  std::string after;
  FileUtil::ReadToString(disk + "/log.db", before);
  ASSERT_EQ(mount(nullptr, disk.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  refused(disk, {}, "bsp-logd: log store: ");
  FileUtil::ReadToString(disk + "/log.db", after);
  EXPECT_EQ(before, after);
  umount(disk.c_str());
}

// A damaged or truncated database gives way to a new one and is kept aside; a second damaged one
// does not replace the first.
TEST(Logd, DamagedDatabases) {
  NEED_PRIVATE_WORLD();
  const std::string dir = MakeDir();
  const std::string path = dir + "/log.db";
  std::string kept;
  for (int round = 0; round < 2; ++round) {
    Child logd = StartLogd(dir);
    Module module("m", {[] { SendRecords(300); }});
    module.Step();
    EndLogd(&logd);
    if (round == 0) {
      std::ofstream(path, std::ios::trunc) << std::string(9000, 'g');
    } else {
      std::filesystem::resize_file(path, std::filesystem::file_size(path) / 2);
    }
    logd = StartLogd(dir);
    EndLogd(&logd);
    EXPECT_NE(logd.output().find("log.db.damaged"), std::string::npos) << logd.output();
    EXPECT_EQ(Store(dir).Number("SELECT count(*) FROM tbl_bus_log"), 0);
    FileUtil::ReadToString(path + ".damaged", kept);
    EXPECT_EQ(kept, std::string(9000, 'g'));
  }
}

// A full disk costs rows and nothing else: the server goes on, and stores again when there is room.
TEST(Logd, FullDisk) {
  NEED_PRIVATE_WORLD();
  const std::string disk = MakeDir();
  ASSERT_EQ(mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=512k"), 0);
  FileUtil::WriteToFile(disk + "/com_srv_app.ini", "[record]\nlog_db_file = log.db\n");
  Child logd = StartLogd(disk, {"--log-level", "2"});
  const auto fill = [] {
    for (int i = 0; i < 2000; ++i) BSP_TRACE(1, 0, "%s", std::string(1000, 'f').c_str());
  };
  Module module("m", {[] { SendRecords(100); }, fill, [] { SendRecords(100, 100); }});
  module.Step();
  std::ofstream(disk + "/filler") << std::string(200 << 10, 'x');
  module.Step();
  // The server has met the full disk when all that was sent is read.
  const auto is_idle = [] {
    std::string table;
    FileUtil::ReadToString("/proc/net/udp", table);
    const size_t row = table.find("00000000:2F5A ");  // port 12122
    return table.substr(row, 60).find(" 00000000:00000000 ") != std::string::npos;
  };
  while (!is_idle()) bsp::TimeUtil::SleepMs(5);
  std::filesystem::remove(disk + "/filler");
  module.Step();
  EndLogd(&logd);
  EXPECT_EQ(module.Wait(), 0);
  Store store(disk);
  EXPECT_EQ(store.Number("SELECT count(*) FROM tbl_bus_log WHERE flow_id < 100 AND trace_id > 1"),
            98);
  EXPECT_EQ(store.Number("SELECT count(*) FROM tbl_bus_log WHERE flow_id > 99"), 100);
  EXPECT_LT(store.Number("SELECT count(*) FROM tbl_bus_log"), 2200);
  umount(disk.c_str());
}

// A burst at full speed: each record is a row or counted as lost, and an orderly end right behind
// the last one loses none of those that reached the socket.
TEST(Logd, BurstIsStoredOrCounted) {
  NEED_PRIVATE_WORLD();
  constexpr int kBurst = 20000;
  const std::string dir = MakeDir("[log_size]\nlog_bus_size = 30000\n");
  Child logd = StartLogd(dir);
  Module module("burst", {[] { SendRecords(kBurst); }});
  module.Step();
  EndLogd(&logd);
  Store store(dir);
  const int rows = store.Number("SELECT count(*) FROM tbl_bus_log");
  const int lost =
      store.Number("SELECT sum(cast(substr(log, 25) AS INTEGER)) FROM tbl_sys_log WHERE level = 4");
  EXPECT_EQ(rows + lost, kBurst);
  EXPECT_GT(rows, 500);
  EXPECT_EQ(store.Number("SELECT count(DISTINCT flow_id) FROM tbl_bus_log"), rows);
  printf("burst of %d: %d rows, %d lost and counted\n", kBurst, rows, lost);
}

// Asks for the search whose outcome bsp-logd logs, and gives the number of rows that it finds; the
// last ones, 99 at most, are not committed yet.
int CountRows(Child* logd) {
  bsp::LogMsg ask = bsp::kLogMsgPrototype;
  ask.type = LOG_TYPE_SEARCH;
  bsp::Socket socket;
  socket.Create(bsp::Socket::SOCKET_DGRAM);
  int count = 0;
  for (int tries = 0; tries < 5000 && count == 0; ++tries) {
    socket.SendTo(reinterpret_cast<const char*>(&ask), sizeof ask, {bsp::kLogHost, bsp::kLogPort});
    if (logd->WaitForLine("resp size", 10)) {
      const std::string& out = logd->output();
      count = std::stoi(out.substr(out.rfind("total count ") + 12));
    }
    if (count == 0) bsp::TimeUtil::SleepMs(1);
  }
  return count;
}

// Killed in the midst of its work, again and again: with the journal the database is sound and
// every committed row is there; the stock server may lose the file, but always starts again.
class LogdKilled : public testing::TestWithParam<bool> {};

TEST_P(LogdKilled, UnderLoad) {
  NEED_PRIVATE_WORLD();
  const bool is_stock = GetParam();
  constexpr int kRounds = 150;
  const unsigned seed = std::random_device()();
  std::mt19937 random(seed);
  Child load = Child::Fork([] {
    if (log_init_v2(6, "load", 0) != 0) return 1;
    for (int i = 0;; ++i) SendRecords(1, i);
  });
  std::string dir;
  int replaced = 0;
  int most = 0;
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE("seed " + std::to_string(seed) + " round " + std::to_string(round));
    if (round % 10 == 0) dir = MakeDir("[log_size]\nlog_bus_size = 1000000\n");
    Child logd = StartLogd(dir, {is_stock ? "--stock" : "--log-level=6"});
    if (logd.output().find("Open failed, db_path") != std::string::npos) ++replaced;
    const int told = CountRows(&logd);
    ASSERT_GT(told, 0);
    most = std::max(most, told);
    usleep(static_cast<useconds_t>(random() % 3000));
    logd.Signal(SIGKILL);
    EXPECT_EQ(logd.Wait(), 128 + SIGKILL);
    if (is_stock) continue;
    Store store(dir);
    const int rows = store.Number("SELECT count(*) FROM tbl_bus_log");
    EXPECT_GE(rows, told - 99);
    EXPECT_EQ(rows, store.Number("SELECT max(id) FROM tbl_bus_log"));
    EXPECT_FALSE(FileUtil::IsFileExist(dir + "/log.db.damaged"));
  }
  EXPECT_GT(most, 2000);  // there was work to be killed in
  printf("%s: %d kills, %d files replaced, up to %d rows\n", is_stock ? "stock" : "journal",
         kRounds, replaced, most);
}

INSTANTIATE_TEST_SUITE_P(, LogdKilled, testing::Values(false, true));

}  // namespace
