// A call that waits, over a connection that another thread reads.
//
// The caller draws a seq, enters a waiter (MsgSem) under it into the table, sends the frame and
// waits on the waiter's semaphore. The rpc_cli thread finds the waiter by the seq of the reply,
// fills the caller's string and head, and signals. The caller's head and string lie on its stack:
// what keeps the reply step from writing to a caller that has gone is that it touches them only
// under mutex_ and only through an entry of the table, and that the guard takes the entry out under
// the same mutex before the caller goes on.
//
// Semaphores are borrowed. The reply step signals outside the mutex, so a signal may reach a
// semaphore that its call has given back meanwhile, and with it the next borrower. Two things keep
// that from ending the next call: the guard gives the semaphore back drained, and WaitReply takes a
// count only as a reason to look at `replied`.
#include "bsp/net/rpc/call_waiters.h"

#include <utility>

#include "bsp/util/semaphore.h"

namespace bsp {

void CallWaiters::Enter(const Waiter& waiter, std::atomic<uint32_t>* next_seq) {
  const std::lock_guard<std::mutex> gate(gate_);
  const std::lock_guard<PiMutex> lock(mutex_);
  waiter->lost = fails_calls_;
  Table::node_type node = TakeNode();
  node.mapped() = waiter;
  // The counter wraps; the seq of a call still in flight is passed over.
  while (calls_.count(waiter->header->seq) != 0) waiter->header->seq = next_seq->fetch_add(1);
  node.key() = waiter->header->seq;
  calls_.insert(std::move(node));
}

CallWaiters::Table::node_type CallWaiters::TakeNode() {
  if (spare_nodes_.empty()) {
    const size_t nodes = calls_.size() + 1;
    if (spare_nodes_.capacity() < nodes) spare_nodes_.reserve(2 * nodes);  // Leave must not fail
    Table maker;
    maker.emplace(0, nullptr);
    return maker.extract(maker.begin());
  }
  Table::node_type node = std::move(spare_nodes_.back());
  spare_nodes_.pop_back();
  return node;
}

void CallWaiters::Leave(const Waiter& waiter) {
  const std::lock_guard<std::mutex> gate(gate_);
  const std::lock_guard<PiMutex> lock(mutex_);
  const auto found = calls_.find(waiter->header->seq);
  if (found == calls_.end() || found->second != waiter) return;
  Table::node_type node = calls_.extract(found);
  node.mapped().reset();
  spare_nodes_.push_back(std::move(node));
}

void CallWaiters::Answer(const Frame& reply, std::string* apart) {
  const RpcHeader& head = *reply.head;
  std::shared_ptr<Semaphore> sem;
  {
    const std::lock_guard<PiMutex> lock(mutex_);
    const auto found = calls_.find(head.seq);
    if (found == calls_.end()) return;  // its caller has gone
    RpcClient::MsgSem& waiter = *found->second;
    if (waiter.replied) return;  // the first reply wins
    if (head.err_code == 0 && apart != nullptr) {
      waiter.resp.swap(*apart);
    } else if (head.err_code == 0 && reply.payload_size() > 0) {
      // The zero behind the frame becomes the zero behind the answer.
      waiter.resp.assign(reply.payload, reply.payload_size() + 1);
    }
    waiter.header->err_code = head.err_code;
    waiter.replied = true;
    sem = waiter.sem;
  }
  if (sem != nullptr) sem->Signal();
}

void CallWaiters::FailAll() {
  const std::lock_guard<PiMutex> lock(mutex_);
  fails_calls_ = true;
  for (const auto& [seq, waiter] : calls_) {
    waiter->lost = true;
    if (waiter->sem != nullptr) waiter->sem->Signal();
  }
}

void CallWaiters::Admit() {
  const std::lock_guard<std::mutex> gate(gate_);
  const std::lock_guard<PiMutex> lock(mutex_);
  fails_calls_ = false;
}

}  // namespace bsp
