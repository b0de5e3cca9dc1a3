// The calls of one client that wait for their replies.
#ifndef BSP_NET_RPC_CALL_WAITERS_H_
#define BSP_NET_RPC_CALL_WAITERS_H_

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "bsp/base/pi_mutex.h"
#include "bsp/net/rpc/frame_input.h"
#include "bsp/net/rpc/rpc_client.h"

namespace bsp {

// A table by seq. Each entry belongs to one live MsgSemGuard; the head and the string behind it are
// on the stack of a caller.
//
// Threads: Enter, Leave and Admit on callers' ones; Answer on rpc_cli; FailAll on any.
class CallWaiters {
 public:
  using Waiter = std::shared_ptr<RpcClient::MsgSem>;

  // Enters a call. While one in flight has the same seq, the call takes another from *next_seq and
  // has it in its head.
  void Enter(const Waiter& waiter, std::atomic<uint32_t>* next_seq);

  // Takes a call out, if it is in: from then on nothing writes to its head and string.
  void Leave(const Waiter& waiter);

  // Ends the wait for this reply, if there is one, and fills the caller's string. `apart`: the
  // payload where it can be given away, with its zero byte; null where it must be copied.
  void Answer(const Frame& reply, std::string* apart);

  // Ends all waits, and those of calls to come until Admit, with "connection lost".
  void FailAll();
  void Admit();

 private:
  using Table = std::map<uint32_t, Waiter>;

  Table::node_type TakeNode();

  // Taken by callers in front of mutex_, so that rpc_cli meets one of them there and not all: a
  // mutex with priority inheritance goes from hand to hand, a context switch each, while more than
  // two want it.
  std::mutex gate_;
  PiMutex mutex_;  // guards the fields below, and each write into a waiter
  Table calls_;
  std::vector<Table::node_type> spare_nodes_;  // so that a call allocates none
  bool fails_calls_ = false;
};

}  // namespace bsp

#endif  // BSP_NET_RPC_CALL_WAITERS_H_
