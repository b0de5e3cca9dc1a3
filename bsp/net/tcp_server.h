// A listening TCP socket driven by an event loop.
#ifndef BSP_NET_TCP_SERVER_H_
#define BSP_NET_TCP_SERVER_H_

#include <memory>
#include <string>

#include "bsp/base/error.h"
#include "bsp/base/macros.h"
#include "bsp/base/socket.h"
#include "bsp/net/event_loop.h"
#include "bsp/sigslot/sigslot.h"

namespace bsp {

// Hands out accepted connections one by one through a signal. Always owned by a shared pointer.
//
// Threads: Listen on the owner's, before the loop runs; the rest on the loop's. The owner stops the
// loop before it drops the server.
class BSP_EXPORT TcpServer : public EventHandler, public std::enable_shared_from_this<TcpServer> {
 public:
  struct Options {
    // Connections that wait to be accepted. The kernel drops what comes on top, and the peer tries
    // again after whole seconds: a burst of connects wants more than the default.
    int backlog = 5;

    // Listens at an address at once although connections of an earlier listener linger there.
    bool reuse_address = false;

    // Keeps one descriptor in reserve. When the process has none left, each waiting peer is then
    // accepted with it and closed at once, with one log line a burst. Without it waiting peers hang
    // until descriptors are free again. An accept that fails for another reason is told, too.
    bool keep_reserve = false;
  };

  // Never raised.
  sigslot::signal2<std::shared_ptr<TcpServer>, std::shared_ptr<MSError>> SignalError;

  // A new connection, in blocking mode. It closes when no slot keeps it.
  sigslot::signal2<std::shared_ptr<TcpServer>, std::shared_ptr<Socket>> SignalAccept;

  explicit TcpServer(std::shared_ptr<EventLoop> loop);
  ~TcpServer() override;
  TcpServer(const TcpServer&) = delete;
  TcpServer& operator=(const TcpServer&) = delete;

  // For the next Listen.
  void SetOptions(const Options& options) { options_ = options; }

  // Listens and registers with the loop. "0.0.0.0" takes all interfaces, port 0 any free port.
  // False, after log lines, on failure; a next Listen starts anew. A listener that the loop could
  // not register is told by IsWatched.
  bool Listen(const std::string& host, int port);

  // False when the loop does not watch the listener: nobody is ever accepted.
  bool IsWatched() const { return is_watched_; }

  // The port that the kernel listens on; -1 when it does not.
  int GetPort() const;

  void OnRead() override;
  void OnWrite() override;
  void OnError() override;

 private:
  void OpenReserve();
  // Accepts and closes what waits while no descriptor is left. False when nobody was turned away.
  bool TurnAway();
  // After an accept that failed: peers may wait, and no edge will tell of them.
  void AcceptLater(int error);

  const std::shared_ptr<EventLoop> loop_;
  std::shared_ptr<Socket> socket_;
  SocketAddress address_;
  Options options_;
  int reserve_fd_ = -1;
  bool is_watched_ = false;
  bool is_failing_ = false;  // the last accept failed, and that is told
};

}  // namespace bsp

#endif  // BSP_NET_TCP_SERVER_H_
