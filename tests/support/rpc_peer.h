// A bare end of a bus connection: speaks frames, and anything else, over a plain socket.
#ifndef BSP_TESTS_SUPPORT_RPC_PEER_H_
#define BSP_TESTS_SUPPORT_RPC_PEER_H_

#include <cstdint>
#include <memory>
#include <string>

#include "bsp/base/error.h"
#include "bsp/base/socket.h"
#include "bsp/net/rpc/rpc_header.h"

namespace test {

struct RpcFrame {
  RpcHeader head = {};
  std::string payload;
};

// Frames as a client writes them, magic and size set.
std::string RpcBytes(RpcFrame frame);
std::string RpcBytes(int type, uint32_t seq, const std::string& cmd, const std::string& payload);
std::string RpcListen(const std::string& cmd, int type, int power, int pid);
std::string RpcCheck(const std::string& cmd);
std::string RpcReply(RpcFrame request, int err_code, const std::string& payload);

// A listen or check-power payload.
std::string RpcRecord(const std::string& cmd, int type, int power);

// 0 for null.
int CodeOf(const std::shared_ptr<MSError>& error);

// The sanitizer looks at objects through a pipe, and takes them for invalid where it gets none.
#ifdef __SANITIZE_ADDRESS__
constexpr bool kSanitizerNeedsDescriptors = true;
#else
constexpr bool kSanitizerNeedsDescriptors = false;
#endif

// How long the tests of the bus wait for what must come.
constexpr int kPatienceMs = 60000;

// Threads: one at a time.
class RpcPeer {
 public:
  explicit RpcPeer(int port);  // connects to 127.0.0.1
  explicit RpcPeer(std::shared_ptr<bsp::Socket> accepted);

  void Close() { socket_.reset(); }

  // How long Read and Ask wait.
  void SetPatience(int timeout_ms) { patience_ms_ = timeout_ms; }

  // For what this class does not do; -1 after Close.
  int descriptor() const { return socket_ != nullptr ? socket_->GetNativeSocket() : -1; }

  // False when the other end has closed.
  bool Send(const std::string& bytes);

  // The next frame; false when the other end closed or nothing came.
  bool Read(RpcFrame* frame);

  // Sends and reads one frame. err_code of the answer, or 9999 when none came.
  int Ask(const std::string& bytes, RpcFrame* answer = nullptr);

  // A round trip that any broker serves: this connection is alive and caught up.
  bool IsServed() { return Ask(RpcCheck("no such command")) == -2; }

  // True when the other end closes within the time, whatever it sends before.
  bool IsClosedByPeer(int timeout_ms = kPatienceMs) { return Fill(SIZE_MAX, timeout_ms) == 0; }

 private:
  // Receives until input_ holds `size` bytes. 1: it does; 0: the other end closed; -1: time-out.
  int Fill(size_t size, int timeout_ms);

  std::shared_ptr<bsp::Socket> socket_;
  int patience_ms_ = kPatienceMs;
  std::string input_;
};

}  // namespace test

#endif  // BSP_TESTS_SUPPORT_RPC_PEER_H_
