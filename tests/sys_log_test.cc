// The system log without its programs: client, watchdog, server.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/watchdog.h>
#include <net/if.h>
#include <stdarg.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <future>
#include <new>
#include <set>
#include <thread>

#include "bsp/log/log.h"
#include "bsp/log/status_block.h"
#include "bsp/log/sys_log_cli.h"
#include "bsp/log/sys_log_srv.h"
#include "bsp/log/sys_wdg.h"
#include "bsp/util/file_util.h"
#include "bsp/util/string_helper.h"
#include "bsp/util/time_util.h"
#include "tests/support/child.h"
#include "tests/support/raw_clock.h"
#include "tests/support/rows.h"
#include "tests/support/test_env.h"

// What the kernel says when asked for the time-out of a watchdog device; 0: the device is none. A
// terminal stands in for the device: it keeps every byte written to it, but knows no such request.
static int g_device_timeout = 0;

// In front of the C library's, for the program and the library under test alike.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list args;
  va_start(args, request);
  void* argument = va_arg(args, void*);
  va_end(args);
  const bool is_asked = request == WDIOC_GETSUPPORT || request == WDIOC_GETTIMEOUT;
  if (g_device_timeout == 0 || !is_asked) {
    return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
  }
  if (request == WDIOC_GETTIMEOUT) *static_cast<int*>(argument) = g_device_timeout;
  return 0;
}

// Allocations of this thread until one fails.
static thread_local int g_allocations_left = INT_MAX;

__attribute__((noinline)) void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return g_allocations_left != INT_MAX && --g_allocations_left == 0 ? nullptr : malloc(size);
}
__attribute__((noinline)) void* operator new(size_t size) {
  void* memory = operator new(size, std::nothrow);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
__attribute__((noinline)) void operator delete(void* memory) noexcept { free(memory); }
__attribute__((noinline)) void operator delete(void* memory, size_t) noexcept { free(memory); }

namespace {

using bsp::FileUtil;
using bsp::LogMsg;
using bsp::ModSta;
using bsp::NameOf;
using bsp::SystemLogClient;
using bsp::SysWdg;
using bsp::TimeUtil;
using test::FrozenClock;
using test::Rows;

// The block as a tool sees it, new and empty.
struct Block : bsp::StatusBlockHandle {
  Block() {
    shmc::impl::SVIPCShmAlloc<false>().Unlink(bsp::kSystemStatusName);
    EXPECT_TRUE(InitForWrite(bsp::kSystemStatusName, bsp::kSystemStatusSize, 1));
  }
  void Fill(int byte) { memset(static_cast<void*>(ptr()), byte, sizeof(bsp::SystemStatus)); }
};

// "name running feed_cnt timeout log_level", name of the first tag, level of the last.
std::string Told(const ModSta& mod) {
  return bsp::StringHelper::Format("%s %d %d %d %d %s %d", NameOf(mod.mod_name).c_str(),
                                   mod.running, mod.feed_cnt, mod.timeout, mod.log_level,
                                   NameOf(mod.logs[0].log_name).c_str(), mod.logs[31].log_level);
}

// ---- The client

// A name past the limit is refused; one at it is stored cut, so that each start takes one more
// record and never one of another name.
TEST(LogClient, LongNames) {
  NEED_PRIVATE_WORLD();
  Block block;
  EXPECT_FALSE(SystemLogClient().Start(std::string(33, 'n')));
  EXPECT_FALSE(SystemLogClient().Start(""));
  const std::string name(30, 'n');
  const FrozenClock clock;
  for (const char* more : {"nn", "n", ""}) {
    block->mods[0].feed_time = 5;
    EXPECT_TRUE(SystemLogClient().Start(name + more));
  }
  EXPECT_EQ(block->mods[0].feed_time, test::kFrozen);      // a start counts as a feed
  EXPECT_EQ(Told(block->mods[0]), name + " 1 1 20 0  6");  // found by the third
  EXPECT_EQ(Told(block->mods[1]), name + " 1 0 20 0  6");
  EXPECT_EQ(Told(block->mods[2]), " 0 0 0 0  0");
}

// Thresholds that anyone sets in the block count at the next call, a tag's buffer may change its
// text behind its address, and a tag without a slot is not filtered.
TEST(LogClient, LevelsFollowTheBlock) {
  NEED_PRIVATE_WORLD();
  Block block;
  SystemLogClient client;
  ASSERT_TRUE(client.Start("levels"));
  for (const int level : {4, 8, -1}) client.SetLogLevel(level);
  ModSta& mod = block->mods[0];
  char buffer[8] = "A";
  EXPECT_EQ(client.GetLogLevel("A"), 4);
  mod.logs[0].log_level = 7;
  EXPECT_EQ(client.GetLogLevel("A") + client.GetLogLevel(buffer), 14);
  buffer[0] = 'B';
  EXPECT_EQ(client.GetLogLevel(buffer), 4);
  EXPECT_EQ(client.GetLogLevel(nullptr), 4);  // an empty name, which leaves its slot free
  EXPECT_EQ(client.GetLogLevel(std::string(40, 't')), 4);
  EXPECT_EQ(NameOf(mod.logs[2].log_name), std::string(30, 't'));
  for (int i = 3; i < 32; ++i) EXPECT_EQ(client.GetLogLevel("T" + std::to_string(i)), 4);
  EXPECT_EQ(client.GetLogLevel("T32"), 7);
  block.Fill(0);  // the server has started behind our back
  EXPECT_EQ(client.GetLogLevel("T31") + client.IsRunning(), 0);
  client.Stop();
  EXPECT_EQ(client.GetLogLevel("T31"), 7);  // no record any more, and no fault
}

// Behind a start that failed every call reaches its end and none faults.
TEST(LogClient, FailedStartIsHarmless) {
  NEED_PRIVATE_WORLD();
  Block block;
  for (ModSta& mod : block->mods) strcpy(mod.mod_name, "taken");
  ASSERT_EQ(log_init_v2(6, "late", 0), -1);
  BSP_LOG_DEBUG("MOD_T", "unfiltered");
  BSP_TRACE(1, 2, "t");
  BSP_FEED_DOG();
  log_send_msg(nullptr);
  EXPECT_EQ(mod_is_running(), 1);
  for (int twice = 0; twice < 2; ++twice) log_deinit();
}

// The datagram is the record byte for byte: head stamped by the client whatever the caller put
// there, the name as the block holds it and within its bytes, len as the formatter told it.
TEST(LogClient, RecordsOnTheWire) {
  NEED_PRIVATE_WORLD();
  Block block;
  bsp::Socket server;
  ASSERT_TRUE(server.Create(bsp::Socket::SOCKET_DGRAM));
  ASSERT_TRUE(server.Bind(bsp::SocketAddress("0.0.0.0", bsp::kLogPort)));
  const auto expect_next = [&](int type, int len, int level, int flow, int64_t trace,
                               const std::string& name, const std::string& text) {
    LogMsg got;
    bsp::SocketAddress from;
    ASSERT_EQ(server.RecvFrom(reinterpret_cast<char*>(&got), sizeof got, from), 1096);
    LogMsg expected = {0xaa55aa55, type, len, level, flow, 0, trace, got.timems, {}, {}};
    name.copy(expected.mod_name, sizeof expected.mod_name);
    text.copy(expected.log, sizeof expected.log);
    EXPECT_EQ(memcmp(&got, &expected, sizeof got), 0) << text;
    EXPECT_LT(TimeUtil::ClockMillis() - got.timems, 60000);
  };
  ASSERT_EQ(log_init_v2(6, "wire", 0), 0);
  BSP_TRACE(-9, 4, "trace %d", 1);
  expect_next(LOG_TYPE_BUS, 7, 6, 4, -9, "wire", "trace 1");
  BSP_CONTROL(5, "%s", std::string(1500, 'c').c_str());
  expect_next(LOG_TYPE_CTRL, 1500, 6, 5, 0, "wire", std::string(1022, 'c'));
  BSP_FEED_DOG();
  expect_next(LOG_TYPE_FEED_DOG, 20, 0, 0, 0, "wire", "module wire feed dog");
  LogMsg own = bsp::kLogMsgPrototype;
  own.type = 6;
  for (const char byte : {'g', '\0'}) {
    own.magic = 0;
    memset(own.mod_name, 'x', sizeof own.mod_name);
    memset(block->mods[0].mod_name, byte, 32);
    log_send_msg(&own);
    expect_next(LOG_TYPE_SEARCH, 0, 6, 0, 0, "", "");  // not the module's own
  }
  log_deinit();
  SystemLogClient stock;
  ASSERT_TRUE(stock.Start("wire"));
  memset(block->mods[0].mod_name, 'g', 32);
  stock.LogMsgProc("", "", 0, &own);
  expect_next(LOG_TYPE_SEARCH, 0, 6, 0, 0, std::string(31, 'g'), "");
}

// A module whose record the server has cleared, and another one taken, neither reads nor feeds the
// stranger's. Its next feed registers it again with its time-out, levels and tags; so it does where
// the server itself has registered the name.
TEST(LogClient, RegistersAgain) {
  NEED_PRIVATE_WORLD();
  Block block;
  bsp::LogSrvCfg cfg;
  ASSERT_EQ(log_init_v2(5, "mine", 0), 0);
  EXPECT_EQ(log_set_timeout(0), -1);
  EXPECT_EQ(log_set_timeout(7), 0);
  EXPECT_EQ(g_log->GetLogLevel("A"), 5);
  bsp::StoreWord(block->mods[0].logs[1].log_level, 3);  // of A
  BSP_FEED_DOG();
  SysWdg(cfg).Init(block.ptr());
  SystemLogClient other;
  ASSERT_TRUE(other.Start("other"));
  EXPECT_EQ(mod_is_running(), 0);
  BSP_FEED_DOG();
  EXPECT_EQ(mod_is_running(), 1);
  EXPECT_EQ(Told(block->mods[0]), "other 1 0 20 0  6");
  EXPECT_EQ(Told(block->mods[1]), "mine 1 0 7 5 A 6");
  EXPECT_EQ(g_log->GetLogLevel("A"), 3);
  cfg.modules[0] = "mine";
  SysWdg(cfg).Init(block.ptr());
  BSP_FEED_DOG();
  EXPECT_EQ(Told(block->mods[0]), "mine 0 0 7 5 A 6");
  EXPECT_EQ(g_log->GetLogLevel("A"), 3);
  EXPECT_EQ(g_log->GetLogLevel("mine"), 5);
  log_deinit();
}

// Threads that meet new tags at the same moment: each tag takes one slot, and each answer is that
// slot's level from the first call on.
TEST(LogClient, NewTagsOfManyThreads) {
  NEED_PRIVATE_WORLD();
  for (int round = 0; round < 30; ++round) {
    Block block;
    SystemLogClient client;
    ASSERT_TRUE(client.Start("threads"));
    client.SetLogLevel(round % 8);
    std::atomic<int> ready{0};
    std::atomic<int> wrong{0};
    const auto meet_tags = [&] {
      const int first = ready++ * 8;
      while (ready < 4) std::this_thread::yield();
      for (int i = first; i < first + 160; ++i) {
        wrong += client.GetLogLevel("T" + std::to_string(i % 32)) != round % 8;
      }
    };
    std::thread threads[4];
    for (std::thread& thread : threads) thread = std::thread(meet_tags);
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
    std::set<std::string> names;
    for (const auto& slot : block->mods[0].logs) names.insert(NameOf(slot.log_name));
    EXPECT_EQ(names.size() - names.count(""), 32u);
  }
}

// A child that is forked while other threads print and register tags may do the same.
TEST(LogClient, ChildOfABusyModuleLogs) {
  NEED_PRIVATE_WORLD();
  const auto fork_often = [] {
    if (freopen("/dev/null", "w", stdout) == nullptr || log_init_v2(6, "busy", 0) != 0) return 1;
    std::thread([] {
      while (true) BSP_LOG_ERROR("MOD_T", "line");
    }).detach();
    std::thread([] {
      for (int i = 0;; i = (i + 1) % 30000) g_log->GetLogLevel("T" + std::to_string(i));
    }).detach();
    for (int i = 0; i < 300; ++i) {
      const pid_t child = fork();
      if (child == 0) {
        alarm(20);
        BSP_LOG_ERROR("MOD_CHILD", "line");
        BSP_FEED_DOG();
        _exit(0);
      }
      int status = -1;
      if (waitpid(child, &status, 0) != child || status != 0) return 2;
    }
    return 0;
  };
  test::Child module = test::Child::Fork(fork_often);
  EXPECT_EQ(module.Wait(), 0) << module.output();
}

// A tag whose first use finds no memory, wherever that fails, is not filtered, and is tried again.
TEST(LogClient, NewTagWithoutMemory) {
  NEED_PRIVATE_WORLD();
  Block block;
  SystemLogClient client;
  ASSERT_TRUE(client.Start("memory"));
  client.SetLogLevel(3);
  bool has_failed = true;
  for (int n = 1; has_failed; ++n) {
    const std::string tag = "a tag that does not fit in place " + std::to_string(n);
    g_allocations_left = n;
    const int level = client.GetLogLevel(tag.c_str());
    has_failed = g_allocations_left <= 0;
    g_allocations_left = INT_MAX;
    EXPECT_TRUE(level == 3 || has_failed) << n;
    client.GetLogLevel(tag.c_str());
    EXPECT_EQ(client.GetLogLevel(tag.c_str()), 3) << n;
  }
}

// Processes that start at the same moment, every other time at a block that none of them has made
// yet: each gets a record of its own with all fields set, also before anyone sees its name, so that
// none is found late. What a dead claimant or garbage left behind is taken over.
TEST(LogClient, ModulesThatStartAtOnce) {
  NEED_PRIVATE_WORLD();
  const FrozenClock clock;  // however long it takes, none becomes late in earnest
  const int32_t dead = test::Child::Fork([] { return 0; }).pid();  // reaped at once
  for (int round = 0; round < 25; ++round) {
    int gate[2];
    ASSERT_EQ(pipe(gate), 0);
    bsp::LogSrvCfg cfg;
    SysWdg wdg(cfg);
    auto block = std::make_unique<Block>();
    wdg.Init(block->ptr());
    for (ModSta& mod : (*block)->mods) {
      memset(mod.mod_name, 0xff, 32);
      memcpy(mod.mod_name, &mod - (*block)->mods < 16 ? "\0clm" : "\0xyz", 4);
      memcpy(mod.mod_name + 4, &dead, 4);
      mod.feed_time = -1000;  // late at once
    }
    if (round % 2 == 0) shmc::impl::SVIPCShmAlloc<false>().Unlink(bsp::kSystemStatusName);
    std::vector<test::Child> modules;
    for (int i = 0; i < 32; ++i) {
      modules.push_back(test::Child::Fork([&, i] {
        close(gate[1]);
        char byte;
        if (read(gate[0], &byte, 1) != 0) return 1;
        return log_init_v2(6, ("mod" + std::to_string(i)).c_str(), 0) == 0 ? 0 : 2;
      }));
    }
    std::atomic<bool> is_over{false};
    std::string late;
    std::thread watch([&] {
      while (!is_over && !wdg.IsHadTimeOut(late)) std::this_thread::yield();
    });
    close(gate[1]);  // all at once
    for (test::Child& module : modules) EXPECT_EQ(module.Wait(), 0) << module.output();
    is_over = true;
    watch.join();
    close(gate[0]);
    EXPECT_EQ(late, "");
    bsp::StatusBlockHandle made;
    ASSERT_TRUE(made.InitForWrite(bsp::kSystemStatusName, bsp::kSystemStatusSize, 1));
    std::set<std::string> names;
    for (const ModSta& mod : made->mods) {
      const std::string name = NameOf(mod.mod_name);
      names.insert(name);
      EXPECT_EQ(Told(mod), name + " 1 0 20 6 " + name + " 6");  // its first tag, not wiped
      EXPECT_EQ(mod.feed_time, test::kFrozen);
    }
    EXPECT_EQ(names.size() - names.count(""), 32u);
  }
}

// Starts of one name at the same moment, of modules and of the server's own, share one record.
TEST(LogClient, OneNameTakesOneRecord) {
  NEED_PRIVATE_WORLD();
  for (int round = 0; round < 60; ++round) {
    int gate[2];
    ASSERT_EQ(pipe(gate), 0);
    Block block;
    std::vector<test::Child> starts;
    for (int i = 0; i < 8; ++i) {
      starts.push_back(test::Child::Fork([&, i] {
        close(gate[1]);
        char byte;
        if (read(gate[0], &byte, 1) != 0) return 1;
        if (i == 0) return SysWdg::ModuleRegister(block.ptr(), "same") != nullptr ? 0 : 2;
        return log_init_v2(6, "same", 0) == 0 ? 0 : 3;
      }));
    }
    close(gate[1]);  // all at once
    for (test::Child& start : starts) EXPECT_EQ(start.Wait(), 0) << start.output();
    close(gate[0]);
    EXPECT_EQ(NameOf(block->mods[0].mod_name), "same");
    EXPECT_EQ(NameOf(block->mods[1].mod_name), "") << "round " << round;
  }
}

// A registration that the server's start overtakes between claim and name starts over: no field of
// its record is one that was wiped.
TEST(LogClient, ClearedBeforeItsName) {
  NEED_PRIVATE_WORLD();
  Block block;
  const int stranger = semget(0x64000000, 1, IPC_CREAT | 0600);  // no lock can be had
  bsp::LogSrvCfg cfg;
  SystemLogClient client;
  test::g_on_clock = [&] {
    SysWdg(cfg).Init(block.ptr());
    test::g_on_clock = [] {};
  };
  EXPECT_TRUE(client.Start("module"));
  test::g_on_clock = nullptr;
  semctl(stranger, 0, IPC_RMID);
  EXPECT_EQ(Told(block->mods[0]), "module 1 0 20 0  6");
  EXPECT_EQ(NameOf(block->mods[1].mod_name), "");
}

// A start of the server that overtakes a registration leaves it whole or not at all, also where no
// lock can be had: a set of one semaphore under the block's key is none of ours.
TEST(LogClient, ClearedUnderARegistration) {
  NEED_PRIVATE_WORLD();
  const auto race = [] {
    Block block;
    const int stranger = semget(0x64000000, 1, IPC_CREAT | 0600);
    bsp::LogSrvCfg cfg;
    SysWdg wdg(cfg);
    wdg.Init(block.ptr());
    SystemLogClient client;
    if (stranger == -1 || !client.Start("module")) return 1;
    const int64_t end_ms = TimeUtil::ClockMillis() + 2000;
    std::atomic<bool> is_over{false};
    std::atomic<int> begun{0};
    std::atomic<int> done{0};
    std::atomic<int> checked{0};
    std::thread clearing([&] {
      for (int i = 1; !is_over; ++i) {
        wdg.InitDefaultModule();
        begun = i;
        wdg.InitDefaultModule();
        done = i;
        while (checked < i) std::this_thread::yield();
      }
    });
    int broken = 0;
    int kept = 0;
    for (int i = 1; !is_over; ++i) {
      while (begun < i) std::this_thread::yield();
      for (int spin = i % 4096; spin > 0; --spin) asm volatile("");
      client.RegWatchdogMod();
      while (done < i) std::this_thread::yield();
      for (const ModSta& mod : block->mods) {
        if (mod.mod_name[0] == '\0') continue;
        ++kept;
        broken += mod.logs[0].log_level != 6 || mod.logs[31].log_level != 6 ? 1 : 0;
      }
      is_over = TimeUtil::ClockMillis() > end_ms;
      checked = i;
    }
    clearing.join();
    semctl(stranger, 0, IPC_RMID);
    fprintf(stderr, "%d registrations kept, %d broken\n", kept, broken);
    return broken == 0 && kept > 0 ? 0 : 2;
  };
  test::Child racers = test::Child::Fork([&] {
    g_log_level = BSP_LEVEL_EMERG;
    if (freopen("/dev/null", "w", stdout) == nullptr) return 3;
    return race();
  });
  EXPECT_EQ(racers.Wait(), 0) << racers.output();
}

// ---- The watchdog

// Late is later than the time-out, and only without a feed since the last check. A feed goes to the
// first record that it names or begins. Garbage in the block is read within its bytes.
TEST(Watchdog, FeedsAndLateModules) {
  NEED_PRIVATE_WORLD();
  const FrozenClock clock;
  Block block;
  bsp::LogSrvCfg cfg;
  cfg.modules[5] = "abc";
  cfg.modules[7] = "ab";
  cfg.modules[9] = std::string(30, 'l');
  SysWdg wdg(cfg);
  ASSERT_TRUE(wdg.Init(block.ptr()));
  ModSta* mods = block->mods;
  const auto late_after = [&](int64_t seconds_abc, int64_t seconds_ab, int feeds) {
    mods[0].feed_time = test::kFrozen - seconds_abc;
    mods[0].feed_cnt = feeds;
    mods[1].feed_time = test::kFrozen - seconds_ab;
    std::string out = "old";
    const bool is_late = wdg.IsHadTimeOut(out);
    EXPECT_EQ(is_late, !out.empty());
    return out;
  };
  EXPECT_EQ(late_after(60, 60, 0), "");
  EXPECT_EQ(late_after(65, 61, 0), "mod abc(65, 60) ab(61, 60)  not feed the dog\n");
  EXPECT_EQ(late_after(65, 70, 3), "mod ab(70, 60)  not feed the dog\n");
  for (const std::string& mod : Rows{"ab", "ab", "abcd", "", "b", std::string(31, 'l')}) {
    wdg.FeedModuleWatchDog(mod.c_str());
  }
  for (int i = 0; i < 3; ++i) EXPECT_EQ(mods[i].feed_cnt, i == 0 ? 2 : 0);
  EXPECT_EQ(mods[0].feed_time, test::kFrozen);

  block.Fill(0xff);
  mods[0].feed_cnt = INT32_MAX;
  wdg.FeedModuleWatchDog(std::string(100, '\xff').c_str());
  EXPECT_EQ(mods[0].feed_cnt, INT32_MIN);
  mods[1].feed_cnt = 0;
  mods[1].feed_time = INT64_MIN;
  std::string out;
  wdg.IsHadTimeOut(out);
  EXPECT_LT(out.size(), 32u * 80);
}

// A terminal in place of a watchdog device.
struct Device {
  Device() : terminal(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK)) {
    EXPECT_TRUE(terminal != -1 && grantpt(terminal) == 0 && unlockpt(terminal) == 0);
    path = ptsname(terminal);
    held = open(path.c_str(), O_RDWR | O_NOCTTY);  // without it a close would drop the bytes
    termios raw = {};
    cfmakeraw(&raw);
    EXPECT_EQ(tcsetattr(held, TCSANOW, &raw), 0);
    g_device_timeout = 60;
  }
  ~Device() {
    g_device_timeout = 0;
    close(held);
    close(terminal);
  }
  // What has been written to it since the last call, a feed as '.'.
  std::string Written() {
    std::string text;
    char byte;
    while (read(terminal, &byte, 1) == 1) text += byte == '\0' ? '.' : byte;
    return text;
  }
  const int terminal;
  int held;
  std::string path;
};

// What is no watchdog gets no byte, one that would reset between two feeds is disarmed and refused,
// and one that is armed already is not opened again.
TEST(Watchdog, DeviceIsArmedAndDisarmed) {
  bsp::LogSrvCfg cfg;
  std::string why;
  Device device;
  const std::pair<int, const char*> outcomes[] = {{0, ""}, {14, "V"}, {15, ".V"}};
  for (const auto& [timeout, written] : outcomes) {
    g_device_timeout = timeout;
    {
      SysWdg wdg(cfg, device.path);
      EXPECT_EQ(wdg.ArmDeviceWatchDog(&why), timeout == 15) << why;
      EXPECT_TRUE(timeout != 15 || wdg.ArmDeviceWatchDog(&why)) << why;
      wdg.FeedDeviceWatchDog();
    }
    EXPECT_EQ(device.Written(), written);
  }
}

// ---- The server

bsp::LogSrvOptions AllOptions(const std::string& watchdog_device = "") {
  bsp::LogSrvOptions options;
  options.flush_at_stop = true;
  options.bind_at_start = true;
  options.datagrams_per_turn = 16;
  options.loopback_only = true;
  options.record_losses = true;
  options.guard_configuration = true;
  options.gate_searches = true;
  options.run_without_store = true;
  options.watch_database = true;
  options.separate_feeds = true;
  options.fair_verdicts = true;
  options.record_each_lateness = true;
  options.watchdog_device = watchdog_device;
  return options;
}

// A server with its loop on a thread, in a new folder with log.db in it.
class Server {
 public:
  explicit Server(bsp::LogSrvOptions options = AllOptions(), const std::string& cfg = "")
      : dir_(test::MakeTempDir()), server_(Prepared(std::move(options))) {
    FileUtil::WriteToFile(dir_ + "/com_srv_app.ini", "[record]\nlog_db_file=log.db\n" + cfg);
    std::filesystem::current_path(dir_);
    EXPECT_TRUE(server_.Start("server")) << server_.error();
  }
  ~Server() { Stop(); }
  void Loop() {
    loop_ = std::thread([this] { server_.RunLoopLog(); });
    ready_.get_future().wait();
  }
  void Stop() {
    server_.Stop();
    if (loop_.joinable()) loop_.join();
  }
  bsp::SystemLogServer* operator->() { return &server_; }

  // "level flow_id trace_id log" of each row.
  Rows Table(const std::string& table) {
    return test::QueryFile(dir_ + "/log.db",
                           "SELECT level, flow_id, trace_id, log FROM " + table + " ORDER BY id");
  }

 private:
  bsp::LogSrvOptions Prepared(bsp::LogSrvOptions options) {
    options.on_ready = [this] { ready_.set_value(); };
    return options;
  }
  const std::string dir_;
  std::promise<void> ready_;
  bsp::SystemLogServer server_;
  std::thread loop_;
};

// Sends datagrams as any process could.
struct Sender {
  Sender() { EXPECT_TRUE(socket.Create(bsp::Socket::SOCKET_DGRAM)); }
  void Send(int type, const std::string& text, int len, uint32_t magic = 0xaa55aa55,
            int size = 1096, const std::string& name = std::string(32, 'm')) {
    LogMsg msg = {magic, type, len, 6, 3, 0, -4, 0, {}, {}};
    name.copy(msg.mod_name, sizeof msg.mod_name);
    text.copy(msg.log, sizeof msg.log);
    EXPECT_EQ(socket.SendTo(reinterpret_cast<const char*>(&msg), size, server), size);
  }
  void Send(int type, const std::string& text) { Send(type, text, static_cast<int>(text.size())); }
  bsp::Socket socket;
  bsp::SocketAddress server{"127.0.0.1", bsp::kLogPort};
};

// Each datagram is handled by what it says, whatever it holds, and never by what lies behind its
// end; hostile ones do no harm to those that follow. Both ways of reading give the same rows, and
// all options only those of this machine's loopback, also with a descriptor above 1023.
TEST(LogServer, Datagrams) {
  NEED_PRIVATE_WORLD();
  const FrozenClock clock;  // no pass counts the feeds down
  ifreq alias = {};
  strcpy(alias.ifr_name, "lo:1");
  const bsp::SocketAddress foreign("10.9.9.9", 0);
  memcpy(&alias.ifr_addr, foreign.Native(), foreign.SizeOf());
  Sender stranger;
  ASSERT_EQ(ioctl(stranger.socket.GetNativeSocket(), SIOCSIFADDR, &alias), 0);
  ASSERT_TRUE(stranger.socket.Bind(foreign));
  stranger.server.Set("10.9.9.9", bsp::kLogPort);
  const rlimit limit = {2048, 2048};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);

  for (const bool all : {false, true}) {
    SCOPED_TRACE(all);
    std::vector<int> fill;
    while (fill.empty() || fill.back() < 1100) fill.push_back(dup(0));
    Block block;
    bsp::LogSrvOptions options = all ? AllOptions() : bsp::LogSrvOptions();
    options.flush_at_stop = true;
    const std::string name(30, 'm');
    Server server(options, "[log_size]\nlog_bus_size=0\nlog_ctrl_size=-5\nlog_sys_size=abc\n" +
                               ("[watchdog]\nmodule_31=" + name + "\n"));
    const bsp::LogSrvCfg& cfg = server->cfg();
    EXPECT_EQ(cfg.log_bus_size, all ? 20000 : 0);
    EXPECT_EQ(cfg.log_ctrl_size, all ? 10000 : -5);
    EXPECT_EQ(cfg.log_sys_size, 2748);
    for (const int fd : fill) close(fd);
    server.Loop();
    Sender sender;
    stranger.Send(LOG_TYPE_SYS, "stranger");
    sender.Send(LOG_TYPE_BUS, "bus", 2);
    sender.Send(LOG_TYPE_BUS, "magic", 5, 0x55aa55aa);
    sender.Send(LOG_TYPE_BUS, "too long", 1024);
    sender.Send(LOG_TYPE_BUS, "negative", -1);
    sender.Send(LOG_TYPE_BUS, "", 0, 0xaa55aa55, 0);
    sender.Send(LOG_TYPE_BUS, std::string(1024, 'x'), 1023, 0xaa55aa55, 16);  // head only
    sender.Send(LOG_TYPE_CTRL, std::string(1024, 'x'), 1023);
    sender.Send(3, "no table");
    sender.Send(LOG_TYPE_SYS, "from a module");
    sender.Send(LOG_TYPE_FEED_DOG, "");  // its name has no end: cut at 31 it matches nothing
    sender.Send(LOG_TYPE_FEED_DOG, "", 0, 0xaa55aa55, 1096, name);
    sender.Send(LOG_TYPE_BUS, "last");
    server.Stop();
    const Rows bus = {"6 3 -4 bu", "6 0 0 ", "6 3 -4 last"};
    EXPECT_EQ(server.Table("tbl_bus_log"), all ? bus : Rows{bus[2]});  // trimmed to one row
    EXPECT_EQ(server.Table("tbl_ctrl_log"), Rows{"6 3 -4 " + std::string(1023, 'x')});
    const Rows own = server.Table("tbl_sys_log");
    EXPECT_EQ(own.size(), 3u);
    EXPECT_EQ(own[2].find(" 6 datagrams refused") != std::string::npos, all) << own[2];
    EXPECT_NE(own[0].find(" System start ...20"), std::string::npos) << own[0];
    EXPECT_EQ(block->mods[0].feed_cnt, 1);
  }
}

// Stop returns when the loop has left, whichever of the two comes first and however often; without
// the option it loses the open batch, with it nothing, though senders go on; Start may follow.
TEST(LogServer, StopInAnyOrder) {
  NEED_PRIVATE_WORLD();
  bsp::SystemLogServer never_started;
  never_started.Stop();
  never_started.RunLoopLog();
  Server stock{bsp::LogSrvOptions()};
  EXPECT_FALSE(stock->Start("twice"));
  for (int twice = 0; twice < 2; ++twice) stock.Stop();
  stock->RunLoopLog();  // a loop that comes late
  EXPECT_TRUE(stock->Start("again"));
  stock.Loop();
  stock->RunLoopLog();  // a second one is refused
  stock.Stop();
  EXPECT_EQ(stock.Table("tbl_sys_log").size(), 0u);  // two open batches were lost

  for (int round = 0; round < 20; ++round) {
    Server server;
    Sender sender;
    for (int i = 0; i < 60; ++i) sender.Send(LOG_TYPE_BUS, "row");  // the port is taken already
    std::atomic<bool> is_over{false};
    std::thread flood([&] {
      while (!is_over) Sender().Send(3, "");
    });
    std::thread loop([&] { server->RunLoopLog(); });
    if (round % 2 == 0) TimeUtil::SleepMs(static_cast<unsigned>(round) / 4);
    server.Stop();
    is_over = true;
    flood.join();
    loop.join();
    EXPECT_EQ(server.Table("tbl_bus_log").size(), 60u);
  }
}

// What comes after Stop has begun is not let in.
TEST(LogServer, StopSealsTheSocket) {
  NEED_PRIVATE_WORLD();
  Server server;
  Sender sender;
  sender.Send(LOG_TYPE_BUS, "before");
  int looks = 0;
  test::g_on_clock = [&] {  // the first look is before the seal
    if (++looks > 1 && looks < 20) sender.Send(LOG_TYPE_BUS, "after");
  };
  server.Stop();
  test::g_on_clock = nullptr;
  EXPECT_GT(looks, 1);
  EXPECT_EQ(server.Table("tbl_bus_log"), Rows{"6 3 -4 before"});
}

// With one datagram a turn, a turn whose datagram has a bad length ends at once: no pass is run,
// however long it is due, until another turn comes.
TEST(LogServer, StockTurnEndsAtABadLength) {
  NEED_PRIVATE_WORLD();
  const FrozenClock clock;
  Device device;
  Sender sender;
  bsp::LogSrvOptions options;
  options.watchdog_device = device.path;
  std::atomic<int> turns{0};
  std::string written;
  options.on_turn = [&] {
    if (turns == 0) test::g_clock_shift += 5;
    if (++turns < 50) sender.Send(LOG_TYPE_BUS, "", -1);  // so that the next turn has one
    if (turns == 50) written = device.Written();
  };
  Server server(options);
  server.Loop();
  sender.Send(LOG_TYPE_BUS, "", -1);
  while (turns < 52) TimeUtil::SleepMs(1);
  EXPECT_EQ(written, "");
  EXPECT_EQ(device.Written(), ".");
}

// The device is fed while no module is late; a late one stops that, each override resumes it, both
// feed twice, and a feed of the module ends it. The late text is a row once in the server's life.
// All that while empty datagrams come without end, which must not keep the passes from running.
TEST(LogServer, LateModulesStopTheDevice) {
  NEED_PRIVATE_WORLD();
  const FrozenClock clock;  // a pass runs when the test adds to it
  Block block;
  Device device;
  bsp::LogSrvOptions options = AllOptions(device.path);
  options.fair_verdicts = options.record_each_lateness = options.record_losses = false;
  std::atomic<int> turns{0};
  options.on_turn = [&turns] { ++turns; };
  Server server(options, "[watchdog]\nmodule_0=mod\n");
  EXPECT_EQ(device.Written(), "");  // not armed yet
  server.Loop();
  g_log_level = BSP_LEVEL_CRIT;
  std::atomic<bool> is_over{false};
  std::thread flood([&] {
    while (!is_over) Sender().Send(0, "", 0, 0, 0);
  });
  // Lets the next pass come due and waits until it has run: a turn is told before its pass.
  const auto next_pass = [&](int seconds = 5) {
    test::g_clock_shift += seconds;
    const int turn = turns;
    while (turns < turn + 2) TimeUtil::SleepMs(1);
    return device.Written();
  };
  EXPECT_EQ(next_pass(), ".");
  EXPECT_EQ(next_pass(65), "");
  std::filesystem::create_directories("/mnt/nand");
  const std::string marker = "/mnt/nand/watchdog_close.conf";
  const struct {
    int wdg_enable;
    bool has_marker;
    const char* written;
  } passes[] = {{1, false, ""}, {0, false, "."}, {0, true, ".."}, {1, true, "."}, {1, false, ""}};
  for (const auto& pass : passes) {
    bsp::StoreWord(block->wdg_enable, pass.wdg_enable);
    std::filesystem::remove(marker);
    if (pass.has_marker) FileUtil::WriteToFile(marker, "");
    EXPECT_EQ(next_pass(), pass.written);
  }
  bsp::StoreWord(block->mods[0].feed_cnt, 1);
  EXPECT_EQ(next_pass(), ".");
  is_over = true;
  flood.join();
  server.Stop();
  g_log_level = BSP_LEVEL_INFO;
  EXPECT_EQ(device.Written(), "V");
  const Rows own = server.Table("tbl_sys_log");
  ASSERT_EQ(own.size(), 2u);
  EXPECT_NE(own[1].find(" mod mod(70, 60)"), std::string::npos) << own[1];
}

// A loop that the test can stop at the end of a turn, with a device; the clock is frozen.
struct StoppedServer {
  explicit StoppedServer(const std::string& cfg, bool has_separate_feeds = true) {
    g_log_level = BSP_LEVEL_CRIT;
    bsp::LogSrvOptions options = AllOptions(device.path);
    options.separate_feeds = has_separate_feeds;
    options.on_turn = [this] {
      ++turns;
      for (; is_stopped; TimeUtil::SleepMs(1)) stands = true;
      stands = false;
    };
    server = std::make_unique<Server>(options, cfg);
    server->Loop();
  }
  ~StoppedServer() { g_log_level = BSP_LEVEL_INFO; }
  // The loop stands still for so long, and this happens meanwhile; what it does to the device when
  // it goes on.
  std::string After(
      int seconds, const std::function<void()>& meanwhile = [] {}) {
    is_stopped = true;
    while (!stands) AwaitTurns(0);
    test::g_clock_shift += seconds;
    meanwhile();
    is_stopped = false;
    AwaitTurns(2);
    return device.Written();
  }
  void AwaitTurns(int count) {
    const int turn = turns;
    do {
      sender.Send(3, "");
      TimeUtil::SleepMs(1);
    } while (turns < turn + count);
  }
  void Feed(const std::string& name) { sender.Send(4, "", 0, 0xaa55aa55, 1096, name); }
  // The rows that tell of late modules, behind their times.
  Rows Late() {
    server->Stop();
    Rows rows;
    for (const std::string& row : server->Table("tbl_sys_log")) {
      const size_t begin = row.find(" mod ");
      if (begin != std::string::npos)
        rows.push_back(row.substr(begin + 5, row.find("  not") - begin - 5));
    }
    return rows;
  }
  const FrozenClock clock;
  Block block;
  Device device;
  Sender sender;
  std::atomic<bool> is_stopped{false};
  std::atomic<bool> stands{false};
  std::atomic<int> turns{0};
  std::unique_ptr<Server> server;
};

// A stall of the loop costs no module its verdict: what waits is read before one, and the pass that
// comes late gives none. Each lateness of each module is told once.
TEST(LogServer, StallIsNoLateness) {
  NEED_PRIVATE_WORLD();
  StoppedServer loop("[watchdog]\nmodule_0=good\nmodule_1=dead\n");
  EXPECT_EQ(loop.After(5), ".");
  const auto feed_behind_records = [&] {
    for (int i = 0; i < 50; ++i) loop.sender.Send(LOG_TYPE_BUS, "in front");
    loop.Feed("good");
  };
  EXPECT_EQ(loop.After(75, feed_behind_records), ".");
  EXPECT_EQ(loop.After(5), "");  // the next one judges
  EXPECT_EQ(loop.After(5), "");
  EXPECT_EQ(loop.After(5, [&] { loop.Feed("dead"); }), ".");
  EXPECT_EQ(loop.After(75, feed_behind_records), ".");
  EXPECT_EQ(loop.After(5), "");
  EXPECT_EQ(loop.Late(), (Rows{"dead(85, 60)", "dead(80, 60)"}));
}

// A flood of records drops no feed. Where feeds were lost, among records or among themselves, their
// modules are spared for one more time-out, which is told once.
TEST(LogServer, FloodIsNoLateness) {
  NEED_PRIVATE_WORLD();
  for (const bool has_separate_feeds : {true, false}) {
    SCOPED_TRACE(has_separate_feeds);
    StoppedServer loop("[watchdog]\nmodule_0=good\n", has_separate_feeds);
    const auto flood = [&](int type) {
      for (int i = 0; i < 1000; ++i) loop.sender.Send(type, "", 0, 0xaa55aa55, 1096, "other");
      loop.Feed("good");
    };
    EXPECT_EQ(loop.After(5, [&] { loop.Feed("good"); }), ".");
    EXPECT_EQ(loop.After(55), ".");  // late, and judges nobody
    EXPECT_EQ(loop.After(6, [&] { flood(LOG_TYPE_BUS); }), ".");
    EXPECT_EQ(bsp::LoadWord(loop.block->mods[0].feed_time),
              test::kFrozen + (has_separate_feeds ? 66 : 5));
    if (has_separate_feeds) {
      EXPECT_EQ(loop.After(55), ".");
      EXPECT_EQ(loop.After(6, [&] { flood(LOG_TYPE_FEED_DOG); }), ".");
    }
    EXPECT_EQ(loop.After(6), ".");
    EXPECT_EQ(loop.After(54), ".");  // late, and judges nobody
    EXPECT_EQ(loop.After(5), "");
    EXPECT_EQ(loop.Late(),
              (Rows{"good(61, 60) not judged, their feeds may be among the datagrams lost",
                    "good(126, 60)"}));
  }
}

// Without a store the modules are watched, and the newest records kept; a store that can be opened
// again gets them, with the number of those lost. So does a new file in place of one removed.
TEST(LogServer, StoreComesAndGoes) {
  NEED_PRIVATE_WORLD();
  const std::string file = "/mnt/late/log.db";
  std::filesystem::remove_all("/mnt/late");
  StoppedServer loop("[record]\nlog_db_file=" + file + "\n");
  const auto send = [&](int first, int count) {
    for (int i = first; i < first + count; ++i) {
      loop.sender.Send(LOG_TYPE_BUS, std::to_string(i));
      if (i % 50 == 49) loop.AwaitTurns(1);  // so that none overflows the socket
    }
    loop.AwaitTurns(1);
  };
  send(0, 1100);
  EXPECT_EQ(loop.After(5), ".");
  std::filesystem::create_directory("/mnt/late");
  loop.After(60);
  send(2000, 1);
  std::filesystem::rename(file, file + ".away");
  send(3000, 1);  // goes with the open batch
  loop.After(60);
  send(4000, 1);
  loop.server->Stop();
  const auto rows = [](const std::string& path, const std::string& sql) {
    return test::QueryFile(path, "SELECT " + sql);
  };
  EXPECT_EQ(rows(file, "log FROM tbl_bus_log"), Rows{"4000"});
  EXPECT_EQ(rows(file, "count(*) FROM tbl_sys_log WHERE log LIKE '%was removed or replaced%'"),
            Rows{"1"});
  EXPECT_EQ(
      rows(file, "CAST(substr(log, 25) AS INTEGER) FROM tbl_sys_log WHERE log LIKE '% rows lost%'"),
      Rows{"2"});
  EXPECT_EQ(rows(file + ".away", "count(*) FROM tbl_bus_log WHERE CAST(log AS INTEGER) < 1100"),
            Rows{"1000"});
}

// A wait that a signal cuts short ends the loop. That is a failure: the device stays armed, and
// resets the machine if the server does not come up again.
TEST(LogServer, FailedLoopLeavesTheDeviceArmed) {
  NEED_PRIVATE_WORLD();
  Device device;
  Server server(AllOptions(device.path));
  std::atomic<bool> has_left{false};
  std::thread loop([&] {
    server->RunLoopLog();
    has_left = true;
  });
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr);
  while (!has_left) {
    pthread_kill(loop.native_handle(), SIGUSR1);
    TimeUtil::SleepMs(1);
  }
  loop.join();
  EXPECT_EQ(server->error(), "waiting for datagrams failed: Interrupted system call");
  server.Stop();
  EXPECT_EQ(device.Written(), "");
}

}  // namespace
