// A bus of separate processes to measure: the broker beside a bare relay, each with its listener.
#ifndef BSP_BENCH_SUPPORT_BUS_H_
#define BSP_BENCH_SUPPORT_BUS_H_

#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace bench {

enum Role { kCaller, kBroker, kListener, kRoleCount = 8 };  // further listeners follow the first

// What the processes of one measurement share.
struct Board {
  std::array<std::atomic<uint64_t>, kRoleCount> allocations;  // by operator new
  std::array<std::atomic<uint64_t>, kRoleCount> messages;     // received
  std::atomic<int> ready;
  std::atomic<uint64_t> calls;
  std::atomic<uint64_t> elapsed_ns;
  std::atomic<size_t> sample_count;
  std::array<float, 400000> samples_us;  // time of each call
};
Board& TheBoard();

// Of this process.
Role CurrentRole();

// A child process, ended by its destructor.
class Process {
 public:
  // Runs `body` in a fork, on core 0 when `is_pinned`.
  Process(Role role, bool is_pinned, const std::function<void()>& body);
  // Runs a program.
  Process(bool is_pinned, const std::vector<std::string>& argv);
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process();

  void Wait();
  pid_t pid() const { return pid_; }
  long RssKb() const;

 private:
  pid_t pid_;
};

struct Load {
  int threads = 1;
  int connections = 1;  // the threads share them evenly
  size_t payload = 32;
  bool is_pinned = true;
  int duration_ms = 250;
};

struct Result {
  double p50_us = 0;
  double p99_us = 0;
  double calls_per_s = 0;
};

// A plain connection, waited for up to 10 s.
int ConnectTo(int port);
void AwaitPort(int port);

// A port of 127.0.0.1 that this run has not used yet.
int NewPort();

// Runs `threads` threads of `call(thread)` for the time of `load`, in this process, and leaves the
// figures on the board.
void RunCallers(const Load& load, const std::function<bool(int)>& call);
Result TakeResult();

// The bodies of the relay: `frame` bytes at a time through a process that only passes them on.
// Connection number i on port + 1 is joined to number i on port.
void RunRelay(int port, int connections, size_t frame);
void RunRelayListener(int port, int connections, size_t frame);
void RunRelayCallers(int port, const Load& load);

}  // namespace bench

#endif  // BSP_BENCH_SUPPORT_BUS_H_
