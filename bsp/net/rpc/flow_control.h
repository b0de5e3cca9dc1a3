// Who is sent to, who has to wait, and who is refused when a destination is slow.
#ifndef BSP_NET_RPC_FLOW_CONTROL_H_
#define BSP_NET_RPC_FLOW_CONTROL_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "bsp/net/rpc/rpc_agent.h"

namespace bsp {

class EventLoop;

// The one owner of the rule: what is within the limits passes; above them a sender waits for a
// destination that reads, which means that nothing more is read from that sender; after
// patience_ms, and at once for a destination that is mute, the frame is refused. Waiting senders
// look at their frame in front again when a backlog has gone down, when memory is free again, and
// every 100 ms.
//
// Threads: the broker's.
class FlowControl {
 public:
  struct Limits {
    size_t max_backlog_bytes = 0;  // 0: none
    int patience_ms = 0;           // 0: nobody waits
  };

  // `on_stuck` is called when a destination's socket begins to refuse.
  FlowControl(const Limits& limits, std::function<void()> on_stuck);
  ~FlowControl();
  FlowControl(const FlowControl&) = delete;
  FlowControl& operator=(const FlowControl&) = delete;

  // The loop to run on; null at the end, when everybody is forgotten.
  void SetLoop(std::shared_ptr<EventLoop> loop);

  // False, with nothing sent, when the destination's limit or its account forbids it. True for one
  // that is about to be closed: what goes to it is lost with it.
  bool Send(RpcAgent* destination, const RpcAgent& sender, const char* data, size_t size,
            bool is_reply = false);

  // Looks at the destination's queue, after it may have moved.
  void Book(RpcAgent* destination);

  // False: every frame of 32 KiB and more passes, and every other.
  bool IsAnyStuck() const { return stuck_count_ > 0; }

  // Whether a frame of the sender goes to the destination. kWait: the sender is paused, and the
  // frame stays where it is.
  Admission Admit(const std::shared_ptr<RpcAgent>& sender,
                  const std::shared_ptr<RpcAgent>& destination, size_t size);

  // Whether the sender may ask for more: not while it lags behind the answers that it has, or
  // whoever answers would have to wait for it, and all that it serves with it.
  Admission AdmitRequest(const std::shared_ptr<RpcAgent>& sender);

  // Whether the sender's large frame is received; books its memory.
  Admission AdmitLarge(const std::shared_ptr<RpcAgent>& sender, size_t size);

  // The frame in front is on its way, or refused.
  static void EndWait(RpcAgent* sender) { sender->wait_began_ms = 0; }

  // Lets who waits look again, soon.
  void Retry();

  // Takes a closed agent out.
  void Forget(RpcAgent* agent);

  size_t waiting_count() const { return waiting_.size(); }

 private:
  Admission Weigh(const RpcAgent& destination, const RpcAgent& sender, size_t size) const;
  bool MayWait(const RpcAgent& sender) const;
  Admission WaitOrRefuse(const std::shared_ptr<RpcAgent>& sender,
                         const std::shared_ptr<RpcAgent>& destination);
  void RetryAt(int64_t at_ms);
  void RetryAll();

  const Limits limits_;
  const std::function<void()> on_stuck_;
  std::shared_ptr<EventLoop> loop_;
  size_t stuck_count_ = 0;                          // destinations with a backlog
  std::vector<std::shared_ptr<RpcAgent>> waiting_;  // senders, who began first in front
  uint64_t retry_ = 0;                              // the noted call of RetryAll; 0: none
  int64_t retry_ms_ = 0;                            // and its time
};

}  // namespace bsp

#endif  // BSP_NET_RPC_FLOW_CONTROL_H_
