// RpcClient: a module's end of the RPC bus.
#ifndef BSP_NET_RPC_RPC_CLIENT_H_
#define BSP_NET_RPC_RPC_CLIENT_H_

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "bsp/base/error.h"
#include "bsp/base/macros.h"
#include "bsp/net/rpc/frame_input.h"
#include "bsp/net/rpc/rpc_header.h"
#include "bsp/sigslot/sigslot.h"

namespace bsp {

class EventLoop;
class EventService;
class MemoryBuffer;
class Semaphore;
class SemaphorePool;
class TcpClient;

// One connection to the broker and one thread, "rpc_cli", that reads it: slots of the signals run
// on that thread, and while one runs nothing else is read. Held by a shared pointer while open.
//
//   auto client = std::make_shared<bsp::RpcClient>();
//   if (auto error = client->Open("127.0.0.1", 7800)) return Report(error->Message());
//   client->SignalMessage.connect(&module, &Module::OnFrame);   // before the first Listen
//   client->Listen("lamp.set", RPC_TYPE_REQUEST, 0);
//   std::string answer;
//   client->SendRequest("door.state", "", answer, 1000);
//
// Nothing reconnects: an owner that wants the bus back calls Close, Open and its Listens again.
//
// Threads: Listen, CheckCmdPower, SendRequest, SendMessage, SendReplay, Flush, Send and IsConnected
// on any, any number at once. Open, Close and SetOptions on the owner's, one at a time; Close may
// run while calls wait for replies: they end at their time-outs. The calls that wait must not be
// made from a slot of the same client, whose reply could not be read: they would time out.
// SendMessage and SendReplay do not wait.
//
// Errors, where nothing else is said: -1 not connected, or the frame could not be sent; -3 no reply
// in time; -5 no semaphore to wait on; and the err_code of the reply: -2 nobody listens to the
// command, -6 a REQUEST command has its listener already, else what the listener answered.
class BSP_EXPORT RpcClient : public sigslot::has_slots<sigslot::single_threaded>,
                             public std::enable_shared_from_this<RpcClient> {
 public:
  // All off by default.
  struct Options {
    // A lost connection ends waiting calls at once with code -1, raises SignalError once, and makes
    // IsConnected false. Without it nobody is told, and calls run into their time-outs.
    bool fail_calls_on_disconnect = false;
  };

  // One call in flight.
  struct BSP_EXPORT MsgSem {
    MsgSem(RpcHeader* request, RpcClient* client, std::string& response);

    RpcHeader* const header;  // the caller's head; takes the err_code of the reply
    std::string& resp;        // the caller's string; takes the payload of a good reply
    // Written under msg_sem_mutex_, before the semaphore is signalled.
    std::atomic<bool> replied{false};
    std::atomic<bool> lost{false};  // the connection is gone
    std::shared_ptr<Semaphore> sem;
  };

  // Enters a call into the table of waiters for the length of a scope. Made before the frame is
  // sent, so that the quickest reply finds its waiter.
  class BSP_EXPORT MsgSemGuard {
   public:
    // Takes another seq, and writes it into *header, while a call in flight has that one.
    MsgSemGuard(RpcHeader* header, RpcClient* owner, std::string& response);
    ~MsgSemGuard();
    MsgSemGuard(const MsgSemGuard&) = delete;
    MsgSemGuard& operator=(const MsgSemGuard&) = delete;

    bool IsReply() const;

    // Null once the reply is in; -3 "wait timeout"; -5 without a semaphore; -1 "connection lost".
    std::shared_ptr<MSError> WaitReply(int timeout_ms);

   private:
    RpcClient* const owner_;
    std::shared_ptr<MsgSem> msg_sem_;
  };

  RpcClient();
  // Closes.
  ~RpcClient() override;
  RpcClient(const RpcClient&) = delete;
  RpcClient& operator=(const RpcClient&) = delete;

  // A message or request for a command that this client listens to; tell them apart by `type`. The
  // head lies in the receive vector, its payload of size - 104 bytes behind it, then one zero byte;
  // all valid until the slot returns. Connect after Open and before the first Listen.
  sigslot::signal2<std::shared_ptr<RpcClient>, RpcHeader*> SignalMessage;

  // The stream from the broker cannot be read (code -1, at each delivery from then on), or, with
  // fail_calls_on_disconnect, the connection is lost: that may be told at any time once the client
  // is open, so connect before Open then.
  sigslot::signal2<std::shared_ptr<RpcClient>, std::shared_ptr<MSError>> SignalError;

  // Before Open.
  void SetOptions(const Options& options) { options_ = options; }

  // Connects, blocking, and starts the thread. Code -4 when nobody accepts there. On an open client
  // it does nothing and succeeds. A failed Open counts as open: Close before the next try.
  std::shared_ptr<MSError> Open(const std::string& host, uint16_t port);

  // Ends the thread and the connection, within milliseconds unless a slot runs. Harmless on a
  // closed client. Refused with a log line on the client's own thread. What the socket has not
  // taken yet is lost: Flush first.
  void Close();

  // Speaks of the local socket, not of the peer, unless fail_calls_on_disconnect is on.
  bool IsConnected() const;

  // True on rpc_cli, that is in a slot: where Close is refused and waiting calls time out.
  bool IsOwnThread() const;

  // Does nothing and succeeds: commands are registered by Listen.
  std::shared_ptr<MSError> Register();

  // Registers this client for a command, `type` RPC_TYPE_REQUEST (one listener, who answers) or
  // RPC_TYPE_MESSAGE (any number, nobody answers), with a right level that the bus only stores.
  // Waits up to 5000 ms. A name of 64 characters or more is refused; 62 travel.
  std::shared_ptr<MSError> Listen(const std::string& cmd, int type, int power);

  // Asks for the kind and right level that a command was registered with. Waits up to 5000 ms; the
  // out arguments change on success only.
  std::shared_ptr<MSError> CheckCmdPower(const std::string& cmd, int& type, int& power);

  // Calls a command and waits for its answer. `response` becomes the payload and one zero byte
  // behind it; it stays as it was when the answer has no payload, and on every failure. A time-out
  // takes nothing back: the listener may still run. 62 characters of the name travel.
  std::shared_ptr<MSError> SendRequest(const char* cmd, const std::string& request,
                                       std::string& response, int timeout_ms);

  // Sends without an answer; success means that the frame is on its way.
  std::shared_ptr<MSError> SendMessage(const char* cmd, const std::string& message);

  // Answers the request whose head this is; its err_code travels with the answer.
  std::shared_ptr<MSError> SendReplay(const RpcHeader* request, const char* data, int length);

  // Waits until the broker has handled every frame that was sent before: a round trip on the same
  // connection. For a program that sends and ends.
  std::shared_ptr<MSError> Flush(int timeout_ms);

  // The gate of every frame: stamps magic, pid and size into *header and sends head and payload in
  // one piece. `payload` may be null with a length of 0.
  std::shared_ptr<MSError> Send(RpcHeader* header, const char* payload, int length);

  // Slots of the connection.
  void TcpHandleMessage(std::shared_ptr<TcpClient> tcp_client,
                        std::shared_ptr<MemoryBuffer> buffer);
  void TcpHandleError(std::shared_ptr<TcpClient> tcp_client, std::shared_ptr<MSError> error);

 private:
  using WaiterTable = std::map<uint32_t, std::shared_ptr<MsgSem>>;

  std::shared_ptr<TcpClient> Connection() const;
  void SetConnection(std::shared_ptr<TcpClient> client);
  void LeaveOwnThread();

  RpcHeader NewHead(int type, const char* cmd);
  const char* Framed(const RpcHeader& header, const char* payload, size_t length);
  std::shared_ptr<MSError> CheckCanAsk(const std::string& cmd) const;
  std::shared_ptr<MSError> AskWithRecord(int frame_type, const std::string& cmd, int type,
                                         int power, std::string& response);
  static std::shared_ptr<MSError> RefuseUnconnected();

  void ReportUnreadable(const std::shared_ptr<RpcClient>& self);
  void TakeReply(const RpcHeader* head, std::string* payload);
  void EnterWaiter(const std::shared_ptr<MsgSem>& waiter);
  void LeaveWaiter(const std::shared_ptr<MsgSem>& waiter);

  std::atomic<uint32_t> seq_{1};
  std::shared_ptr<EventLoop> loop_;
  std::shared_ptr<TcpClient> client_;  // guarded by client_mutex_
  std::shared_ptr<EventService> evt_srv_;
  std::mutex send_mutex_;       // guards send_buf_ and the order of frames on the connection
  std::vector<char> send_buf_;  // the outgoing small frame; never shrinks
  const std::shared_ptr<FrameMemory> recv_buf_;  // the frame being handled; rpc_cli thread
  std::shared_ptr<ReplyStore> store_;
  std::shared_ptr<FrameInput> input_;
  std::mutex msg_sem_mutex_;  // guards msg_sems_ and what follows, and writes into a waiter
  WaiterTable msg_sems_;      // calls in flight, by seq
  std::vector<WaiterTable::node_type> spare_nodes_;  // so that a call allocates none
  std::atomic<bool> is_lost_{false};                 // written under msg_sem_mutex_
  std::shared_ptr<SemaphorePool> sem_pool_;          // set by the first Open

  int32_t pid_ = -1;  // taken by Open: a system call less a frame
  Options options_;
  mutable std::mutex client_mutex_;  // a leaf, held to copy the pointer
};

}  // namespace bsp

#endif  // BSP_NET_RPC_RPC_CLIENT_H_
