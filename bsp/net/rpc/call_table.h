// The calls in flight: who waits for whom.
#ifndef BSP_NET_RPC_CALL_TABLE_H_
#define BSP_NET_RPC_CALL_TABLE_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace bsp {

struct Cmd2Cli;
struct RpcAgent;

// A request stands in it from its hand-over to the listener until the answer, or the end of either.
// So an answer counts only from the listener that got the request, a caller whose listener goes can
// be told, and a number that the system gives out anew cannot get the answer of its predecessor.
//
// Entries lie in one vector and are chained by index: into the hash row of (requester, seq), and
// into the two lists of what a peer has asked and of what it has to answer. Freed entries are used
// again, so that a table that is warm allocates nothing.
//
// Threads: one.
class CallTable {
 public:
  using Index = uint32_t;
  static constexpr Index kNone = ~Index{0};

  // What an entry costs, with its part of the rows.
  static constexpr size_t kEntryBytes = 104;

  // A peer's ends of its lists. The peer is removed before it dies.
  struct Peer {
    explicit Peer(RpcAgent* the_agent) : agent(the_agent) {}

    RpcAgent* const agent;
    Index first_asked = kNone;  // the oldest
    Index last_asked = kNone;
    Index first_to_answer = kNone;  // likewise
    Index last_to_answer = kNone;
    size_t asked = 0;
  };

  struct Call {
    Peer* requester = nullptr;
    Peer* listener = nullptr;
    Cmd2Cli* command = nullptr;
    int64_t begin_us = 0;
    int64_t timestamp = 0;  // of the request's head, as is the pid
    uint32_t seq = 0;
    int32_t pid = 0;
    bool wants_answer = false;  // it was sent as a request, not as a message
  };

  // May throw std::bad_alloc; nothing is entered then. A seq that its requester uses twice at a
  // time is entered twice.
  void Begin(const Call& call);

  // Takes the call out and gives it. False when there is none of this requester and number that
  // this listener was to answer.
  bool End(const Peer* requester, uint32_t seq, const Peer* listener, Call* ended);

  // The requester's oldest call; null without one.
  const Call* Oldest(const Peer* requester) const;

  // Takes all calls of the peer out, those that it asked and those that it was to answer, and gives
  // each to `gone` when it is out, the oldest first.
  void Remove(Peer* peer, const std::function<void(const Call&)>& gone);

  size_t size() const { return size_; }

  // Gives the memory of a burst back, when no call is in flight.
  void Shrink();

  template <typename Visit>
  void ForEach(const Visit& visit) const {
    for (const Entry& entry : entries_) {
      if (entry.call.requester != nullptr) visit(entry.call);
    }
  }

 private:
  struct Entry {
    Call call;  // requester null: free
    Index next_in_row = kNone;
    Index next_asked = kNone;
    Index previous_asked = kNone;
    Index next_to_answer = kNone;
    Index previous_to_answer = kNone;
  };

  size_t RowOf(const Peer* requester, uint32_t seq) const;
  void GrowRows();
  void TakeOut(Index index);

  std::vector<Entry> entries_;
  std::vector<Index> rows_;   // a power of two of them
  Index first_free_ = kNone;  // chained by next_in_row
  size_t size_ = 0;
};

}  // namespace bsp

#endif  // BSP_NET_RPC_CALL_TABLE_H_
