#include "bsp/event/message_queue.h"

#include <new>
#include <utility>

namespace bsp {
namespace {

constexpr size_t kFirstBuckets = 16;

// Multiplication by 2^32 / golden ratio, top bits kept: spreads ids that differ in any of their
// bits.
size_t BucketOf(int id, size_t buckets) {
  const uint32_t mixed = static_cast<uint32_t>(id) * 2654435769u;
  return static_cast<size_t>((static_cast<uint64_t>(mixed) * buckets) >> 32);
}

bool IsBefore(const QueuedMessage* a, const QueuedMessage* b) {
  return a->when != b->when ? a->when < b->when : a->order < b->order;
}

int32_t RankOf(const QueuedMessage* tree) { return tree != nullptr ? tree->rank : 0; }

void SetRight(QueuedMessage* parent, QueuedMessage* child) {
  parent->right = child;
  if (child != nullptr) child->parent = parent;
}

// Puts the shorter way out to the right. True when the rank of `tree` changed by that.
bool Lean(QueuedMessage* tree) {
  if (RankOf(tree->left) < RankOf(tree->right)) std::swap(tree->left, tree->right);
  const int32_t rank = RankOf(tree->right) + 1;
  return std::exchange(tree->rank, rank) != rank;
}

// One tree of two. Weaves the right edges together on the way down, each at most logarithmic in
// length, and leans all that it passed on the way up. The result has no parent.
QueuedMessage* Merge(QueuedMessage* a, QueuedMessage* b) {
  if (a == nullptr || b == nullptr) {
    QueuedMessage* const top = a != nullptr ? a : b;
    if (top != nullptr) top->parent = nullptr;
    return top;
  }
  if (IsBefore(b, a)) std::swap(a, b);
  QueuedMessage* const top = a;
  top->parent = nullptr;
  while (a->right != nullptr) {
    if (IsBefore(b, a->right)) {
      QueuedMessage* const pushed_down = a->right;
      SetRight(a, b);
      b = pushed_down;
    }
    a = a->right;
  }
  SetRight(a, b);
  for (; a != nullptr; a = a->parent) Lean(a);
  return top;
}

void DeleteChain(QueuedMessage* chain) {
  while (chain != nullptr) delete std::exchange(chain, chain->next);
}

}  // namespace

std::atomic<int32_t> Message::msg_num{0};

MessageInbox::~MessageInbox() { DeleteChain(TakeAll()); }

void MessageInbox::Push(std::unique_ptr<QueuedMessage> message) {
  QueuedMessage* const added = message.release();
  added->next = last_.load(std::memory_order_relaxed);
  // Pairs with the exchange in TakeAll, which sees the content of the message, and, in the one
  // order of all such accesses, with IsEmpty: see the sleep in EventService.
  while (!last_.compare_exchange_weak(added->next, added, std::memory_order_seq_cst,
                                      std::memory_order_relaxed)) {
  }
}

bool MessageInbox::IsEmpty() const { return last_.load(std::memory_order_seq_cst) == nullptr; }

QueuedMessage* MessageInbox::TakeAll() {
  if (last_.load(std::memory_order_relaxed) == nullptr) return nullptr;
  QueuedMessage* message = last_.exchange(nullptr, std::memory_order_acquire);
  QueuedMessage* first = nullptr;
  while (message != nullptr) {
    QueuedMessage* const earlier = message->next;
    message->next = first;
    first = message;
    message = earlier;
  }
  return first;
}

void MessageIdIndex::Grow() {
  std::vector<QueuedMessage*> grown;
  try {
    grown.resize(buckets_.empty() ? kFirstBuckets : 2 * buckets_.size());
  } catch (const std::bad_alloc&) {
    return;  // the chains get longer, that is all
  }
  grown.swap(buckets_);
  Distribute(std::exchange(first_bucket_, nullptr));
  for (QueuedMessage* chain : grown) Distribute(chain);
}

void MessageIdIndex::Distribute(QueuedMessage* chain) {
  while (chain != nullptr) {
    QueuedMessage*& head = buckets_[BucketOf(chain->id, buckets_.size())];
    QueuedMessage* const next = chain->bucket_next;
    chain->bucket_next = head;
    head = chain;
    chain = next;
  }
}

QueuedMessage** MessageIdIndex::LinkOf(int id) {
  QueuedMessage** link =
      buckets_.empty() ? &first_bucket_ : &buckets_[BucketOf(id, buckets_.size())];
  while (*link != nullptr && (*link)->id != id) link = &(*link)->bucket_next;
  return link;
}

QueuedMessage* MessageIdIndex::Find(int id) { return *LinkOf(id); }

void MessageIdIndex::Insert(QueuedMessage* message) {
  if (used_ids_ > buckets_.size()) Grow();
  QueuedMessage** const link = LinkOf(message->id);
  QueuedMessage* const first = *link;
  if (first == nullptr) {
    message->ring_previous = message->ring_next = message;
    message->bucket_next = nullptr;
    *link = message;
    ++used_ids_;
    return;
  }
  message->ring_next = first;
  message->ring_previous = first->ring_previous;
  first->ring_previous->ring_next = message;
  first->ring_previous = message;
}

void MessageIdIndex::Remove(QueuedMessage* message) {
  QueuedMessage** const link = LinkOf(message->id);
  QueuedMessage* const heir = message->ring_next;
  if (heir == message) {
    *link = message->bucket_next;
    --used_ids_;
    return;
  }
  if (*link == message) {
    heir->bucket_next = message->bucket_next;
    *link = heir;
  }
  heir->ring_previous = message->ring_previous;
  message->ring_previous->ring_next = heir;
}

void MessageIdIndex::Swap(MessageIdIndex* other) {
  std::swap(first_bucket_, other->first_bucket_);
  buckets_.swap(other->buckets_);
  std::swap(used_ids_, other->used_ids_);
}

void MessageHeap::Insert(QueuedMessage* message) {
  message->is_timed = true;
  message->parent = message->left = message->right = nullptr;
  message->rank = 1;
  message->order = inserted_++;
  top_ = Merge(top_, message);
}

void MessageHeap::Remove(QueuedMessage* message) {
  message->is_timed = false;
  QueuedMessage* parent = message->parent;
  QueuedMessage* const rest = Merge(message->left, message->right);
  if (parent == nullptr) {
    top_ = rest;
    return;
  }
  (parent->left == message ? parent->left : parent->right) = rest;
  if (rest != nullptr) rest->parent = parent;
  // Ranks above a change shrink along a shortest way only, so that this ends soon.
  while (parent != nullptr && Lean(parent)) parent = parent->parent;
}

void MessageHeap::Swap(MessageHeap* other) {
  std::swap(top_, other->top_);
  std::swap(inserted_, other->inserted_);
}

MessageQueue::~MessageQueue() {
  DeleteChain(first_immediate_);
  DeleteChain(fetched_);
  QueuedMessage* message = timed_.top();
  while (message != nullptr) {  // down to a leaf, which goes, and on from its parent
    QueuedMessage*& child = message->left != nullptr ? message->left : message->right;
    if (child != nullptr) {
      message = std::exchange(child, nullptr);
    } else {
      delete std::exchange(message, message->parent);
    }
  }
}

const Message* MessageQueue::First() {
  if (first_immediate_ != nullptr) return first_immediate_;
  if (SortInToImmediate()) return fetched_;
  fetched_ = inbox_.TakeAll();
  return SortInToImmediate() ? fetched_ : timed_.top();
}

// Sorts in what was fetched, up to the first immediate message. False when there is none.
bool MessageQueue::SortInToImmediate() {
  while (fetched_ != nullptr && fetched_->when != 0) {
    SortIn(std::exchange(fetched_, fetched_->next));
  }
  return fetched_ != nullptr;
}

std::unique_ptr<QueuedMessage> MessageQueue::PopFirst() {
  QueuedMessage* first = first_immediate_;
  if (first == nullptr && fetched_ != nullptr) {
    first = std::exchange(fetched_, fetched_->next);
  } else {
    if (first == nullptr) first = timed_.top();
    Unlink(first);
  }
  return std::unique_ptr<QueuedMessage>(first);
}

void MessageQueue::Remove(int id, MessageQueue* removed) {
  SortInAll();
  while (QueuedMessage* const message = index_.Find(id)) {
    Unlink(message);
    removed->AppendToList(message);
  }
}

void MessageQueue::RemoveAll(MessageQueue* removed) {
  SortInAll();
  std::swap(first_immediate_, removed->first_immediate_);
  std::swap(last_immediate_, removed->last_immediate_);
  timed_.Swap(&removed->timed_);
  index_.Swap(&removed->index_);
}

void MessageQueue::SortInAll() {
  while (fetched_ != nullptr) SortIn(std::exchange(fetched_, fetched_->next));
  fetched_ = inbox_.TakeAll();
  while (fetched_ != nullptr) SortIn(std::exchange(fetched_, fetched_->next));
}

void MessageQueue::SortIn(QueuedMessage* message) {
  if (message->id > 0) index_.Insert(message);
  if (message->when != 0) {
    timed_.Insert(message);
  } else {
    AppendToList(message);
  }
}

void MessageQueue::Unlink(QueuedMessage* message) {
  if (message->id > 0) index_.Remove(message);
  if (message->is_timed) {
    timed_.Remove(message);
  } else {
    UnlinkFromList(message);
  }
}

void MessageQueue::AppendToList(QueuedMessage* message) {
  message->previous = last_immediate_;
  message->next = nullptr;
  (last_immediate_ != nullptr ? last_immediate_->next : first_immediate_) = message;
  last_immediate_ = message;
}

void MessageQueue::UnlinkFromList(QueuedMessage* message) {
  (message->previous != nullptr ? message->previous->next : first_immediate_) = message->next;
  (message->next != nullptr ? message->next->previous : last_immediate_) = message->previous;
}

}  // namespace bsp
