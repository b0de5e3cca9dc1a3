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
#include <termios.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <future>
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

namespace {

using bsp::FileUtil;
using bsp::LogMsg;
using bsp::ModSta;
using bsp::NameOf;
using bsp::SystemLogClient;
using bsp::SystemStatus;
using bsp::SysWdg;
using bsp::TimeUtil;
using test::Rows;

// The block as a tool sees it, new and empty.
struct Block {
  Block() {
    shmc::impl::SVIPCShmAlloc<false>().Unlink(bsp::kSystemStatusName);
    EXPECT_TRUE(handle.InitForWrite(bsp::kSystemStatusName, bsp::kSystemStatusSize, 1));
  }
  SystemStatus* operator->() { return handle.ptr(); }
  SystemStatus* get() { return handle.ptr(); }
  void Fill(int byte) { memset(static_cast<void*>(get()), byte, sizeof(SystemStatus)); }
  bsp::StatusBlockHandle handle;
};

// The calls run in a process of their own; the lines that they print.
Rows LinesOf(const std::function<void()>& calls) {
  test::Child child = test::Child::Fork([&] { return calls(), 0; });
  EXPECT_EQ(child.Wait(), 0) << child.output();
  return bsp::StringHelper::Split(child.output(), "\n");  // the last is empty
}

// "name running feed_cnt timeout log_level", name of the first tag, level of the last.
std::string Told(const ModSta& mod) {
  return bsp::StringHelper::Format("%s %d %d %d %d %s %d", NameOf(mod.mod_name).c_str(),
                                   mod.running, mod.feed_cnt, mod.timeout, mod.log_level,
                                   NameOf(mod.logs[0].log_name).c_str(), mod.logs[31].log_level);
}

// ---- The client

// A name at or past the limit: refused, or stored cut so that each start takes one more record; a
// name that fits is found again, its tags are reset, and what the server set for it stays.
TEST(LogClient, RecordsAreFoundAgainByName) {
  NEED_PRIVATE_WORLD();
  Block block;
  EXPECT_FALSE(SystemLogClient().Start(std::string(33, 'n')));
  EXPECT_FALSE(SystemLogClient().Start(""));
  const std::string name(30, 'n');
  for (const char* more : {"nn", "nn", ""}) EXPECT_TRUE(SystemLogClient().Start(name + more));
  ModSta& mod = block->mods[0];
  EXPECT_EQ(Told(mod), name + " 1 1 20 0  6");  // found again by the third start
  EXPECT_EQ(Told(block->mods[1]), name + " 1 0 20 0  6");
  EXPECT_EQ(Told(block->mods[2]), " 0 0 0 0  0");
  mod = {0, 0, 5, 60, 7, {}, 3, {}, 0};
  name.copy(mod.mod_name, 30);
  strcpy(mod.logs[0].log_name, "old");
  SystemLogClient client;
  ASSERT_TRUE(client.Start(name));
  EXPECT_EQ(Told(mod), name + " 0 1 60 3  6");
  EXPECT_GT(mod.feed_time, 7);
  EXPECT_EQ(client.IsRunning(), 0);
  EXPECT_FALSE(client.Start("again"));  // attached already
  client.Stop();
  EXPECT_EQ(client.IsRunning(), 1);
  EXPECT_EQ(client.GetLogLevel("x"), 7);  // no record any more, and no fault
}

// Thresholds that anyone sets in the block count at the next call, a tag's buffer may change its
// text behind its address, and a tag without a slot is not filtered and says so once.
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
  client.RegLogMod("A");  // once more: the new slot counts, also where the old one was known
  mod.logs[2].log_level = 2;
  EXPECT_EQ(client.GetLogLevel("A"), 2);
  EXPECT_EQ(client.GetLogLevel(nullptr), 4);  // an empty name, which leaves its slot free
  EXPECT_EQ(client.GetLogLevel(std::string(40, 't')), 4);
  EXPECT_EQ(NameOf(mod.logs[3].log_name), std::string(30, 't'));
  for (int i = 4; i < 32; ++i) EXPECT_EQ(client.GetLogLevel("T" + std::to_string(i)), 4);
  const Rows lines = LinesOf([&] {
    for (int twice = 0; twice < 2; ++twice) EXPECT_EQ(client.GetLogLevel("T32"), 7);
    client.SetLogLevel(8);
    SystemLogClient().SetLogLevel(3);
  });
  EXPECT_EQ(lines, (Rows{"register log T32 failed, module 32 is full.", "log level 8 is invalid.",
                         "module  not registered.", ""}));
  block.Fill(0);  // the server has started behind our back
  EXPECT_EQ(client.GetLogLevel("T31") + client.IsRunning(), 0);
}

// Behind a start that failed every call reaches its line and none faults.
TEST(LogClient, FailedStartIsHarmless) {
  NEED_PRIVATE_WORLD();
  Block block;
  for (ModSta& mod : block->mods) strcpy(mod.mod_name, "taken");
  const Rows lines = LinesOf([] {
    EXPECT_EQ(log_init_v2(6, "late", 0), -1);
    BSP_LOG_DEBUG("MOD_T", "unfiltered");
    BSP_TRACE(1, 2, "t");
    BSP_FEED_DOG();
    log_send_msg(nullptr);
    EXPECT_EQ(mod_is_running(), 1);
    for (int twice = 0; twice < 2; ++twice) log_deinit();
  });
  const std::string dropped = "hdl_ not init 0, or msg is null ";
  const Rows starts = {"register module late failed, module 32 is full.",
                       "register module late failed.",
                       "log start failed.",
                       "cur_sta_ptr_ is null.",
                       "[",
                       dropped + "0x",
                       dropped + "0x",
                       dropped + "(nil).",
                       ""};
  ASSERT_EQ(lines.size(), starts.size());
  for (size_t i = 0; i < lines.size(); ++i) EXPECT_EQ(lines[i].rfind(starts[i], 0), 0u) << lines[i];
}

// The datagram is the record byte for byte: head stamped by the client whatever the caller put
// there, the name as the block holds it and within its bytes, len as the formatter told it.
TEST(LogClient, RecordsOnTheWire) {
  NEED_PRIVATE_WORLD();
  Block block;
  bsp::Socket server;
  ASSERT_TRUE(server.Create(bsp::Socket::SOCKET_DGRAM));
  ASSERT_TRUE(server.Bind(bsp::SocketAddress("0.0.0.0", bsp::kLogPort)));
  const Rows lines = LinesOf([&] {
    char words[][16] = {"/usr/bin/wire", "rest", "-p", "7"};
    char* argv[] = {words[0], words[1], words[2], words[3], nullptr};
    EXPECT_EQ(log_init(4, argv, 0), 0);
    EXPECT_EQ(argv[1], words[1]);  // not reordered
    BSP_TRACE(-9, 4, "trace %d", 1);
    BSP_CONTROL(5, "%s", std::string(1500, 'c').c_str());
    BSP_SYSTEM(2, "system");
    BSP_FEED_DOG();
    LogMsg own = bsp::kLogMsgPrototype;
    memset(own.mod_name, 'x', sizeof own.mod_name);
    own.magic = 0;
    own.type = 6;
    log_send_msg(&own);
    memset(block->mods[0].mod_name, 'g', 32);
    log_send_msg(&own);
    block.Fill(0);
    log_send_msg(&own);
  });
  EXPECT_EQ(lines.at(3), "log level 7.");
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
  expect_next(LOG_TYPE_BUS, 7, 6, 4, -9, "wire", "trace 1");
  expect_next(LOG_TYPE_CTRL, 1500, 6, 5, 0, "wire", std::string(1022, 'c'));
  expect_next(LOG_TYPE_CTRL, 6, 2, 0, 0, "wire", "system");
  expect_next(LOG_TYPE_FEED_DOG, 20, 0, 0, 0, "wire", "module wire feed dog");
  for (const std::string& name : {std::string("wire"), std::string(31, 'g'), std::string()}) {
    expect_next(LOG_TYPE_SEARCH, 0, 6, 0, 0, name, "");
  }
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

// Processes that start at the same moment, every other time at a block that none of them has made
// yet: each gets a record of its own with all fields set, also before anyone sees its name, so that
// none is found late. What a dead claimant or garbage left behind is taken over.
TEST(LogClient, ModulesThatStartAtOnce) {
  NEED_PRIVATE_WORLD();
  const int32_t dead = test::Child::Fork([] { return 0; }).pid();  // reaped at once
  for (int round = 0; round < 25; ++round) {
    int gate[2];
    ASSERT_EQ(pipe(gate), 0);
    bsp::LogSrvCfg cfg;
    SysWdg wdg(cfg);
    auto block = std::make_unique<Block>();
    wdg.Init(block->get());
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
      EXPECT_LT(TimeUtil::ClockSecond() - mod.feed_time, 60);
    }
    EXPECT_EQ(names.size() - names.count(""), 32u);
  }
}

// ---- The watchdog

// What modules left in the block is gone, the configured ones stand there with 60 seconds, and one
// that finds no room fails alone.
TEST(Watchdog, StartClearsAndRegisters) {
  NEED_PRIVATE_WORLD();
  Block block;
  block.Fill(0x5a);
  bsp::LogSrvCfg cfg;
  for (int i = 1; i < 32; ++i) cfg.modules[i] = "m" + std::to_string(i);
  SysWdg wdg(cfg);
  EXPECT_FALSE(wdg.Init(nullptr));
  ASSERT_TRUE(wdg.Init(block.get()));
  EXPECT_EQ(Told(block->mods[0]), "m1 0 0 60 0  6");
  EXPECT_EQ(Told(block->mods[31]), " 0 0 0 0  0");
  EXPECT_EQ(SysWdg::ModuleRegister(block.get(), "m1"), &block->mods[0]);
  EXPECT_EQ(Told(block->mods[0]), "m1 0 1 60 0  6");
  EXPECT_EQ(SysWdg::ModuleRegister(block.get(), std::string(40, 'x')), &block->mods[31]);
  EXPECT_EQ(Told(block->mods[31]), std::string(30, 'x') + " 0 0 60 0  6");
  EXPECT_EQ(SysWdg::ModuleRegister(block.get(), "one too many"), nullptr);
  EXPECT_EQ(SysWdg::ModuleRegister(nullptr, "m"), nullptr);
}

// Late is later than the time-out, and only without a feed since the last check. A feed goes to the
// first record that it names or begins. Garbage in the block is read within its bytes.
TEST(Watchdog, FeedsAndLateModules) {
  NEED_PRIVATE_WORLD();
  constexpr int64_t now = test::kFrozen;
  test::g_clock_shift = now;
  Block block;
  bsp::LogSrvCfg cfg;
  cfg.modules[5] = "abc";
  cfg.modules[7] = "ab";
  cfg.modules[9] = std::string(30, 'l');
  SysWdg wdg(cfg);
  wdg.FeedModuleWatchDog("ab");  // before the block is there
  ASSERT_TRUE(wdg.Init(block.get()));
  ModSta& abc = block->mods[0];
  ModSta& ab = block->mods[1];
  const auto check = [&](int64_t ago_abc, int64_t ago_ab, int feeds) {
    abc.feed_time = now - ago_abc;
    ab.feed_time = now - ago_ab;
    abc.feed_cnt = feeds;
    std::string out = "old";
    const bool is_late = wdg.IsHadTimeOut(out);
    EXPECT_EQ(is_late, !out.empty());
    EXPECT_EQ(abc.feed_cnt, 0);
    return out;
  };
  abc.timeout = 20;
  EXPECT_EQ(check(20, 60, 0), "");
  EXPECT_EQ(check(25, 70, 0), "mod abc(25, 20) ab(70, 60)  not feed the dog\n");
  EXPECT_EQ(check(25, 70, 3), "mod ab(70, 60)  not feed the dog\n");
  wdg.FeedModuleWatchDog(nullptr);
  for (const std::string& mod : Rows{"ab", "ab", "abcd", "", "b", std::string(31, 'l')}) {
    wdg.FeedModuleWatchDog(mod.c_str());
  }
  for (int i = 0; i < 3; ++i) EXPECT_EQ(block->mods[i].feed_cnt, i == 0 ? 2 : 0);
  EXPECT_EQ(abc.feed_time, now);

  block.Fill(0xff);
  abc.feed_cnt = INT32_MAX;
  wdg.FeedModuleWatchDog(std::string(100, '\xff').c_str());
  EXPECT_EQ(abc.feed_cnt, INT32_MIN);
  ab.feed_cnt = 0;
  ab.feed_time = INT64_MIN;
  std::string out;
  wdg.IsHadTimeOut(out);
  EXPECT_LT(out.size(), 32u * 80);
  test::g_clock_shift = 0;
}

// A terminal in place of a watchdog device.
struct Device {
  explicit Device(int timeout = 60) : terminal(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK)) {
    EXPECT_TRUE(terminal != -1 && grantpt(terminal) == 0 && unlockpt(terminal) == 0);
    path = ptsname(terminal);
    held = open(path.c_str(), O_RDWR | O_NOCTTY);  // without it a close would drop the bytes
    termios raw = {};
    cfmakeraw(&raw);
    EXPECT_EQ(tcsetattr(held, TCSANOW, &raw), 0);
    g_device_timeout = timeout;
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

// What is no watchdog gets no byte, one that would reset between two feeds is disarmed and refused,
// and one that is armed already is not opened again.
TEST(Watchdog, DeviceIsArmedAndDisarmed) {
  bsp::LogSrvCfg cfg;
  std::string why;
  Device device(0);
  EXPECT_FALSE(SysWdg(cfg, "/nowhere/watchdog").ArmDeviceWatchDog(&why));
  const std::pair<int, const char*> outcomes[] = {{0, ""}, {14, "V"}, {15, ".V"}};
  for (const auto& [timeout, written] : outcomes) {
    g_device_timeout = timeout;
    {
      SysWdg wdg(cfg, device.path);
      for (int twice = 0; twice < 2; ++twice) {
        EXPECT_EQ(wdg.ArmDeviceWatchDog(&why), timeout == 15) << why;
        if (timeout == 14) break;
      }
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
  options.record_drops = true;
  options.loopback_only = true;
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
    Server server(options,
                  "[log_size]\nlog_bus_size=0\nlog_ctrl_size=-5\nlog_sys_size=7\n"
                  "[watchdog]\nmodule_31=" +
                      std::string(30, 'm') + "\n");
    EXPECT_EQ(server->cfg().log_bus_size, 20000);  // what is senseless has its default
    EXPECT_EQ(server->cfg().log_ctrl_size, 10000);
    EXPECT_EQ(server->cfg().log_sys_size, 7);
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
    sender.Send(LOG_TYPE_BUS, "s", 1, 0xaa55aa55, 3);
    sender.Send(LOG_TYPE_CTRL, std::string(1024, 'x'), 1023);
    sender.Send(LOG_TYPE_CTRL, "no text", 0);
    sender.Send(LOG_TYPE_CTRL, "'); DROP TABLE tbl_bus_log; --\"\xff\x01");
    sender.Send(3, "no table");
    sender.Send(LOG_TYPE_SEARCH, "search");
    sender.Send(LOG_TYPE_SYS, "from a module");
    sender.Send(LOG_TYPE_FEED_DOG, "");  // its name has no end: cut at 31 it matches nothing
    sender.Send(LOG_TYPE_FEED_DOG, "", 0, 0xaa55aa55, 1096, std::string(30, 'm'));
    sender.Send(LOG_TYPE_BUS, "last");
    server.Stop();
    EXPECT_EQ(server.Table("tbl_bus_log"), (Rows{"6 3 -4 bu", "6 0 0 ", "6 3 -4 last"}));
    EXPECT_EQ(server.Table("tbl_ctrl_log"),
              (Rows{"6 3 -4 " + std::string(1023, 'x'), "6 3 -4 ",
                    "6 3 -4 '); DROP TABLE tbl_bus_log; --\"\xff\x01"}));
    const Rows own = server.Table("tbl_sys_log");
    EXPECT_EQ(own.size(), all ? 2u : 3u);
    EXPECT_EQ(own[0].find("3 0 0 20"), 0u) << own[0];
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
    for (int i = 0; i < 80; ++i) sender.Send(LOG_TYPE_BUS, "row");  // the port is taken already
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
    EXPECT_EQ(server.Table("tbl_bus_log").size(), 80u);
  }
}

// The device is fed while no module is late; a late one stops that, each override resumes it, both
// feed twice, and a feed of the module ends it. The late text is a row once in the server's life.
// All that while empty datagrams come without end, which must not keep the passes from running.
TEST(LogServer, LateModulesStopTheDevice) {
  NEED_PRIVATE_WORLD();
  Block block;
  Device device;
  bsp::LogSrvOptions options = AllOptions(device.path);
  options.record_drops = false;
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
  // Lets the next pass come due and waits until it has run: it counts down this record's feeds.
  ModSta* witness = SysWdg::ModuleRegister(block.get(), "witness");
  ASSERT_NE(witness, nullptr);
  const auto next_pass = [&](int seconds = 5) {
    bsp::StoreWord(witness->feed_cnt, 5);
    test::g_clock_shift += seconds;
    while (bsp::LoadWord(witness->feed_cnt) != 0) TimeUtil::SleepMs(1);
    const int turn = turns;  // a turn is told before its pass
    while (turns == turn) TimeUtil::SleepMs(1);
    return device.Written();
  };
  EXPECT_EQ(next_pass(), ".");
  EXPECT_EQ(next_pass(65), "");
  std::filesystem::create_directories("/mnt/nand");
  const std::string marker = "/mnt/nand/watchdog_close.conf";
  const struct {
    int wdg_enable;
    bool has_marker, has_fed;
    const char* written;
  } passes[] = {{1, false, false, ""}, {0, false, false, "."}, {0, true, false, ".."},
                {1, true, false, "."}, {1, false, false, ""},  {1, false, true, "."}};
  for (const auto& pass : passes) {
    bsp::StoreWord(block->wdg_enable, pass.wdg_enable);
    std::filesystem::remove(marker);
    if (pass.has_marker) FileUtil::WriteToFile(marker, "");
    if (pass.has_fed) bsp::StoreWord(block->mods[0].feed_cnt, 1);
    EXPECT_EQ(next_pass(), pass.written);
  }
  is_over = true;
  flood.join();
  server.Stop();
  test::g_clock_shift = 0;
  g_log_level = BSP_LEVEL_INFO;
  EXPECT_EQ(device.Written(), "V");
  const Rows own = server.Table("tbl_sys_log");
  ASSERT_EQ(own.size(), 2u);
  EXPECT_EQ(own[1].substr(0, 6), "3 0 0 ");
  EXPECT_NE(own[1].find(" mod mod(7"), std::string::npos) << own[1];
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
