// The pending messages of one event service, in the order in which they run: immediate ones first,
// in the order of posting, then the others by due time, equal ones in the order of posting.
//
// Posting threads leave their messages in an inbox, a stack that takes one compare-and-swap, so
// that they never wait for each other or for the service's thread. Whoever holds the queue mutex
// takes the whole content of the inbox and turns it into posting order. Immediate messages, which
// are the mass, run straight from there. What has to wait longer is sorted in: messages with a due
// time into a heap, and immediate ones, where Clear has to look at all that there is, into a list.
//
// The heap is a leftist one: a binary tree in which no message is before its parent and the way
// down to the right is the shortest way out, thus at most logarithmic in length. Everything is done
// by merging two trees along their right edges.
//
// Clear(id) has to find and take out messages from the middle, and is how a module cancels a timer,
// so it must not walk over everything that waits. Sorted messages with an id above 0 are entered in
// an index: a hash table with one entry for each id in use, which is the first message of that id;
// the others of the id hang on it in a ring.
//
// All of these link the messages themselves. So posting allocates the message and nothing else, an
// operation on one message is at worst logarithmic in the number that wait, and sorting in cannot
// fail, also where memory is out: the table of ids, which grows by doubling, stays as it is then
// and only gets slower. An array as heap was rejected for its doubling, which can fail and stops
// everybody for milliseconds; a pairing heap for single steps that are linear; a linked queue as
// inbox because a poster that is preempted half way hides the finished posts of others, and a
// Clear after such a post would miss it.
#ifndef BSP_EVENT_MESSAGE_QUEUE_H_
#define BSP_EVENT_MESSAGE_QUEUE_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "bsp/event/message.h"
#include "bsp/event/message_memory.h"

namespace bsp {

// A message with its place in the queue. All links are those of inbox and queue alone.
struct QueuedMessage final : Message {
  static void* operator new(size_t size) { return MessageMemory::Take(size); }
  static void operator delete(void* block) { MessageMemory::Give(block); }

  bool is_timed = false;  // stands in the heap, else in the list
  union {
    QueuedMessage* previous = nullptr;  // in the list
    QueuedMessage* parent;              // in the heap
  };
  union {
    QueuedMessage* next = nullptr;  // in the list and in the inbox
    QueuedMessage* left;            // in the heap
  };
  QueuedMessage* right = nullptr;
  int32_t rank = 0;    // messages on the shortest way down out of the heap, this one included
  uint64_t order = 0;  // of entry into the heap, decides between equal times
  QueuedMessage* ring_previous = nullptr;  // neighbours in the ring of the same id
  QueuedMessage* ring_next = nullptr;
  QueuedMessage* bucket_next = nullptr;  // first message of another id in the same bucket
};

constexpr size_t kCacheLine = 64;  // bytes that one processor core takes from another at a time

// Where messages wait until somebody who holds the queue mutex fetches them.
//
// Threads: any, without a lock.
class alignas(kCacheLine) MessageInbox {
 public:
  MessageInbox() = default;
  MessageInbox(const MessageInbox&) = delete;
  MessageInbox& operator=(const MessageInbox&) = delete;
  ~MessageInbox();

  void Push(std::unique_ptr<QueuedMessage> message);
  bool IsEmpty() const;

  // All messages in the order of Push, linked by `next`; now the caller's.
  QueuedMessage* TakeAll();

 private:
  std::atomic<QueuedMessage*> last_{nullptr};
};

// Finds the messages of an id. Owns nothing.
class MessageIdIndex {
 public:
  void Insert(QueuedMessage* message);
  void Remove(QueuedMessage* message);

  // One of the messages of `id`, null when there is none.
  QueuedMessage* Find(int id);

  void Swap(MessageIdIndex* other);

 private:
  void Grow();
  // Puts the messages of a former bucket into those of now.
  void Distribute(QueuedMessage* chain);

  // The link that leads to the first message of `id`, or the null link at the end of its bucket.
  QueuedMessage** LinkOf(int id);

  QueuedMessage* first_bucket_ = nullptr;  // the only one until the first Grow succeeds, then null
  std::vector<QueuedMessage*> buckets_;    // heads of chains by bucket_next; 0 or a power of two
  size_t used_ids_ = 0;
};

// Messages by due time, equal ones in order of entry. Owns nothing.
class MessageHeap {
 public:
  QueuedMessage* top() const { return top_; }
  void Insert(QueuedMessage* message);
  void Remove(QueuedMessage* message);
  void Swap(MessageHeap* other);

 private:
  QueuedMessage* top_ = nullptr;
  uint64_t inserted_ = 0;
};

// Threads: Post and HasPosted any; everything else under the queue mutex of the service.
class MessageQueue {
 public:
  MessageQueue() = default;
  MessageQueue(const MessageQueue&) = delete;
  MessageQueue& operator=(const MessageQueue&) = delete;
  ~MessageQueue();

  void Post(std::unique_ptr<QueuedMessage> message) { inbox_.Push(std::move(message)); }

  // Something was posted that the calls under the mutex have not seen yet.
  bool HasPosted() const { return !inbox_.IsEmpty(); }

  // The next message to run, null when there is none. Sees all that was posted.
  const Message* First();

  // Takes out what First gave last, which was not null.
  std::unique_ptr<QueuedMessage> PopFirst();

  // Moves all messages of `id` (above 0), or all that there are, into *removed, which was empty.
  void Remove(int id, MessageQueue* removed);
  void RemoveAll(MessageQueue* removed);

 private:
  bool SortInToImmediate();
  void SortIn(QueuedMessage* message);
  void SortInAll();
  void Unlink(QueuedMessage* message);
  void AppendToList(QueuedMessage* message);
  void UnlinkFromList(QueuedMessage* message);

  MessageInbox inbox_;  // on cache lines of its own: posters write it while others work below

  // From here on all is touched under the mutex alone. The messages in the list were posted before
  // those that are fetched, these before those in the inbox.
  alignas(kCacheLine) QueuedMessage* first_immediate_ = nullptr;  // the list
  QueuedMessage* last_immediate_ = nullptr;
  QueuedMessage* fetched_ = nullptr;  // taken from the inbox, not sorted in yet, linked by `next`
  MessageHeap timed_;
  MessageIdIndex index_;  // of list and heap
};

}  // namespace bsp

#endif  // BSP_EVENT_MESSAGE_QUEUE_H_
