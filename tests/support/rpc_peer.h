// A bare end of a bus connection: speaks frames, and anything else, over a plain socket.
#ifndef BSP_TESTS_SUPPORT_RPC_PEER_H_
#define BSP_TESTS_SUPPORT_RPC_PEER_H_

#include <string>

#include "bsp/net/rpc/rpc_header.h"

namespace test {

struct RpcFrame {
  RpcHeader head = {};
  std::string payload;
};

// A frame as a client writes it, magic and size set.
std::string RpcBytes(int type, uint32_t seq, const std::string& cmd, const std::string& payload,
                     int32_t pid = 4242);
std::string RpcBytes(RpcFrame frame);

// A listen or check-power payload.
std::string RpcRecord(const std::string& cmd, int type, int power);

// Threads: one at a time. Every wait ends after 20 s.
class RpcPeer {
 public:
  // Connects to a port of 127.0.0.1; Accept takes the next connection of a listening descriptor.
  explicit RpcPeer(int port);
  static RpcPeer Accept(int listener);
  static int ListenOn(int port);

  RpcPeer(RpcPeer&& other) noexcept;
  RpcPeer& operator=(RpcPeer&&) = delete;
  ~RpcPeer();

  bool IsOpen() const { return fd_ != -1; }
  int fd() const { return fd_; }
  void Close();

  // False when the other end has closed.
  bool Send(const std::string& bytes);

  // The next frame; false when the other end closed or nothing came within the time.
  bool Read(RpcFrame* frame, int timeout_ms = 20000);

  // Sends and reads one frame. err_code of the answer, or 9999 when none came.
  int Ask(const std::string& bytes, RpcFrame* answer = nullptr);

  // True when the other end closes within the time; what it sends before is dropped.
  bool IsClosedByPeer(int timeout_ms = 20000);

 private:
  RpcPeer() = default;
  bool Fill(int timeout_ms);

  int fd_ = -1;
  std::string input_;
};

}  // namespace test

#endif  // BSP_TESTS_SUPPORT_RPC_PEER_H_
