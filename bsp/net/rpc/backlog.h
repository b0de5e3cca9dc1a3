// What waits for one destination whose socket is full, from whom, and whether waiting helps.
#ifndef BSP_NET_RPC_BACKLOG_H_
#define BSP_NET_RPC_BACKLOG_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

namespace bsp {

// Counts only bytes that the socket has refused: what merely waits for its first try is no backlog.
//
// A sender may have at most as much in it as is still free of the limit (as in Budget), so that who
// floods is refused first. Nobody is thrown out for what others send.
//
// Threads: one.
class Backlog {
 public:
  enum class Verdict {
    kPass,
    kWait,   // the destination reads: its sender may wait for it
    kRefuse  // it does not, or waiting was in vain
  };

  // A destination that has taken no byte for so long is mute: nobody waits for it.
  static constexpr int64_t kMuteMs = 1000;

  // Tells how many bytes wait now and how many the socket has taken since it was connected.
  void Update(size_t waiting_bytes, uint64_t taken_bytes, int64_t now_ms);

  // A frame was queued behind them; Update follows.
  void Add(uint64_t sender, size_t bytes, bool is_reply = false);

  bool IsStuck() const { return waiting_bytes_ > 0; }
  size_t waiting_bytes() const { return waiting_bytes_; }
  size_t BytesOf(uint64_t sender) const;

  // What the destination has asked for itself.
  size_t reply_bytes() const { return reply_bytes_; }

  // Milliseconds without a byte taken, while some wait.
  int64_t StalledMs(int64_t now_ms) const { return IsStuck() ? now_ms - moved_ms_ : 0; }

  bool IsMute(int64_t now_ms) const { return StalledMs(now_ms) >= kMuteMs; }

  // For a frame of this size under a limit of so many bytes, not 0.
  Verdict Judge(uint64_t sender, size_t bytes, size_t limit_bytes, int64_t now_ms) const;

  // Somebody has waited long enough: until most of the backlog is gone nobody waits again.
  void GiveUpWaiting() { vain_bytes_ = waiting_bytes_; }

 private:
  struct Piece {
    uint64_t sender;
    size_t bytes;
    bool is_reply;
  };

  void Drain(size_t bytes);
  std::vector<Piece>::iterator Find(uint64_t sender);

  size_t waiting_bytes_ = 0;
  size_t added_bytes_ = 0;  // since the last Update
  uint64_t taken_bytes_ = 0;
  int64_t moved_ms_ = 0;   // when the socket took a byte last, or began to refuse
  size_t vain_bytes_ = 0;  // waited when waiting was given up; 0: it is not

  size_t reply_bytes_ = 0;
  size_t nobodys_bytes_ = 0;    // in front: queued before the socket was known to be full
  std::deque<Piece> pieces_;    // behind them, in the order of the queue
  std::vector<Piece> senders_;  // their sums
};

}  // namespace bsp

#endif  // BSP_NET_RPC_BACKLOG_H_
