// RpcClient: a module's end of the RPC bus.
#ifndef BSP_NET_RPC_RPC_CLIENT_H_
#define BSP_NET_RPC_RPC_CLIENT_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "bsp/base/error.h"
#include "bsp/base/macros.h"
#include "bsp/net/rpc/rpc_header.h"
#include "bsp/sigslot/sigslot.h"

namespace bsp {

class EventLoop;
class MemoryBuffer;
class Semaphore;
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
// Threads: Listen, CheckCmdPower, SendRequest, SendMessage, SendReplay, Flush, Send, IsConnected,
// IsOwnThread and CheckProcess on any, any number at once. Open, Close and SetOptions on the
// owner's, one at a time, beside calls of the others: a call that meets a closed client is refused,
// one that begins beside an Open is refused or goes over the new connection, and one that waits for
// its reply during Close ends at its time-out (at once with fail_calls_on_disconnect). The calls
// that wait must not be made from a slot of the same client, whose reply could not be read: they
// would time out. SendMessage and SendReplay do not wait.
//
// Forks: the connection stays with the process that opened it. In a child IsConnected is false, and
// every call on the inherited client fails at once with code -1 and a text that names that process;
// Close, the destructor and with it exit() only close the child's descriptor of the connection. The
// parent notices nothing. A child may open a client of its own, also on the same object after
// Close, when no other thread of its parent was inside the library at the fork. A child forked in a
// slot must not return from it: it execs or ends. A child whose exec failed ends by _exit.
//
// A frame is handed to the socket whole, as far as the socket takes it, and SignalMessage is raised
// for all frames that one turn of reading has brought (up to 1.6 MB, or one large frame), before
// anything else happens on the thread.
//
// Errors: RPC_ERR_* in bsp/bsp.h. Where nothing else is said: -1 not connected, or the frame could
// not be sent; -3 no reply in time; -5 no semaphore to wait on; and the err_code of the reply.
class BSP_EXPORT RpcClient : public sigslot::has_slots<sigslot::single_threaded>,
                             public std::enable_shared_from_this<RpcClient> {
 public:
  // All off by default.
  struct Options {
    // A lost connection ends waiting calls at once with code -1 "connection lost", raises
    // SignalError once, and makes IsConnected false; Close ends them too. Without it nobody is
    // told, and calls run into their time-outs.
    bool fail_calls_on_disconnect = false;

    // An exception out of a slot or C handler, or memory that ran out on the client's thread, costs
    // the connection and a log line. Without it it ends the process.
    bool contain_failures = false;
  };

  // One call in flight.
  struct BSP_EXPORT MsgSem {
    MsgSem(RpcHeader* request, RpcClient* client, std::string& response);

    RpcHeader* const header;  // the caller's head; takes the err_code of the reply
    std::string& resp;        // the caller's string; takes the payload of a good reply
    // Written before the semaphore is signalled.
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

  // For the next Open.
  void SetOptions(const Options& options) { options_ = options; }

  // Connects, blocking, and starts the thread. Code -4 when nobody accepts there; -1 when the
  // system refuses the loop, the thread, or watching the connection. On an open client it does
  // nothing and succeeds; on one that a forked child has inherited open it is refused. A failed
  // Open counts as open, unconnected: Close before the next try.
  std::shared_ptr<MSError> Open(const std::string& host, uint16_t port);

  // Ends the thread and the connection, within milliseconds unless a slot runs. Harmless on a
  // closed client. Refused with a log line on the client's own thread. What the socket has not
  // taken yet is lost: Flush first.
  void Close();

  // Speaks of the local socket, not of the peer, unless fail_calls_on_disconnect is on.
  bool IsConnected() const;

  // True on rpc_cli, that is in a slot: where Close is refused and waiting calls time out.
  bool IsOwnThread() const;

  // In a forked child that has inherited an open client, until Close: the error with which all its
  // calls end, without a log line. Else null.
  std::shared_ptr<MSError> CheckProcess() const;

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

  // The gate of every frame: stamps magic, the pid of the calling process and size into *header and
  // sends head and payload in one piece. `payload` may be null with a length of 0. The head is not
  // read once the frame may have left.
  std::shared_ptr<MSError> Send(RpcHeader* header, const char* payload, int length);

  // Slots of the connection.
  void TcpHandleMessage(std::shared_ptr<TcpClient> tcp_client,
                        std::shared_ptr<MemoryBuffer> buffer);
  void TcpHandleError(std::shared_ptr<TcpClient> tcp_client, std::shared_ptr<MSError> error);

 private:
  struct Link;    // what lasts from an Open to its Close
  struct Shared;  // what the threads of one process share

  Shared& Mine() const { return *shared_.load(std::memory_order_acquire); }
  void Renew();
  std::shared_ptr<MSError> StartThread(const std::shared_ptr<Link>& link);
  static void RunLoop(const RpcClient* client, const std::shared_ptr<EventLoop>& loop,
                      const std::weak_ptr<Link>& weak_link);
  void LeaveOwnThread();

  RpcHeader NewHead(int type, const char* cmd);
  std::shared_ptr<MSError> CheckCanCall() const;
  std::shared_ptr<MSError> CheckCanAsk(const std::string& cmd) const;
  std::shared_ptr<MSError> AskWithRecord(int frame_type, const std::string& cmd, int type,
                                         int power, std::string& response);

  // The owner's.
  Options options_;

  // Any thread. Runs on over Close and Open.
  std::atomic<uint32_t> seq_{1};

  // Never null, and ours. A forked child exchanges it, with release, when it closes what it has
  // inherited or opens a client that its parent had closed; all else in it has locks of its own.
  std::atomic<Shared*> shared_;
};

}  // namespace bsp

#endif  // BSP_NET_RPC_RPC_CLIENT_H_
