// The bus beside a bare relay: the same frames through as many processes, with no logic in them.
//
// Each figure is the median of several turns, ours and the relay's in turn. "1 core": all processes
// on core 0; "free": wherever the system puts them.
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "bench/support/bus.h"
#include "bench/support/pair.h"
#include "bsp/bsp.h"
#include "bsp/net/rpc/rpc_client.h"
#include "bsp/net/rpc/rpc_server.h"

namespace {

using bench::Board;
using bench::Load;
using bench::Process;
using bench::Result;
using bench::Target;
using bench::TheBoard;
using Clock = std::chrono::steady_clock;

constexpr int kTurns = 7;

std::string BrokerPath() { return BSP_BENCH_BIN_DIR "/bsp-broker"; }

// The broker as a program, as its users start it.
std::vector<std::string> BrokerArgs(int port, bool is_stock) {
  std::vector<std::string> args = {BrokerPath(), "--port", std::to_string(port)};
  if (is_stock) args.push_back("--stock");
  return args;
}

std::shared_ptr<bsp::RpcClient> OpenClient(int port) {
  auto client = std::make_shared<bsp::RpcClient>();
  while (client->Open("127.0.0.1", static_cast<uint16_t>(port)) != nullptr) {
    client->Close();
    usleep(10000);
  }
  return client;
}

struct Echo : public sigslot::has_slots<> {
  void OnFrame(std::shared_ptr<bsp::RpcClient> client, RpcHeader* head) {
    if (head->type == RPC_TYPE_REQUEST) {
      client->SendReplay(head, reinterpret_cast<const char*>(head + 1),
                         head->size - static_cast<int>(sizeof *head));
    } else {
      ++TheBoard().messages[static_cast<size_t>(bench::CurrentRole())];
    }
  }
};

// Answers "echo", counts "msg", and has further commands where asked.
void RunListener(int port, int more_commands) {
  g_log_level = BSP_LEVEL_CRIT;
  const auto client = OpenClient(port);
  Echo echo;
  client->SignalMessage.connect(&echo, &Echo::OnFrame);
  if (bench::CurrentRole() == bench::kListener) client->Listen("echo", RPC_TYPE_REQUEST, 0);
  client->Listen("msg", RPC_TYPE_MESSAGE, 0);
  for (int i = 0; i < more_commands; ++i) {
    client->Listen("more." + std::to_string(i), RPC_TYPE_REQUEST, 0);
  }
  ++TheBoard().ready;
  pause();
}

void AwaitReady(int count) {
  while (TheBoard().ready < count) usleep(1000);
}

// A broker program and its listeners, in processes of their own.
struct Bus {
  Bus(bool is_pinned, int listeners, int more_commands = 0, bool is_stock = false)
      : port(bench::NewPort()) {
    TheBoard().ready = 0;
    broker = std::make_unique<Process>(is_pinned, BrokerArgs(port, is_stock));
    bench::AwaitPort(port);
    for (int i = 0; i < listeners; ++i) {
      processes.push_back(
          std::make_unique<Process>(static_cast<bench::Role>(bench::kListener + i), is_pinned,
                                    [this, more_commands] { RunListener(port, more_commands); }));
    }
    AwaitReady(listeners);
  }
  const int port;
  std::unique_ptr<Process> broker;
  std::vector<std::unique_ptr<Process>> processes;
};

void RunBusCallers(int port, const Load& load, bool with_message) {
  g_log_level = BSP_LEVEL_CRIT;
  std::vector<std::shared_ptr<bsp::RpcClient>> clients;
  for (int i = 0; i < load.connections; ++i) clients.push_back(OpenClient(port));
  const std::string request(load.payload, 'q');
  std::vector<std::string> answers(static_cast<size_t>(load.threads));
  bench::RunCallers(load, [&](int thread) {
    auto& client = clients[static_cast<size_t>(thread % load.connections)];
    if (with_message) client->SendMessage("msg", request);
    return client->SendRequest("echo", request, answers[static_cast<size_t>(thread)], 20000) ==
           nullptr;
  });
  for (auto& client : clients) client->Close();
}

Result MeasureBus(const Bus& bus, const Load& load, bool with_message = false) {
  Process caller(bench::kCaller, load.is_pinned,
                 [&] { RunBusCallers(bus.port, load, with_message); });
  caller.Wait();
  return bench::TakeResult();
}

Result MeasureRelay(const Load& load) {
  const int port = bench::NewPort();
  const size_t frame = 104 + load.payload;
  Process relay(bench::kBroker, load.is_pinned,
                [&] { bench::RunRelay(port, load.threads, frame); });
  Process listener(bench::kListener, load.is_pinned,
                   [&] { bench::RunRelayListener(port, load.threads, frame); });
  Process caller(bench::kCaller, load.is_pinned, [&] { bench::RunRelayCallers(port, load); });
  caller.Wait();
  return bench::TakeResult();
}

// Medians over turns of ours and the relay's.
struct Compared {
  std::vector<double> p50[2], p99[2], rate[2];
  void Add(int side, const Result& result) {
    p50[side].push_back(result.p50_us);
    p99[side].push_back(result.p99_us);
    rate[side].push_back(result.calls_per_s);
  }
};

Compared Compare(const Load& load) {
  Load direct = load;
  direct.connections = load.threads;
  const Bus bus(load.is_pinned, 1);
  Compared both;
  for (int turn = 0; turn < kTurns; ++turn) {
    both.Add(0, MeasureBus(bus, load));
    both.Add(1, MeasureRelay(direct));
  }
  return both;
}

void AddCompared(const std::string& topic, const std::vector<double> (&sides)[2],
                 const std::string& unit, Target target) {
  bench::AddRow(topic, bench::Median(sides[0]), bench::Median(sides[1]), unit, target);
}

void OneCaller(bool is_pinned) {
  Load load;
  load.is_pinned = is_pinned;
  const Compared both = Compare(load);
  const std::string where = is_pinned ? ", 1 core" : ", free";
  AddCompared("call of 32 B, p50" + where, both.p50, "us",
              is_pinned ? Target::RatioAtMost(1.2) : Target::None());
  AddCompared("call of 32 B, p99" + where, both.p99, "us", Target::None());
}

void ManyCallers(int threads, int connections, bool is_pinned, double target) {
  Load load;
  load.threads = threads;
  load.connections = connections;
  load.is_pinned = is_pinned;
  const Compared both = Compare(load);
  AddCompared(std::to_string(threads) + " callers on " + std::to_string(connections) +
                  " connections" + (is_pinned ? ", 1 core" : ", free"),
              both.rate, "call/s", target > 0 ? Target::RatioAtLeast(target) : Target::None());
}

void Payload(size_t payload, bool is_pinned, double target) {
  Load load;
  load.payload = payload;
  load.is_pinned = is_pinned;
  const Compared both = Compare(load);
  AddCompared(
      "calls of " + std::to_string(payload >> 10) + " KiB" + (is_pinned ? ", 1 core" : ", free"),
      both.rate, "call/s", target > 0 ? Target::RatioAtLeast(target) : Target::None());
}

void MessageBeforeCall() {
  const Bus bus(true, 1);
  std::vector<double> with;
  std::vector<double> without;
  for (int turn = 0; turn < kTurns; ++turn) {
    with.push_back(MeasureBus(bus, Load(), true).p50_us);
    without.push_back(MeasureBus(bus, Load()).p50_us);
  }
  bench::AddRow("message and call at once, p50, 1 core (limit: call)", bench::Median(with),
                bench::Median(without), "us", Target::RatioAtMost(2));
}

// Accounts, calls in flight and the rest, beside a broker without any of it.
void Additions() {
  const Bus bus(true, 1);
  const Bus stock(true, 1, 0, true);
  std::vector<double> with;
  std::vector<double> without;
  for (int turn = 0; turn < 3 * kTurns; ++turn) {
    with.push_back(MeasureBus(bus, Load()).p50_us);
    without.push_back(MeasureBus(stock, Load()).p50_us);
  }
  bench::AddRow("call of 32 B, p50, 1 core (limit: --stock)", bench::Median(with),
                bench::Median(without), "us", Target::RatioAtMost(1.02));
}

double SecondsSince(Clock::time_point begin) {
  return std::chrono::duration<double>(Clock::now() - begin).count();
}

// One publisher; the time ends when the last listener has the last message.
double Deliveries(int listeners, bool is_pinned) {
  constexpr uint64_t kMessages = 60000;
  const Bus bus(is_pinned, listeners);
  for (auto& count : TheBoard().messages) count = 0;
  const auto begin = Clock::now();
  Process publisher(bench::kCaller, is_pinned, [&] {
    const auto client = OpenClient(bus.port);
    const std::string text(32, 'm');
    for (uint64_t i = 0; i < kMessages; ++i) client->SendMessage("msg", text);
    client->Flush(20000);
  });
  for (int i = 0; i < listeners; ++i) {
    while (TheBoard().messages[static_cast<size_t>(bench::kListener + i)] < kMessages) usleep(200);
  }
  return static_cast<double>(kMessages) * listeners / SecondsSince(begin);
}

void FanOut(int listeners, double target) {
  std::vector<double> rates;
  for (int turn = 0; turn < 3; ++turn) rates.push_back(Deliveries(listeners, false));
  bench::AddRow("deliveries of 32 B to " + std::to_string(listeners) + " listeners, free",
                bench::Median(rates), 0, "msg/s", Target::AtLeast(target));
}

// All in steady state; the broker is the class in a process of its own, so that it can be counted.
void Allocations() {
  constexpr int kCalls = 2000;
  const int port = bench::NewPort();
  TheBoard().ready = 0;
  Process broker(bench::kBroker, false, [&] {
    g_log_level = BSP_LEVEL_CRIT;
    bsp::RpcServer::Options options;  // those of the program that take part in a call
    options.contain_failures = true;
    options.track_calls = true;
    options.max_calls = 4096;
    options.patience_ms = 2000;
    options.max_backlog_bytes = size_t{8} << 20;
    options.max_memory_bytes = size_t{40} << 20;
    bsp::RpcServer server(options);
    server.Start("127.0.0.1", port);
    pause();
  });
  bench::AwaitPort(port);
  Process listener(bench::kListener, false, [&] { RunListener(port, 0); });
  AwaitReady(1);
  Process caller(bench::kCaller, false, [&] {
    g_log_level = BSP_LEVEL_CRIT;
    const auto client = OpenClient(port);
    const std::string request(32, 'q');
    std::string answer;
    for (int i = 0; i < 100; ++i) client->SendRequest("echo", request, answer, 20000);
    for (auto& count : TheBoard().allocations) count = 0;
    for (int i = 0; i < kCalls; ++i) client->SendRequest("echo", request, answer, 20000);
    TheBoard().calls = kCalls;
  });
  caller.Wait();
  const auto per_call = [](bench::Role role) {
    return static_cast<double>(TheBoard().allocations[role]) / kCalls;
  };
  bench::AddRow("allocations a call, caller", per_call(bench::kCaller), 0, "",
                Target::AtMost(1.01));
  bench::AddRow("allocations a call, broker", per_call(bench::kBroker), 0, "",
                Target::AtMost(0.01));
  bench::AddRow("allocations a call, listener", per_call(bench::kListener), 0, "");
}

// System calls of one process while calls are made one after the other, by strace.
void SystemCalls() {
  constexpr int kCalls = 2000;
  const Bus bus(false, 1);
  const std::string path = "/tmp/bsp-rpc-bench." + std::to_string(getpid());
  for (const auto& watched : {std::make_pair("broker", bus.broker->pid()),
                              std::make_pair("listener", bus.processes[0]->pid())}) {
    Process strace(false, {"/usr/bin/strace", "-f", "-c", "-U", "calls,name", "-o", path, "-p",
                           std::to_string(watched.second)});
    usleep(500000);
    Process caller(bench::kCaller, false, [&] {
      g_log_level = BSP_LEVEL_CRIT;
      const auto client = OpenClient(bus.port);
      std::string answer;
      for (int i = 0; i < kCalls; ++i) client->SendRequest("echo", "q", answer, 20000);
    });
    caller.Wait();
    kill(strace.pid(), SIGINT);
    strace.Wait();
    std::ifstream table(path);
    std::string line;
    double total = 0;
    while (std::getline(table, line)) {
      if (line.find("total") != std::string::npos) total = atof(line.c_str());
    }
    bench::AddRow(std::string("system calls a call, ") + watched.first, total / kCalls, 0, "");
  }
  unlink(path.c_str());
}

// Started by OneShot in place of the benchmarks.
[[noreturn]] void RunOneShot(const char* port) {
  g_log_level = BSP_LEVEL_CRIT;
  void* const handle = rpc_client_c_open("127.0.0.1", atoi(port));
  char answer[64];
  const int length = rpc_client_c_send_request(handle, "echo", "q", 1, answer, 64, 5000);
  rpc_client_c_close(handle);
  _exit(length == 2 ? 0 : 1);
}

void OneShot() {
  const Bus bus(false, 1);
  setenv("BSP_BENCH_ONE_SHOT", std::to_string(bus.port).c_str(), 1);
  std::vector<double> times;
  for (int i = 0; i < 100; ++i) {
    const auto begin = Clock::now();
    Process program(false, {"/proc/self/exe"});
    program.Wait();
    times.push_back(SecondsSince(begin) * 1e3);
  }
  unsetenv("BSP_BENCH_ONE_SHOT");
  bench::AddRow("one-shot program: start, open, call, close, exit", bench::Median(times), 0, "ms",
                Target::AtMost(2.5));
}

// The cost of a call must not follow the number of connections that do nothing.
void IdleConnections() {
  std::vector<double> first;
  for (const int count : {1, 100, 1000}) {
    const Bus bus(true, 1);
    std::vector<int> idle;
    for (int i = 0; i < count; ++i) idle.push_back(bench::ConnectTo(bus.port));
    std::vector<double> times;
    for (int turn = 0; turn < 5; ++turn) times.push_back(MeasureBus(bus, Load()).p50_us);
    for (const int fd : idle) close(fd);
    if (first.empty()) first = times;
    bench::AddRow("call among " + std::to_string(count) + " idle connections (limit: 1)",
                  bench::Median(times), bench::Median(first), "us", Target::RatioAtMost(1.15));
  }
}

void Commands() {
  std::vector<double> first;
  for (const int count : {10, 4000}) {
    const Bus bus(true, 1, count);
    std::vector<double> times;
    for (int turn = 0; turn < 5; ++turn) times.push_back(MeasureBus(bus, Load()).p50_us);
    if (first.empty()) first = times;
    bench::AddRow("call among " + std::to_string(count) + " commands (limit: 10)",
                  bench::Median(times), bench::Median(first), "us", Target::RatioAtMost(1.15));
  }
}

void BrokerMemory() {
  const Bus bus(false, 1);
  usleep(100000);
  bench::AddRow("broker resident memory, idle", static_cast<double>(bus.broker->RssKb()), 0, "KiB",
                Target::AtMost(6144));
  Load load;
  load.threads = 64;
  load.connections = 64;
  load.payload = size_t{1} << 20;
  load.is_pinned = false;
  MeasureBus(bus, load);
  const long peak = bus.broker->RssKb();
  usleep(2500000);
  bench::AddRow("broker resident memory, 2.5 s after a burst (limit: in it)",
                static_cast<double>(bus.broker->RssKb()), static_cast<double>(peak), "KiB",
                Target::AtMost(8192));
}

// BSP_BENCH_ONLY in the environment: only measurements whose name begins with it.
void Register(const std::string& name, const std::function<void()>& measure) {
  const char* only = getenv("BSP_BENCH_ONLY");
  if (only == nullptr || name.rfind(only, 0) == 0) bench::Custom(measure);
}

}  // namespace

// Counts what a process and the library in it allocate.
void* operator new(size_t size) {
  TheBoard().allocations[bench::CurrentRole()].fetch_add(1, std::memory_order_relaxed);
  void* memory = malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept { free(memory); }
void operator delete(void* memory, size_t) noexcept { free(memory); }

void RegisterBenchmarks() {
  if (const char* port = getenv("BSP_BENCH_ONE_SHOT")) RunOneShot(port);
  Register("latency", [] { OneCaller(true); });
  Register("latency", [] { OneCaller(false); });
  Register("additions", Additions);
  Register("callers 8", [] { ManyCallers(8, 1, false, 0); });
  for (const bool is_pinned : {true, false}) {
    Register("callers 64/1", [=] { ManyCallers(64, 1, is_pinned, 0.75); });
    Register("callers 64/64", [=] { ManyCallers(64, 64, is_pinned, 0.55); });
    Register("payload 4K", [=] { Payload(size_t{4} << 10, is_pinned, 0); });
    Register("payload 1M", [=] { Payload(size_t{1} << 20, is_pinned, 0.95); });
  }
  Register("message", MessageBeforeCall);
  Register("fan-out 1", [] { FanOut(1, 150e3); });
  Register("fan-out 4", [] { FanOut(4, 400e3); });
  Register("allocations", Allocations);
  Register("syscalls", SystemCalls);
  Register("one-shot", OneShot);
  Register("idle", IdleConnections);
  Register("commands", Commands);
  Register("memory", BrokerMemory);
}
