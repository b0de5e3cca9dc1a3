// After a short count or EAGAIN the kernel reports by itself when the socket has room. After a
// chunk that went out whole it does not, since the socket never was full; nor after ENOBUFS, where
// trying on at once made 196000 vain calls a second. The queue tells which it was, and whoever owns
// it sees to the next try.
//
// It is handed to the kernel as it lies, block by block, without a copy.
#include "bsp/net/send_queue.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <new>

#include "bsp/base/socket.h"
#include "bsp/log/log.h"

namespace bsp {
namespace {

constexpr size_t kChunk = 102400;   // most bytes of one send unless whole ones are asked for
constexpr size_t kMaxPieces = 256;  // 4 KiB of iovec on the stack, 1.1 MiB of blocks

bool IsShortOfMemory(int error) { return error == ENOBUFS || error == ENOMEM; }

bool IsFull(int error) { return error == EAGAIN || error == EWOULDBLOCK; }

}  // namespace

SendQueue::Rest SendQueue::Send(Socket* socket, const iovec& head, const iovec& body) {
  if (size() > 0 || is_torn_) {
    Append(head, body);
    return rest_;
  }
  const size_t length = head.iov_len + body.iov_len;
  const size_t most = sends_whole_ ? size_t{INT_MAX} : kChunk;
  iovec pieces[] = {head, body};
  pieces[0].iov_len = std::min(head.iov_len, most);
  pieces[1].iov_len = std::min(body.iov_len, most - pieces[0].iov_len);
  const size_t chunk = pieces[0].iov_len + pieces[1].iov_len;
  size_t taken = 0;
  rest_ = Rest::kNone;
  if (chunk > 0) taken = Transmit(socket, pieces, pieces[1].iov_len > 0 ? 2 : 1, chunk, &rest_);
  if (taken == length) return rest_ = Rest::kNone;
  if (rest_ == Rest::kNone) rest_ = Rest::kMore;
  Copy(head, taken);
  Copy(body, taken - std::min(taken, head.iov_len));
  return rest_;
}

void SendQueue::Append(const iovec& head, const iovec& body) {
  if (rest_ == Rest::kNone) rest_ = Rest::kMore;
  Copy(head, 0);
  Copy(body, 0);
}

SendQueue::Rest SendQueue::Write(Socket* socket) {
  if (is_torn_ || size() == 0) return rest_ = Rest::kNone;
  iovec pieces[kMaxPieces];
  const size_t count = bytes_.Pieces(pieces, kMaxPieces, sends_whole_ ? size_t{INT_MAX} : kChunk);
  size_t chunk = 0;
  for (size_t i = 0; i < count; ++i) chunk += pieces[i].iov_len;
  rest_ = Rest::kMore;
  bytes_.ReadBytes(nullptr, Transmit(socket, pieces, count, chunk, &rest_));
  if (size() == 0) rest_ = Rest::kNone;
  return rest_;
}

size_t SendQueue::Transmit(Socket* socket, const iovec* pieces, size_t count, size_t length,
                           Rest* rest) {
  int sent = -1;
  do {
    sent = count == 1 ? socket->Send(static_cast<const char*>(pieces->iov_base),
                                     static_cast<int>(pieces->iov_len))
                      : socket->SendPieces(pieces, static_cast<int>(count));
  } while (sent == -1 && Socket::ErrorNo() == EINTR);
  if (sent > 0) BSP_LOG_DEBUG(MOD_BSP, "send %d bytes.", sent);
  if (sent >= 0) {
    if (static_cast<size_t>(sent) < length) *rest = Rest::kRefused;
    taken_bytes_ += static_cast<size_t>(sent);
    return static_cast<size_t>(sent);
  }
  const int error = Socket::ErrorNo();
  if (IsFull(error)) *rest = Rest::kRefused;
  if (IsShortOfMemory(error)) *rest = Rest::kLater;
  return IsFull(error) || IsShortOfMemory(error) ? 0 : length;
}

void SendQueue::Copy(const iovec& piece, size_t from) {
  if (is_torn_ || from >= piece.iov_len) return;
  try {
    bytes_.WriteBytes(static_cast<const char*>(piece.iov_base) + from, piece.iov_len - from);
  } catch (const std::bad_alloc&) {
    is_torn_ = true;
    BSP_LOG_ERROR(MOD_BSP, "no memory for %zu bytes to send, the connection is given up",
                  piece.iov_len);
  }
}

}  // namespace bsp
