// RpcServer: the broker of the RPC bus.
#ifndef BSP_NET_RPC_RPC_SERVER_H_
#define BSP_NET_RPC_RPC_SERVER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "bsp/base/error.h"
#include "bsp/base/macros.h"
#include "bsp/net/rpc/frame_input.h"
#include "bsp/net/rpc/rpc_header.h"
#include "bsp/sigslot/sigslot.h"

namespace bsp {

class EventLoop;
class MemoryBuffer;
class Socket;
class TcpClient;
class TcpServer;

// Modules connect with RpcClient; every frame goes through this object, which keeps a table of
// connections and a table of commands and passes frames on by the name of their command. Whoever
// can connect may listen and send: choose the address accordingly.
//
// Threads: Start and Stop belong to the owner's thread, one at a time, and never to a slot.
// Everything else runs on the broker's one thread; the class has no lock.
class BSP_EXPORT RpcServer : public sigslot::has_slots<sigslot::single_threaded> {
 public:
  // What a host may ask for beyond the plain broker; all off by default. A limit of 0 means none.
  // Whoever meets a limit is told in one log line with descriptor, pid (-1: not known), limit and
  // value.
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

    // A frame announced larger than this costs its sender the connection.
    size_t max_frame_bytes = 0;

    // More bytes than this waiting for a client that does not read: it is dropped.
    size_t max_backlog_bytes = 0;

    // More bytes than this behind a wrong magic, which never get read: the sender is dropped.
    size_t max_unread_bytes = 0;

    // Connections at a time; one more is closed at once.
    size_t max_clients = 0;

    // Commands that one client listens to; one more is answered with err_code -1.
    size_t max_commands = 0;
  };

  // One connection.
  struct BSP_EXPORT RpcAgent {
    ~RpcAgent();
    // The descriptor, which is the identity of the connection on the bus; -1 without a client.
    int GetNativeSocket() const;

    std::shared_ptr<TcpClient> client;
    int32_t pid = -1;          // as claimed by the peer's listen frames; -1 until the first
    uint64_t last_active = 0;  // TimeUtil::ClockMillis at accept and at each frame
    std::unordered_map<std::string, unsigned int> cmds;  // what it listens to, with the kind

    std::shared_ptr<FrameInput> input;
    bool is_dropped = false;  // past a limit: gets nothing more, closed behind the delivery
  };

  // One command. It stands in the table exactly as long as it has a listener.
  struct Cmd2Cli {
    std::string cmd;
    int32_t type = 0;  // kind and power are the first listener's and never change
    int32_t power = 0;
    std::list<std::shared_ptr<RpcAgent>> clients;  // in the order of their listen frames
  };

  RpcServer();
  explicit RpcServer(const Options& options);
  // Stops.
  ~RpcServer() override;
  RpcServer(const RpcServer&) = delete;
  RpcServer& operator=(const RpcServer&) = delete;

  // Opens the listener and starts the thread; connections are accepted once it returns. Code -1
  // when the address cannot be had or the broker runs already. Possible again after Stop.
  std::shared_ptr<MSError> Start(const std::string& host, int port);

  // Ends the thread and closes everything, within milliseconds. Harmless when stopped already.
  void Stop();

 protected:
  // Slots of every connection. On the broker's thread.
  virtual void CliHandleMessage(std::shared_ptr<TcpClient> client,
                                std::shared_ptr<MemoryBuffer> buffer);
  virtual void CliHandleError(std::shared_ptr<TcpClient> client, std::shared_ptr<MSError> error);
  // Takes the connection out of all tables, which closes it.
  virtual void CliClose(const std::shared_ptr<TcpClient>& client);

 private:
  class Housekeeping;

  void Loop();
  void HandleAccept(std::shared_ptr<TcpServer> server, std::shared_ptr<Socket> socket);

  // A delivery, cut into frames.
  std::shared_ptr<RpcAgent> AgentOf(const std::shared_ptr<TcpClient>& client) const;
  bool HandleNextFrame(const std::shared_ptr<RpcAgent>& agent,
                       const std::shared_ptr<MemoryBuffer>& buffer);
  void HandleRest(const std::shared_ptr<RpcAgent>& agent,
                  const std::shared_ptr<MemoryBuffer>& buffer, RpcFrameState state,
                  const RpcHeader& head);
  void HandleFrame(const std::shared_ptr<RpcAgent>& agent, char* frame, size_t size);
  void HandleRequest(const std::shared_ptr<RpcAgent>& agent, char* frame, size_t size);
  void HandleDirectMessage(const std::shared_ptr<RpcAgent>& agent, char* frame, size_t size);

  // Routing, in rpc_routing.cc.
  std::shared_ptr<MSError> Listen(const std::shared_ptr<RpcAgent>& agent, const RpcHeader* head);
  std::shared_ptr<MSError> CheckCmdPower(const std::shared_ptr<RpcAgent>& agent,
                                         const RpcHeader* head);
  std::shared_ptr<MSError> ForwardMessage(const std::shared_ptr<RpcAgent>& agent, char* frame,
                                          unsigned int size, int& kind);
  std::shared_ptr<MSError> ReplayRequest(const std::shared_ptr<RpcAgent>& agent, char* frame,
                                         unsigned int size);
  std::shared_ptr<MSError> ServerReplay(const std::shared_ptr<RpcAgent>& agent,
                                        const RpcHeader* head, int code);
  std::shared_ptr<MSError> ServerReplay(const std::shared_ptr<RpcAgent>& agent, char* buffer,
                                        int data_size);
  void CleanStaleClients(const std::string& cmd);
  bool IsStale(const RpcAgent& agent, const std::string& cmd) const;
  bool IsTakenByRequest(const std::string& name, int32_t kind) const;

  // The one way out for bytes.
  void SendTo(const std::shared_ptr<RpcAgent>& agent, const char* data, size_t size);
  void Drop(const std::shared_ptr<RpcAgent>& agent, const char* what, size_t limit, size_t value);
  void CloseDropped();
  const std::string& NameOf(const char (&cmd)[64]);

  std::thread thread_;
  std::shared_ptr<EventLoop> loop_;
  std::shared_ptr<TcpServer> server_;
  const std::shared_ptr<FrameMemory> recv_buf_;  // the one frame in hand, of whichever connection
  std::unordered_map<int, std::shared_ptr<RpcAgent>> clients_;  // by descriptor
  std::unordered_map<std::string, Cmd2Cli> cmds_;               // by name

  const Options options_;
  std::unique_ptr<Housekeeping> housekeeping_;
  std::vector<std::shared_ptr<RpcAgent>> dropped_;  // to be closed behind this delivery
  std::string name_;  // the name in hand; a member so that look-ups allocate nothing
};

}  // namespace bsp

#endif  // BSP_NET_RPC_RPC_SERVER_H_
