// RpcServer: the broker of the RPC bus.
#ifndef BSP_NET_RPC_RPC_SERVER_H_
#define BSP_NET_RPC_RPC_SERVER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "bsp/base/error.h"
#include "bsp/base/macros.h"
#include "bsp/base/process.h"
#include "bsp/net/rpc/rpc_header.h"
#include "bsp/sigslot/sigslot.h"

namespace bsp {

class Budget;
class CallTable;
class CommandTable;
class EventLoop;
class FlowControl;
class FrameMemory;
class MemoryBuffer;
class Socket;
class TcpClient;
class TcpServer;
struct Cmd2Cli;
struct Frame;
struct RpcAgent;
enum class Admission;

// Modules connect with RpcClient; every frame goes through this object, which keeps a table of
// connections and a table of commands and passes frames on by the name of their command. Whoever
// can connect may listen and send: choose the address accordingly.
//
// Connections hand their sockets as much as they take at once (whole sends), and small frames for
// one destination leave together.
//
// Threads: Start and Stop belong to the owner's thread, one at a time, and never to a slot or
// on_tick, where Stop is refused. Count and Commands on any other thread than the broker's, between
// Start and Stop. Everything else runs on the broker's one thread; the class has no lock.
//
// Forks: in a child, Stop and the destructor only close descriptors.
class BSP_EXPORT RpcServer : public sigslot::has_slots<sigslot::single_threaded> {
 public:
  // What a host may ask for beyond the plain broker; all off by default. A limit of 0 means none.
  // Whoever meets a limit is told in a log line with descriptor, pid (-1: not known), limit and
  // value; refused frames at most once a second, with their number.
  struct Options {
    // Listen again at once on an address whose old connections linger in the kernel.
    bool reuse_address = false;

    // Connections that the kernel holds ready for us; a burst of connects beyond it stalls for
    // seconds. 0: the TCP server's own, 5.
    int listen_backlog = 0;

    // Frames that came together with their sender's close are still handled. Without it they are
    // lost, and with them the last messages of a module that sends and exits.
    bool handle_last_frames = false;

    // Memory is given back to the system when a second has passed without much traffic. Without it
    // the receive vector stays at the largest frame seen.
    bool release_memory = false;

    // Called on the broker's thread once a second, as a sign that it is alive.
    std::function<void()> on_tick;

    // An exception on the broker's thread, such as the lack of memory, costs the connection that it
    // served, told in a line. Without it, it ends the process.
    bool contain_failures = false;

    // Called on the broker's thread, its last act, when failures did not end (contain_failures):
    // the broker serves nobody any more. The text is the last exception's.
    std::function<void(const std::string& why)> on_give_up;

    // Calls in flight are remembered: when a listener goes, its callers are answered at once with
    // RPC_ERR_LISTENER_GONE; a reply counts only from the listener that got the request; Commands
    // tells counts and times. Without it callers run into their time-outs, and whoever knows a
    // descriptor and a seq may answer.
    bool track_calls = false;

    // Calls in flight of one client (track_calls); one more is answered with RPC_ERR_BUSY, unless
    // the oldest is older than 10 s and is forgotten for it.
    size_t max_calls = 0;

    // A frame announced larger than this costs its sender the connection.
    size_t max_frame_bytes = 0;

    // Bytes that wait for one destination because its socket is full. A request above it is
    // answered with RPC_ERR_BUSY, a message is dropped and counted, a reply too, and its requester
    // told RPC_ERR_BUSY. A sender may have at most as much of it as is still free. At least
    // max_frame_bytes.
    size_t max_backlog_bytes = 0;

    // Milliseconds for which the sender of such a frame is not read instead, while the destination
    // reads; 0: refused at once. Nobody waits for one that takes no byte for a second.
    int patience_ms = 0;

    // A peer whose socket takes no byte for so many seconds while some wait for it is dropped.
    int stall_timeout_s = 0;

    // Bytes held for all peers together: frames under way, backlogs, tables. One peer may hold at
    // most as much as is still free. A frame above it is refused as one above max_backlog_bytes is;
    // one under way that stands still for a second gives way to others.
    size_t max_memory_bytes = 0;

    // More bytes than this behind a wrong magic, which never get read: the sender is dropped.
    size_t max_unread_bytes = 0;

    // Connections at a time; one more is closed at once.
    size_t max_clients = 0;

    // Of these, the last so many are for short visits: who has one cannot listen, and gives way to
    // the next when it has no call in flight. So that an operator's tool gets in when a module has
    // taken all places.
    size_t kept_places = 0;

    // Commands that one client listens to; one more is answered with RPC_ERR_BUSY.
    size_t max_commands = 0;
  };

  // What the broker holds and what it had to refuse since its start.
  struct Totals {
    size_t clients = 0;
    size_t commands = 0;
    size_t calls = 0;         // in flight (track_calls)
    size_t waiting = 0;       // clients that are not read for now
    size_t memory_bytes = 0;  // held for peers (max_memory_bytes)
    uint64_t refused_requests = 0;
    uint64_t dropped_messages = 0;  // each copy
    uint64_t dropped_replies = 0;
    uint64_t stray_replies = 0;  // answers to no call of their sender
    uint64_t lost_calls = 0;     // whose listener went
    uint64_t dropped_clients = 0;
  };

  // One command and how its calls went; times in microseconds from the request's hand-over to its
  // answer's arrival, at most a quarter too high.
  struct CommandView {
    std::string name;
    int32_t kind = 0;
    int32_t power = 0;
    size_t listeners = 0;
    uint64_t calls = 0;
    uint64_t answers = 0;
    uint64_t errors = 0;
    uint64_t lost = 0;
    uint64_t refused = 0;
    uint64_t messages = 0;
    uint32_t calls_per_s = 0;
    int64_t p50_us = 0;
    int64_t p99_us = 0;
  };

  using RpcAgent = bsp::RpcAgent;
  using Cmd2Cli = bsp::Cmd2Cli;

  RpcServer();
  explicit RpcServer(const Options& options);
  // Stops.
  ~RpcServer() override;
  RpcServer(const RpcServer&) = delete;
  RpcServer& operator=(const RpcServer&) = delete;

  // Opens the listener and starts the thread; connections are accepted once it returns. Code -1
  // when the address cannot be had, the loop cannot watch it, or the broker runs already. Possible
  // again after Stop.
  std::shared_ptr<MSError> Start(const std::string& host, int port);

  // Ends the thread and closes everything, within milliseconds. Harmless when stopped already.
  void Stop();

  // All zero, or empty, when the broker does not run.
  Totals Count();
  std::vector<CommandView> Commands();

 protected:
  // Slots of every connection. On the broker's thread.
  virtual void CliHandleMessage(std::shared_ptr<TcpClient> client,
                                std::shared_ptr<MemoryBuffer> buffer);
  virtual void CliHandleError(std::shared_ptr<TcpClient> client, std::shared_ptr<MSError> error);
  // Takes the connection out of all tables, which closes it.
  virtual void CliClose(const std::shared_ptr<TcpClient>& client);

 private:
  using AgentPtr = std::shared_ptr<RpcAgent>;

  void Loop();
  void WarmUp();
  void RunOnLoop(const std::function<void()>& look);
  void NoteMoment();

  // Accepting.
  void HandleAccept(std::shared_ptr<TcpServer> server, std::shared_ptr<Socket> socket);
  bool HasPlace(int fd);
  AgentPtr LongestLateVisitor() const;

  // A delivery, cut into frames.
  AgentPtr AgentOf(const std::shared_ptr<TcpClient>& client) const;
  bool HandleNextFrame(const AgentPtr& agent, const std::shared_ptr<MemoryBuffer>& buffer);
  void HandleNoFrame(const AgentPtr& agent, const MemoryBuffer& buffer, bool is_wrong_magic,
                     const RpcHeader& head);
  void HandleFrame(const AgentPtr& agent, const Frame& frame);
  void HandleRequest(const AgentPtr& agent, const Frame& frame);
  void HandleDirectMessage(const AgentPtr& agent, const Frame& frame);
  void BookInput(RpcAgent* agent, const MemoryBuffer& buffer);

  // What passes, what waits, and what is refused.
  Admission Admit(const AgentPtr& agent, const RpcHeader& head);
  Admission AdmitLarge(const AgentPtr& agent, const RpcHeader& head);
  void Refuse(const AgentPtr& agent, const RpcHeader& head);
  void ReclaimMemory(const RpcAgent& asking);
  void Reclaim(const AgentPtr& agent);

  // The protocol's operations.
  std::shared_ptr<MSError> Listen(const AgentPtr& agent, const RpcHeader* head);
  std::shared_ptr<MSError> CheckCmdPower(const AgentPtr& agent, const RpcHeader* head);
  std::shared_ptr<MSError> ForwardMessage(const AgentPtr& agent, char* frame, unsigned int size,
                                          int& kind);
  std::shared_ptr<MSError> ForwardCall(const AgentPtr& agent, const AgentPtr& listener,
                                       Cmd2Cli* command, const RpcHeader& head, bool is_request);
  std::shared_ptr<MSError> ReplayRequest(const AgentPtr& agent, char* frame, unsigned int size);
  std::shared_ptr<MSError> ServerReplay(const AgentPtr& agent, const RpcHeader* head, int code);
  std::shared_ptr<MSError> ServerReplay(const AgentPtr& agent, char* buffer, int data_size);
  void CleanStaleClients(const std::string& cmd);

  // Calls in flight.
  bool BeginCall(RpcAgent* agent, RpcAgent* listener, Cmd2Cli* command, const RpcHeader& head,
                 bool is_request);
  bool EndCall(const RpcAgent& listener, RpcAgent* requester, const RpcHeader& head);
  void ForgetCalls(RpcAgent* agent);

  void Drop(const AgentPtr& agent, const char* what, size_t limit, size_t value);
  void CloseDropped();

  // Once a second, as long as there is a reason.
  void NoteTick();
  void Tick();
  void DropStalled();
  void TellRefused();
  void NoteFreed(size_t bytes);
  bool IsReleaseDue() const;
  void ReleaseMemory();

  const ProcessMark process_;
  const Options options_;

  // Of the owner.
  std::thread thread_;
  std::shared_ptr<EventLoop> loop_;

  // Of the broker's thread while it runs.
  std::shared_ptr<TcpServer> server_;
  const std::unique_ptr<Budget> budget_;
  const std::shared_ptr<FrameMemory> recv_buf_;  // the one frame in hand, of whichever connection
  std::unordered_map<int, AgentPtr> clients_;    // by descriptor
  const std::unique_ptr<CommandTable> cmds_;
  const std::unique_ptr<CallTable> calls_;
  std::unique_ptr<FlowControl> flow_;
  uint64_t last_number_ = 0;       // of an agent
  std::vector<AgentPtr> dropped_;  // to be closed behind this delivery
  int64_t now_us_ = 0;             // of the frame in hand
  uint64_t tick_ = 0;              // the noted call of Tick; 0: none
  size_t bytes_since_tick_ = 0;
  size_t freed_bytes_ = 0;  // since memory was released last
  Totals totals_;
  Totals told_;  // the part of totals_ that stands in the log
  RpcHeader last_refused_ = {};
  int last_refused_fd_ = -1;
};

}  // namespace bsp

#endif  // BSP_NET_RPC_RPC_SERVER_H_
