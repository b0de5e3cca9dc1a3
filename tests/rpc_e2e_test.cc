// The bus through the broker program: modules in processes of their own, and peers that keep to no
// rule.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <ctime>
#include <deque>
#include <fstream>
#include <random>
#include <thread>

#include "bsp/bsp.h"
#include "bsp/net/rpc/rpc_client.h"
#include "tests/support/bus.h"
#include "tests/support/test_env.h"

namespace {

using bsp::RpcClient;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test::Broker;
using test::Call;
using test::Child;
using test::kPatienceMs;
using test::OpenClient;
using test::RpcBytes;
using test::RpcFrame;
using test::RpcPeer;
using test::RpcRecord;

constexpr int kPort = test::kBusPort;

// A handler that is asked to be late answers when this file is there.
constexpr const char* kMayAnswer = "/mnt/may_answer";

int Serve(const char* action, const char* req, int req_len, char* resp, int) {
  if (strcmp(action, "msg") == 0) return printf("got %s\n", req) < 0 ? -1 : 0;
  while (strcmp(req, "late") == 0 && access(kMayAnswer, F_OK) != 0) usleep(1000);
  if (strcmp(req, "fail") == 0) return -42;
  memcpy(resp, req, static_cast<size_t>(req_len));
  return req_len;
}

// A module in C, until it is killed: a request command, for which it tries again while another
// module has it or no broker is there, and a message command. Forked before this process has
// threads, since the child of one that has could start none under ThreadSanitizer.
Child StartModule(const std::string& cmd, int power) {
  return Child::Fork([=] {
    while (true) {
      void* bus = rpc_client_c_open_v2("127.0.0.1", kPort, RPC_OPEN_FAIL_CALLS_ON_DISCONNECT);
      if (bus != nullptr &&
          rpc_client_c_listen_v1(bus, cmd.c_str(), RPC_TYPE_REQUEST, power, Serve, nullptr) == 0 &&
          rpc_client_c_listen_v1(bus, "msg", RPC_TYPE_MESSAGE, 0, Serve, nullptr) == 0) {
        puts("module up");
        while (rpc_client_c_is_connected(bus) == 1) usleep(5000);
      }
      rpc_client_c_close(bus);
      usleep(2000);
    }
    return 0;
  });
}

// One device: modules in C, a caller in C++, every kind of answer, and a command whose module is
// killed and taken over by one that stood by, three times, while the caller stays.
TEST(BusOfProcesses, CallsMessagesAndTakeover) {
  NEED_PRIVATE_WORLD();
  Broker broker;
  std::deque<Child> modules;
  for (int power = 0; power < 3; ++power) {
    modules.push_back(StartModule("mod." + std::to_string(power), power));
    ASSERT_TRUE(modules.back().WaitForLine("module up"));
  }
  for (int power = 3; power < 6; ++power) modules.push_back(StartModule("mod.1", power));
  const auto client = OpenClient();
  ASSERT_NE(client, nullptr);
  std::string answer;
  EXPECT_EQ(Call(client.get(), "mod.1", "question", &answer), 0);
  EXPECT_EQ(answer, std::string("question\0", 9));
  EXPECT_EQ(Call(client.get(), "mod.1", "fail", &answer), -42);
  EXPECT_EQ(Call(client.get(), "mod.9", "", &answer), -2);
  EXPECT_EQ(Call(client.get(), "mod.1", "late", &answer, 50), -3);
  std::ofstream{kMayAnswer};
  EXPECT_EQ(Call(client.get(), "mod.1", "after", &answer), 0);  // behind the late answer
  EXPECT_EQ(answer, std::string("after\0", 6));
  ASSERT_EQ(client->SendMessage("msg", "to all"), nullptr);
  for (size_t i = 0; i < 3; ++i) EXPECT_TRUE(modules[i].WaitForLine("got to all"));

  int type = 0;
  int holder = 0;
  EXPECT_EQ(client->CheckCmdPower("mod.1", type, holder), nullptr);
  EXPECT_EQ(holder, 1);
  for (int life = 0; life < 3; ++life) {
    const int killed = holder;
    modules[static_cast<size_t>(killed)].Signal(SIGKILL);
    EXPECT_EQ(modules[static_cast<size_t>(killed)].Wait(), 128 + SIGKILL);
    const auto last = steady_clock::now() + milliseconds(kPatienceMs);
    while (client->CheckCmdPower("mod.1", type, holder) != nullptr || holder == killed) {
      ASSERT_LT(steady_clock::now(), last);
    }
    ASSERT_TRUE(modules[static_cast<size_t>(holder)].WaitForLine("module up"));
    EXPECT_EQ(Call(client.get(), "mod.1", "again", &answer), 0);
  }
}

// Calls of these sizes, each both on a connection of its own, cut at random, and on one that small
// calls of other threads share, come back as they went.
void PassWhole(const std::vector<size_t>& sizes) {
  Child listener = Child::Fork([] {
    const test::Mirror mirror("mirror");
    if (mirror.is_up()) puts("up");
    return pause();
  });
  ASSERT_TRUE(listener.WaitForLine("up"));
  const auto client = OpenClient();
  std::atomic<bool> is_over{false};
  std::vector<std::thread> small;
  for (int i = 0; i < 8; ++i) {
    small.emplace_back([&, text = "small " + std::to_string(i)] {
      std::string answer;
      do {
        EXPECT_EQ(Call(client.get(), "mirror", text, &answer), 0);
        EXPECT_EQ(answer, text + '\0');
      } while (!is_over);
    });
  }
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  RpcPeer peer(kPort);
  for (const size_t size : sizes) {
    SCOPED_TRACE(size);
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i * 31 >> 7);
    if (size <= 1000001) {
      const std::string frame = RpcBytes(RPC_TYPE_REQUEST, 1, "mirror", text);
      size_t count = 1;  // the head byte by byte
      for (size_t at = 0; at < frame.size(); at += count) {
        if (at > 110) count = 1 + random() % (frame.size() / 4 + 1);
        EXPECT_TRUE(peer.Send(frame.substr(at, count)));
        std::this_thread::yield();
      }
      RpcFrame answer;
      EXPECT_TRUE(peer.Read(&answer));
      EXPECT_TRUE(answer.payload == text);
    }
    std::string answer;
    EXPECT_EQ(Call(client.get(), "mirror", text, &answer), 0);
    EXPECT_TRUE(size == 0 || answer == text + '\0');
  }
  is_over = true;
  for (std::thread& thread : small) thread.join();
}

// Frames of any size that the broker takes pass whole both ways, however the network cuts them,
// beside small ones of other threads on the same connection. The sizes are both sides of each way
// that frames take through either end.
TEST(BusOfProcesses, FramesPassWhole) {
  NEED_PRIVATE_WORLD();
  constexpr size_t kMiB = size_t{1} << 20;
  {
    const Broker broker;
    PassWhole({0, 1, 16384 - 104, 16384, 32768 - 105, 32768 - 104, 65535, 65536, 1000001,
               4 * kMiB - 104});
  }
  const Broker unlimited({"--max-frame", "0", "--max-backlog", "0", "--max-memory", "0"});
  PassWhole({16 * kMiB + 7, 64 * kMiB});
}

// What each type of frame comes back as, to whom, and which fields the broker may touch. Frames
// that somebody should not get would be read in a later step in place of the ones expected there.
TEST(BrokerProgram, RoutesEachTypeByTheTable) {
  NEED_PRIVATE_WORLD();
  Broker broker;
  Child child = Child::Fork([] { return 0; });
  const int dead = child.pid();
  ASSERT_EQ(child.Wait(), 0);
  RpcPeer first(kPort);   // listens to both commands
  RpcPeer second(kPort);  // to the message command
  RpcPeer twin(kPort);    // to the message command, in the process of the first
  RpcPeer caller(kPort);
  RpcPeer other(kPort);
  const auto listen = [](const char* cmd, int kind, int pid) {
    return test::RpcListen(cmd, kind, pid + 1000, pid);
  };
  const struct {
    RpcPeer* from;
    std::string bytes;
    RpcPeer* to;
    int type;
    int code;
    size_t payload;
  } steps[] = {
      {&first, listen("req", RPC_TYPE_REQUEST, 1), &first, 12, 0, 0},
      {&first, listen("req", RPC_TYPE_REQUEST, 5), &first, 12, 0, 0},
      {&caller, listen("req", RPC_TYPE_MESSAGE, 9), &caller, 12, -6, 0},
      {&first, listen("msg", RPC_TYPE_MESSAGE, 1), &first, 12, 0, 0},
      {&second, listen("msg", RPC_TYPE_MESSAGE, 2), &second, 12, 0, 0},
      {&twin, listen("msg", RPC_TYPE_MESSAGE, 1), &twin, 12, 0, 0},
      {&caller, listen("msg", RPC_TYPE_REQUEST, 9), &caller, 12, -6, 0},
      {&caller, RpcBytes(RPC_TYPE_REQUEST, 1, "gone", "text"), &caller, 12, -2, 0},
      {&caller, RpcBytes(RPC_TYPE_MESSAGE, 1, "req", "text"), &first, 11, 0, 4},
      {&first, RpcBytes(RPC_TYPE_MESSAGE, 1, "msg", "own"), &second, 10, 0, 3},
      {&caller, RpcBytes(RPC_TYPE_REQUEST, 1, "msg", "text"), &caller, 12, 0, 0},
      {&caller, "", &first, 10, 0, 4},  // the other parts of the step before
      {&caller, "", &second, 10, 0, 4},
      {&caller, "", &twin, 10, 0, 4},
      // A dead listener does not stand in its heir's way and loses all its commands; a live one is
      // not thrown out, nor one whose pid, 0 or below, must never be signalled.
      {&other, listen("old", RPC_TYPE_MESSAGE, dead), &other, 12, 0, 0},
      {&other, listen("heir", RPC_TYPE_REQUEST, dead), &other, 12, 0, 0},
      {&caller, listen("heir", RPC_TYPE_REQUEST, 9), &caller, 12, 0, 0},
      {&caller, test::RpcCheck("old"), &caller, 12, -2, 0},
      {&second, listen("live", RPC_TYPE_REQUEST, getpid()), &second, 12, 0, 0},
      {&caller, listen("live", RPC_TYPE_REQUEST, 9), &caller, 12, -6, 0},
      {&second, listen("below", RPC_TYPE_REQUEST, -4242), &second, 12, 0, 0},
      {&caller, listen("below", RPC_TYPE_REQUEST, 9), &caller, 12, -6, 0},
      // An unknown type and a reply for nobody are passed over; what follows them is handled.
      {&caller, RpcBytes(55, 1, "req", "") + RpcBytes(12, 1, "", "") + test::RpcCheck("req"),
       &caller, 12, 0, 72},
  };
  RpcFrame got;
  for (const auto& step : steps) {
    SCOPED_TRACE(&step - steps);
    ASSERT_TRUE(step.from->Send(step.bytes) && step.to->Read(&got));
    EXPECT_EQ(got.head.type, step.type);
    EXPECT_EQ(got.head.err_code, step.code);
    EXPECT_EQ(got.payload.size(), step.payload);
  }
  EXPECT_EQ(got.payload, RpcRecord("req", RPC_TYPE_REQUEST, 1001));  // as first registered
  EXPECT_TRUE(other.IsClosedByPeer());

  RpcFrame sent;
  sent.head.type = RPC_TYPE_REQUEST;
  sent.head.seq = 0xfffffff7;
  sent.head.pid = 101;
  sent.head.timestamp = 123456789;
  sent.payload = "payload";
  bsp::SetRpcCmd(sent.head.cmd, "req");
  ASSERT_TRUE(caller.Send(RpcBytes(sent)) && first.Read(&got));
  EXPECT_GT(got.head.cli_hdl, 0);
  const std::string reply = test::RpcReply(got, -7, std::string(70000, 'r'));
  got.head.cli_hdl = 0;
  EXPECT_EQ(RpcBytes(got), RpcBytes(sent));
  ASSERT_TRUE(first.Send(reply) && caller.Read(&got));
  EXPECT_EQ(RpcBytes(got), reply);

  first.Close();  // with its last listener a command goes
  while (caller.Ask(test::RpcCheck("req")) == 0) {
  }
  EXPECT_EQ(caller.Ask(test::RpcCheck("req")), -2);
  EXPECT_EQ(caller.Ask(test::RpcCheck("msg")), 0);
}

// Among a thousand idle connections, peers that break every rule cost themselves the connection at
// most, with a line in the log, while a good one is served throughout.
TEST(BrokerProgram, HostilePeersCostOnlyThemselves) {
  NEED_PRIVATE_WORLD();
  if (!test::HasDescriptors(1100)) GTEST_SKIP() << "needs 1100 descriptors";
  Broker broker({"--max-frame", "10000", "--max-backlog", "1000000", "--max-unread", "4096",
                 "--max-commands", "2", "--max-clients", "0", "--stall-timeout", "2"});
  std::deque<RpcPeer> idle;
  for (int i = 0; i < 1000; ++i) idle.emplace_back(kPort);
  for (RpcPeer& peer : idle) ASSERT_TRUE(peer.IsServed());

  RpcPeer good(kPort);
  ASSERT_EQ(good.Ask(test::RpcListen("a", RPC_TYPE_MESSAGE, 1, getpid())), 0);
  ASSERT_EQ(good.Ask(test::RpcListen("b", RPC_TYPE_MESSAGE, 1, getpid())), 0);
  EXPECT_EQ(good.Ask(test::RpcListen("c", RPC_TYPE_MESSAGE, 1, getpid())), RPC_ERR_BUSY);
  EXPECT_EQ(good.Ask(test::RpcCheck("c")), -2);

  std::vector<std::string> broken = {std::string(4097, 'w'),
                                     RpcBytes(RPC_TYPE_MESSAGE, 1, "a", std::string(9897, 'f'))};
  broken.push_back(broken.back().substr(0, 104));  // no more than the head of a frame too large
  for (const int size : {INT32_MIN, -1, 0, 103}) {
    broken.push_back(RpcBytes(RPC_TYPE_MESSAGE, 1, "a", ""));
    memcpy(&broken.back()[4], &size, sizeof size);
  }
  for (const std::string& bytes : broken) {
    RpcPeer peer(kPort);
    peer.Send(bytes);
    EXPECT_TRUE(peer.IsClosedByPeer()) << bytes.size();
  }
  RpcPeer bounds(kPort);  // just within them
  RpcPeer unreadable(kPort);
  RpcFrame got;
  ASSERT_TRUE(bounds.Send(RpcBytes(RPC_TYPE_MESSAGE, 1, "a", std::string(9896, 'f'))));
  ASSERT_TRUE(good.Read(&got));
  EXPECT_EQ(got.head.size, 10000);
  ASSERT_TRUE(unreadable.Send(std::string(4096, 'w')));
  EXPECT_FALSE(unreadable.IsClosedByPeer(50));
  // A record that is not there is not read, and a name without a terminator ends with its field.
  const std::string record = RpcRecord("short", RPC_TYPE_MESSAGE, 1);
  for (const size_t length : {0, 71}) {
    EXPECT_EQ(bounds.Ask(RpcBytes(RPC_TYPE_LISTEN, 1, "", record.substr(0, length))), -1);
    EXPECT_EQ(bounds.Ask(RpcBytes(RPC_TYPE_CHECK_POWER, 1, "", record.substr(0, length))), -1);
  }
  EXPECT_EQ(bounds.Ask(test::RpcCheck("short")), -2);
  const std::string endless = std::string(64, 'u') + record.substr(64);
  EXPECT_EQ(bounds.Ask(RpcBytes(RPC_TYPE_LISTEN, 1, "", endless)), 0);
  EXPECT_EQ(bounds.Ask(RpcBytes(RPC_TYPE_CHECK_POWER, 1, "", endless), &got), 0);
  EXPECT_EQ(got.payload.substr(0, 64), std::string(63, 'u') + '\0');

  RpcPeer never(
      kPort);  // listens and never reads: what is beyond its limit is dropped for it alone
  ASSERT_EQ(never.Ask(test::RpcListen("a", RPC_TYPE_MESSAGE, 1, 1)), 0);
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  for (uint32_t i = 0; i < 2500; ++i) {
    ASSERT_TRUE(bounds.Send(RpcBytes(RPC_TYPE_MESSAGE, i, "a", std::string(9896, 'n'))));
    ASSERT_TRUE(good.Read(&got));
    ASSERT_EQ(got.head.seq, i);
    if (i < 1500 || i % 4 != 0)
      continue;  // `never` is dropped by then: its line is not one of many
    broker.process.WaitForLine("no such line", 0);  // empties the pipe, which its log would fill
    RpcPeer fuzz(kPort);
    std::string bytes = test::RpcListen("fuzz", 10 + static_cast<int>(i / 10 % 2), 0, 60) +
                        RpcBytes(RPC_TYPE_REQUEST, 2, "fuzz", "p") + test::RpcCheck("fuzz");
    for (int flips = 0; flips < 8; ++flips) bytes[random() % bytes.size()] = char(random());
    fuzz.Send(bytes.substr(0, random() % 3 == 0 ? random() % bytes.size() : bytes.size()));
  }
  EXPECT_TRUE(broker.process.WaitForLine("pid 1: seconds without a byte taken, limit 2"));
  EXPECT_TRUE(never.IsClosedByPeer());
  for (RpcPeer& peer : idle) ASSERT_TRUE(peer.IsServed());
  broker.End();
  for (const char* line : {"frame bytes, limit 10000, value 10001",
                           "unread bytes, limit 4096, value 4097", "commands, limit 2, value 3"}) {
    EXPECT_NE(broker.process.output().find(line), std::string::npos) << line;
  }
}

// Out of descriptors, or at its limit of clients, the broker turns peers away at once, rests, and
// accepts again when some have gone.
TEST(BrokerProgram, TurnsPeersAwayWhenFull) {
  NEED_PRIVATE_WORLD();
  const std::string path = BSP_TEST_BIN_DIR "/bsp-broker";
  const struct {
    std::vector<std::string> argv;
    const char* line;
  } limits[] = {{{"/usr/bin/prlimit", "--nofile=40:40", path}, "no descriptor left"},
                {{path, "--max-clients", "25"}, "clients, limit 25, value 26"}};
  for (const auto& limit : limits) {
    if (test::kSanitizerNeedsDescriptors && &limit == limits) continue;
    Child broker = Child::Run(limit.argv);
    ASSERT_TRUE(broker.WaitForLine("ready"));
    std::deque<RpcPeer> peers;
    int served = 0;
    for (int i = 0; i < 60; ++i) served += peers.emplace_back(kPort).IsServed() ? 1 : 0;
    EXPECT_GT(served, 10);
    // At the limit of clients the last places are given on.
    EXPECT_LT(served, &limit == limits ? 40 : 61);
    struct timespec used[2] = {};
    clockid_t clock = 0;
    ASSERT_EQ(clock_getcpuclockid(broker.pid(), &clock), 0);
    clock_gettime(clock, &used[0]);
    std::this_thread::sleep_for(milliseconds(500));
    clock_gettime(clock, &used[1]);
    const auto ms =
        (used[1].tv_sec - used[0].tv_sec) * 1000 + (used[1].tv_nsec - used[0].tv_nsec) / 1000000;
    EXPECT_LT(ms, 200);  // of 500 that a spinning one would use
    int open = 0;
    for (RpcPeer& peer : peers) open += peer.IsServed() ? 1 : 0;
    EXPECT_LT(open, 40);
    peers.clear();
    // It gets the descriptors back as it reads the peers' ends.
    const auto last = steady_clock::now() + milliseconds(kPatienceMs);
    while (!RpcPeer(kPort).IsServed()) ASSERT_LT(steady_clock::now(), last);
    broker.Signal(SIGTERM);
    EXPECT_EQ(broker.Wait(), 0);
    EXPECT_NE(broker.output().find(limit.line), std::string::npos);
  }
}

// The broker dies under the load of 64 callers and comes back at the same address: every caller is
// told, none hangs or gets another's answer, and the same clients, reopened, work.
TEST(BusOfProcesses, KilledBrokerIsReportedAndReplaced) {
  NEED_PRIVATE_WORLD();
  Child broker = test::StartBroker();
  Child module = StartModule("mod", 0);
  ASSERT_TRUE(module.WaitForLine("module up"));
  constexpr int kCallers = 64;
  std::atomic<bool> is_over{false};
  std::atomic<int> told{0};
  std::atomic<int> served{0};
  std::atomic<int> wrong{0};
  std::vector<std::thread> callers;
  for (int i = 0; i < kCallers; ++i) {
    callers.emplace_back([&, text = "load " + std::to_string(i)] {
      std::shared_ptr<RpcClient> client;
      std::string answer;
      while (!is_over) {
        if (client == nullptr) client = OpenClient(true);
        if (client == nullptr) std::this_thread::sleep_for(milliseconds(5));
        if (client == nullptr) continue;
        const int code = Call(client.get(), "mod", text, &answer, 3000);
        // -2, -3: the module is not up again, or its handler not yet in its table.
        if (code == 0) ++(answer == text + '\0' ? served : wrong);
        if (code != -1) continue;
        ++told;
        client->Close();
        if (client->Open("127.0.0.1", kPort) != nullptr) client.reset();
      }
    });
  }
  const auto await_load = [&] {
    const int goal = served + 2000;
    const auto last = steady_clock::now() + milliseconds(kPatienceMs);
    while (served < goal && steady_clock::now() < last) {
      std::this_thread::sleep_for(milliseconds(1));
    }
    EXPECT_GE(served, goal);
  };
  for (int kill = 0; kill < 3; ++kill) {
    await_load();
    broker.Signal(SIGKILL);
    EXPECT_EQ(broker.Wait(), 128 + SIGKILL);
    broker = test::StartBroker();
    EXPECT_TRUE(module.WaitForLine("module up"));
  }
  await_load();
  is_over = true;
  for (std::thread& caller : callers) caller.join();
  EXPECT_GE(told, kCallers);
  EXPECT_EQ(wrong, 0);
}

// Wrong usage, a taken port and an unknown host end with the promised codes and one clear line.
TEST(BrokerProgram, EndsWithThePromisedCodes) {
  NEED_PRIVATE_WORLD();
  const Broker taken;
  const struct {
    const char* options;
    int code;
    const char* line;
    const char* remedy = "";
  } uses[] = {{"--help", 0, "--max-backlog"},
              {"--no-such-option", 2, "--no-such-option"},
              {"--port 70000", 2, "70000 not in range 1 to 65535"},
              {"--max-clients -1", 2, "-1 is not a limit"},
              {"--max-frame 175", 2, "a number from 176 on"},
              {"--stock --max-clients 9", 2, "--stock excludes --max-clients"},
              {"--max-backlog 4095 --max-frame 4096", 2, "--max-backlog 4095", "--max-frame 4096"},
              {"--max-memory 29360127", 2, "--max-memory 29360127", "--max-frame 4194304"},
              {"--max-memory 29360128 --max-backlog 4194304", 1, "cannot listen"},
              {"--max-memory 0 --max-frame 0 --max-backlog 1", 1, "cannot listen"},
              {"--host no.such.host.invalid", 1, "cannot resolve host no.such.host.invalid"},
              {"--stock", 1, "cannot listen on 127.0.0.1:7800"}};
  for (const auto& use : uses) {
    Child program =
        Child::Run({"/bin/sh", "-c", BSP_TEST_BIN_DIR "/bsp-broker " + std::string(use.options)});
    EXPECT_EQ(program.Wait(), use.code) << use.line;
    for (const char* part : {use.line, use.remedy}) {
      EXPECT_NE(program.output().find(part), std::string::npos) << part << program.output();
    }
  }
}

}  // namespace
