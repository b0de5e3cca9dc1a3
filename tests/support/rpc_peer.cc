#include "tests/support/rpc_peer.h"

#include <netinet/tcp.h>
#include <poll.h>

#include <cstring>
#include <utility>

namespace test {

std::string RpcBytes(RpcFrame frame) {
  frame.head.magic = RPC_MAGIC;
  frame.head.size = static_cast<int32_t>(sizeof frame.head + frame.payload.size());
  return std::string(reinterpret_cast<const char*>(&frame.head), sizeof frame.head) + frame.payload;
}

std::string RpcBytes(int type, uint32_t seq, const std::string& cmd, const std::string& payload) {
  RpcFrame frame;
  frame.head.type = type;
  frame.head.seq = seq;
  frame.payload = payload;
  bsp::SetRpcCmd(frame.head.cmd, cmd.c_str());
  return RpcBytes(frame);
}

std::string RpcRecord(const std::string& cmd, int type, int power) {
  RpcListenRecord record = {};
  bsp::SetRpcCmd(record.cmd, cmd.c_str());
  record.type = type;
  record.power = power;
  return std::string(reinterpret_cast<const char*>(&record), sizeof record);
}

std::string RpcListen(const std::string& cmd, int type, int power, int pid) {
  RpcFrame frame;
  frame.head.type = RPC_TYPE_LISTEN;
  frame.head.pid = pid;
  frame.payload = RpcRecord(cmd, type, power);
  return RpcBytes(frame);
}

std::string RpcCheck(const std::string& cmd) {
  return RpcBytes(RPC_TYPE_CHECK_POWER, 1, cmd, RpcRecord(cmd, -1, -1));
}

std::string RpcReply(RpcFrame request, int err_code, const std::string& payload) {
  request.head.type = RPC_TYPE_REPLAY;
  request.head.err_code = err_code;
  request.payload = payload;
  return RpcBytes(request);
}

int CodeOf(const std::shared_ptr<MSError>& error) { return error ? error->ErrorCode() : 0; }

RpcPeer::RpcPeer(int port) : RpcPeer(std::make_shared<bsp::Socket>()) {
  socket_->Create(bsp::Socket::SOCKET_STREAM);
  socket_->Connect(bsp::SocketAddress("127.0.0.1", port));
  const int on = 1;  // else a small frame behind another waits 40 ms for an acknowledgement
  socket_->SetOption(IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

RpcPeer::RpcPeer(std::shared_ptr<bsp::Socket> accepted) : socket_(std::move(accepted)) {}

bool RpcPeer::Send(const std::string& bytes) {
  const int size = static_cast<int>(bytes.size());
  return socket_->Send(bytes.data(), size) == size;
}

int RpcPeer::Fill(size_t size, int timeout_ms) {
  char bytes[65536];
  while (input_.size() < size) {
    struct pollfd ready = {socket_->GetNativeSocket(), POLLIN, 0};
    if (poll(&ready, 1, timeout_ms) <= 0) return -1;
    const int count = socket_->Recv(bytes, sizeof bytes);
    if (count <= 0) return 0;
    input_.append(bytes, static_cast<size_t>(count));
  }
  return 1;
}

bool RpcPeer::Read(RpcFrame* frame) {
  if (Fill(sizeof frame->head, patience_ms_) != 1) return false;
  memcpy(&frame->head, input_.data(), sizeof frame->head);
  const auto size = static_cast<size_t>(frame->head.size);
  if (Fill(size, patience_ms_) != 1) return false;
  frame->payload = input_.substr(sizeof frame->head, size - sizeof frame->head);
  input_.erase(0, size);
  return true;
}

int RpcPeer::Ask(const std::string& bytes, RpcFrame* answer) {
  RpcFrame frame;
  if (!Send(bytes) || !Read(&frame)) return 9999;
  if (answer != nullptr) *answer = frame;
  return frame.head.err_code;
}

}  // namespace test
