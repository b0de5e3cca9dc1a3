#include "bsp/net/rpc/call_table.h"

namespace bsp {
namespace {

constexpr size_t kFirstRows = 64;

}  // namespace

void CallTable::Begin(const Call& call) {
  if (size_ >= rows_.size()) GrowRows();
  Index index = first_free_;
  if (index == kNone) {
    index = static_cast<Index>(entries_.size());
    entries_.emplace_back();
  } else {
    first_free_ = entries_[index].next_in_row;
  }
  Entry& entry = entries_[index];
  entry = Entry();
  entry.call = call;

  Index& row = rows_[RowOf(call.requester, call.seq)];
  entry.next_in_row = row;
  row = index;

  Peer& requester = *call.requester;
  entry.previous_asked = requester.last_asked;
  (requester.last_asked != kNone ? entries_[requester.last_asked].next_asked
                                 : requester.first_asked) = index;
  requester.last_asked = index;
  ++requester.asked;

  Peer& listener = *call.listener;
  entry.previous_to_answer = listener.last_to_answer;
  (listener.last_to_answer != kNone ? entries_[listener.last_to_answer].next_to_answer
                                    : listener.first_to_answer) = index;
  listener.last_to_answer = index;
  ++size_;
}

bool CallTable::End(const Peer* requester, uint32_t seq, const Peer* listener, Call* ended) {
  if (rows_.empty()) return false;
  for (Index index = rows_[RowOf(requester, seq)]; index != kNone;
       index = entries_[index].next_in_row) {
    const Call& call = entries_[index].call;
    if (call.requester != requester || call.seq != seq || call.listener != listener) continue;
    *ended = call;
    TakeOut(index);
    return true;
  }
  return false;
}

const CallTable::Call* CallTable::Oldest(const Peer* requester) const {
  return requester->first_asked != kNone ? &entries_[requester->first_asked].call : nullptr;
}

void CallTable::Remove(Peer* peer, const std::function<void(const Call&)>& gone) {
  while (peer->first_asked != kNone || peer->first_to_answer != kNone) {
    const Index index = peer->first_asked != kNone ? peer->first_asked : peer->first_to_answer;
    const Call call = entries_[index].call;
    TakeOut(index);
    gone(call);
  }
}

void CallTable::Shrink() {
  if (size_ > 0) return;
  std::vector<Entry>().swap(entries_);
  std::vector<Index>().swap(rows_);
  first_free_ = kNone;
}

size_t CallTable::RowOf(const Peer* requester, uint32_t seq) const {
  uint64_t hash = reinterpret_cast<uintptr_t>(requester) >> 4 ^ uint64_t { seq } << 32 ^ seq;
  hash *= 0x9e3779b97f4a7c15u;  // 2^64 by the golden ratio: spreads what differs in few bits
  return static_cast<size_t>(hash >> 32) & (rows_.size() - 1);
}

// What may throw comes first. While no more calls are in flight than there are rows, the free
// entries and the reserved ones suffice.
void CallTable::GrowRows() {
  const size_t count = rows_.empty() ? kFirstRows : rows_.size() * 2;
  entries_.reserve(count);
  rows_.assign(count, kNone);
  for (Index index = 0; index < entries_.size(); ++index) {
    Entry& entry = entries_[index];
    if (entry.call.requester == nullptr) continue;
    Index& row = rows_[RowOf(entry.call.requester, entry.call.seq)];
    entry.next_in_row = row;
    row = index;
  }
}

void CallTable::TakeOut(Index index) {
  Entry& entry = entries_[index];
  Index* link = &rows_[RowOf(entry.call.requester, entry.call.seq)];
  while (*link != index) link = &entries_[*link].next_in_row;
  *link = entry.next_in_row;

  Peer& requester = *entry.call.requester;
  (entry.previous_asked != kNone ? entries_[entry.previous_asked].next_asked
                                 : requester.first_asked) = entry.next_asked;
  (entry.next_asked != kNone ? entries_[entry.next_asked].previous_asked : requester.last_asked) =
      entry.previous_asked;
  --requester.asked;

  Peer& listener = *entry.call.listener;
  (entry.previous_to_answer != kNone ? entries_[entry.previous_to_answer].next_to_answer
                                     : listener.first_to_answer) = entry.next_to_answer;
  (entry.next_to_answer != kNone ? entries_[entry.next_to_answer].previous_to_answer
                                 : listener.last_to_answer) = entry.previous_to_answer;
  entry.call.requester = nullptr;
  entry.next_in_row = first_free_;
  first_free_ = index;
  --size_;
}

}  // namespace bsp
