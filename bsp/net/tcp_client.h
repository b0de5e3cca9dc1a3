// One TCP connection driven by an event loop: a plain byte stream in both directions.
#ifndef BSP_NET_TCP_CLIENT_H_
#define BSP_NET_TCP_CLIENT_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "bsp/base/error.h"
#include "bsp/base/macros.h"
#include "bsp/base/pi_mutex.h"
#include "bsp/base/process.h"
#include "bsp/base/socket.h"
#include "bsp/net/event_loop.h"
#include "bsp/sigslot/sigslot.h"
#include "bsp/util/memory_buffer.h"

namespace bsp {

class SendQueue;

// Where received bytes are to lie when not in the receive buffer: for a user that knows from the
// bytes so far that a large piece follows, and saves it the way through the blocks. Serves one
// connection.
//
// Threads: called on the loop's, with no lock held.
class BSP_EXPORT ByteSink {
 public:
  virtual ~ByteSink();

  // Memory for the bytes that follow those in `buffer`, which it may take out, and in *room its
  // size. Null: they go to the buffer, at most *room at a time. *room 0: nothing is to be read now;
  // the sink has paused the connection, or has more to hand out first.
  virtual char* Room(const std::shared_ptr<MemoryBuffer>& buffer, size_t* room) = 0;

  // That many bytes were put there. True: SignalRead comes before anything more is read.
  virtual bool Took(size_t count) = 0;
};

// Serves both ends: Connect opens a connection, UpdateSocket takes over an accepted one. Always
// owned by a shared pointer. There is no reconnection and no time-out: a failed connection stays
// failed until its owner calls Disconnect and Connect.
//
// Threads: Send, SendBacklog, SentBytes, IsConnected, GetNativeSocket, SetOption and Disconnect
// from any thread, also side by side; OnRead, OnWrite, OnError, PauseReading and ResumeReading are
// the loop's; both signals are raised on the loop's thread with no lock held, so a slot may call
// anything here and may drop the last reference. Connect, UpdateSocket and connecting slots belong
// to the owner and come before the loop sees the socket, or run on the loop's thread. Options are
// set before the first Connect or UpdateSocket.
//
// Forks: in a child of the process that made it, Send is refused without a word, and Disconnect
// and the destructor only close the descriptor: the connection and its place in the epoll set are
// the parent's.
class BSP_EXPORT TcpClient : public EventHandler, public std::enable_shared_from_this<TcpClient> {
 public:
  // The connection has failed or was closed by the peer. Code -1; the texts are "recv failed.",
  // "socket error.", "recv_data_ is null." and "send_data_ is null.".
  sigslot::signal2<std::shared_ptr<TcpClient>, std::shared_ptr<MSError>> SignalError;

  // New bytes are in the buffer, or with the sink. The slot takes what it can use; the rest stays
  // for the next time. Raised when the socket is empty, and in between after 1.6 MB.
  sigslot::signal2<std::shared_ptr<TcpClient>, std::shared_ptr<MemoryBuffer>> SignalRead;

  explicit TcpClient(std::shared_ptr<EventLoop> loop);
  ~TcpClient() override;
  TcpClient(const TcpClient&) = delete;
  TcpClient& operator=(const TcpClient&) = delete;

  // Opens a connection and registers it. Blocks for as long as the kernel takes. False, after a
  // log line, on failure; what was connected before stays then. The owner disconnects first.
  bool Connect(const std::string& host, int port);

  // Takes over a connected socket, makes it non-blocking and registers it, with empty buffers.
  // False, after a log line, for null or an invalid one.
  bool UpdateSocket(const std::shared_ptr<Socket>& socket);

  // False when the loop could not register the socket: nothing is ever read from it.
  bool IsWatched();

  // Removes the registration and closes. What SetGatherSends has queued is offered to the socket
  // first; what the socket does not take is lost, as with every close.
  void Disconnect();

  // Queues `length` bytes and starts writing: what the socket takes at once goes straight from
  // `data`, only the rest is copied. False, after a log line, without a valid socket. True says
  // nothing about delivery: a failing connection shows on the read side. The queue has no limit;
  // see SendBacklog.
  bool Send(const char* data, size_t length);

  // The same for two pieces in a row, in one system call where SetSendWhole is on.
  bool Send(const char* head, size_t head_length, const char* body, size_t body_length);

  // Bytes that wait because the socket was full when they were offered to it.
  size_t SendBacklog();

  // Bytes that the socket has taken since it was connected.
  uint64_t SentBytes();

  // There is a valid socket. It tells about this end only: true still after the peer has closed,
  // until Disconnect.
  bool IsConnected();

  // The descriptor, -1 without a socket.
  int GetNativeSocket();

  // Where Connect connected to; all zero on an accepted connection.
  SocketAddress& GetAddress() { return address_; }

  // setsockopt on the connection. False without one. The class sets no option by itself.
  bool SetOption(int level, int name, const void* value, unsigned int length);

  // Nothing is read any more, so that the peer's socket fills up and it has to wait. An error is
  // reported all the same, the peer's orderly close only after ResumeReading. That raises
  // SignalRead for what the slot has left, and then reads what has come meanwhile.
  void PauseReading() { is_paused_ = true; }
  void ResumeReading();

  // True in the SignalRead of the last bytes before SignalError. On the loop's thread.
  bool IsEnding() const { return is_ending_; }

  // Off by default. On: bytes that arrive together with the peer's close or a failure reach
  // SignalRead before SignalError. Off: they stay in the buffer and only the error is raised.
  void SetDeliverLastBytes(bool on) { deliver_last_bytes_ = on; }

  // Off by default: one Send or one readiness event hands at most 102400 bytes to the socket. On:
  // they hand it whatever it takes, which moves large messages with fewer copies and wake-ups, and
  // lets one busy connection hold up the others for longer.
  void SetSendWhole(bool on) { send_whole_ = on; }

  // Off by default. On, for a handler that sends many small pieces: those of up to 16 KiB that are
  // sent on the loop's thread are queued and leave together in one system call when the loop has
  // handled the events at hand (64 at most). Their order against all others stays.
  void SetGatherSends(bool on) { gathers_sends_ = on; }

  // Called on the loop's thread, with no lock held, after each OnWrite: the queue may have moved.
  void SetWriteHook(std::function<void()> hook) { write_hook_ = std::move(hook); }

  // None by default.
  void SetSink(std::shared_ptr<ByteSink> sink) { sink_ = std::move(sink); }

  void OnRead() override;
  void OnWrite() override;
  void OnError() override;
  void OnReadToEnd() override;

 private:
  // How far a read came.
  enum class Got {
    kAll,     // the socket is empty
    kMore,    // the turn is over, more may wait
    kLater,   // the kernel is short of memory
    kFailed,  // failed, or closed by the peer
    kGone     // disconnected meanwhile
  };

  // With mutex_ held.
  bool HasSocket() const { return socket_ != nullptr && socket_->IsValid(); }
  bool CanSend(const char* data, size_t length) const;
  // Sees to it that the loop goes on with the queue, or leaves us alone.
  void Settle();
  bool Arm(unsigned int mask);
  // Asks the loop for an OnWrite behind its batch; false off its thread.
  bool NoteFlush();
  void NoteLater();
  bool CallLater(void (TcpClient::*step)());
  void GiveUpTorn();

  // What a turn of reading begins with.
  std::pair<std::shared_ptr<Socket>, std::shared_ptr<MemoryBuffer>> ReadSide();

  // Without; on the loop's thread. They do nothing once `socket` is not ours any more.
  // *any: the slot has something to look at.
  Got Read(const std::shared_ptr<Socket>& socket, const std::shared_ptr<MemoryBuffer>& buffer,
           bool* any);
  // One recv; *got is its result, or the negative errno. False when the socket is not ours any
  // more.
  bool Receive(const std::shared_ptr<Socket>& socket, char* target, size_t length, int* got);
  bool Unregister(const std::shared_ptr<Socket>& socket);
  bool HasOtherSocket(const std::shared_ptr<Socket>& socket);
  // The peer has ended, and what it sent last is not to be delivered.
  bool IsLosing() const { return reads_to_end_ && !deliver_last_bytes_; }

  const ProcessMark process_;
  const std::shared_ptr<EventLoop> loop_;
  SocketAddress address_;
  bool deliver_last_bytes_ = false;
  bool send_whole_ = false;
  bool gathers_sends_ = false;
  std::function<void()> write_hook_;
  std::shared_ptr<ByteSink> sink_;

  // Of the loop's thread.
  bool is_paused_ = false;
  bool is_signal_due_ = false;
  bool is_ending_ = false;
  bool reads_to_end_ = false;

  std::atomic<int> fd_{-1};  // of socket_, for a look without the lock

  // The two are taken in this order. socket_ and recv_data_ change with both held and are read with
  // either; read_mutex_ is held over each recv, so that a close waits for it.
  PiMutex read_mutex_;
  PiMutex mutex_;  // guards the fields below
  std::shared_ptr<Socket> socket_;
  std::shared_ptr<MemoryBuffer> recv_data_;  // its content belongs to the loop's thread
  std::unique_ptr<SendQueue> send_data_;
  unsigned int armed_ = 0;    // mask registered with the loop; 0: none
  bool flush_noted_ = false;  // the loop will call OnWrite behind its batch
  bool later_noted_ = false;  // and at a time
};

}  // namespace bsp

#endif  // BSP_NET_TCP_CLIENT_H_
