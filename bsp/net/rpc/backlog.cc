#include "bsp/net/rpc/backlog.h"

#include <algorithm>

namespace bsp {

void Backlog::Update(size_t waiting_bytes, uint64_t taken_bytes, int64_t now_ms) {
  if (!IsStuck() || taken_bytes != taken_bytes_) moved_ms_ = now_ms;
  taken_bytes_ = taken_bytes;
  const size_t known = waiting_bytes_ + added_bytes_;
  added_bytes_ = 0;
  if (waiting_bytes < known) Drain(known - waiting_bytes);
  if (waiting_bytes > known) nobodys_bytes_ += waiting_bytes - known;
  waiting_bytes_ = waiting_bytes;
  if (waiting_bytes_ <= vain_bytes_ / 4) vain_bytes_ = 0;
}

void Backlog::Add(uint64_t sender, size_t bytes, bool is_reply) {
  added_bytes_ += bytes;
  if (is_reply) reply_bytes_ += bytes;
  if (!pieces_.empty() && pieces_.back().sender == sender && pieces_.back().is_reply == is_reply) {
    pieces_.back().bytes += bytes;
  } else {
    pieces_.push_back({sender, bytes, is_reply});
  }
  const auto found = Find(sender);
  if (found != senders_.end()) {
    found->bytes += bytes;
  } else {
    senders_.push_back({sender, bytes, false});
  }
}

size_t Backlog::BytesOf(uint64_t sender) const {
  const auto found = const_cast<Backlog*>(this)->Find(sender);
  return found != senders_.end() ? found->bytes : 0;
}

Backlog::Verdict Backlog::Judge(uint64_t sender, size_t bytes, size_t limit_bytes,
                                int64_t now_ms) const {
  if (!IsStuck()) return Verdict::kPass;
  const size_t free = limit_bytes - std::min(limit_bytes, waiting_bytes_);
  if (bytes <= free && BytesOf(sender) <= free - bytes) return Verdict::kPass;
  return vain_bytes_ > 0 || IsMute(now_ms) ? Verdict::kRefuse : Verdict::kWait;
}

void Backlog::Drain(size_t bytes) {
  const size_t nobodys = std::min(bytes, nobodys_bytes_);
  nobodys_bytes_ -= nobodys;
  bytes -= nobodys;
  while (bytes > 0 && !pieces_.empty()) {
    Piece& first = pieces_.front();
    const size_t count = std::min(bytes, first.bytes);
    const auto sum = Find(first.sender);
    sum->bytes -= count;
    if (sum->bytes == 0) {
      *sum = senders_.back();
      senders_.pop_back();
    }
    if (first.is_reply) reply_bytes_ -= count;
    first.bytes -= count;
    bytes -= count;
    if (first.bytes == 0) pieces_.pop_front();
  }
}

std::vector<Backlog::Piece>::iterator Backlog::Find(uint64_t sender) {
  return std::find_if(senders_.begin(), senders_.end(),
                      [sender](const Piece& sum) { return sum.sender == sender; });
}

}  // namespace bsp
