// A connection between two kinds of threads
// -----------------------------------------
// The loop's thread reads, and writes what a full socket had left over; callers' threads send at
// any time; the owner may disconnect on any thread. Three rules keep that sound:
//
//  - mutex_ guards the send queue and the socket pointer, and is held over the system call that
//    writes. So bytes leave in the order of the Send calls, and nobody writes to a descriptor that
//    another thread has closed and the system has given out again.
//  - read_mutex_ does the same for reading. It is a mutex of its own because one recv copies up to
//    100 KiB: callers would queue behind it. A close takes both and so waits for one non-blocking
//    system call at most. Each recv looks first whether the socket is still the one it began with.
//  - No signal is raised and no sink called with either held. A slot may send, disconnect, or drop
//    the last reference; the loop holds one of its own for the length of the call.
//
// Writing. An idle connection writes straight from Send, out of the caller's memory, and costs no
// transit through the loop. What the socket does not take is queued; readiness to write is armed
// while the queue holds something that the socket has refused, and only a change of the mask is a
// system call. After a short count or EAGAIN the kernel reports by itself when there is room. After
// a chunk that went out whole it does not, since the socket never was full; then the loop calls
// again at the end of its batch (EventLoop::Defer), which also lets other connections have a turn.
// The queue is handed to the kernel as it lies, block by block, without a copy.
//
// Reading goes through one area a thread, not one a connection: a thousand connections on one loop
// share it. It begins on a page: an area 8 to 24 bytes behind one made the kernel's copy of a large
// receive up to nine times slower. It is not on the stack: small threads have 64 KiB or less. A
// large message can go round the area and the buffer (ByteSink): a megabyte through blocks costs
// two more copies and the page faults of memory that the allocator gives back after each.
#include "bsp/net/tcp_client.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <new>

#include "bsp/log/log.h"

namespace bsp {

namespace {

constexpr size_t kChunk = 102400;  // most bytes of one recv, and of one send unless told otherwise
// So that a fast sender cannot keep the thread for itself.
constexpr int kReadsPerTurn = 16;
constexpr size_t kBytesPerTurn = kReadsPerTurn * kChunk;
constexpr int kLastTurns = 64;        // 100 MiB, above what any socket buffers
constexpr size_t kDeferMost = 16384;  // above it the copy costs more than the system call
constexpr size_t kMaxPieces = 256;    // 4 KiB of iovec on the stack, 1.1 MiB of blocks

constexpr unsigned int kIdleMask = EVENT_READ | EVENT_ERROR;
constexpr unsigned int kWritingMask = kIdleMask | EVENT_WRITE;

struct FreeArea {
  void operator()(char* area) const { ::operator delete (area, std::align_val_t{4096}); }
};

// The receive area of the calling thread, kChunk bytes.
char* ReceiveArea() {
  thread_local std::unique_ptr<char, FreeArea> area;
  if (area == nullptr) {
    area.reset(static_cast<char*>(::operator new (kChunk, std::align_val_t{4096})));
  }
  return area.get();  // NOLINT(clang-analyzer-cplusplus.NewDelete): it lives as long as the thread
}

// The kernel is short of memory: the same call may go through a moment later, and dropping the
// bytes would tear a hole into the stream.
bool IsShortOfMemory(int error) { return error == ENOBUFS || error == ENOMEM; }

bool IsBlocked(int error) { return error == EAGAIN || error == EWOULDBLOCK; }

}  // namespace

ByteSink::~ByteSink() = default;

TcpClient::TcpClient(std::shared_ptr<EventLoop> loop) : loop_(std::move(loop)) {}

TcpClient::~TcpClient() { Disconnect(); }

bool TcpClient::Connect(const std::string& host, int port) {
  const auto socket = std::make_shared<Socket>();
  if (!socket->Create(Socket::SOCKET_STREAM)) {
    BSP_LOG_ERROR(MOD_BSP, "client create failed.");
    return false;
  }
  address_.Set(host, port);
  if (!socket->Connect(address_)) {
    BSP_LOG_ERROR(MOD_BSP, "connect failed %s[%d].", host.c_str(), port);
    return false;
  }
  socket->SetBlocking(1);
  return UpdateSocket(socket);
}

bool TcpClient::UpdateSocket(const std::shared_ptr<Socket>& socket) {
  if (socket == nullptr || !socket->IsValid()) {
    BSP_LOG_ERROR(MOD_BSP, "invalid client socket.");
    return false;
  }
  const std::scoped_lock lock(read_mutex_, mutex_);
  socket_ = socket;
  socket_->SetBlocking(1);
  recv_data_ = MemoryBuffer::Create();
  send_data_ = MemoryBuffer::Create();
  flush_noted_ = false;
  BSP_LOG_DEBUG(MOD_BSP, "add event %s[%d].", address_.Host(), address_.Port());
  armed_ = loop_->AddEvent(socket_, kIdleMask, this, weak_from_this()) ? kIdleMask : 0;
  return true;
}

void TcpClient::Disconnect() {
  const std::scoped_lock lock(read_mutex_, mutex_);
  if (flush_noted_ && HasSocket()) {
    size_t before = 0;
    do {
      before = send_data_->size();
    } while (WriteQueue() == Written::kMore && send_data_->size() < before);
  }
  loop_->RemoveEvent(socket_);
  flush_noted_ = false;
  armed_ = 0;
  if (socket_ == nullptr) return;
  socket_->Close();
  socket_.reset();
}

bool TcpClient::Send(const char* data, size_t length) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!CanSend(data, length)) return false;
  SendNow(data, length);
  return true;
}

bool TcpClient::SendPair(const char* head, size_t head_length, const char* body,
                         size_t body_length) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!CanSend(head, head_length) || !CanSend(body, body_length)) return false;
  const size_t length = head_length + body_length;
  if (!send_whole_ || length > INT_MAX || send_data_->size() > 0 || body_length == 0) {
    SendNow(head, head_length);
    SendNow(body, body_length);
    return true;
  }
  const iovec pieces[] = {{const_cast<char*>(head), head_length},
                          {const_cast<char*>(body), body_length}};
  bool is_blocked = false;
  const size_t taken = Transmit(pieces, 2, length, &is_blocked);
  const size_t of_head = std::min(taken, head_length);
  const size_t of_body = taken - of_head;
  if (of_head < head_length) send_data_->WriteBytes(head + of_head, head_length - of_head);
  if (of_body < body_length) send_data_->WriteBytes(body + of_body, body_length - of_body);
  AwaitWritable(is_blocked ? Written::kBlocked : taken < length ? Written::kMore : Written::kAll);
  return true;
}

bool TcpClient::SendDeferred(const char* data, size_t length) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!CanSend(data, length)) return false;
  const bool is_blocked = send_data_->size() > 0 && !flush_noted_;
  if (is_blocked || (length <= kDeferMost && NoteFlush())) {
    send_data_->WriteBytes(data, length);
    if (!is_blocked && send_data_->size() >= kChunk) AwaitWritable(WriteQueue());
    return true;
  }
  if (send_data_->size() > 0) AwaitWritable(WriteQueue());  // a large piece behind small ones
  SendNow(data, length);
  return true;
}

size_t TcpClient::SendBacklog() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return send_data_ != nullptr ? send_data_->size() : 0;
}

bool TcpClient::IsConnected() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return HasSocket();
}

int TcpClient::GetNativeSocket() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return socket_ != nullptr ? socket_->GetNativeSocket() : -1;
}

bool TcpClient::SetOption(int level, int name, const void* value, unsigned int length) {
  const std::lock_guard<std::mutex> lock(mutex_);
  return HasSocket() && socket_->SetOption(level, name, value, length);
}

void TcpClient::OnRead() {
  const std::shared_ptr<TcpClient> self = shared_from_this();
  const auto [socket, buffer] = ReadSide();
  if (buffer == nullptr) {
    loop_->RemoveEvent(socket);
    SignalError(self, BSP_NEW_ERROR(-1, "recv_data_ is null."));
    return;
  }
  bool any = false;
  const Got got = Read(socket, buffer, &any);
  if (got == Got::kGone) return;
  if (any && (got != Got::kFailed || deliver_last_bytes_)) SignalRead(self, buffer);
  if (got == Got::kMore) ReadAgain(socket);
  if (got == Got::kFailed && Unregister(socket)) {
    SignalError(self, BSP_NEW_ERROR(-1, "recv failed."));
  }
}

void TcpClient::OnWrite() {
  const std::shared_ptr<TcpClient> self = shared_from_this();
  std::shared_ptr<Socket> socket;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    flush_noted_ = false;
    if (send_data_ != nullptr) {
      if (HasSocket()) AwaitWritable(WriteQueue());
      return;
    }
    socket = socket_;
  }
  loop_->RemoveEvent(socket);
  SignalError(self, BSP_NEW_ERROR(-1, "send_data_ is null."));
}

void TcpClient::OnError() {
  const std::shared_ptr<TcpClient> self = shared_from_this();
  const auto [socket, buffer] = ReadSide();
  Got got = deliver_last_bytes_ ? Got::kMore : Got::kGone;
  for (int turn = 0; turn < kLastTurns && got == Got::kMore; ++turn) {
    bool any = false;
    got = Read(socket, buffer, &any);
    if (any) SignalRead(self, buffer);
  }
  SignalError(self, BSP_NEW_ERROR(-1, "socket error."));
  if (!HasOtherSocket(socket)) Disconnect();  // else a slot has connected anew
}

std::pair<std::shared_ptr<Socket>, std::shared_ptr<MemoryBuffer>> TcpClient::ReadSide() {
  const std::lock_guard<std::mutex> lock(read_mutex_);
  return {socket_, recv_data_};
}

bool TcpClient::CanSend(const char* data, size_t length) const {
  if (!HasSocket()) {
    BSP_LOG_ERROR(MOD_BSP, "socket not connected.");
    return false;
  }
  if (data == nullptr && length > 0) {
    BSP_LOG_ERROR(MOD_BSP, "send of %zu bytes from a null pointer.", length);
    return false;
  }
  return true;
}

void TcpClient::SendNow(const char* data, size_t length) {
  if (length == 0) return;
  if (send_data_->size() > 0) {  // readiness is armed or a flush noted: the loop goes on with it
    send_data_->WriteBytes(data, length);
    return;
  }
  const size_t chunk = std::min(length, send_whole_ ? size_t{INT_MAX} : kChunk);
  const iovec piece = {const_cast<char*>(data), chunk};
  bool is_blocked = false;
  const size_t taken = Transmit(&piece, 1, chunk, &is_blocked);
  if (taken < length) send_data_->WriteBytes(data + taken, length - taken);
  AwaitWritable(is_blocked ? Written::kBlocked : taken < length ? Written::kMore : Written::kAll);
}

TcpClient::Written TcpClient::WriteQueue() {
  if (send_data_->size() == 0) return Written::kAll;
  iovec pieces[kMaxPieces];
  size_t count = 0;
  size_t chunk = 0;
  const size_t most = send_whole_ ? size_t{INT_MAX} : kChunk;
  for (const std::shared_ptr<Block>& block : send_data_->blocks()) {
    if (count == kMaxPieces || chunk == most) break;
    const size_t length = std::min(block->size, most - chunk);
    pieces[count++] = {block->data, length};
    chunk += length;
  }
  bool is_blocked = false;
  const size_t taken = Transmit(pieces, static_cast<int>(count), chunk, &is_blocked);
  send_data_->ReadBytes(nullptr, taken);
  if (is_blocked) return Written::kBlocked;
  return send_data_->size() > 0 ? Written::kMore : Written::kAll;
}

size_t TcpClient::Transmit(const iovec* pieces, int count, size_t length, bool* is_blocked) {
  int sent = -1;
  do {
    sent = count == 1 ? socket_->Send(static_cast<const char*>(pieces->iov_base),
                                      static_cast<int>(pieces->iov_len))
                      : socket_->SendPieces(pieces, count);
  } while (sent == -1 && Socket::ErrorNo() == EINTR);
  if (sent > 0) BSP_LOG_DEBUG(MOD_BSP, "send %d bytes.", sent);
  if (sent >= 0) {
    *is_blocked = static_cast<size_t>(sent) < length;
    return static_cast<size_t>(sent);
  }
  const int error = Socket::ErrorNo();
  *is_blocked = IsBlocked(error);
  if (IsBlocked(error) || IsShortOfMemory(error)) return 0;
  return length;  // failed for good: dropped, and the read side tells the owner
}

void TcpClient::AwaitWritable(Written written) {
  switch (written) {
    case Written::kAll:
      Arm(kIdleMask);
      return;
    case Written::kBlocked:
      flush_noted_ = false;  // the kernel calls; trying before it does is in vain
      Arm(kWritingMask);
      return;
    case Written::kMore:
      if (NoteFlush()) return;
      armed_ = 0;  // the socket may be writable already: only arming it anew reports that
      Arm(kWritingMask);
      return;
  }
}

void TcpClient::Arm(unsigned int mask) {
  if (mask != armed_ && loop_->UpdateEvent(socket_, mask)) armed_ = mask;
}

bool TcpClient::NoteFlush() {
  if (!flush_noted_) flush_noted_ = loop_->Defer(weak_from_this().lock());
  return flush_noted_;
}

TcpClient::Got TcpClient::Read(const std::shared_ptr<Socket>& socket,
                               const std::shared_ptr<MemoryBuffer>& buffer, bool* any) {
  if (socket == nullptr) return Got::kGone;
  const bool short_read_empties = loop_->ShortReadEmpties();
  size_t bytes = 0;
  for (int reads = 0; reads < kReadsPerTurn && bytes < kBytesPerTurn; ++reads) {
    size_t room = kChunk;
    char* const sunk = sink_ != nullptr ? sink_->Room(buffer, &room) : nullptr;
    room = std::min(room, sunk != nullptr ? kBytesPerTurn : kChunk);
    char* const target = sunk != nullptr ? sunk : ReceiveArea();
    int got = 0;
    if (!Receive(socket, target, room, &got)) return Got::kGone;
    if (got > 0) {
      const auto count = static_cast<size_t>(got);
      *any = true;
      if (sunk == nullptr) buffer->WriteBytes(target, count);
      if (sunk != nullptr && sink_->Took(count)) return Got::kMore;
      if (count < room && short_read_empties) return Got::kAll;
      bytes += count;
    } else if (IsBlocked(-got)) {
      return Got::kAll;
    } else if (got == 0 || (got != -EINTR && !IsShortOfMemory(-got))) {
      return Got::kFailed;
    }
  }
  return Got::kMore;
}

bool TcpClient::Receive(const std::shared_ptr<Socket>& socket, char* target, size_t length,
                        int* got) {
  const std::lock_guard<std::mutex> lock(read_mutex_);
  if (socket_ != socket) return false;
  *got = socket->Recv(target, static_cast<int>(length));
  if (*got == -1) *got = -Socket::ErrorNo();
  return true;
}

void TcpClient::ReadAgain(const std::shared_ptr<Socket>& socket) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (socket_ == socket && armed_ != 0) loop_->UpdateEvent(socket_, armed_);
}

bool TcpClient::HasOtherSocket(const std::shared_ptr<Socket>& socket) {
  const std::lock_guard<std::mutex> lock(mutex_);
  return socket_ != nullptr && socket_ != socket;
}

bool TcpClient::Unregister(const std::shared_ptr<Socket>& socket) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (socket_ != socket) return false;
  loop_->RemoveEvent(socket_);
  armed_ = 0;
  return true;
}

}  // namespace bsp
