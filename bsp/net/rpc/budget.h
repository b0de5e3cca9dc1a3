// What the broker holds in the name of each peer, and of all together.
#ifndef BSP_NET_RPC_BUDGET_H_
#define BSP_NET_RPC_BUDGET_H_

#include <array>
#include <cstddef>

namespace bsp {

// The bytes that all peers together may cost.
//
// Each peer has an allowance that nobody can take from it: its place, some commands and calls, a
// small frame. What it holds above that comes from the shared rest, of which it may have at most as
// much as is still free: alone it gets half, and of n peers that take all they can each gets one
// part in n + 1, with one part left for whoever comes next. So the largest holder is refused first,
// without a look at the others, and those who hold little are never refused.
//
// Threads: one, as all here.
class Budget {
 public:
  static constexpr size_t kAllowanceBytes = size_t{12} * 1024;

  // limit_bytes 0: no limit. The allowances of `places` peers are set aside from the beginning.
  Budget(size_t limit_bytes, size_t places) : limit_bytes_(limit_bytes), places_(places) {}
  Budget(const Budget&) = delete;
  Budget& operator=(const Budget&) = delete;
  ~Budget();

  size_t limit_bytes() const { return limit_bytes_; }
  size_t used_bytes() const { return used_bytes_; }

  // Whether one more peer gets its allowance.
  bool HasPlace() const;

 private:
  friend class PeerAccount;

  // Of the shared rest, beside so many allowances.
  size_t FreeBytes(size_t accounts) const;

  const size_t limit_bytes_;
  const size_t places_;
  size_t used_bytes_ = 0;
  size_t shared_bytes_ = 0;  // of these, above allowances
  size_t accounts_ = 0;
};

// One peer's part of the budget. It holds nothing when it is destroyed.
class PeerAccount {
 public:
  enum Kind {
    kPlace,     // the connection itself
    kInput,     // received and not handled yet
    kLarge,     // memory of a large frame under way, in full from its head on
    kBacklog,   // waits for the peer's socket
    kCommands,  // entries of the command table
    kCalls,     // and of the call table
    kKinds
  };

  explicit PeerAccount(Budget* budget);
  PeerAccount(const PeerAccount&) = delete;
  PeerAccount& operator=(const PeerAccount&) = delete;
  ~PeerAccount();

  size_t held_bytes() const { return held_bytes_; }
  size_t held_bytes(Kind kind) const { return kinds_[kind]; }

  // Whether so many bytes more are within the peer's share.
  bool Admits(size_t bytes) const;

  // It holds more than its share, since others came or by Set.
  bool IsOver() const { return !Admits(0); }

  // Books what is held of a kind now, whatever the share: for what is there already.
  void Set(Kind kind, size_t bytes);

  // Books more, or refuses.
  bool Grow(Kind kind, size_t bytes);
  void Shrink(Kind kind, size_t bytes) { Set(kind, kinds_[kind] - bytes); }

  // Gives back what goes with the connection itself. Commands and calls go one by one.
  void Close();

 private:
  size_t SharedBytes(size_t held) const;

  Budget* const budget_;
  size_t held_bytes_ = 0;
  std::array<size_t, kKinds> kinds_ = {};
};

}  // namespace bsp

#endif  // BSP_NET_RPC_BUDGET_H_
