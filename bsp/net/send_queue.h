// The bytes that one connection has to send, and how far they have come.
#ifndef BSP_NET_SEND_QUEUE_H_
#define BSP_NET_SEND_QUEUE_H_

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>

#include "bsp/net/event_loop.h"
#include "bsp/util/memory_buffer.h"

namespace bsp {

// Bytes leave in the order in which they came. What the socket takes at once goes straight from the
// caller's memory; only the rest is copied.
//
// Threads: one at a time.
class SendQueue {
 public:
  // What is left after an operation, and what brings it on its way.
  enum class Rest {
    kNone,     // nothing is left
    kRefused,  // the socket is full: the kernel reports when it can take more
    kMore,     // a chunk is gone whole: the next may go at once
    kLater     // the kernel is short of memory and will not report: try after a moment
  };

  // Off: one operation hands at most 102400 bytes to the socket. On: what it takes.
  explicit SendQueue(bool sends_whole) : sends_whole_(sends_whole) {}

  // Two pieces, either may be empty, behind what is queued; to the socket at once when nothing is.
  Rest Send(Socket* socket, const iovec& head, const iovec& body);

  // The same without the socket. Without memory for it the queue is torn from then on.
  void Append(const iovec& head, const iovec& body);

  // Hands the first chunk to the socket. Bytes that a broken socket will never take are dropped;
  // the read side tells of it.
  Rest Write(Socket* socket);

  size_t size() const { return bytes_.size(); }
  Rest rest() const { return rest_; }

  // Bytes that wait because the socket is full; 0 while they only wait for their first try.
  size_t RefusedBytes() const { return rest_ == Rest::kRefused ? bytes_.size() : 0; }

  // What the socket has to be watched for.
  unsigned int Mask() const {
    constexpr unsigned int kIdle = EVENT_READ | EVENT_ERROR;
    return rest_ == Rest::kRefused ? kIdle | EVENT_WRITE : kIdle;
  }

  // Bytes that the socket has taken in all.
  uint64_t taken_bytes() const { return taken_bytes_; }

  // Memory ran out in the midst of a frame: nothing may follow it, the connection has to go.
  bool is_torn() const { return is_torn_; }

 private:
  // One system call; the bytes that need not be sent again, `length` at most, and *rest.
  size_t Transmit(Socket* socket, const iovec* pieces, size_t count, size_t length, Rest* rest);
  void Copy(const iovec& piece, size_t from);

  const bool sends_whole_;
  MemoryBuffer bytes_;
  Rest rest_ = Rest::kNone;
  uint64_t taken_bytes_ = 0;
  bool is_torn_ = false;
};

}  // namespace bsp

#endif  // BSP_NET_SEND_QUEUE_H_
