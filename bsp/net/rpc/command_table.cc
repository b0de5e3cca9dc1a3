#include "bsp/net/rpc/command_table.h"

#include <utility>

#include "bsp/net/rpc/rpc_agent.h"
#include "bsp/net/rpc/rpc_header.h"

namespace bsp {
namespace {

constexpr int64_t kMicrosPerSecond = 1000000;

}  // namespace

void CommandCounts::NoteCall(int64_t now_us) {
  ++calls;
  const int64_t now_s = now_us / kMicrosPerSecond;
  if (now_s != second) {
    calls_before = now_s == second + 1 ? calls_now : 0;
    calls_now = 0;
    second = now_s;
  }
  ++calls_now;
}

void CommandCounts::NoteAnswer(int64_t took_us, bool is_good) {
  ++answers;
  if (!is_good) ++errors;
  latency.Add(took_us);
}

uint32_t CommandCounts::RatePerSecond(int64_t now_us) const {
  const int64_t now_s = now_us / kMicrosPerSecond;
  if (now_s == second) return calls_before;
  return now_s == second + 1 ? calls_now : 0;
}

CommandCounts& Cmd2Cli::Counts() {
  if (counts == nullptr) counts = std::make_unique<CommandCounts>();
  return *counts;
}

Cmd2Cli* CommandTable::Find(std::string_view name) const {
  const auto found = commands_.find(name);
  return found == commands_.end() ? nullptr : found->second.get();
}

bool CommandTable::IsTaken(std::string_view name, int32_t kind) const {
  const Cmd2Cli* const command = Find(name);
  if (command == nullptr) return false;
  return kind == RPC_TYPE_REQUEST || command->type == RPC_TYPE_REQUEST;
}

// Whatever runs out of memory on the way, the table and the agent agree.
void CommandTable::Add(const std::string& name, int32_t kind, int32_t power,
                       const Listener& listener) {
  const auto entered = listener->cmds.emplace(name, static_cast<unsigned int>(kind));
  if (!entered.second) return;
  try {
    Cmd2Cli* command = Find(name);
    if (command != nullptr) {
      command->clients.push_back(listener);
      return;
    }
    auto fresh = std::make_unique<Cmd2Cli>();
    fresh->cmd = name;
    fresh->type = kind;
    fresh->power = power;
    fresh->clients.push_back(listener);
    const std::string_view key = fresh->cmd;
    commands_.emplace(key, std::move(fresh));
  } catch (...) {
    listener->cmds.erase(entered.first);
    throw;
  }
}

void CommandTable::Remove(const Listener& listener) {
  for (const auto& listened : listener->cmds) {
    const auto found = commands_.find(listened.first);
    if (found == commands_.end()) continue;
    found->second->clients.remove(listener);
    if (found->second->clients.empty()) commands_.erase(found);
  }
  listener->cmds.clear();
}

}  // namespace bsp
