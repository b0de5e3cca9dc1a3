// What the host programs tell, to their service manager and on standard error, and what it costs
// them when nobody listens.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <string>
#include <vector>

#include "bsp/base/socket.h"
#include "bsp/log/log.h"
#include "bsp/log/log_msg.h"
#include "bsp/log/status_block.h"
#include "bsp/log/sys_log_cli.h"
#include "bsp/util/string_helper.h"
#include "bsp/util/time_util.h"
#include "tests/support/child.h"
#include "tests/support/rpc_peer.h"
#include "tests/support/servers.h"
#include "tests/support/test_env.h"

namespace {

using bsp::StringHelper;
using bsp::TimeUtil;
using test::Child;
using test::RpcBytes;
using test::RpcPeer;

constexpr int kPort = 7800;

// The manager's end of the notify protocol.
class Manager {
 public:
  explicit Manager(const std::string& path) : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(fd_, reinterpret_cast<struct sockaddr*>(&address), sizeof address), 0);
  }
  ~Manager() { close(fd_); }

  // The next state line; empty when none comes within half a minute.
  std::string Next() {
    struct pollfd ready = {fd_, POLLIN, 0};
    if (poll(&ready, 1, 30000) != 1) return std::string();
    char state[256];
    const ssize_t count = recv(fd_, state, sizeof state, 0);
    return count > 0 ? std::string(state, static_cast<size_t>(count)) : std::string();
  }

 private:
  const int fd_;
};

// A manager that hears no READY restarts a good service for ever; one that hears WATCHDOG from
// anything but the loop never restarts a hung one. Standard output is a pipe that nobody reads any
// more, which must end no program.
TEST(HostPrograms, TellTheServiceManager) {
  NEED_PRIVATE_WORLD();
  for (const std::string name : {"bsp-broker", "bsp-logd"}) {
    SCOPED_TRACE(name);
    Manager manager("/mnt/" + name);
    Child program =
        Child::Run({"/bin/sh", "-c",
                    "mkdir -p /mnt/nand; cd /mnt; mkfifo $0.out; exec 3<>$0.out 4>$0.out 3<&-; "
                    "NOTIFY_SOCKET=/mnt/$0 WATCHDOG_USEC=600000 exec " BSP_TEST_BIN_DIR "/$0 >&4",
                    name});
    EXPECT_EQ(manager.Next(), "READY=1");
    EXPECT_EQ(manager.Next(), "WATCHDOG=1");
    EXPECT_EQ(manager.Next(), "WATCHDOG=1");
    program.Signal(SIGTERM);
    std::string state = manager.Next();
    while (state == "WATCHDOG=1") state = manager.Next();
    EXPECT_EQ(state, "STOPPING=1");
    EXPECT_EQ(program.Wait(), 0) << program.output();
  }
  // A socket that nobody reads, or that is no socket, must not hold a program up.
  for (const char* path : {"/nowhere/socket", "relative", "@", ""}) {
    Child program = Child::Run(
        {"/bin/sh", "-c", "NOTIFY_SOCKET=$0 exec " BSP_TEST_BIN_DIR "/bsp-broker", path});
    EXPECT_TRUE(program.WaitForLine("bsp-broker ready")) << path << program.output();
    program.Signal(SIGTERM);
    EXPECT_EQ(program.Wait(), 0);
  }
}

// ---- Standard error

// A pipe for the standard error of a program, read when the test likes to.
class ErrorPipe {
 public:
  explicit ErrorPipe(const std::string& path) : path_(path) {
    EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
    fd_ = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  }
  ~ErrorPipe() { close(fd_); }

  // Runs "bsp-broker ..." or "bsp-logd ..." into the pipe, and awaits that it is ready.
  Child Run(const std::string& words) const {
    Child child =
        Child::Run({"/bin/sh", "-c", "exec " BSP_TEST_BIN_DIR "/" + words + " 2>" + path_});
    EXPECT_TRUE(child.WaitForLine(" ready on ")) << child.output();
    return child;
  }

  // Reads until a line that holds `text` is there; all up to its end, empty when it does not come.
  std::string ReadTo(const std::string& text) {
    struct pollfd ready = {fd_, POLLIN, 0};
    do {
      const size_t found = unread_.find(text);
      const size_t end = found == std::string::npos ? found : unread_.find('\n', found);
      if (end != std::string::npos) {
        const std::string read_bytes = unread_.substr(0, end);
        unread_.erase(0, end);
        return read_bytes;
      }
      char bytes[4096];
      const ssize_t count = read(fd_, bytes, sizeof bytes);
      if (count > 0) unread_.append(bytes, static_cast<size_t>(count));
    } while (poll(&ready, 1, test::kPatienceMs) == 1);
    return std::string();
  }

 private:
  const std::string path_;
  int fd_ = -1;
  std::string unread_;
};

// A sender of datagrams that are no records, as many as it likes.
class Datagrams {
 public:
  Datagrams() { EXPECT_TRUE(socket_.Create(bsp::Socket::SOCKET_DGRAM)); }

  // In turn: an empty one, one of a type that is none, a feed in the name of nobody.
  void Flood(int count) {
    bsp::LogMsg msg = bsp::kLogMsgPrototype;
    StringHelper::Copy(msg.mod_name, sizeof msg.mod_name, "nobody");
    for (int i = 0; i < count; ++i) {
      msg.type = i % 3 == 1 ? 99 : LOG_TYPE_FEED_DOG;
      socket_.SendTo(reinterpret_cast<const char*>(&msg), i % 3 == 0 ? 0 : sizeof msg,
                     bsp::SocketAddress("127.0.0.1", bsp::kLogPort));
    }
  }

 private:
  bsp::Socket socket_;
};

// As users run it, at its usual level.
Child RunBroker() {
  Child broker = Child::Run({BSP_TEST_BIN_DIR "/bsp-broker"});
  EXPECT_TRUE(broker.WaitForLine("bsp-broker ready")) << broker.output();
  return broker;
}

std::string Messages(int count) {
  std::string bytes;
  while (count-- > 0) bytes += RpcBytes(RPC_TYPE_MESSAGE, 1, "nobody", "text");
  return bytes;
}

// The sum of the numbers in front of `text`, wherever it stands.
size_t NumbersBefore(const std::string& output, const std::string& text) {
  size_t sum = 0;
  for (size_t at = output.find(text); at != std::string::npos; at = output.find(text, at + 1)) {
    size_t digits = at;
    while (digits > 0 && isdigit(static_cast<unsigned char>(output[digits - 1])) != 0) --digits;
    sum += std::stoul(output.substr(digits));
  }
  return sum;
}

constexpr const char* kLoss = " lines lost, standard error was not read";

// A pipe that is full to the brim must not hold up the broker's thread nor its end, whatever its
// clients make it tell. What was not written is told with its number once somebody reads.
TEST(HostPrograms, BrokerOutlivesAnUnreadLog) {
  NEED_PRIVATE_WORLD();
  constexpr int kMessages = 3000;  // a line each at least: more than ring and pipe hold
  ErrorPipe pipe("/mnt/broker.err");
  Child broker = pipe.Run("bsp-broker --log-level 7");
  for (const bool is_read : {true, false}) {
    RpcPeer flood(kPort);
    ASSERT_TRUE(flood.Send(Messages(kMessages)));
    EXPECT_TRUE(flood.IsServed());
    RpcPeer garbage(kPort);
    ASSERT_TRUE(garbage.Send(std::string(100000, 'x')));
    EXPECT_TRUE(garbage.IsClosedByPeer());
    EXPECT_TRUE(RpcPeer(kPort).IsServed());
    if (!is_read) break;
    std::string log = pipe.ReadTo(kLoss);
    EXPECT_GT(NumbersBefore(log, kLoss), 0U);
    ASSERT_TRUE(flood.Send(RpcBytes(RPC_TYPE_MESSAGE, 1, "behind.all", "")));  // there is room now
    log += pipe.ReadTo("behind.all");
    const auto lines = static_cast<size_t>(std::count(log.begin(), log.end(), '\n'));
    EXPECT_GE(lines + NumbersBefore(log, kLoss), size_t{kMessages});
  }
  broker.Signal(SIGTERM);
  EXPECT_EQ(broker.Wait(20000), 0);
}

// The same for the log server: a feed that it does not read in time resets the machine.
TEST(HostPrograms, LogServerOutlivesAnUnreadLog) {
  NEED_PRIVATE_WORLD();
  mkdir("/mnt/log", 0755);
  std::ofstream("/mnt/log/com_srv_app.ini") << "[record]\nlog_db_file = /mnt/log/log.db\n";
  ErrorPipe pipe("/mnt/logd.err");
  Child logd = pipe.Run("bsp-logd --dir /mnt/log --log-level 7");
  bsp::StatusBlockHandle block;
  ASSERT_TRUE(block.InitForWrite(bsp::kSystemStatusName, bsp::kSystemStatusSize, 1));
  ASSERT_EQ(log_init_v2(6, "feeder", 0), 0);
  Datagrams datagrams;
  for (const bool is_read : {true, false}) {
    for (int i = 0; i < 10; ++i) {
      datagrams.Flood(600);
      // A pass of the watchdog, every five seconds, counts from 0 again.
      bsp::StoreWord(block->mods[0].feed_cnt, 0);
      const int64_t end_ms = TimeUtil::ClockMillis() + test::kPatienceMs;
      while (bsp::LoadWord(block->mods[0].feed_cnt) == 0 && TimeUtil::ClockMillis() < end_ms) {
        BSP_FEED_DOG();
        TimeUtil::SleepMs(5);
      }
      ASSERT_LT(TimeUtil::ClockMillis(), end_ms);
    }
    EXPECT_TRUE(!is_read || NumbersBefore(pipe.ReadTo(kLoss), kLoss) > 0);
  }
  log_deinit();
  logd.Signal(SIGTERM);
  EXPECT_EQ(logd.Wait(20000), 0);
}

// Ten thousand lines of one reason give a handful and one a second, and none goes uncounted. A name
// that a client has chosen neither begins a line of its own nor speaks to the terminal.
TEST(HostPrograms, RepeatsAreCounted) {
  NEED_PRIVATE_WORLD();
  constexpr int kMessages = 10000;
  const int64_t begin_ms = TimeUtil::ClockMillis();
  Child broker = RunBroker();
  {
    RpcPeer flood(kPort);
    ASSERT_TRUE(flood.Send(Messages(kMessages - 1)));
    ASSERT_TRUE(flood.Send(RpcBytes(RPC_TYPE_MESSAGE, 1, "x\n<0>forged \033[2J", "")));
    EXPECT_TRUE(flood.IsServed());
  }
  broker.Signal(SIGTERM);
  EXPECT_EQ(broker.Wait(), 0);
  const auto seconds = static_cast<size_t>((TimeUtil::ClockMillis() - begin_ms) / 1000);
  size_t lines = 0;
  size_t counted = 0;
  for (const std::string& line : StringHelper::Split(broker.output(), "\n")) {
    if (line.find(" ForwardMessage, cmd ") == std::string::npos) continue;
    ++lines;
    counted += 1 + NumbersBefore(line, " more like it)");
  }
  EXPECT_EQ(counted, size_t{kMessages}) << broker.output();
  EXPECT_LE(lines, 7 + seconds) << broker.output();
  EXPECT_NE(broker.output().find(", cmd x <0>forged ?[2J not found"), std::string::npos)
      << broker.output();
}

std::vector<std::string> LinesOfFile(const std::string& path) {
  std::ifstream file(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) lines.push_back(line);
  return lines;
}

// To the journal every line carries its priority and leaves the time to the journal. A standard
// error that is not the journal, although the manager has one, is for people. A failure to start is
// told in one line.
TEST(HostPrograms, SpeakToTheJournal) {
  NEED_PRIVATE_WORLD();
  const auto run = [](const std::string& identity, const std::string& path) {
    return Child::Run({"/bin/sh", "-c",
                       ": >$1; JOURNAL_STREAM=$(stat -c $0 $1) exec " BSP_TEST_BIN_DIR
                       "/bsp-broker 2>$1",
                       identity, path});
  };
  for (const bool is_journal : {true, false}) {
    const std::string identity = is_journal ? "%d:%i" : "%d:1%i";
    Child broker = run(identity, "/mnt/first");
    EXPECT_TRUE(broker.WaitForLine("bsp-broker ready"));
    {
      RpcPeer peer(kPort);
      EXPECT_TRUE(peer.Send(RpcBytes(RPC_TYPE_MESSAGE, 1, "nobody", "")) && peer.IsServed());
    }
    EXPECT_EQ(run(identity, "/mnt/second").Wait(), 1);
    broker.Signal(SIGTERM);
    EXPECT_EQ(broker.Wait(), 0);
    const std::vector<std::string> lines = LinesOfFile("/mnt/first");
    ASSERT_EQ(lines.size(), 2U);
    const std::string text = "ForwardMessage, cmd nobody not found";
    EXPECT_NE(lines[1].find(text), std::string::npos) << lines[1];
    EXPECT_EQ(lines[0].substr(0, 11), is_journal ? "<6>MOD_BSP " : "[" + lines[0].substr(1, 10));
    EXPECT_EQ(lines[1].substr(0, 11), is_journal ? "<5>MOD_BSP " : "[" + lines[1].substr(1, 10));
    EXPECT_EQ(lines[1].find("MOD_BSP <notice> ") != std::string::npos, !is_journal) << lines[1];
    const std::vector<std::string> failure = LinesOfFile("/mnt/second");
    ASSERT_EQ(failure.size(), 1U);
    EXPECT_EQ(failure[0].substr(0, 26),
              is_journal ? "<3>bsp-broker: cannot list" : "bsp-broker: cannot listen ");
  }
}

// What the programs tell while all is well: whoever watches for errors must not learn to ignore
// them. Clients come, listen, call, check, talk to nobody and go, one of them by force, one before
// its answer; modules log and feed; both programs end in order.
TEST(HostPrograms, HealthyOperationTellsNoError) {
  NEED_PRIVATE_WORLD();
  Child logd = test::StartLogServer();
  Child broker = RunBroker();
  ASSERT_EQ(log_init_v2(6, "module", 0), 0);
  BSP_TRACE(1, 2, "a record");
  BSP_CONTROL(2, "another");
  BSP_SYSTEM(4, "a third");
  BSP_FEED_DOG();
  bsp::LogMsg ask = bsp::kLogMsgPrototype;
  ask.type = LOG_TYPE_SEARCH;
  log_send_msg(&ask);
  EXPECT_TRUE(logd.WaitForLine("resp size")) << logd.output();
  log_deinit();

  RpcPeer listener(kPort);
  EXPECT_EQ(listener.Ask(test::RpcListen("ask", RPC_TYPE_REQUEST, 7, getpid())), 0);
  EXPECT_EQ(listener.Ask(test::RpcListen("tell", RPC_TYPE_MESSAGE, 7, getpid())), 0);
  RpcPeer caller(kPort);
  test::RpcFrame request;
  for (const bool is_answered : {true, false}) {
    ASSERT_TRUE(caller.Send(RpcBytes(RPC_TYPE_REQUEST, 1, "ask", "?")) && listener.Read(&request));
    if (!is_answered) {
      caller.Close();
      Child killed = Child::Run({BSP_TEST_BIN_DIR "/bspctl", "rpc", "listen", "other"});
      EXPECT_TRUE(killed.WaitForLine("listening to"));
      killed.Signal(SIGKILL);
      EXPECT_EQ(killed.Wait(), 128 + SIGKILL);
      RpcPeer other(kPort);
      while (other.Ask(test::RpcCheck("other")) == 0) {
      }
    }
    EXPECT_TRUE(listener.Send(test::RpcReply(request, 0, "!")));
    EXPECT_EQ(listener.Ask(test::RpcCheck("ask")), 0);
    if (!is_answered) break;
    EXPECT_TRUE(caller.Read(&request));
    EXPECT_EQ(caller.Ask(test::RpcCheck("tell")), 0);
    EXPECT_EQ(caller.Ask(RpcBytes(RPC_TYPE_REQUEST, 1, "nobody", "")), -2);
    EXPECT_TRUE(caller.Send(RpcBytes(RPC_TYPE_MESSAGE, 1, "tell", "") + Messages(1)));
    EXPECT_TRUE(listener.Read(&request));
  }
  listener.Close();
  for (Child* program : {&broker, &logd}) {
    program->Signal(SIGTERM);
    EXPECT_EQ(program->Wait(), 0);
    EXPECT_EQ(program->output().find("<error>"), std::string::npos) << program->output();
    EXPECT_NE(program->output().find("<info>"), std::string::npos) << program->output();
  }
  EXPECT_NE(broker.output().find("cmd nobody not found"), std::string::npos) << broker.output();
  EXPECT_NE(broker.output().find("req_cli_hdl "), std::string::npos) << broker.output();
}

}  // namespace
