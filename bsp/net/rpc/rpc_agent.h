// The broker's record of one connection.
#ifndef BSP_NET_RPC_RPC_AGENT_H_
#define BSP_NET_RPC_RPC_AGENT_H_

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "bsp/net/rpc/backlog.h"
#include "bsp/net/rpc/budget.h"
#include "bsp/net/rpc/call_table.h"
#include "bsp/net/rpc/frame_input.h"

namespace bsp {

class MemoryBuffer;
class TcpClient;

// Threads: the broker's.
struct RpcAgent : public std::enable_shared_from_this<RpcAgent> {
  RpcAgent(uint64_t its_number, Budget* budget) : number(its_number), account(budget) {}
  RpcAgent(const RpcAgent&) = delete;
  RpcAgent& operator=(const RpcAgent&) = delete;
  ~RpcAgent();

  // The descriptor, which is the identity of the connection on the bus; -1 without a client.
  int GetNativeSocket() const;

  // Whether the peer of a listener of `cmd` is gone, by its process and its socket. Neither blocks
  // nor takes a byte from the connection. In doubt it lives.
  bool IsStale(const std::string& cmd) const;

  std::shared_ptr<TcpClient> client;
  int32_t pid = -1;          // as claimed by the peer's listen frames; -1 until the first
  uint64_t last_active = 0;  // TimeUtil::ClockMillis at accept and at each frame
  std::unordered_map<std::string, unsigned int> cmds;  // what it listens to, with the kind

  const uint64_t number;  // never given twice, as the descriptor is
  PeerAccount account;
  Backlog backlog;
  CallTable::Peer calls{this};
  std::shared_ptr<FrameInput> input;
  std::shared_ptr<MemoryBuffer> received;  // its buffer, from the first delivery on

  int64_t last_input_ms = 0;  // EventLoop::NowMs at the last delivery
  bool is_dropped = false;    // gets nothing more: closed, or to be closed behind the delivery
  bool is_late = false;       // has one of the kept places

  // The frame in front waits for a destination or for memory, and with it all behind it.
  bool is_waiting = false;
  int64_t wait_began_ms = 0;          // 0: the frame in front has not waited
  std::weak_ptr<RpcAgent> waits_for;  // the destination; none: memory
};

}  // namespace bsp

#endif  // BSP_NET_RPC_RPC_AGENT_H_
