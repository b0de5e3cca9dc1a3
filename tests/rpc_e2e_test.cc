// The bus between real processes, through the broker program.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fstream>
#include <thread>
#include <vector>

#include "bsp/bsp.h"
#include "bsp/net/rpc/rpc_client.h"
#include "tests/support/child.h"
#include "tests/support/rpc_peer.h"
#include "tests/support/test_env.h"

namespace {

using bsp::RpcClient;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test::Child;
using test::RpcBytes;
using test::RpcPeer;
using test::RpcRecord;

constexpr int kPort = 7800;
constexpr int kPatienceMs = 20000;

Child StartBroker(std::vector<std::string> more = {}) {
  std::vector<std::string> argv = {BSP_TEST_BIN_DIR "/bsp-broker", "--log-level", "2"};
  argv.insert(argv.end(), more.begin(), more.end());
  Child broker = Child::Run(argv);
  EXPECT_TRUE(broker.WaitForLine("bsp-broker ready on 127.0.0.1:7800"));
  return broker;
}

std::shared_ptr<RpcClient> Open(bool fail_on_disconnect = false) {
  auto client = std::make_shared<RpcClient>();
  RpcClient::Options options;
  options.fail_calls_on_disconnect = fail_on_disconnect;
  client->SetOptions(options);
  return client->Open("127.0.0.1", kPort) == nullptr ? client : nullptr;
}

void Say(const std::string& line) {
  printf("%s\n", line.c_str());
  fflush(stdout);
}

int Serve(const char* action, const char* req, int req_len, char* resp, int) {
  if (strcmp(action, "msg") == 0) {
    Say(std::string("got ") + req);
    return 0;
  }
  if (strcmp(req, "late") == 0) usleep(400000);
  if (strcmp(req, "fail") == 0) return -42;
  memcpy(resp, req, static_cast<size_t>(req_len));
  return req_len;
}

// A module in C: one request command, one message command, until it is killed.
Child StartModule(const char* cmd, int power) {
  Child module = Child::Fork([cmd, power] {
    void* const bus = rpc_client_c_open("127.0.0.1", kPort);
    const bool up =
        rpc_client_c_listen_v1(bus, cmd, RPC_TYPE_REQUEST, power, Serve, nullptr) == 0 &&
        rpc_client_c_listen_v1(bus, "msg", RPC_TYPE_MESSAGE, 0, Serve, nullptr) == 0;
    Say(up ? "module up" : "module refused");
    pause();
    return 0;
  });
  EXPECT_TRUE(module.WaitForLine("module up"));
  return module;
}

int Call(RpcClient* client, const char* cmd, const std::string& request, std::string* answer,
         int timeout_ms = kPatienceMs) {
  const auto error = client->SendRequest(cmd, request, *answer, timeout_ms);
  return error == nullptr ? 0 : error->ErrorCode();
}

// One device: modules in C, a caller in C++, every kind of answer, and a module that is killed and
// succeeded by another while the caller stays.
TEST(BusOfProcesses, CallsMessagesAndTakeover) {
  NEED_PRIVATE_WORLD();
  Child broker = StartBroker();
  std::deque<Child> modules;
  modules.push_back(StartModule("mod.0", 5));
  modules.push_back(StartModule("mod.1", 6));
  modules.push_back(StartModule("mod.2", 7));
  const auto client = Open();
  ASSERT_NE(client, nullptr);
  std::string answer;
  EXPECT_EQ(Call(client.get(), "mod.1", "question", &answer), 0);
  EXPECT_EQ(answer, std::string("question\0", 9));
  EXPECT_EQ(Call(client.get(), "mod.1", "fail", &answer), -42);
  EXPECT_EQ(Call(client.get(), "mod.9", "", &answer), -2);
  answer = "kept";
  EXPECT_EQ(Call(client.get(), "mod.1", "late", &answer, 50), -3);
  EXPECT_EQ(Call(client.get(), "mod.1", "after", &answer), 0);  // behind the late answer
  EXPECT_EQ(answer, std::string("after\0", 6));
  int type = 0;
  int power = 0;
  EXPECT_EQ(client->CheckCmdPower("mod.2", type, power), nullptr);
  EXPECT_EQ(power, 7);
  ASSERT_EQ(client->SendMessage("msg", "to all"), nullptr);
  for (Child& module : modules) EXPECT_TRUE(module.WaitForLine("got to all"));

  for (int life = 0; life < 5; ++life) {
    modules[1].Signal(SIGKILL);
    EXPECT_EQ(modules[1].Wait(), 128 + SIGKILL);
    modules[1] = StartModule("mod.1", 60 + life);  // at once: the broker may not have noticed
    EXPECT_EQ(client->CheckCmdPower("mod.1", type, power), nullptr);
    EXPECT_EQ(power, 60 + life);
    EXPECT_EQ(Call(client.get(), "mod.1", "again", &answer), 0);
  }
  broker.Signal(SIGTERM);
  EXPECT_EQ(broker.Wait(), 0);
}

// Frames as large as 64 MiB pass whole, both ways, beside small ones.
TEST(BusOfProcesses, LargeFramesPassWhole) {
  NEED_PRIVATE_WORLD();
  Child broker = StartBroker({"--max-frame", "0", "--max-backlog", "0"});
  struct Mirror : public sigslot::has_slots<> {
    void OnFrame(std::shared_ptr<RpcClient> self, RpcHeader* head) {
      self->SendReplay(head, reinterpret_cast<const char*>(head + 1), head->size - 104);
    }
  };
  Child listener = Child::Fork([] {
    const auto client = Open();
    Mirror mirror;
    client->SignalMessage.connect(&mirror, &Mirror::OnFrame);
    if (client->Listen("mirror", RPC_TYPE_REQUEST, 0) == nullptr) Say("up");
    pause();
    return 0;
  });
  ASSERT_TRUE(listener.WaitForLine("up"));
  const auto client = Open();
  std::atomic<bool> is_over{false};
  std::atomic<int> small_calls{0};
  std::thread small([&] {
    std::string answer;
    while (!is_over) {
      if (Call(client.get(), "mirror", "small", &answer) == 0 &&
          answer == std::string("small\0", 6)) {
        ++small_calls;
      }
    }
  });
  // Both sides of each way that frames take through either end.
  for (const size_t size :
       {size_t{16384 - 104}, size_t{16384}, size_t{32768 - 104}, size_t{32768 - 105}, size_t{65535},
        size_t{65536}, size_t{1000001}, (size_t{16} << 20) + 7, size_t{64} << 20}) {
    std::string request(size, '\0');
    for (size_t i = 0; i < size; ++i) request[i] = static_cast<char>(i * 31 >> 7);
    std::string answer;
    ASSERT_EQ(Call(client.get(), "mirror", request, &answer, 60000), 0) << size;
    request.push_back('\0');
    ASSERT_TRUE(answer == request) << size;
  }
  is_over = true;
  small.join();
  EXPECT_GT(small_calls, 0);
}

// A thousand connections at once, and a call goes through among them.
TEST(BusOfProcesses, ServesAThousandConnections) {
  NEED_PRIVATE_WORLD();
  struct rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_max < 1100) GTEST_SKIP() << "needs 1100 descriptors";
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  Child broker = StartBroker();
  Child module = StartModule("mod", 1);
  std::deque<RpcPeer> peers;
  for (int i = 0; i < 1000; ++i) peers.emplace_back(kPort);
  for (RpcPeer& peer : peers) {
    ASSERT_EQ(peer.Ask(RpcBytes(RPC_TYPE_CHECK_POWER, 1, "mod", RpcRecord("mod", -1, -1))), 0);
  }
  const auto client = Open();
  std::string answer;
  EXPECT_EQ(Call(client.get(), "mod", "x", &answer), 0);
}

// Processor time of a process in clock ticks.
long TicksOf(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string word;
  long ticks = 0;
  for (int field = 1; field <= 15 && stat >> word; ++field) {
    if (field >= 14) ticks += atol(word.c_str());
  }
  return ticks;
}

// Out of descriptors the broker turns peers away, rests, and accepts again when some come back.
TEST(BusOfProcesses, FullDescriptorTableTurnsPeersAway) {
  NEED_PRIVATE_WORLD();
  Child broker = Child::Run(
      {"/usr/bin/prlimit", "--nofile=40:40", BSP_TEST_BIN_DIR "/bsp-broker", "--log-level", "2"});
  ASSERT_TRUE(broker.WaitForLine("ready"));
  const std::string question = RpcBytes(RPC_TYPE_CHECK_POWER, 1, "c", RpcRecord("c", -1, -1));
  std::deque<RpcPeer> peers;
  int served = 0;
  for (int i = 0; i < 60; ++i) {
    peers.emplace_back(kPort);
    if (peers.back().Ask(question) == -2) ++served;
  }
  EXPECT_GT(served, 10);
  EXPECT_LT(served, 40);
  const long before = TicksOf(broker.pid());
  std::this_thread::sleep_for(milliseconds(500));
  EXPECT_LT(TicksOf(broker.pid()) - before, 20);  // of 50 that a spinning one would use
  peers.clear();
  // The broker gets the descriptors back as it reads the peers' ends.
  const steady_clock::time_point last = steady_clock::now() + std::chrono::seconds(20);
  while (RpcPeer(kPort).Ask(question) != -2) ASSERT_LT(steady_clock::now(), last);
}

// The broker dies under load and comes back at the same address: every caller is told, none hangs,
// and the same clients, reopened, work.
TEST(BusOfProcesses, KilledBrokerIsReportedAndReplaced) {
  NEED_PRIVATE_WORLD();
  std::deque<Child> brokers;
  brokers.push_back(StartBroker());
  Child module = Child::Fork([] {
    while (true) {
      void* bus = rpc_client_c_open_v2("127.0.0.1", kPort, RPC_OPEN_FAIL_CALLS_ON_DISCONNECT);
      if (bus != nullptr &&
          rpc_client_c_listen_v1(bus, "mod", RPC_TYPE_REQUEST, 0, Serve, nullptr) == 0) {
        Say("module up");
        while (rpc_client_c_is_connected(bus) == 1) usleep(5000);
      }
      rpc_client_c_close(bus);
      usleep(20000);
    }
    return 0;
  });
  ASSERT_TRUE(module.WaitForLine("module up"));
  constexpr int kThreads = 8;
  std::atomic<int> generation{0};
  std::atomic<bool> is_over{false};
  std::atomic<int> told{0};
  std::atomic<int> served[4] = {};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      std::shared_ptr<RpcClient> client;
      std::string answer;
      while (!is_over) {
        if (client == nullptr) client = Open(true);
        if (client == nullptr) {
          std::this_thread::sleep_for(milliseconds(5));
          continue;
        }
        const int of = generation;
        const int code = Call(client.get(), "mod", "load", &answer, 1000);
        if (code == 0) ++served[of];
        // -3: the module had told the broker of its command and not yet entered its handler.
        if (code == -1) {
          ++told;
          client->Close();
          if (client->Open("127.0.0.1", kPort) != nullptr) client.reset();
        }
      }
    });
  }
  for (int kill = 0; kill < 3; ++kill) {
    while (served[kill] < 500) std::this_thread::sleep_for(milliseconds(1));
    brokers.back().Signal(SIGKILL);
    EXPECT_EQ(brokers.back().Wait(), 128 + SIGKILL);
    ++generation;
    brokers.push_back(StartBroker());
    ASSERT_TRUE(module.WaitForLine("module up"));
  }
  while (served[3] < 500) std::this_thread::sleep_for(milliseconds(1));
  is_over = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_GE(told, kThreads);
}

// Wrong usage, a taken port and an unknown host end with the promised codes and one clear line.
TEST(BrokerProgram, EndsWithThePromisedCodes) {
  NEED_PRIVATE_WORLD();
  const std::string path = BSP_TEST_BIN_DIR "/bsp-broker";
  EXPECT_EQ(Child::Run({path, "--help"}).Wait(), 0);
  EXPECT_EQ(Child::Run({path, "--version"}).Wait(), 0);
  EXPECT_EQ(Child::Run({path, "--no-such-option"}).Wait(), 2);
  EXPECT_EQ(Child::Run({path, "--port", "70000"}).Wait(), 2);
  EXPECT_EQ(Child::Run({path, "--host", "no.such.host.invalid"}).Wait(), 1);
  const std::vector<std::string> stock = {path, "--stock", "--port", "7801"};
  Child first = Child::Run(stock);
  EXPECT_TRUE(first.WaitForLine("bsp-broker ready on 127.0.0.1:7801"));
  Child second = Child::Run(stock);
  EXPECT_TRUE(second.WaitForLine("cannot listen on 127.0.0.1:7801"));
  EXPECT_EQ(second.Wait(), 1);
  first.Signal(SIGINT);
  EXPECT_EQ(first.Wait(), 0);
}

}  // namespace
