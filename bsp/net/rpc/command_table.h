// Who listens to what.
#ifndef BSP_NET_RPC_COMMAND_TABLE_H_
#define BSP_NET_RPC_COMMAND_TABLE_H_

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "bsp/net/rpc/latency_histogram.h"

namespace bsp {

struct RpcAgent;

// How the calls of one command went. The rest is constant memory, made with the first call.
struct CommandCounts {
  uint64_t calls = 0;     // requests handed to the listener
  uint64_t answers = 0;   // of them answered
  uint64_t errors = 0;    // of the answers, with an err_code other than 0
  uint64_t lost = 0;      // calls whose listener went
  uint64_t refused = 0;   // requests and messages that a limit kept from the listener
  uint64_t messages = 0;  // handed to listeners, each copy
  int64_t second = 0;     // of the clock: in it came calls_now, in the one before calls_before
  uint32_t calls_now = 0;
  uint32_t calls_before = 0;
  LatencyHistogram latency;

  void NoteCall(int64_t now_us);
  void NoteAnswer(int64_t took_us, bool is_good);
  // Calls in the last full second.
  uint32_t RatePerSecond(int64_t now_us) const;
};

// One command. It stands in the table exactly as long as it has a listener.
struct Cmd2Cli {
  CommandCounts& Counts();

  std::string cmd;
  int32_t type = 0;  // kind and power are the first listener's and never change
  int32_t power = 0;
  std::list<std::shared_ptr<RpcAgent>> clients;  // in the order of their listen frames
  std::unique_ptr<CommandCounts> counts;         // null before the first use
};

// The commands by name. What always holds: each has a listener; an agent is a listener of a command
// if and only if the command is in the agent's `cmds`; kind and power are those of the first.
//
// Threads: one. References to a command stay good until its last listener goes.
class CommandTable {
 public:
  using Listener = std::shared_ptr<RpcAgent>;

  // Null when nobody listens to it.
  Cmd2Cli* Find(std::string_view name) const;

  // True when the name has a listener and either side wants to be the only one.
  bool IsTaken(std::string_view name, int32_t kind) const;

  // Enters a listener, and the command with it when it is the first. Once a listener and name.
  void Add(const std::string& name, int32_t kind, int32_t power, const Listener& listener);

  // Takes the listener out of all its commands, and commands without listeners out of the table.
  void Remove(const Listener& listener);

  void Clear() { commands_.clear(); }
  size_t size() const { return commands_.size(); }

  // In no order.
  template <typename Visit>
  void ForEach(const Visit& visit) const {
    for (const auto& entry : commands_) visit(*entry.second);
  }

 private:
  // The key is the name inside the command, so that a look-up by any text allocates nothing.
  std::unordered_map<std::string_view, std::unique_ptr<Cmd2Cli>> commands_;
};

}  // namespace bsp

#endif  // BSP_NET_RPC_COMMAND_TABLE_H_
