#include "tests/support/rpc_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace test {
namespace {

struct sockaddr_in Loopback(int port) {
  struct sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// Else a small frame behind another waits 40 ms for an acknowledgement.
void SendAtOnce(int fd) {
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

}  // namespace

std::string RpcBytes(RpcFrame frame) {
  frame.head.magic = RPC_MAGIC;
  frame.head.size = static_cast<int32_t>(sizeof frame.head + frame.payload.size());
  return std::string(reinterpret_cast<const char*>(&frame.head), sizeof frame.head) + frame.payload;
}

std::string RpcBytes(int type, uint32_t seq, const std::string& cmd, const std::string& payload,
                     int32_t pid) {
  RpcFrame frame;
  frame.head.type = type;
  frame.head.seq = seq;
  frame.head.pid = pid;
  bsp::SetRpcCmd(frame.head.cmd, cmd.c_str());
  frame.payload = payload;
  return RpcBytes(frame);
}

std::string RpcRecord(const std::string& cmd, int type, int power) {
  RpcListenRecord record = {};
  bsp::SetRpcCmd(record.cmd, cmd.c_str());
  record.type = type;
  record.power = power;
  return std::string(reinterpret_cast<const char*>(&record), sizeof record);
}

RpcPeer::RpcPeer(int port) {
  const struct sockaddr_in address = Loopback(port);
  fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connect(fd_, reinterpret_cast<const struct sockaddr*>(&address), sizeof address) != 0) {
    Close();
  }
  SendAtOnce(fd_);
}

int RpcPeer::ListenOn(int port) {
  const struct sockaddr_in address = Loopback(port);
  const int on = 1;
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (bind(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof address) == 0 &&
      listen(fd, 64) == 0) {
    return fd;
  }
  close(fd);
  return -1;
}

RpcPeer RpcPeer::Accept(int listener) {
  RpcPeer peer;
  peer.fd_ = accept(listener, nullptr, nullptr);
  SendAtOnce(peer.fd_);
  return peer;
}

RpcPeer::RpcPeer(RpcPeer&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)), input_(std::move(other.input_)) {}

RpcPeer::~RpcPeer() { Close(); }

void RpcPeer::Close() {
  if (fd_ != -1) close(fd_);
  fd_ = -1;
}

bool RpcPeer::Send(const std::string& bytes) {
  size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t count = send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) return false;
    sent += static_cast<size_t>(count);
  }
  return true;
}

bool RpcPeer::Fill(int timeout_ms) {
  struct pollfd ready = {fd_, POLLIN, 0};
  if (poll(&ready, 1, timeout_ms) <= 0) return false;
  char bytes[65536];
  const ssize_t count = recv(fd_, bytes, sizeof bytes, 0);
  if (count <= 0) return false;
  input_.append(bytes, static_cast<size_t>(count));
  return true;
}

bool RpcPeer::Read(RpcFrame* frame, int timeout_ms) {
  while (input_.size() < sizeof frame->head) {
    if (!Fill(timeout_ms)) return false;
  }
  memcpy(&frame->head, input_.data(), sizeof frame->head);
  const auto size = static_cast<size_t>(frame->head.size);
  while (input_.size() < size) {
    if (!Fill(timeout_ms)) return false;
  }
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

bool RpcPeer::IsClosedByPeer(int timeout_ms) {
  while (Fill(timeout_ms)) {
  }
  char byte;
  const ssize_t count = recv(fd_, &byte, 1, MSG_DONTWAIT);
  return count == 0 || (count == -1 && errno != EAGAIN);
}

}  // namespace test
