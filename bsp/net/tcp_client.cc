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
// system call. What the queue holds and what brings it on its way is SendQueue's matter; who does
// not wait for the kernel is called again at the end of the loop's batch, which also lets other
// connections have a turn, or a moment later.
//
// Reading goes through one area a loop, not one a connection: a thousand connections on one loop
// share it. It begins on a page: an area 8 to 24 bytes behind one made the kernel's copy of a large
// receive up to nine times slower. It is not on the stack: small threads have 64 KiB or less. A
// large message can go round the area and the buffer (ByteSink): a megabyte through blocks costs
// two more copies and the page faults of memory that the allocator gives back after each.
#include "bsp/net/tcp_client.h"

#include <algorithm>
#include <cerrno>

#include "bsp/log/log.h"
#include "bsp/net/send_queue.h"

namespace bsp {

namespace {

constexpr size_t kChunk = 102400;  // most bytes of one recv
// So that a fast sender cannot keep the thread for itself.
constexpr int kReadsPerTurn = 16;
constexpr size_t kBytesPerTurn = kReadsPerTurn * kChunk;

// Turns for what a connection has left when it fails. The kernel buffers some MiB; a turn is 1.6 MB
// or one piece for the sink, 32 KiB at least.
constexpr int kLastTurns = 1024;

constexpr size_t kGatherMost = 16384;  // above it the copy costs more than the system call
constexpr int64_t kLaterMs = 10;       // until a kernel without memory is asked again
constexpr unsigned int kIdleMask = EVENT_READ | EVENT_ERROR;

bool IsShortOfMemory(int error) { return error == ENOBUFS || error == ENOMEM; }

bool IsBlocked(int error) { return error == EAGAIN || error == EWOULDBLOCK; }

iovec PieceOf(const char* data, size_t length) { return {const_cast<char*>(data), length}; }

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
  recv_data_ = MemoryBuffer::Create();
  send_data_ = std::make_unique<SendQueue>(send_whole_);
  socket_ = socket;
  socket_->SetBlocking(1);
  fd_ = socket_->GetNativeSocket();
  is_paused_ = false;
  is_signal_due_ = false;
  is_ending_ = false;
  reads_to_end_ = false;
  flush_noted_ = false;
  BSP_LOG_DEBUG(MOD_BSP, "add event %s[%d].", address_.Host(), address_.Port());
  armed_ = loop_->AddEvent(socket_, kIdleMask, this, weak_from_this()) ? kIdleMask : 0;
  return true;
}

bool TcpClient::IsWatched() {
  const std::lock_guard<PiMutex> lock(mutex_);
  return armed_ != 0;
}

void TcpClient::Disconnect() {
  if (process_.IsForeign()) {  // no lock: it may be held by a thread that this process has not got
    if (socket_ != nullptr) socket_->Close();
    socket_.reset();
    return;
  }
  const std::scoped_lock lock(read_mutex_, mutex_);
  if (flush_noted_ && HasSocket()) {
    size_t before = 0;
    do {
      before = send_data_->size();
    } while (send_data_->Write(socket_.get()) == SendQueue::Rest::kMore &&
             send_data_->size() < before);
  }
  loop_->RemoveEvent(socket_);
  flush_noted_ = false;
  armed_ = 0;
  fd_ = -1;
  if (socket_ == nullptr) return;
  socket_->Close();
  socket_.reset();
}

bool TcpClient::Send(const char* data, size_t length) { return Send(data, length, nullptr, 0); }

bool TcpClient::Send(const char* head, size_t head_length, const char* body, size_t body_length) {
  if (process_.IsForeign()) return false;  // not even logged: the log has locks of its own
  const std::lock_guard<PiMutex> lock(mutex_);
  if (!CanSend(head, head_length) || !CanSend(body, body_length)) return false;
  const iovec first = PieceOf(head, head_length);
  const iovec second = PieceOf(body, body_length);
  const bool is_gathering = gathers_sends_ && send_data_->RefusedBytes() == 0;
  if (send_data_->size() > 0 && !(is_gathering && flush_noted_)) {
    send_data_->Append(first, second);  // the loop goes on with it
    if (send_data_->is_torn()) GiveUpTorn();
    return true;
  }
  if (is_gathering && head_length + body_length <= kGatherMost && NoteFlush()) {
    send_data_->Append(first, second);
    if (send_data_->size() < kChunk && !send_data_->is_torn()) return true;
    send_data_->Write(socket_.get());
  } else {
    if (send_data_->size() > 0) send_data_->Write(socket_.get());  // small ones in front
    send_data_->Send(socket_.get(), first, second);
  }
  Settle();
  return true;
}

size_t TcpClient::SendBacklog() {
  const std::lock_guard<PiMutex> lock(mutex_);
  return send_data_ != nullptr ? send_data_->RefusedBytes() : 0;
}

uint64_t TcpClient::SentBytes() {
  const std::lock_guard<PiMutex> lock(mutex_);
  return send_data_ != nullptr ? send_data_->taken_bytes() : 0;
}

bool TcpClient::IsConnected() { return GetNativeSocket() != -1; }

int TcpClient::GetNativeSocket() { return process_.IsForeign() ? -1 : fd_.load(); }

bool TcpClient::SetOption(int level, int name, const void* value, unsigned int length) {
  const std::lock_guard<PiMutex> lock(mutex_);
  return HasSocket() && socket_->SetOption(level, name, value, length);
}

void TcpClient::ResumeReading() {
  if (!is_paused_) return;
  is_paused_ = false;
  is_signal_due_ = true;
  loop_->CallAgain(weak_from_this(), EVENT_READ);
}

void TcpClient::OnReadToEnd() { reads_to_end_ = true; }

void TcpClient::OnRead() {
  if (is_paused_) return;
  const std::shared_ptr<TcpClient> self = shared_from_this();
  const auto [socket, buffer] = ReadSide();
  if (buffer == nullptr) {
    loop_->RemoveEvent(socket);
    SignalError(self, BSP_NEW_ERROR(-1, "recv_data_ is null."));
    return;
  }
  if (is_signal_due_) {  // what was left at the pause comes first
    is_signal_due_ = false;
    SignalRead(self, buffer);
    if (is_paused_) return;
  }
  bool any = false;
  const Got got = Read(socket, buffer, &any);
  if (got == Got::kGone) return;
  is_ending_ = got == Got::kFailed;
  if (any && (got != Got::kFailed || deliver_last_bytes_)) SignalRead(self, buffer);
  if (got == Got::kMore) loop_->CallAgain(self, EVENT_READ);
  if (got == Got::kLater) CallLater(&TcpClient::OnRead);
  if (got == Got::kFailed && Unregister(socket)) {
    SignalError(self, BSP_NEW_ERROR(-1, "recv failed."));
  }
}

void TcpClient::OnWrite() {
  const std::shared_ptr<TcpClient> self = shared_from_this();
  std::shared_ptr<Socket> socket;
  bool has_queue = false;
  {
    const std::lock_guard<PiMutex> lock(mutex_);
    flush_noted_ = false;
    later_noted_ = false;
    has_queue = send_data_ != nullptr;
    if (!has_queue) {
      socket = socket_;
    } else if (HasSocket()) {
      send_data_->Write(socket_.get());
      Settle();
    }
  }
  if (has_queue) {
    if (write_hook_) write_hook_();
    return;
  }
  loop_->RemoveEvent(socket);
  SignalError(self, BSP_NEW_ERROR(-1, "send_data_ is null."));
}

void TcpClient::OnError() {
  const std::shared_ptr<TcpClient> self = shared_from_this();
  const auto [socket, buffer] = ReadSide();
  Got got = deliver_last_bytes_ ? Got::kMore : Got::kGone;
  is_ending_ = true;
  for (int turn = 0; turn < kLastTurns && got == Got::kMore; ++turn) {
    bool any = false;
    got = Read(socket, buffer, &any);
    if (any) SignalRead(self, buffer);
  }
  SignalError(self, BSP_NEW_ERROR(-1, "socket error."));
  if (!HasOtherSocket(socket)) Disconnect();  // else a slot has connected anew
}

std::pair<std::shared_ptr<Socket>, std::shared_ptr<MemoryBuffer>> TcpClient::ReadSide() {
  const std::lock_guard<PiMutex> lock(read_mutex_);
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

void TcpClient::Settle() {
  if (send_data_->is_torn()) {
    GiveUpTorn();
    return;
  }
  switch (send_data_->rest()) {
    case SendQueue::Rest::kNone:
      Arm(send_data_->Mask());
      return;
    case SendQueue::Rest::kRefused:
      if (!Arm(send_data_->Mask())) NoteLater();  // the kernel would not call
      return;
    case SendQueue::Rest::kMore:
      if (!NoteFlush()) Arm(kIdleMask | EVENT_WRITE);  // which reports at once
      return;
    case SendQueue::Rest::kLater:
      NoteLater();
      return;
  }
}

bool TcpClient::Arm(unsigned int mask) {
  if (mask == armed_) return true;
  if (!loop_->UpdateEvent(socket_, mask)) return false;
  armed_ = mask;
  return true;
}

bool TcpClient::NoteFlush() {
  if (flush_noted_) return true;
  flush_noted_ = loop_->IsLoopThread() && loop_->CallAgain(weak_from_this(), EVENT_WRITE);
  return flush_noted_;
}

// A connection that is not registered any more has its end told by the read side.
void TcpClient::NoteLater() {
  if (later_noted_ || armed_ == 0) return;
  later_noted_ = CallLater(&TcpClient::OnWrite);
}

bool TcpClient::CallLater(void (TcpClient::*step)()) {
  const auto call = [weak = weak_from_this(), step] {
    const std::shared_ptr<TcpClient> self = weak.lock();
    if (self != nullptr) (self.get()->*step)();
  };
  return loop_->CallAt(EventLoop::NowMs() + kLaterMs, call) != 0;
}

// The stream has a hole: nothing may follow it. As a slot must not run under the lock, the loop
// calls.
void TcpClient::GiveUpTorn() {
  if (armed_ == 0) return;
  loop_->CallAgain(weak_from_this(), EVENT_ERROR);
}

TcpClient::Got TcpClient::Read(const std::shared_ptr<Socket>& socket,
                               const std::shared_ptr<MemoryBuffer>& buffer, bool* any) {
  if (socket == nullptr) return Got::kGone;
  // What will not be delivered is read in one turn, so that nothing of it is.
  const int most_turns = IsLosing() ? kLastTurns : 1;
  ByteSink* const sink = IsLosing() ? nullptr : sink_.get();
  size_t bytes = 0;
  for (int reads = 0; reads < kReadsPerTurn * most_turns; ++reads) {
    size_t room = kChunk;
    char* const sunk = sink != nullptr ? sink->Room(buffer, &room) : nullptr;
    if (room == 0) return Got::kAll;
    room = std::min(room, sunk != nullptr ? kBytesPerTurn : kChunk);
    char* const target = sunk != nullptr ? sunk : loop_->ReceiveArea();
    int got = 0;
    if (!Receive(socket, target, room, &got)) return Got::kGone;
    if (got > 0) {
      const auto count = static_cast<size_t>(got);
      *any = true;
      if (sunk == nullptr) buffer->WriteBytes(target, count);
      if (sunk != nullptr && sink->Took(count)) return Got::kMore;
      if (count < room && !reads_to_end_) return Got::kAll;
      bytes += count;
      if (bytes >= kBytesPerTurn * static_cast<size_t>(most_turns)) return Got::kMore;
    } else if (IsBlocked(-got)) {
      return Got::kAll;
    } else if (IsShortOfMemory(-got)) {
      return Got::kLater;
    } else if (got != -EINTR) {
      return Got::kFailed;
    }
  }
  return Got::kMore;
}

bool TcpClient::Receive(const std::shared_ptr<Socket>& socket, char* target, size_t length,
                        int* got) {
  const std::lock_guard<PiMutex> lock(read_mutex_);
  if (socket_ != socket) return false;
  *got = socket->Recv(target, static_cast<int>(length));
  if (*got == -1) *got = -Socket::ErrorNo();
  return true;
}

bool TcpClient::HasOtherSocket(const std::shared_ptr<Socket>& socket) {
  const std::lock_guard<PiMutex> lock(mutex_);
  return socket_ != nullptr && socket_ != socket;
}

bool TcpClient::Unregister(const std::shared_ptr<Socket>& socket) {
  const std::lock_guard<PiMutex> lock(mutex_);
  if (socket_ != socket) return false;
  loop_->RemoveEvent(socket_);
  armed_ = 0;
  return true;
}

}  // namespace bsp
