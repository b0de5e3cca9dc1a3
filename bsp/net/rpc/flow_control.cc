// Waiting is free of memory: the frame lies where it was received, the sender's socket fills up,
// and then the sender itself notices. It is paid by everything behind that frame, so it is bounded,
// it needs a destination that reads, and what the sender has sent already must be within its share.
#include "bsp/net/rpc/flow_control.h"

#include <algorithm>
#include <utility>

#include "bsp/net/event_loop.h"
#include "bsp/net/tcp_client.h"

namespace bsp {
namespace {

constexpr int64_t kRetryMs = 100;        // between looks, when nothing else brings one
constexpr size_t kGatheredMost = 16384;  // above it TcpClient sends at once

}  // namespace

FlowControl::FlowControl(const Limits& limits, std::function<void()> on_stuck)
    : limits_(limits), on_stuck_(std::move(on_stuck)) {}

FlowControl::~FlowControl() = default;

void FlowControl::SetLoop(std::shared_ptr<EventLoop> loop) {
  loop_ = std::move(loop);
  if (loop_ != nullptr) return;
  waiting_.clear();
  stuck_count_ = 0;
  retry_ = 0;
}

bool FlowControl::Send(RpcAgent* destination, const RpcAgent& sender, const char* data, size_t size,
                       bool is_reply) {
  if (destination->is_dropped) return true;
  const bool is_stuck = destination->backlog.IsStuck();
  if (is_stuck && Weigh(*destination, sender, size) != Admission::kPass) return false;
  destination->client->Send(data, size);
  if (is_stuck) destination->backlog.Add(sender.number, size, is_reply);
  if (is_stuck || size > kGatheredMost) Book(destination);
  return true;
}

void FlowControl::Book(RpcAgent* destination) {
  Backlog& backlog = destination->backlog;
  const bool was_stuck = backlog.IsStuck();
  const size_t bytes = destination->client->SendBacklog();
  if (!was_stuck && bytes == 0) return;
  backlog.Update(bytes, destination->client->SentBytes(), EventLoop::NowMs());
  destination->account.Set(PeerAccount::kBacklog, bytes);
  if (was_stuck && bytes == 0) --stuck_count_;
  if (!was_stuck) {
    ++stuck_count_;
    on_stuck_();
  }
  // Not at each byte: who waits needs room for a frame.
  if (bytes <= limits_.max_backlog_bytes / 2) Retry();
}

Admission FlowControl::Weigh(const RpcAgent& destination, const RpcAgent& sender,
                             size_t size) const {
  const Backlog& backlog = destination.backlog;
  if (!backlog.IsStuck()) return Admission::kPass;
  const int64_t now_ms = EventLoop::NowMs();
  const size_t limit = limits_.max_backlog_bytes;
  if (limit != 0) {
    const auto verdict = backlog.Judge(sender.number, size, limit, now_ms);
    if (verdict == Backlog::Verdict::kRefuse) return Admission::kRefuse;
    if (verdict == Backlog::Verdict::kWait) return Admission::kWait;
  }
  if (destination.account.Admits(size)) return Admission::kPass;
  return backlog.IsMute(now_ms) ? Admission::kRefuse : Admission::kWait;
}

Admission FlowControl::Admit(const std::shared_ptr<RpcAgent>& sender,
                             const std::shared_ptr<RpcAgent>& destination, size_t size) {
  const Admission admission = Weigh(*destination, *sender, size);
  return admission == Admission::kWait ? WaitOrRefuse(sender, destination) : admission;
}

Admission FlowControl::AdmitRequest(const std::shared_ptr<RpcAgent>& sender) {
  const Backlog& backlog = sender->backlog;
  const size_t limit = limits_.max_backlog_bytes;
  if (limit == 0 || backlog.reply_bytes() <= limit / 8) return Admission::kPass;
  if (backlog.IsMute(EventLoop::NowMs())) return Admission::kRefuse;
  return WaitOrRefuse(sender, sender);
}

Admission FlowControl::AdmitLarge(const std::shared_ptr<RpcAgent>& sender, size_t size) {
  if (!sender->account.Grow(PeerAccount::kLarge, size)) return WaitOrRefuse(sender, nullptr);
  EndWait(sender.get());
  return Admission::kPass;
}

bool FlowControl::MayWait(const RpcAgent& sender) const {
  if (limits_.patience_ms == 0 || sender.client->IsEnding() || !sender.account.Admits(0)) {
    return false;
  }
  return sender.wait_began_ms == 0 ||
         EventLoop::NowMs() - sender.wait_began_ms < limits_.patience_ms;
}

// `destination`: for whom; null for memory.
Admission FlowControl::WaitOrRefuse(const std::shared_ptr<RpcAgent>& sender,
                                    const std::shared_ptr<RpcAgent>& destination) {
  if (!MayWait(*sender)) {
    EndWait(sender.get());
    return Admission::kRefuse;
  }
  const int64_t now_ms = EventLoop::NowMs();
  waiting_.push_back(sender);
  if (sender->wait_began_ms == 0) sender->wait_began_ms = now_ms;
  sender->is_waiting = true;
  sender->waits_for = destination;
  sender->client->PauseReading();
  RetryAt(now_ms + kRetryMs);
  return Admission::kWait;
}

void FlowControl::Retry() {
  if (!waiting_.empty()) RetryAt(EventLoop::NowMs());
}

void FlowControl::RetryAt(int64_t at_ms) {
  if (retry_ != 0 && retry_ms_ <= at_ms) return;
  if (retry_ != 0) loop_->CancelCall(retry_);
  retry_ = loop_->CallAt(at_ms, [this] { RetryAll(); });
  retry_ms_ = at_ms;
}

void FlowControl::RetryAll() {
  retry_ = 0;
  const int64_t now_ms = EventLoop::NowMs();
  std::vector<std::shared_ptr<RpcAgent>> retrying;
  retrying.swap(waiting_);
  for (const std::shared_ptr<RpcAgent>& sender : retrying) {
    if (sender->is_dropped || !sender->is_waiting) continue;
    sender->is_waiting = false;
    const std::shared_ptr<RpcAgent> destination = sender->waits_for.lock();
    if (destination != nullptr && destination != sender &&
        now_ms - sender->wait_began_ms >= limits_.patience_ms) {
      destination->backlog.GiveUpWaiting();
    }
    sender->client->ResumeReading();
  }
}

void FlowControl::Forget(RpcAgent* agent) {
  if (agent->backlog.IsStuck()) --stuck_count_;
  const auto is_agent = [agent](const auto& waiting) { return waiting.get() == agent; };
  waiting_.erase(std::remove_if(waiting_.begin(), waiting_.end(), is_agent), waiting_.end());
  Retry();  // for its destination, or for the memory
}

}  // namespace bsp
