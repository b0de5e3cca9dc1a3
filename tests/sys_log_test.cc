// The system log without its programs: client, watchdog, server.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/watchdog.h>
#include <net/if.h>
#include <stdarg.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <limits>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "bsp/base/socket.h"
#include "bsp/db/database.h"
#include "bsp/log/log.h"
#include "bsp/log/status_block.h"
#include "bsp/log/sys_log_cli.h"
#include "bsp/log/sys_log_srv.h"
#include "bsp/log/sys_wdg.h"
#include "bsp/util/file_util.h"
#include "bsp/util/string_helper.h"
#include "bsp/util/time_util.h"
#include "tests/support/child.h"
#include "tests/support/test_env.h"

namespace {

// What the kernel says when asked for the time-out of a watchdog device; 0: the device is none. A
// terminal stands in for the device: it keeps every byte written to it, but knows no such request.
int g_device_timeout = 0;

// Added to the seconds of the raw monotonic clock. At kFrozen the clock stands there.
std::atomic<int64_t> g_clock_shift{0};
constexpr int64_t kFrozen = 1000000;

}  // namespace

// In front of the C library's, for the program and the library under test alike.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list args;
  va_start(args, request);
  void* argument = va_arg(args, void*);
  va_end(args);
  if (g_device_timeout != 0 && request == WDIOC_GETSUPPORT) return 0;
  if (g_device_timeout != 0 && request == WDIOC_GETTIMEOUT) {
    *static_cast<int*>(argument) = g_device_timeout;
    return 0;
  }
  return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}

extern "C" int clock_gettime(clockid_t clock, struct timespec* time) noexcept {
  const int result = static_cast<int>(syscall(SYS_clock_gettime, clock, time));
  if (clock == CLOCK_MONOTONIC_RAW) {
    const int64_t shift = g_clock_shift;
    time->tv_sec = shift < kFrozen ? time->tv_sec + shift : shift;
  }
  return result;
}

namespace {

using bsp::LogMsg;
using bsp::ModSta;
using bsp::NameOf;
using bsp::StringHelper;
using bsp::SystemLogClient;
using bsp::SystemStatus;

// The block as a tool sees it, new and empty.
struct Block {
  Block() {
    shmc::impl::SVIPCShmAlloc<false>().Unlink(bsp::kSystemStatusName);
    EXPECT_TRUE(handle.InitForWrite(bsp::kSystemStatusName, bsp::kSystemStatusSize, 1));
  }
  SystemStatus* operator->() { return handle.ptr(); }
  void Wipe() { memset(static_cast<void*>(handle.ptr()), 0, sizeof(SystemStatus)); }
  bsp::StatusBlockHandle handle;
};

std::string OutputOf(const std::function<void()>& calls) {
  test::Child child = test::Child::Fork([&] {
    calls();
    return 0;
  });
  EXPECT_EQ(child.Wait(), 0) << child.output();
  return child.output();
}

// The server's end of the wire.
struct Receiver {
  Receiver() {
    EXPECT_TRUE(socket.Create(bsp::Socket::SOCKET_DGRAM));
    EXPECT_TRUE(socket.Bind(bsp::SocketAddress("0.0.0.0", bsp::kLogPort)));
    const timeval patience = {10, 0};
    EXPECT_TRUE(socket.SetOption(SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience));
  }
  LogMsg Next() {
    LogMsg msg;
    memset(&msg, 0xee, sizeof msg);
    bsp::SocketAddress from;
    EXPECT_EQ(socket.RecvFrom(reinterpret_cast<char*>(&msg), sizeof msg, from), 1096);
    EXPECT_STREQ(from.Host(), "127.0.0.1");
    return msg;
  }
  bsp::Socket socket;
};

// A name at or past the limit: refused, or stored cut so that each start takes one more record; a
// name that fits is found again, its tags are reset, and what the server set for it stays.
TEST(LogClient, RecordsAreFoundAgainByName) {
  NEED_PRIVATE_WORLD();
  Block block;
  SystemLogClient client;
  EXPECT_FALSE(client.Start(std::string(33, 'n')));
  EXPECT_FALSE(SystemLogClient().Start(""));
  for (int start = 0; start < 2; ++start)
    EXPECT_TRUE(SystemLogClient().Start(std::string(32, 'n')));
  EXPECT_TRUE(SystemLogClient().Start(std::string(30, 'm')));
  EXPECT_EQ(NameOf(block->mods[0].mod_name), std::string(30, 'n'));
  EXPECT_EQ(NameOf(block->mods[1].mod_name), std::string(30, 'n'));

  ModSta& mod = block->mods[2];
  EXPECT_EQ(mod.running, 1);
  EXPECT_EQ(mod.timeout, 20);
  EXPECT_EQ(mod.feed_cnt, 0);
  EXPECT_NEAR(static_cast<double>(mod.feed_time), static_cast<double>(bsp::TimeUtil::ClockSecond()),
              5);
  mod.running = 0;
  mod.timeout = 60;
  mod.log_level = 3;
  mod.feed_time = 7;
  strcpy(mod.logs[0].log_name, "old");
  mod.logs[31].log_level = 1;
  ASSERT_TRUE(client.Start(std::string(30, 'm')));
  EXPECT_EQ(client.IsRunning(), 0);
  EXPECT_EQ(mod.timeout, 60);
  EXPECT_EQ(mod.log_level, 3);
  EXPECT_EQ(mod.feed_cnt, 1);
  EXPECT_GT(mod.feed_time, 7);
  EXPECT_EQ(NameOf(mod.logs[0].log_name), "");
  EXPECT_EQ(mod.logs[31].log_level, 6);
  EXPECT_EQ(NameOf(block->mods[3].mod_name), "");
  EXPECT_FALSE(client.Start("again"));  // attached already
  client.Stop();
  EXPECT_EQ(client.IsRunning(), 1);
  EXPECT_EQ(client.GetLogLevel("x"), 7);  // no record any more, and no fault
}

// Thresholds that anyone sets in the block count at the next call, the tag's own buffer may change
// its text behind its address, and a tag without a slot is not filtered and says so once.
TEST(LogClient, LevelsFollowTheBlock) {
  NEED_PRIVATE_WORLD();
  const std::string out = OutputOf([] {
    Block block;
    SystemLogClient client;
    client.SetLogLevel(3);  // not registered yet
    ASSERT_TRUE(client.Start("levels"));
    client.SetLogLevel(4);
    client.SetLogLevel(8);
    client.SetLogLevel(-1);
    ModSta& mod = block->mods[0];
    EXPECT_EQ(client.GetLogLevel("A"), 4);
    mod.logs[0].log_level = 7;
    EXPECT_EQ(client.GetLogLevel("A"), 7);
    EXPECT_EQ(client.GetLogLevel(std::string("A")), 7);
    char buffer[8] = "A";
    EXPECT_EQ(client.GetLogLevel(buffer), 7);
    buffer[0] = 'B';
    EXPECT_EQ(client.GetLogLevel(buffer), 4);
    client.RegLogMod("A");  // once more: the new slot counts, also where the old one was known
    mod.logs[2].log_level = 2;
    EXPECT_EQ(client.GetLogLevel("A"), 2);
    EXPECT_EQ(client.GetLogLevel(nullptr), 4);
    EXPECT_EQ(client.GetLogLevel(std::string(40, 't')), 4);
    EXPECT_EQ(NameOf(mod.logs[3].log_name), std::string(30, 't'));
    for (int i = 4; i < 32; ++i) EXPECT_EQ(client.GetLogLevel("T" + std::to_string(i)), 4);
    for (int twice = 0; twice < 2; ++twice) EXPECT_EQ(client.GetLogLevel("T32"), 7);
    client.SetLogLevel(5);
    EXPECT_EQ(client.GetLogLevel("T31"), 5);
    EXPECT_EQ(client.GetLogLevel("T32"), 7);
    block.Wipe();  // the server has started behind our back
    EXPECT_EQ(client.GetLogLevel("T31"), 0);
    EXPECT_EQ(client.IsRunning(), 0);
  });
  EXPECT_EQ(
      out,
      "module  not registered.\nmodule register levels, index 0.\n"
      "log client start, mod_name levels.\nlog level 8 is invalid.\nlog level -1 is invalid.\n"
      "log register A, index 0, log level 4.\nlog register B, index 1, log level 4.\n"
      "log register A, index 2, log level 4.\nlog register , index 3, log level 4.\n"
      "log register " +
          std::string(40, 't') + ", index 3, log level 4.\n" +
          [] {
            std::string lines;
            for (int i = 4; i < 32; ++i) {
              lines += "log register T" + std::to_string(i) + ", index " + std::to_string(i) +
                       ", log level 4.\n";
            }
            return lines;
          }() +
          "register log T32 failed, module 32 is full.\n");
}

// Behind a start that failed every call reaches its line and none faults; a second try that can
// succeed does.
TEST(LogClient, FailedStartIsHarmless) {
  NEED_PRIVATE_WORLD();
  Block block;
  for (ModSta& mod : block->mods) strcpy(mod.mod_name, "taken");
  const std::string out = OutputOf([&] {
    EXPECT_EQ(log_init_v2(6, "late", 0), -1);
    ASSERT_NE(g_log, nullptr);
    BSP_LOG_DEBUG("MOD_T", "unfiltered");
    BSP_TRACE(1, 2, "t");
    BSP_CONTROL(2, "c");
    BSP_SYSTEM(3, "s");
    BSP_FEED_DOG();
    log_send_msg(nullptr);
    EXPECT_EQ(mod_is_running(), 1);
    block->mods[31].mod_name[0] = '\0';
    EXPECT_EQ(log_init_v2(5, "late", 0), 0);
    log_send_msg(nullptr);
    log_deinit();
    log_deinit();
  });
  const std::vector<std::string> lines = StringHelper::Split(out, "\n");
  ASSERT_EQ(lines.size(), 16u) << out;  // the last is empty
  EXPECT_EQ(lines[0], "register module late failed, module 32 is full.");
  EXPECT_EQ(lines[1], "register module late failed.");
  EXPECT_EQ(lines[2], "log start failed.");
  EXPECT_EQ(lines[3], "cur_sta_ptr_ is null.");
  EXPECT_NE(lines[4].find("unfiltered"), std::string::npos);
  for (size_t i = 5; i < 9; ++i) EXPECT_EQ(lines[i].find("hdl_ not init 0, or msg is null 0x"), 0u);
  EXPECT_EQ(lines[9], "hdl_ not init 0, or msg is null (nil).");
  EXPECT_EQ(lines[10], "module register late, index 31.");
  EXPECT_EQ(lines[13], "log level 5.");
  EXPECT_EQ(lines[14], "hdl_ not init 1, or msg is null (nil).");
}

// The datagram is the record byte for byte: head stamped by the client whatever the caller put
// there, the name as the block holds it and within its bytes, len as the formatter told it.
TEST(LogClient, RecordsOnTheWire) {
  NEED_PRIVATE_WORLD();
  Block block;
  Receiver server;
  test::Child module = test::Child::Fork([&] {
    const std::string path = "/usr/bin/wire";
    std::vector<std::string> words = {path, "rest", "-x", "-p", "7"};
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(&word[0]);
    argv.push_back(nullptr);
    const std::vector<char*> before = argv;
    if (log_init(5, argv.data(), 0) != 0 || argv != before) return 1;
    BSP_TRACE(-9, 4, "trace %d", 1);
    BSP_CONTROL(5, "%s", std::string(1500, 'c').c_str());
    BSP_SYSTEM(2, "system");
    BSP_FEED_DOG();
    LogMsg own;
    memset(&own, 0x7f, sizeof own);
    own.type = 6;
    own.len = 0;
    log_send_msg(&own);
    memset(block->mods[0].mod_name, 'g', 32);
    log_send_msg(&own);
    block.Wipe();
    log_send_msg(&own);
    return g_log->GetLogLevel("MOD_NEW") == 0 ? 0 : 2;
  });
  LogMsg msg = server.Next();
  EXPECT_EQ(msg.magic, 0xaa55aa55u);
  EXPECT_EQ(msg.type, LOG_TYPE_BUS);
  EXPECT_EQ(msg.len, 7);
  EXPECT_EQ(msg.level, 6);
  EXPECT_EQ(msg.flow_id, 4);
  EXPECT_EQ(msg.padding, 0);
  EXPECT_EQ(msg.trace_id, -9);
  EXPECT_NEAR(static_cast<double>(msg.timems), static_cast<double>(bsp::TimeUtil::ClockMillis()),
              60000);
  EXPECT_EQ(std::string(msg.mod_name, 32), "wire" + std::string(28, '\0'));
  EXPECT_EQ(std::string(msg.log, 1024), "trace 1" + std::string(1017, '\0'));
  msg = server.Next();
  EXPECT_EQ(msg.len, 1500);
  EXPECT_EQ(std::string(msg.log, 1024), std::string(1022, 'c') + std::string(2, '\0'));
  msg = server.Next();
  EXPECT_EQ(msg.type, LOG_TYPE_CTRL);
  EXPECT_EQ(msg.level, 2);
  msg = server.Next();
  EXPECT_EQ(msg.type, LOG_TYPE_FEED_DOG);
  EXPECT_STREQ(msg.log, "module wire feed dog");
  for (const std::string& name : {std::string("wire"), std::string(31, 'g'), std::string()}) {
    msg = server.Next();
    EXPECT_EQ(msg.magic, 0xaa55aa55u);
    EXPECT_EQ(msg.len, 0);
    EXPECT_EQ(std::string(msg.mod_name, 32), name + std::string(32 - name.size(), '\0'));
  }
  EXPECT_EQ(module.Wait(), 0) << module.output();
  EXPECT_NE(module.output().find("log level 7.\n"), std::string::npos);
}

// Threads that meet new tags at the same moment: each tag takes one slot, and each answer is that
// slot's level from the first call on.
TEST(LogClient, NewTagsOfManyThreads) {
  NEED_PRIVATE_WORLD();
  constexpr int kThreads = 4;
  constexpr int kRounds = 30;
  for (int round = 0; round < kRounds; ++round) {
    Block block;
    SystemLogClient client;
    ASSERT_TRUE(client.Start("threads"));
    client.SetLogLevel(round % 8);
    std::atomic<int> ready{0};
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        ++ready;
        while (ready < kThreads) std::this_thread::yield();
        for (int i = 0; i < 160; ++i) {
          const std::string tag = "T" + std::to_string((i + t * 8) % 32);
          if (client.GetLogLevel(tag.c_str()) != round % 8) ++wrong;
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
    std::set<std::string> names;
    for (const auto& slot : block->mods[0].logs) names.insert(NameOf(slot.log_name));
    EXPECT_EQ(names.size(), 32u);
    EXPECT_EQ(names.count(""), 0u);
  }
}

// Processes that start at the same moment, at a block that none of them has made yet: each gets a
// record of its own with all fields set. What a dead claimant or garbage left behind is taken over.
TEST(LogClient, ModulesThatStartAtOnce) {
  NEED_PRIVATE_WORLD();
  constexpr int kRounds = 25;
  for (int round = 0; round < kRounds; ++round) {
    int gate[2];
    ASSERT_EQ(pipe(gate), 0);
    shmc::impl::SVIPCShmAlloc<false>().Unlink(bsp::kSystemStatusName);
    if (round % 2 == 1) {
      Block block;
      const int32_t dead = test::Child::Fork([] { return 0; }).pid();  // reaped at once
      for (ModSta& mod : block->mods) {
        memset(mod.mod_name, 0xff, 32);
        memcpy(mod.mod_name, "\0clm", 4);
        memcpy(mod.mod_name + 4, &dead, 4);
        if (&mod - block->mods >= 16) memcpy(mod.mod_name, "\0xyz", 4);
      }
    }
    std::vector<test::Child> modules;
    for (int i = 0; i < 32; ++i) {
      modules.push_back(test::Child::Fork([&, i] {
        close(gate[1]);
        char byte;
        if (read(gate[0], &byte, 1) != 0) return 1;
        return log_init_v2(6, ("mod" + std::to_string(i)).c_str(), 0) == 0 ? 0 : 2;
      }));
    }
    close(gate[1]);  // all at once
    for (test::Child& module : modules) ASSERT_EQ(module.Wait(), 0) << module.output();
    close(gate[0]);
    bsp::StatusBlockHandle block;
    ASSERT_TRUE(block.InitForWrite(bsp::kSystemStatusName, bsp::kSystemStatusSize, 1));
    std::set<std::string> names;
    for (const ModSta& mod : block->mods) {
      names.insert(NameOf(mod.mod_name));
      EXPECT_EQ(mod.timeout, 20);
      EXPECT_EQ(mod.log_level, 6);
      EXPECT_NEAR(static_cast<double>(mod.feed_time),
                  static_cast<double>(bsp::TimeUtil::ClockSecond()), 30);
      EXPECT_EQ(NameOf(mod.logs[0].log_name), NameOf(mod.mod_name));  // its first tag, not wiped
    }
    EXPECT_EQ(names.size(), 32u);
    EXPECT_EQ(names.count(""), 0u);
  }
}

// ---- The watchdog

// What modules left in the block is gone, the configured ones stand there with 60 seconds, also
// those that find no room fail alone.
TEST(Watchdog, StartClearsAndRegisters) {
  NEED_PRIVATE_WORLD();
  Block block;
  memset(static_cast<void*>(block.handle.ptr()), 0x5a, sizeof(SystemStatus));
  bsp::LogSrvCfg cfg;
  bsp::SysWdg wdg(cfg);
  EXPECT_FALSE(wdg.Init(nullptr));
  EXPECT_FALSE(wdg.InitDefaultModule());
  ASSERT_TRUE(wdg.Init(block.handle.ptr()));
  SystemStatus empty = {};
  empty.magic = 0xaa55aa55;
  empty.wdg_enable = 1;
  EXPECT_EQ(memcmp(block.handle.ptr(), &empty, sizeof empty), 0);

  for (int i = 0; i < 31; ++i) cfg.modules[i + 1] = "m" + std::to_string(i);
  ASSERT_TRUE(wdg.InitDefaultModule());
  EXPECT_EQ(NameOf(block->mods[0].mod_name), "m0");
  EXPECT_EQ(block->mods[0].timeout, 60);
  EXPECT_EQ(block->mods[0].running, 0);
  EXPECT_EQ(block->mods[0].logs[31].log_level, 6);
  EXPECT_EQ(bsp::SysWdg::ModuleRegister(block.handle.ptr(), "m30"), &block->mods[30]);
  EXPECT_EQ(block->mods[30].feed_cnt, 1);
  EXPECT_EQ(bsp::SysWdg::ModuleRegister(block.handle.ptr(), std::string(40, 'x')),
            &block->mods[31]);
  EXPECT_EQ(NameOf(block->mods[31].mod_name), std::string(30, 'x'));
  EXPECT_EQ(bsp::SysWdg::ModuleRegister(block.handle.ptr(), "one too many"), nullptr);
  EXPECT_EQ(bsp::SysWdg::ModuleRegister(nullptr, "m"), nullptr);
}

// Late is later than the time-out, and only without a feed since the last check; garbage in the
// block is read within its bytes and makes no undefined sum.
TEST(Watchdog, LateModules) {
  NEED_PRIVATE_WORLD();
  Block block;
  bsp::LogSrvCfg cfg;
  cfg.modules[5] = "a";
  cfg.modules[7] = "b";
  bsp::SysWdg wdg(cfg);
  ASSERT_TRUE(wdg.Init(block.handle.ptr()));
  std::string out = "old";
  EXPECT_FALSE(wdg.IsHadTimeOut(out));
  EXPECT_EQ(out, "");
  ModSta& a = block->mods[0];
  ModSta& b = block->mods[1];
  a.timeout = 20;
  {
    constexpr int64_t now = kFrozen;
    g_clock_shift = now;
    a.feed_time = now - 20;
    b.feed_time = now - 60;
    EXPECT_FALSE(wdg.IsHadTimeOut(out));
    a.feed_time = now - 25;
    b.feed_time = now - 70;
    for (int check = 0; check < 2; ++check) {
      EXPECT_TRUE(wdg.IsHadTimeOut(out));
      EXPECT_EQ(out, "mod a(25, 20) b(70, 60)  not feed the dog\n");
    }
    a.feed_cnt = 3;
    EXPECT_TRUE(wdg.IsHadTimeOut(out));
    EXPECT_EQ(out, "mod b(70, 60)  not feed the dog\n");
    EXPECT_EQ(a.feed_cnt, 0);
    wdg.FeedModuleWatchDog("b");
    EXPECT_EQ(b.feed_cnt, 1);
    EXPECT_EQ(b.feed_time, now);
    EXPECT_TRUE(wdg.IsHadTimeOut(out));
    g_clock_shift = 0;
  }
  memset(static_cast<void*>(block->mods), 0xff, sizeof block->mods);
  a.feed_cnt = std::numeric_limits<int32_t>::max();
  a.feed_time = std::numeric_limits<int64_t>::min();
  wdg.FeedModuleWatchDog(std::string(100, '\xff').c_str());
  EXPECT_EQ(a.feed_cnt, std::numeric_limits<int32_t>::min());
  b.feed_cnt = 0;
  b.feed_time = std::numeric_limits<int64_t>::min();
  wdg.IsHadTimeOut(out);
  EXPECT_LT(out.size(), 32u * 80);
}

// A feed goes to the first record that it names or begins, and to none without a name.
TEST(Watchdog, FeedsByPrefix) {
  NEED_PRIVATE_WORLD();
  Block block;
  bsp::LogSrvCfg cfg;
  cfg.modules[0] = "abc";
  cfg.modules[1] = "ab";
  cfg.modules[2] = std::string(30, 'l');
  bsp::SysWdg wdg(cfg);
  wdg.FeedModuleWatchDog("ab");  // before the block is there
  ASSERT_TRUE(wdg.Init(block.handle.ptr()));
  wdg.FeedModuleWatchDog(nullptr);
  const std::string whole(30, 'l');
  for (const std::string& mod : {std::string("ab"), std::string("ab"), std::string("abcd"),
                                 std::string(), std::string("b"), whole + "l", whole}) {
    wdg.FeedModuleWatchDog(mod.c_str());
  }
  EXPECT_EQ(block->mods[0].feed_cnt, 2);
  EXPECT_EQ(block->mods[1].feed_cnt, 0);
  EXPECT_EQ(block->mods[2].feed_cnt, 1);
}

// A terminal in place of a watchdog device.
struct Device {
  Device() : terminal(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK)) {
    EXPECT_TRUE(terminal != -1 && grantpt(terminal) == 0 && unlockpt(terminal) == 0);
    path = ptsname(terminal);
    held = open(path.c_str(), O_RDWR | O_NOCTTY);  // without it a close would drop the bytes
    termios raw;
    EXPECT_EQ(tcgetattr(held, &raw), 0);
    cfmakeraw(&raw);
    EXPECT_EQ(tcsetattr(held, TCSANOW, &raw), 0);
  }
  ~Device() {
    g_device_timeout = 0;
    close(held);
    close(terminal);
  }
  // What has been written to it since the last call, a feed as '.'.
  std::string Written() {
    char bytes[64];
    const ssize_t count = read(terminal, bytes, sizeof bytes);
    std::string text(bytes, static_cast<size_t>(std::max<ssize_t>(count, 0)));
    std::replace(text.begin(), text.end(), '\0', '.');
    return text;
  }
  const int terminal;
  int held;
  std::string path;
};

// The device gets one byte a feed and the magic byte at the end; what is no watchdog gets none, and
// one that would reset between two feeds is disarmed and refused.
TEST(Watchdog, DeviceIsArmedAndDisarmed) {
  bsp::LogSrvCfg cfg;
  std::string why;
  for (const char* wrong : {"/nowhere/watchdog", "/dev"}) {
    bsp::SysWdg wdg(cfg, wrong);
    EXPECT_FALSE(wdg.CheckDeviceWatchDog(&why));
    EXPECT_NE(why.find(wrong), std::string::npos) << why;
    EXPECT_FALSE(wdg.ArmDeviceWatchDog(&why));
  }
  Device device;
  {
    bsp::SysWdg wdg(cfg, device.path);
    EXPECT_TRUE(wdg.CheckDeviceWatchDog(&why));
    EXPECT_FALSE(wdg.ArmDeviceWatchDog(&why));
    EXPECT_NE(why.find(device.path + " is no watchdog device"), std::string::npos) << why;
    wdg.FeedDeviceWatchDog();
  }
  EXPECT_EQ(device.Written(), "");
  g_device_timeout = 14;
  EXPECT_FALSE(bsp::SysWdg(cfg, device.path).ArmDeviceWatchDog(&why));
  EXPECT_NE(why.find("14 s"), std::string::npos) << why;
  EXPECT_EQ(device.Written(), "V");
  g_device_timeout = 15;
  {
    bsp::SysWdg wdg(cfg, device.path);
    EXPECT_TRUE(wdg.ArmDeviceWatchDog(&why));
    wdg.FeedDeviceWatchDog();
    wdg.FeedDeviceWatchDog();
    EXPECT_EQ(device.Written(), "..");
  }
  EXPECT_EQ(device.Written(), "V");
}

// ---- The server

bsp::LogSrvOptions AllOptions() {
  bsp::LogSrvOptions options;
  options.flush_at_stop = true;
  options.bind_at_start = true;
  options.datagrams_per_turn = 16;
  options.record_drops = true;
  options.loopback_only = true;
  return options;
}

// A server with its loop on a thread, in a new folder with log.db in it.
class Server {
 public:
  explicit Server(bsp::LogSrvOptions options = AllOptions(), const std::string& cfg = "")
      : dir_(test::MakeTempDir()), server_(Prepared(std::move(options))) {
    bsp::FileUtil::WriteToFile(dir_ + "/com_srv_app.ini", "[record]\nlog_db_file=log.db\n" + cfg);
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
  bsp::SystemLogServer& operator*() { return server_; }

  // "level flow_id trace_id log" of each row, by id.
  std::vector<std::string> Rows(const std::string& table) {
    bsp::DataBase db;
    std::vector<std::string> rows;
    EXPECT_EQ(db.Init(dir_ + "/log.db"), nullptr);
    EXPECT_EQ(db.Query("SELECT level, flow_id, trace_id, log FROM " + table + " ORDER BY id",
                       [&rows](int, char** values, char**) {
                         rows.push_back(std::string(values[0]) + " " + values[1] + " " + values[2] +
                                        " " + values[3]);
                         return 0;
                       }),
              nullptr);
    return rows;
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
  void Send(const void* bytes, int length) {
    EXPECT_EQ(socket.SendTo(static_cast<const char*>(bytes), length, server), length);
  }
  void Send(int type, const std::string& text, int len, uint32_t magic = 0xaa55aa55,
            int size = 1096) {
    LogMsg msg = bsp::kLogMsgPrototype;
    msg.magic = magic;
    msg.type = type;
    msg.len = len;
    msg.flow_id = 3;
    msg.trace_id = -4;
    memset(msg.mod_name, 'm', sizeof msg.mod_name);
    text.copy(msg.log, sizeof msg.log);
    Send(&msg, size);
  }
  void Send(int type, const std::string& text) { Send(type, text, static_cast<int>(text.size())); }
  bsp::Socket socket;
  bsp::SocketAddress server{"127.0.0.1", bsp::kLogPort};
};

// Every field of the file arrives, what is missing or senseless has its default, and a fault is
// told with file and line and leaves as the reader threw it.
TEST(LogServer, Configuration) {
  std::filesystem::current_path(test::MakeTempDir());
  const auto read = [](const std::string& text, bsp::SystemLogServer* server) {
    bsp::FileUtil::WriteToFile("com_srv_app.ini", text);
    server->InitLogCfg();
    return server->cfg();
  };
  bsp::SystemLogServer server;
  server.InitLogCfg();
  EXPECT_EQ(server.cfg().log_bus_size, 20000);
  EXPECT_EQ(server.cfg().log_db_file, "/mnt/nand/sys_log.db");
  bsp::LogSrvCfg cfg = read(
      "[watchdog]\nmodule_0=a\nmodule_31=z\nmodule_32=no\n[log_size]\nlog_bus_size=1\n"
      "log_ctrl_size=0\nlog_sys_size=-5\n[record]\nlog_db_file=x.db\nlog_rec_mode=2\n"
      "log_rec_file=f\nlog_rec_host=h\nlog_rec_port=7\n",
      &server);
  EXPECT_EQ(cfg.modules[0] + cfg.modules[1] + cfg.modules[31], "az");
  EXPECT_EQ(cfg.log_bus_size, 1);
  EXPECT_EQ(cfg.log_ctrl_size, 10000);
  EXPECT_EQ(cfg.log_sys_size, 5000);
  EXPECT_EQ(cfg.log_db_file, "x.db");
  EXPECT_EQ(cfg.rec.log_rec_mode, 2);
  EXPECT_EQ(cfg.rec.log_rec_file + cfg.rec.log_rec_host, "fh");
  EXPECT_EQ(cfg.rec.log_rec_port, 7);
  cfg = read("[log_size]\n[record]\nlog_db_file=\n", &server);
  EXPECT_EQ(cfg.modules[0], "");
  EXPECT_EQ(cfg.log_bus_size, 20000);
  EXPECT_EQ(cfg.log_db_file, "/mnt/nand/sys_log.db");
  EXPECT_THROW(read("\n[log_size\n", &server), std::logic_error);
  EXPECT_EQ(server.error(), "./com_srv_app.ini: l.2: ini parsing failed, section not closed");
  EXPECT_THROW(read("[log_size]\n\nlog_bus_size = 12x\n", &server), std::invalid_argument);
  EXPECT_EQ(server.error(), "./com_srv_app.ini: l.3: log_bus_size = 12x: field is not an int");
}

// Each datagram is handled by what it says, whatever it holds, and never by what lies behind its
// end; hostile ones do no harm to those that follow. Both ways of reading give the same rows.
TEST(LogServer, Datagrams) {
  NEED_PRIVATE_WORLD();
  for (const bool all : {false, true}) {
    SCOPED_TRACE(all);
    Block block;
    bsp::LogSrvOptions options = all ? AllOptions() : bsp::LogSrvOptions();
    options.flush_at_stop = true;
    Server server(options, "[watchdog]\nmodule_0=" + std::string(30, 'm') + "\n");
    server.Loop();
    Sender sender;
    sender.Send(LOG_TYPE_BUS, "bus", 2);
    sender.Send(LOG_TYPE_BUS, "magic", 5, 0x55aa55aa);
    sender.Send(LOG_TYPE_BUS, "too long", 1024);
    sender.Send(LOG_TYPE_BUS, "negative", -1);
    sender.Send(LOG_TYPE_BUS, "", 0, 0xaa55aa55, 0);
    sender.Send(LOG_TYPE_BUS, std::string(1024, 'x'), 1023, 0xaa55aa55, 16);  // head only
    sender.Send(LOG_TYPE_BUS, "s", 1, 0xaa55aa55, 3);
    sender.Send(LOG_TYPE_CTRL, std::string(1024, 'x'), 1023);
    sender.Send(LOG_TYPE_CTRL, "no text", 0);
    sender.Send(LOG_TYPE_CTRL, "'); DROP TABLE tbl_bus_log; --\"\xff\x01");
    sender.Send(3, "no table");
    sender.Send(LOG_TYPE_SEARCH, "search");
    sender.Send(LOG_TYPE_SYS, "from a module");
    sender.Send(LOG_TYPE_FEED_DOG, "");  // its name has no end: cut at 31 it matches nothing
    LogMsg feed = bsp::kLogMsgPrototype;
    feed.type = LOG_TYPE_FEED_DOG;
    memset(feed.mod_name, 'm', 30);
    sender.Send(&feed, sizeof feed);
    sender.Send(LOG_TYPE_BUS, "last");
    server.Stop();
    EXPECT_EQ(server.Rows("tbl_bus_log"),
              (std::vector<std::string>{"6 3 -4 bu", "6 0 0 ", "6 3 -4 last"}));
    EXPECT_EQ(server.Rows("tbl_ctrl_log"),
              (std::vector<std::string>{"6 3 -4 " + std::string(1023, 'x'), "6 3 -4 ",
                                        "6 3 -4 '); DROP TABLE tbl_bus_log; --\"\xff\x01"}));
    const std::vector<std::string> own = server.Rows("tbl_sys_log");
    ASSERT_EQ(own.size(), 2u);
    EXPECT_EQ(own[0].find("3 0 0 20"), 0u) << own[0];
    EXPECT_NE(own[0].find(" System start ...20"), std::string::npos) << own[0];
    EXPECT_EQ(block->mods[0].feed_cnt, 1);
  }
}

// Stop returns when the loop has left, whichever of the two comes first and however often, without
// the option it loses the open batch and with it it loses nothing; Start may follow.
TEST(LogServer, StopInAnyOrder) {
  NEED_PRIVATE_WORLD();
  const int64_t begin_ms = bsp::TimeUtil::ClockMillis();
  bsp::SystemLogServer().Stop();
  {
    bsp::SystemLogServer never_started;
    never_started.RunLoopLog();
    EXPECT_EQ(never_started.error(), "");
  }
  Server stock{bsp::LogSrvOptions()};
  EXPECT_FALSE((*stock).Start("twice"));
  stock.Stop();
  stock.Stop();
  (*stock).RunLoopLog();  // a loop that comes late
  EXPECT_TRUE((*stock).Start("again"));
  stock.Loop();
  (*stock).SysLogMsgRec("lost with the batch");
  (*stock).RunLoopLog();  // a second one is refused
  stock.Stop();
  EXPECT_EQ(stock.Rows("tbl_sys_log").size(), 0u);

  for (int round = 0; round < 20; ++round) {
    Server server;
    Sender sender;
    for (int i = 0; i < 80; ++i) sender.Send(LOG_TYPE_BUS, "row");  // the port is taken already
    std::thread loop([&] { (*server).RunLoopLog(); });
    if (round % 2 == 0) bsp::TimeUtil::SleepMs(static_cast<unsigned>(round) / 4);
    server.Stop();
    loop.join();
    EXPECT_EQ(server.Rows("tbl_bus_log").size(), 80u);
    EXPECT_EQ(server.Rows("tbl_sys_log").size(), 1u);
  }
  EXPECT_LT(bsp::TimeUtil::ClockMillis() - begin_ms, 10000);
}

// Of a burst into a full socket each datagram becomes a row or is counted as lost, also those lost
// at its very end.
TEST(LogServer, LossIsCounted) {
  NEED_PRIVATE_WORLD();
  constexpr int kBurst = 1000;
  Server server;
  Sender sender;
  for (int i = 0; i < kBurst; ++i) sender.Send(LOG_TYPE_BUS, "row");
  server.Loop();
  server.Stop();
  const std::vector<std::string> own = server.Rows("tbl_sys_log");
  ASSERT_EQ(own.size(), 2u);
  EXPECT_EQ(own[1].substr(0, 6), "4 0 0 ");
  const size_t at = own[1].find(" log datagrams lost");
  ASSERT_NE(at, std::string::npos) << own[1];
  const int lost = std::stoi(own[1].substr(own[1].rfind(' ', at - 1)));
  EXPECT_GT(lost, 0);
  EXPECT_EQ(static_cast<int>(server.Rows("tbl_bus_log").size()) + lost, kBurst);
}

// Only datagrams from this machine's loopback are taken, and a descriptor above 1023 works like any
// other.
TEST(LogServer, ForeignSendersAndHighDescriptors) {
  NEED_PRIVATE_WORLD();
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, 2048);
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) GTEST_SKIP() << "no descriptors above 1023";
  ifreq alias = {};
  strcpy(alias.ifr_name, "lo:1");
  const bsp::SocketAddress foreign("10.9.9.9", 0);
  memcpy(&alias.ifr_addr, foreign.Native(), foreign.SizeOf());
  Sender local;
  ASSERT_EQ(ioctl(local.socket.GetNativeSocket(), SIOCSIFADDR, &alias), 0);
  Sender stranger;
  ASSERT_TRUE(stranger.socket.Bind(foreign));
  stranger.server.Set("10.9.9.9", bsp::kLogPort);

  std::vector<int> fill;
  while (fill.empty() || fill.back() < 1100)
    fill.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
  Server server;
  for (const int fd : fill) close(fd);
  server.Loop();
  stranger.Send(LOG_TYPE_BUS, "stranger");
  local.Send(LOG_TYPE_BUS, "local");
  server.Stop();
  EXPECT_EQ(server.Rows("tbl_bus_log"), std::vector<std::string>{"6 3 -4 local"});
}

// The device is fed while no module is late; a late one stops that, each override resumes it, both
// feed twice, and a feed of the module ends it. The late text is a row once in the server's life.
// All that while empty datagrams come without end, which must not keep the passes from running.
TEST(LogServer, LateModulesStopTheDevice) {
  NEED_PRIVATE_WORLD();
  Block block;
  Device device;
  g_device_timeout = 60;
  bsp::LogSrvOptions options = AllOptions();
  options.watchdog_device = device.path;
  options.record_drops = false;
  std::atomic<int> turns{0};
  options.on_turn = [&turns] { ++turns; };
  Server server(options, "[watchdog]\nmodule_0=mod\n");
  EXPECT_EQ(device.Written(), "");  // not armed yet
  server.Loop();
  g_log_level = BSP_LEVEL_CRIT;
  std::atomic<bool> is_over{false};
  std::thread flood([&] {
    Sender sender;
    while (!is_over) sender.Send("", 0);
  });
  // Lets the next pass come due and waits until it has run: it counts down this record's feeds.
  ASSERT_NE(bsp::SysWdg::ModuleRegister(block.handle.ptr(), "witness"), nullptr);
  const auto next_pass = [&] {
    __atomic_store_n(&block->mods[1].feed_cnt, 5, __ATOMIC_RELAXED);
    g_clock_shift += 5;
    while (__atomic_load_n(&block->mods[1].feed_cnt, __ATOMIC_RELAXED) != 0) {
      bsp::TimeUtil::SleepMs(1);
    }
    const int turn = turns;  // a turn is told before its pass
    while (turns == turn) bsp::TimeUtil::SleepMs(1);
    return device.Written();
  };
  EXPECT_EQ(next_pass(), ".");
  g_clock_shift += 60;
  EXPECT_EQ(next_pass(), "");
  EXPECT_EQ(next_pass(), "");
  __atomic_store_n(&block->wdg_enable, 0, __ATOMIC_RELAXED);
  EXPECT_EQ(next_pass(), ".");
  std::filesystem::create_directories("/mnt/nand");
  bsp::FileUtil::WriteToFile("/mnt/nand/watchdog_close.conf", "");
  EXPECT_EQ(next_pass(), "..");
  __atomic_store_n(&block->wdg_enable, 1, __ATOMIC_RELAXED);
  EXPECT_EQ(next_pass(), ".");
  std::filesystem::remove("/mnt/nand/watchdog_close.conf");
  EXPECT_EQ(next_pass(), "");
  __atomic_store_n(&block->mods[0].feed_cnt, 1, __ATOMIC_RELAXED);
  EXPECT_EQ(next_pass(), ".");
  is_over = true;
  flood.join();
  server.Stop();
  g_clock_shift = 0;
  g_log_level = BSP_LEVEL_INFO;
  EXPECT_EQ(device.Written(), "V");
  const std::vector<std::string> own = server.Rows("tbl_sys_log");
  ASSERT_EQ(own.size(), 2u);
  EXPECT_EQ(own[1].substr(0, 6), "3 0 0 ");
  EXPECT_NE(own[1].find(" mod mod(7"), std::string::npos) << own[1];
  EXPECT_NE(own[1].find(", 60)  not feed the dog\n"), std::string::npos) << own[1];
}

}  // namespace
