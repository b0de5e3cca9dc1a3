// The ends of the bus in this process: the delimiter, the life of the broker object, the client
// against a broker that the test plays, and the C binding.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <new>
#include <stdexcept>
#include <thread>

#include "bsp/net/rpc/rpc_client.h"
#include "bsp/net/rpc/rpc_client_c.h"
#include "bsp/net/rpc/rpc_server.h"
#include "bsp/util/memory_buffer.h"
#include "bsp/util/semaphore.h"
#include "tests/support/child.h"
#include "tests/support/rpc_peer.h"
#include "tests/support/test_env.h"

namespace {

using bsp::MemoryBuffer;
using bsp::RpcClient;
using bsp::RpcServer;
using std::chrono::steady_clock;
using test::CodeOf;
using test::kPatienceMs;
using test::RpcBytes;
using test::RpcFrame;
using test::RpcPeer;
using test::RpcRecord;
using test::RpcReply;

// Less than 90 loops take that nobody wakes: each sleeps a second.
constexpr std::chrono::seconds kUnwoken{60};

int NextPort() {
  static int port = 17800;
  return ++port;
}

struct Slots : public sigslot::has_slots<> {
  void OnMessage(std::shared_ptr<RpcClient> client, RpcHeader*) { on_message(client); }
  void OnError(std::shared_ptr<RpcClient>, std::shared_ptr<MSError>) { ++errors; }
  std::function<void(const std::shared_ptr<RpcClient>&)> on_message;
  std::atomic<int> errors{0};
};

std::shared_ptr<RpcClient> OpenClient(int port, RpcClient::Options options = {},
                                      Slots* slots = nullptr) {
  auto client = std::make_shared<RpcClient>();
  client->SetOptions(options);
  if (slots != nullptr) client->SignalError.connect(slots, &Slots::OnError);
  EXPECT_EQ(client->Open("127.0.0.1", static_cast<uint16_t>(port)), nullptr);
  return client;
}

struct Broker {
  explicit Broker(RpcServer::Options options = {}) : server(options), port(NextPort()) {
    EXPECT_EQ(server.Start("127.0.0.1", port), nullptr);
  }
  RpcServer server;
  const int port;
};

// The test answers the frames of the clients itself.
struct PlayedBroker {
  PlayedBroker() : port(NextPort()) {
    listener.Create(bsp::Socket::SOCKET_STREAM);
    EXPECT_TRUE(listener.Bind(bsp::SocketAddress("127.0.0.1", port)) && listener.Listen(64));
  }
  RpcPeer Accept() { return RpcPeer(listener.Accept()); }
  const int port;
  bsp::Socket listener;
};

// A call that has reached the other end, which says nothing: its code to come.
std::future<int> CallUnanswered(const std::shared_ptr<RpcClient>& client, RpcPeer* peer,
                                int timeout_ms) {
  auto call = std::async(std::launch::async, [=] {
    std::string answer;
    return CodeOf(client->SendRequest("c", "", answer, timeout_ms));
  });
  RpcFrame got;
  EXPECT_TRUE(peer->Read(&got));
  return call;
}

bool Await(const std::function<bool()>& condition) {
  const auto last = steady_clock::now() + std::chrono::milliseconds(kPatienceMs);
  while (!condition() && steady_clock::now() < last) std::this_thread::yield();
  return condition();
}

// A delimiter that reads a byte too many, or takes any: each side of each limit.
TEST(RpcFrame, DelimiterKeepsItsLimits) {
  const std::string frame = RpcBytes(RPC_TYPE_MESSAGE, 1, "a", std::string(396, 'p'));
  std::string negative = frame;
  memset(&negative[4], 0xff, 4);  // its size
  const std::pair<std::string, int> cases[] = {{frame.substr(0, 103), 0},
                                               {negative, 0},
                                               {std::string(104, 'x'), -1},
                                               {frame.substr(0, 499), 0},
                                               {frame + "more", 500}};
  for (const auto& [bytes, length] : cases) {
    const auto buffer = MemoryBuffer::Create();
    buffer->WriteBytes(bytes.data(), bytes.size());
    EXPECT_EQ(bsp::IsHadRpcPack(buffer), length);
    EXPECT_EQ(buffer->ToString(), bytes);
  }
}

// Without a descriptor for their loop both ends refuse to start.
TEST(RpcServer, NeedsDescriptors) {
  if (test::kSanitizerNeedsDescriptors) GTEST_SKIP() << "the sanitizer needs descriptors itself";
  struct rlimit usual = {};
  getrlimit(RLIMIT_NOFILE, &usual);
  const struct rlimit none = {0, usual.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  const auto server_error = RpcServer().Start("127.0.0.1", 1);
  const auto client_error = RpcClient().Open("127.0.0.1", 1);
  setrlimit(RLIMIT_NOFILE, &usual);
  EXPECT_NE(server_error->Message().find("Failed to create event loop"), std::string::npos);
  EXPECT_NE(client_error->Message().find("create loop error"), std::string::npos);
}

// A Start or Stop out of turn that is not refused, a Stop that leaves the port, a connection or its
// thread behind, or one that wakes nobody.
TEST(RpcServer, StartsAndStops) {
  NEED_PRIVATE_WORLD();
  RpcServer().Stop();
  RpcServer::Options options;
  options.reuse_address = true;
  const int port = NextPort();
  RpcServer server(options);
  const auto begin = steady_clock::now();
  for (int round = 0; round < 90; ++round) {
    ASSERT_EQ(server.Start("127.0.0.1", port), nullptr);
    EXPECT_EQ(CodeOf(server.Start("127.0.0.1", port)), -1);
    RpcPeer peer(port);
    EXPECT_TRUE(peer.IsServed());
    server.Stop();
    EXPECT_TRUE(peer.IsClosedByPeer());
  }
  EXPECT_LT(steady_clock::now() - begin, kUnwoken);
}

// A count that is wrong, or an account that is not empty when everybody has gone; a Stop on the
// broker's own thread that waits for itself.
TEST(RpcServer, CountsAndGivesEverythingBack) {
  NEED_PRIVATE_WORLD();
  RpcServer::Options options;
  options.track_calls = true;
  options.max_memory_bytes = size_t{40} << 20;
  options.max_backlog_bytes = size_t{8} << 20;
  std::atomic<int> ticks{0};
  RpcServer* self = nullptr;
  options.on_tick = [&] {
    self->Stop();  // refused
    ++ticks;
  };
  RpcServer server(options);
  self = &server;
  const int port = NextPort();
  ASSERT_EQ(server.Start("127.0.0.1", port), nullptr);
  {
    RpcPeer listener(port);
    RpcPeer caller(port);
    RpcFrame got;
    ASSERT_EQ(listener.Ask(test::RpcListen("job", RPC_TYPE_REQUEST, 7, 1)), 0);
    for (uint32_t seq = 0; seq < 30; ++seq) {
      const std::string text(seq == 9 ? 100000 : 10, 't');
      ASSERT_TRUE(caller.Send(RpcBytes(RPC_TYPE_REQUEST, seq, "job", text)) && listener.Read(&got));
      if (seq >= 20) continue;  // left in flight
      ASSERT_TRUE(listener.Send(RpcReply(got, seq % 4 == 0 ? -5 : 0, text)) && caller.Read(&got));
    }
    EXPECT_TRUE(Await([&] { return ticks > 0; }));
    ASSERT_TRUE(caller.IsServed());
    const auto totals = server.Count();
    EXPECT_EQ(totals.clients, 2u);
    EXPECT_EQ(totals.commands, 1u);
    EXPECT_EQ(totals.calls, 10u);
    EXPECT_GT(totals.memory_bytes, 0u);
    const auto commands = server.Commands();
    ASSERT_EQ(commands.size(), 1u);
    EXPECT_EQ(commands[0].name, "job");
    EXPECT_EQ(commands[0].power, 7);
    EXPECT_EQ(commands[0].listeners, 1u);
    EXPECT_EQ(commands[0].calls, 30u);
    EXPECT_EQ(commands[0].answers, 20u);
    EXPECT_EQ(commands[0].errors, 5u);
    EXPECT_GT(commands[0].p50_us, 0);
    EXPECT_GE(commands[0].p99_us, commands[0].p50_us);
  }
  EXPECT_TRUE(Await([&] { return server.Count().clients == 0; }));
  const auto totals = server.Count();
  EXPECT_EQ(totals.commands, 0u);
  EXPECT_EQ(totals.calls, 0u);
  EXPECT_EQ(totals.memory_bytes, 0u);
  server.Stop();
  EXPECT_EQ(server.Count().clients, 0u);
}

// What a client writes, and what it makes of each kind of answer.
TEST(RpcClient, SpeaksAndReadsTheWire) {
  NEED_PRIVATE_WORLD();
  PlayedBroker broker;
  const auto client = OpenClient(broker.port);
  RpcPeer peer = broker.Accept();
  RpcFrame got;
  const auto played = [&](const std::function<std::shared_ptr<MSError>()>& call,
                          const std::function<std::string()>& answer) {
    auto result = std::async(std::launch::async, call);
    EXPECT_TRUE(peer.Read(&got) && peer.Send(answer()));
    return CodeOf(result.get());
  };
  const auto reply = [&](int code, const std::string& payload) {
    return [&got, code, payload] { return RpcReply(got, code, payload); };
  };
  EXPECT_EQ(played([&] { return client->Listen("l", RPC_TYPE_REQUEST, 5); }, reply(0, "")), 0);
  EXPECT_EQ(got.head.type, RPC_TYPE_LISTEN);
  EXPECT_EQ(got.head.seq, 1u);
  EXPECT_EQ(got.head.pid, getpid());
  EXPECT_EQ(got.payload, RpcRecord("l", RPC_TYPE_REQUEST, 5));

  std::string answer;
  const auto call = [&] { return client->SendRequest("c", "q", answer, kPatienceMs); };
  EXPECT_EQ(played(call, reply(0, "12345")), 0);
  EXPECT_EQ(got.head.seq, 2u);
  EXPECT_EQ(played(call, reply(-2, std::string(40000, 'F'))), -2);
  EXPECT_EQ(played(call, reply(0, "")), 0);
  EXPECT_EQ(answer, std::string("12345\0", 6));  // kept by failures and by an empty answer
  // Other types and answers for nobody are passed over; of two answers the first counts.
  const auto several = [&] {
    RpcFrame other = got;
    other.head.seq += 1000;
    return RpcBytes(77, got.head.seq, "", "x") + RpcReply(other, 0, "stray") +
           RpcReply(got, 0, "first") + RpcReply(got, -9, "second");
  };
  EXPECT_EQ(played(call, several), 0);
  EXPECT_EQ(answer, std::string("first\0", 6));

  int type = 5;
  int power = 6;
  const std::string record = RpcRecord("c", RPC_TYPE_REQUEST, 44);
  const auto check = [&] { return client->CheckCmdPower("c", type, power); };
  EXPECT_EQ(played(check, reply(0, record.substr(0, 71))), -1);  // and a zero: no record
  EXPECT_EQ(type * 10 + power, 56);

  // A sequence number that comes round belongs to the call that still waits under it.
  RpcHeader heads[2] = {got.head, got.head};
  std::string answers[2];
  RpcClient::MsgSemGuard waiting(&heads[0], client.get(), answers[0]);
  RpcClient::MsgSemGuard(&heads[1], client.get(), answers[1]);
  EXPECT_NE(heads[1].seq, heads[0].seq);
  ASSERT_TRUE(peer.Send(RpcReply(got, 0, "mine")));
  EXPECT_EQ(waiting.WaitReply(kPatienceMs), nullptr);
  EXPECT_EQ(answers[0], std::string("mine\0", 5));
}

// A reply that comes too late, or a signal that it left on a semaphore, must neither end a later
// call nor write anywhere. The time-out follows the replies, so that about half of them are late.
TEST(RpcClient, LateRepliesNeverCount) {
  NEED_PRIVATE_WORLD();
  PlayedBroker broker;
  const auto client = OpenClient(broker.port);
  RpcPeer peer = broker.Accept();
  const auto answering = std::async(std::launch::async, [&] {
    RpcFrame got;
    for (unsigned turn = 0; peer.Read(&got); ++turn) {
      std::this_thread::sleep_for(std::chrono::microseconds(900 + turn % 5 * 60));
      if (got.payload != "unanswered") peer.Send(RpcReply(got, 0, got.payload));
    }
  });
  int in_time = 0;
  int late = 0;
  int timeout_ms = 1;
  while (in_time < 150 || late < 150) {
    std::string answer = "before";
    const std::string request = std::to_string(in_time + late);
    const int code = CodeOf(client->SendRequest("c", request, answer, timeout_ms));
    ASSERT_TRUE(code == 0 || code == -3);
    ASSERT_EQ(answer, code == 0 ? request + '\0' : "before");
    ++(code == 0 ? in_time : late);
    timeout_ms = code == 0 ? std::max(timeout_ms - 1, 0) : timeout_ms + 1;
  }
  std::vector<std::shared_ptr<bsp::Semaphore>> semaphores(16);
  for (auto& semaphore : semaphores) {
    semaphore = bsp::SemaphorePool::Instance()->Get();
    semaphore->Signal();
  }
  for (auto& semaphore : semaphores) bsp::SemaphorePool::Instance()->Put(semaphore);
  for (size_t i = 0; i <= semaphores.size(); ++i) {
    std::string answer;
    ASSERT_EQ(CodeOf(client->SendRequest("c", "unanswered", answer, 2)), -3);
  }
  client->Close();
}

// An unreadable stream that is not told at each delivery, or ends the connection; a lost connection
// that is told without the option, or with it late or twice.
TEST(RpcClient, TellsWhatIsWrong) {
  NEED_PRIVATE_WORLD();
  PlayedBroker broker;
  for (const uint32_t magic : {RPC_MAGIC, 1u}) {
    Slots slots;
    const auto client = OpenClient(broker.port, {}, &slots);
    RpcPeer peer = broker.Accept();
    std::string bytes(104, '\0');  // a frame of size 0
    memcpy(&bytes[0], &magic, sizeof magic);
    EXPECT_TRUE(peer.Send(bytes) && Await([&] { return slots.errors == 1; }));
    EXPECT_TRUE(peer.Send("more") && Await([&] { return slots.errors == 2; }));
    EXPECT_TRUE(client->IsConnected());
    client->Close();
  }
  for (const bool is_asked : {true, false}) {
    RpcClient::Options options;
    options.fail_calls_on_disconnect = is_asked;
    Slots slots;
    const auto client = OpenClient(broker.port, options, &slots);
    RpcPeer peer = broker.Accept();
    auto call = CallUnanswered(client, &peer, is_asked ? 100 * kPatienceMs : 200);
    peer.Close();
    EXPECT_EQ(call.get(), is_asked ? -1 : -3);
    EXPECT_TRUE(Await([&] { return slots.errors == (is_asked ? 1 : 0); }));
    EXPECT_EQ(client->IsConnected(), !is_asked);
    client->Close();
    EXPECT_EQ(slots.errors, is_asked ? 1 : 0);
  }
}

// The states of opening and closing, and that no order of them hangs.
TEST(RpcClient, OpensAndCloses) {
  NEED_PRIVATE_WORLD();
  PlayedBroker broker;
  const auto client = std::make_shared<RpcClient>();
  const auto open = [&](int port) {
    return client->Open("127.0.0.1", static_cast<uint16_t>(port));
  };
  std::string answer;
  client->Close();
  EXPECT_EQ(CodeOf(client->SendRequest("c", "", answer, 1)), -1);
  const int port = NextPort();
  const auto refused = open(port);
  ASSERT_EQ(CodeOf(refused), -4);
  EXPECT_NE(refused->Message().find("127.0.0.1, port: " + std::to_string(port)), std::string::npos);
  EXPECT_EQ(open(port), nullptr);  // "already running"
  EXPECT_FALSE(client->IsConnected());
  EXPECT_EQ(CodeOf(client->SendMessage("c", "")), -1);
  client->Close();
  const auto begin = steady_clock::now();
  for (int round = 0; round < 90; ++round) {
    ASSERT_EQ(open(broker.port), nullptr);
    RpcPeer peer = broker.Accept();
    client->Close();
    client->Close();
    EXPECT_FALSE(client->IsConnected());
  }
  EXPECT_LT(steady_clock::now() - begin, kUnwoken);

  // Closed, and opened again, under a waiting caller, who ends at its time-out or, where that was
  // asked for, at once.
  for (const bool is_asked : {false, true}) {
    RpcClient::Options options;
    options.fail_calls_on_disconnect = is_asked;
    client->SetOptions(options);
    ASSERT_EQ(open(broker.port), nullptr);
    RpcPeer peer = broker.Accept();
    auto call = CallUnanswered(client, &peer, is_asked ? 100 * kPatienceMs : 300);
    client->Close();
    ASSERT_EQ(open(broker.port), nullptr);
    EXPECT_EQ(call.get(), is_asked ? -1 : -3);
    RpcPeer next = broker.Accept();
    EXPECT_EQ(CallUnanswered(client, &next, 50).get(), -3);  // the loss was that of the former
    client->Close();
  }
}

// Callers who go on while the owner closes and opens end in a code each; ThreadSanitizer looks on.
TEST(RpcClient, ReopensBesideCallers) {
  NEED_PRIVATE_WORLD();
  PlayedBroker broker;
  RpcClient::Options options;
  options.fail_calls_on_disconnect = true;
  const auto client = OpenClient(broker.port, options);
  std::atomic<bool> is_over{false};
  std::atomic<int> sent{0};
  std::vector<std::thread> callers;
  for (int i = 0; i < 3; ++i) {
    callers.emplace_back([&, i] {
      while (!is_over) {
        std::string answer;
        client->IsConnected();
        const int code = i == 0
                             ? CodeOf(client->SendMessage("c", "m"))
                             : CodeOf(client->SendRequest("c", "r", answer, i == 1 ? 0 : 100000));
        EXPECT_TRUE(code == 0 || code == -1 || code == -3) << code;
        if (code != -1) ++sent;
      }
    });
  }
  for (int round = 0; round < 60; ++round) {
    RpcPeer peer = broker.Accept();
    RpcFrame got;
    EXPECT_TRUE(peer.Read(&got));
    client->Close();
    client->SetOptions(options);
    ASSERT_EQ(client->Open("127.0.0.1", static_cast<uint16_t>(broker.port)), nullptr);
  }
  is_over = true;
  client->Close();
  for (std::thread& caller : callers) caller.join();
  EXPECT_GE(sent, 60);
}

// A head that is still read while its reply is taken in; ThreadSanitizer looks on.
TEST(RpcClient, LargeCallsSideBySide) {
  NEED_PRIVATE_WORLD();
  PlayedBroker broker;
  const auto client = OpenClient(broker.port);
  RpcPeer peer = broker.Accept();
  const auto answering = std::async(std::launch::async, [&] {
    RpcFrame got;
    while (peer.Read(&got)) peer.Send(RpcReply(got, -static_cast<int>(got.payload.size()), ""));
  });
  std::vector<std::future<void>> callers;
  for (int i = 0; i < 4; ++i) {
    callers.push_back(std::async(std::launch::async, [&client, i] {
      for (int size = 65536 + i; size < 400000; size += 20000) {
        std::string answer;
        const std::string request(static_cast<size_t>(size), 'l');
        EXPECT_EQ(CodeOf(client->SendRequest("c", request, answer, kPatienceMs)), -size);
      }
    }));
  }
  for (auto& caller : callers) caller.get();
  client->Close();
}

#ifdef __SANITIZE_THREAD__
constexpr bool kForkedMayStartThreads = false;
#else
constexpr bool kForkedMayStartThreads = true;
#endif

// The clients of other processes that a forked child must leave alone.
std::shared_ptr<RpcClient> g_client;  // destroyed by exit()
void* g_handle = nullptr;

// All threads of this name wait for something.
bool IsThreadAsleep(const std::string& name) {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream file(task.path() / "stat");
    std::string stat;
    std::getline(file, stat);
    if (stat.find("(" + name + ") ") != std::string::npos &&
        stat.find("(" + name + ") S") == std::string::npos) {
      return false;
    }
  }
  return true;
}

bool IsRefused(const std::shared_ptr<MSError>& error) {
  return CodeOf(error) == -1 && error->Message().find("the connection belongs to process " +
                                                      std::to_string(getppid())) == 0;
}

// Every call on what the parent has open, in the child.
int CallsThatAreNotTheChilds() {
  std::string answer = "before";
  int type = 0;
  RpcHeader head = {};
  const bool is_refused =
      IsRefused(g_client->Listen("c", RPC_TYPE_REQUEST, 0)) &&
      IsRefused(g_client->CheckCmdPower("c", type, type)) &&
      IsRefused(g_client->SendRequest("c", "", answer, kPatienceMs)) &&
      IsRefused(g_client->SendMessage("c", "")) && IsRefused(g_client->SendReplay(&head, "", 0)) &&
      IsRefused(g_client->Send(&head, "", 0)) && IsRefused(g_client->Flush(kPatienceMs)) &&
      IsRefused(g_client->Open("127.0.0.1", 1)) && !g_client->IsConnected();
  char resp[8];
  for (const int result :
       {rpc_client_c_flush(g_handle, kPatienceMs), rpc_client_c_send_message(g_handle, "c", "", 0),
        rpc_client_c_check_cmd_power(g_handle, "c"),
        rpc_client_c_send_request(g_handle, "c", "", 0, resp, 8, kPatienceMs),
        rpc_client_c_send_reply(g_handle, &head, "", 0), rpc_client_c_is_connected(g_handle) - 1}) {
    if (result != -1) return 2;
  }
  rpc_client_c_dump(g_handle);
  return is_refused ? 0 : 1;
}

int CloseInherited() {
  g_client->Close();
  g_client->Close();
  rpc_client_c_close(g_handle);
  std::string answer;
  return CodeOf(g_client->SendRequest("c", "", answer, kPatienceMs)) == -1 ? 0 : 1;
}

#ifdef __SANITIZE_ADDRESS__
// In a forked child that exits, what threads of the parent held would pass for leaks, and the
// search may wait for them.
const pid_t g_test_process = getpid();
extern "C" int __lsan_is_turned_off() { return getpid() != g_test_process ? 1 : 0; }
#endif

// What a forked child does with its parent's clients, be it in the middle of their calls, costs the
// parent nothing, and no lock that was held at the fork holds up the child.
TEST(RpcClient, ForkedChildTakesNothing) {
  NEED_PRIVATE_WORLD();
  PlayedBroker broker;
  Slots slots;
  std::atomic<int> messages{0};
  slots.on_message = [&](const std::shared_ptr<RpcClient>&) { ++messages; };
  g_client = OpenClient(broker.port);
  RpcPeer peer = broker.Accept();
  g_client->SignalMessage.connect(&slots, &Slots::OnMessage);
  g_handle = rpc_client_c_open("127.0.0.1", broker.port);
  RpcPeer handle_peer = broker.Accept();
  auto answering = std::async(std::launch::async, [&] {
    RpcFrame got;
    while (peer.Read(&got)) {
      peer.Send(RpcReply(got, 0, "") + RpcBytes(RPC_TYPE_MESSAGE, 0, "m", ""));
    }
  });
  std::atomic<bool> is_over{false};
  std::vector<std::thread> callers;
  for (int i = 0; i < 2; ++i) {
    callers.emplace_back([&] {
      while (!is_over) EXPECT_EQ(CodeOf(g_client->Flush(kPatienceMs)), 0);
    });
  }
  const std::function<int()> ways[] = {[] { return exit(0), 1; }, CloseInherited,
                                       CallsThatAreNotTheChilds,
                                       [] {
                                         g_client.reset();
                                         return 0;
                                       }};
  for (int round = 0; round < 40; ++round) {
    test::Child child = test::Child::Fork(ways[round % 4]);
    EXPECT_EQ(child.Wait(), 0) << round << child.output();
  }
  is_over = true;
  for (std::thread& caller : callers) caller.join();
  const int before = messages;
  EXPECT_EQ(g_client->Flush(kPatienceMs), nullptr);
  EXPECT_TRUE(Await([&] { return messages > before; }));

  // With nothing going on in the parent, a child opens clients of its own, also on the same object.
  if (kForkedMayStartThreads) {
    ASSERT_TRUE(Await([] { return IsThreadAsleep("rpc_cli"); }));
    test::Child child = test::Child::Fork([&] {
      if (CloseInherited() != 0) return 1;
      if (g_client->Open("127.0.0.1", static_cast<uint16_t>(broker.port)) != nullptr) return 2;
      const int code = CodeOf(g_client->Flush(kPatienceMs));
      g_client->Close();
      return -code;
    });
    RpcPeer own = broker.Accept();
    RpcFrame got;
    EXPECT_TRUE(own.Read(&got));
    EXPECT_EQ(got.head.pid, child.pid());
    own.Send(RpcReply(got, -7, ""));
    EXPECT_EQ(child.Wait(), 0) << child.output();
  }

  // What the child has closed does not hold the connection open.
  test::Child child = test::Child::Fork([] {
    CloseInherited();
    puts("closed");
    return pause();
  });
  ASSERT_TRUE(child.WaitForLine("closed"));
  g_client->Close();
  rpc_client_c_close(g_handle);
  answering.get();
  EXPECT_TRUE(peer.IsClosedByPeer() && handle_peer.IsClosedByPeer());
  g_client.reset();
}

#ifndef __SANITIZE_THREAD__  // its own must stay
bool g_refuses_to_watch = false;
extern "C" int epoll_ctl(int set, int operation, int fd, struct epoll_event* event) noexcept {
  if (!g_refuses_to_watch) {
    return static_cast<int>(syscall(SYS_epoll_ctl, set, operation, fd, event));
  }
  errno = ENOSPC;
  return -1;
}
#endif

// An Open that succeeds without anybody who reads the answers.
TEST(RpcClient, OpenTellsWhatTheSystemRefuses) {
  if (!kForkedMayStartThreads || test::kSanitizerNeedsDescriptors) GTEST_SKIP() << "sanitizer";
  NEED_PRIVATE_WORLD();
  PlayedBroker broker;
  const auto client = std::make_shared<RpcClient>();
  const auto open = [&] { return client->Open("127.0.0.1", static_cast<uint16_t>(broker.port)); };
  pthread_attr_t usual;
  pthread_getattr_default_np(&usual);
  pthread_attr_t endless = usual;
  pthread_attr_setstacksize(&endless, size_t{1} << 46);
  pthread_setattr_default_np(&endless);
  const auto no_thread = open();
  pthread_setattr_default_np(&usual);
  EXPECT_NE(no_thread->Message().find("rpc_cli gets no thread"), std::string::npos);
  EXPECT_FALSE(client->IsConnected());
  client->Close();
#ifndef __SANITIZE_THREAD__
  g_refuses_to_watch = true;
  const auto unwatched = open();
  g_refuses_to_watch = false;
  ASSERT_EQ(CodeOf(unwatched), -1);
  EXPECT_NE(unwatched->Message().find("cannot watch"), std::string::npos);
  EXPECT_FALSE(client->IsConnected());
  client->Close();
#endif
  EXPECT_EQ(open(), nullptr);
  EXPECT_TRUE(client->IsConnected());
}

int Throw(const char*, const char*, int, char*, int) { throw std::runtime_error("a handler"); }

// A slot or handler that throws costs its connection and nothing else, where that was asked for.
TEST(RpcClient, ContainsFailures) {
  NEED_PRIVATE_WORLD();
  PlayedBroker broker;
  RpcClient::Options options;
  options.fail_calls_on_disconnect = true;
  options.contain_failures = true;
  Slots slots;
  slots.on_message = [](const std::shared_ptr<RpcClient>&) { throw std::bad_alloc(); };
  const auto client = OpenClient(broker.port, options, &slots);
  client->SignalMessage.connect(&slots, &Slots::OnMessage);
  RpcPeer peer = broker.Accept();
  auto call = CallUnanswered(client, &peer, 100 * kPatienceMs);
  ASSERT_TRUE(peer.Send(RpcBytes(RPC_TYPE_MESSAGE, 0, "m", "")));
  EXPECT_EQ(call.get(), -1);
  EXPECT_TRUE(Await([&] { return slots.errors == 1; }));
  EXPECT_TRUE(peer.IsClosedByPeer());
  client->Close();
  ASSERT_EQ(client->Open("127.0.0.1", static_cast<uint16_t>(broker.port)), nullptr);
  RpcPeer next = broker.Accept();
  EXPECT_EQ(CallUnanswered(client, &next, 50).get(), -3);

  void* const handle = rpc_client_c_open_v2("127.0.0.1", broker.port, RPC_OPEN_CONTAIN_FAILURES);
  RpcPeer handle_peer = broker.Accept();
  auto listen = std::async(std::launch::async, [=] {
    return rpc_client_c_listen_v1(handle, "c", RPC_TYPE_REQUEST, 0, Throw, nullptr);
  });
  RpcFrame got;
  ASSERT_TRUE(handle_peer.Read(&got));
  handle_peer.Send(RpcReply(got, 0, "") + RpcBytes(RPC_TYPE_REQUEST, 1, "c", ""));
  listen.wait();
  EXPECT_TRUE(handle_peer.IsClosedByPeer());
  rpc_client_c_close(handle);
}

// A slot may try to close, and may drop the last pointer to its client; so may anyone, under
// traffic. A module that sends and ends loses nothing: neither by Flush, nor, with the broker's
// option, by an abrupt end behind its last bytes.
TEST(RpcClient, EndsFromEverySide) {
  NEED_PRIVATE_WORLD();
  RpcServer::Options options;
  options.handle_last_frames = true;
  Broker broker(options);
  for (int round = 0; round < 20; ++round) {
    auto client = OpenClient(broker.port);
    std::weak_ptr<RpcClient> watched = client;
    Slots slots;
    std::promise<void> done;
    std::atomic<int> calls{0};
    const int goal = round < 10 ? 60 : 50;  // the last of all messages, or one under traffic
    slots.on_message = [&](const std::shared_ptr<RpcClient>& self) {
      if (++calls != goal) return;
      self->Close();  // refused
      EXPECT_TRUE(self->IsConnected());
      if (round % 2 == 0) client.reset();  // `self` and the loop's own are left
      done.set_value();
    };
    client->SignalMessage.connect(&slots, &Slots::OnMessage);
    ASSERT_EQ(client->Listen("end", RPC_TYPE_MESSAGE, 0), nullptr);
    if (round % 4 < 2) {
      // Of another process, to the broker, as it has never listened.
      const auto publisher = OpenClient(broker.port);
      for (int i = 0; i < 60; ++i) publisher->SendMessage("end", std::string(30000, 'l'));
      ASSERT_EQ(publisher->Flush(kPatienceMs), nullptr);
    } else {
      RpcPeer abrupt(broker.port);
      for (uint32_t i = 0; i < 60; ++i) abrupt.Send(RpcBytes(RPC_TYPE_MESSAGE, i, "end", "l"));
    }
    done.get_future().get();
    if (round % 2 != 0) client.reset();
    RpcPeer asking(broker.port);
    EXPECT_TRUE(Await([&] { return asking.Ask(test::RpcCheck("end")) == -2; }));
    RpcClient().Close();  // joins a thread that could not be joined by itself
    EXPECT_TRUE(watched.expired());
  }
}

// ---- The C binding

void* g_listener = nullptr;

int Echo(const char* action, const char* req, int req_len, char* resp, int resp_max) {
  EXPECT_EQ(resp_max, 0xa0000);
  EXPECT_EQ(req[req_len], '\0');
  rpc_client_c_close(g_listener);  // refused
  if (strcmp(req, "action") == 0) return static_cast<int>(strlen(strcpy(resp, action)));
  if (strcmp(req, "empty") == 0) return 0;
  if (strcmp(req, "fail") == 0) return -7;
  if (strcmp(req, "lie") == 0) return resp_max + 1;
  memset(resp, 'f', static_cast<size_t>(resp_max));
  if (strcmp(req, "full") == 0) return resp_max;
  memcpy(resp, req, static_cast<size_t>(req_len));
  return req_len;
}

int Other(const char*, const char*, int, char*, int) { return -1; }

// What a handler's result becomes at the caller, down to the bytes of a small buffer.
TEST(RpcClientC, HandlerResultsReachTheCaller) {
  NEED_PRIVATE_WORLD();
  Broker broker;
  void* const listener = g_listener = rpc_client_c_open("127.0.0.1", broker.port);
  void* const caller = rpc_client_c_open("localhost", broker.port);
  const auto listen = [&](const std::string& cmd, RpcClientHandler handler) {
    return rpc_client_c_listen_v1(listener, cmd.c_str(), RPC_TYPE_REQUEST, 6, handler, nullptr);
  };
  const std::string long_name(62, 'n');
  ASSERT_EQ(listen("echo", Other), 0);
  ASSERT_EQ(listen("echo", Echo), 0);           // the later one counts
  ASSERT_EQ(listen(long_name + "n", Echo), 0);  // entered under the 62 that travel
  EXPECT_EQ(listen(long_name + "nn", Echo), -1);
  const std::string untouched(64, '#');
  const struct {
    std::string cmd;
    const char* req;
    int resp_size;
    int result;
    std::string resp;  // its beginning
  } calls[] = {{"echo", "12345", 7, 6, std::string("12345\0\0#", 8)},
               {"echo", "12345", 6, 6, untouched},
               {"echo", "empty", 64, 0, untouched},
               {"echo", "fail", 64, -1, untouched},
               {"echo", "lie", 64, -1, untouched},
               {"echo", "full", 64, 0xa0001, untouched},
               {long_name + "n", "action", 64, 63, long_name}};
  for (const auto& call : calls) {
    std::string resp = untouched;
    const auto length = static_cast<int>(strlen(call.req));
    EXPECT_EQ(rpc_client_c_send_request(caller, call.cmd.c_str(), call.req, length, &resp[0],
                                        call.resp_size, kPatienceMs),
              call.result);
    EXPECT_EQ(resp.substr(0, call.resp.size()), call.resp);
  }
  EXPECT_EQ(rpc_client_c_check_cmd_power(caller, "echo"), 6);
  rpc_client_c_dump(listener);
  rpc_client_c_close(caller);
  rpc_client_c_close(listener);
}

// A request that comes right behind the word of the broker finds its handler; a Listen that fails
// leaves the handlers as they were.
TEST(RpcClientC, HandlerIsThereWithTheRegistration) {
  NEED_PRIVATE_WORLD();
  PlayedBroker broker;
  void* const handle = rpc_client_c_open("127.0.0.1", broker.port);
  RpcPeer peer = broker.Accept();
  RpcFrame got;
  const auto listen = [&](const std::string& cmd, RpcClientHandler handler, int code,
                          const std::string& behind) {
    auto result = std::async(std::launch::async, [&] {
      const int failed =
          rpc_client_c_listen_v1(handle, cmd.c_str(), RPC_TYPE_REQUEST, 0, handler, nullptr);
      return failed == 0 ? 0 : rpc_client_c_last_error();
    });
    EXPECT_TRUE(peer.Read(&got) && peer.Send(RpcReply(got, code, "") + behind));
    return result.get();
  };
  for (int round = 0; round < 300; ++round) {
    const std::string cmd = "c" + std::to_string(round);
    ASSERT_EQ(listen(cmd, Other, 0, RpcBytes(RPC_TYPE_REQUEST, 7, cmd, "q")), 0);
    ASSERT_TRUE(peer.Read(&got)) << "no answer to request " << round;
    ASSERT_EQ(got.head.err_code, -1);
  }
  EXPECT_EQ(listen("c0", Echo, RPC_ERR_TAKEN, ""), RPC_ERR_TAKEN);
  EXPECT_EQ(listen("fresh", Echo, RPC_ERR_BUSY, ""), RPC_ERR_BUSY);
  peer.Send(RpcBytes(RPC_TYPE_REQUEST, 1, "fresh", "") + RpcBytes(RPC_TYPE_REQUEST, 2, "c0", ""));
  EXPECT_TRUE(peer.Read(&got));
  EXPECT_EQ(got.head.seq, 2u);  // nobody answers for the one
  EXPECT_EQ(got.head.err_code, -1);
  rpc_client_c_close(handle);
}

// Nothing that a C caller can hand in crashes or is sent.
TEST(RpcClientC, RefusesBadArguments) {
  NEED_PRIVATE_WORLD();
  Broker broker;
  const RpcHeader head = {};
  EXPECT_EQ(rpc_client_c_open(nullptr, broker.port), nullptr);
  EXPECT_EQ(rpc_client_c_open("127.0.0.1", 65536 + broker.port), nullptr);
  EXPECT_EQ(rpc_client_c_open("127.0.0.1", NextPort()), nullptr);  // nobody there
  EXPECT_EQ(rpc_client_c_open_v2("127.0.0.1", broker.port, 64), nullptr);
  void* const open = rpc_client_c_open("127.0.0.1", broker.port);
  ASSERT_NE(open, nullptr);
  const auto ask = [](void* handle, const char* cmd, const char* req, int length, int room) {
    char resp[8];
    return rpc_client_c_send_request(handle, cmd, req, length, resp, room, kPatienceMs);
  };
  const auto listen = [](void* handle, const char* cmd, RpcClientHandler handler) {
    return rpc_client_c_listen_v1(handle, cmd, RPC_TYPE_REQUEST, 0, handler, nullptr);
  };
  for (const int result :
       {listen(nullptr, "c", Echo), listen(open, nullptr, Echo), listen(open, "c", nullptr),
        rpc_client_c_check_cmd_power(nullptr, "c"), rpc_client_c_check_cmd_power(open, nullptr),
        ask(nullptr, "c", "", 0, 8), ask(open, nullptr, "", 0, 8), ask(open, "c", "x", -1, 8),
        ask(open, "c", nullptr, 1, 8), ask(open, "c", "x", 1, -8), ask(open, "none", nullptr, 0, 0),
        rpc_client_c_send_message(nullptr, "c", "", 0),
        rpc_client_c_send_message(open, nullptr, "", 0),
        rpc_client_c_send_reply(nullptr, &head, "", 0),
        rpc_client_c_send_reply(open, nullptr, "", 0), rpc_client_c_send_reply(open, &head, "", -1),
        rpc_client_c_flush(nullptr, 10)}) {
    EXPECT_EQ(result, -1);
  }
  rpc_client_c_dump(nullptr);
  rpc_client_c_close(nullptr);
  EXPECT_EQ(rpc_client_c_is_connected(nullptr), 0);
  EXPECT_EQ(rpc_client_c_send_message(open, "c", "x", -1), 0);  // an empty one
  EXPECT_EQ(rpc_client_c_flush(open, kPatienceMs), 0);
  EXPECT_EQ(rpc_client_c_is_connected(open), 1);
  rpc_client_c_close(open);
}

}  // namespace
