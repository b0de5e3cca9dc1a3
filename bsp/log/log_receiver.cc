#include "bsp/log/log_receiver.h"

#include <linux/filter.h>
#include <linux/sock_diag.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "bsp/log/log.h"
#include "bsp/log/sys_log_cli.h"

namespace bsp {

LogReceiver::LogReceiver(int datagrams_per_turn, int buffer_bytes) : buffer_bytes_(buffer_bytes) {
  const size_t count = static_cast<size_t>(std::max(datagrams_per_turn, 1));
  msgs_.resize(count);
  senders_.resize(count);
  pieces_.resize(count);
  heads_.resize(count);
  datagrams_.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    pieces_[i] = {&msgs_[i], sizeof msgs_[i]};
    heads_[i].msg_hdr.msg_iov = &pieces_[i];
    heads_[i].msg_hdr.msg_iovlen = 1;
    heads_[i].msg_hdr.msg_name = &senders_[i];
  }
}

bool LogReceiver::Open() {
  if (!socket_.Create(Socket::SOCKET_DGRAM)) {
    BSP_LOG_ERROR(MOD_BSP, "UDP socket creation failed");
    return false;
  }
  if (!Bind()) {
    BSP_LOG_ERROR(MOD_BSP, "UDP bind failed");
    Close();
    return false;
  }
  EnlargeBuffer();
  return true;
}

bool LogReceiver::Bind() { return socket_.Bind(SocketAddress("0.0.0.0", kLogPort)); }

bool LogReceiver::OpenForFeeds(LogReceiver* records) {
  if (Join(records)) {
    EnlargeBuffer();
    return true;
  }
  const int saved = errno;
  BSP_LOG_WARN(MOD_BSP, "watchdog feeds share the receive buffer of the records, errno %d", saved);
  Close();
  const int off = 0;
  records->socket_.SetOption(SOL_SOCKET, SO_REUSEPORT, &off, sizeof off);
  return false;
}

// The first socket was bound without SO_REUSEPORT, so the port was free: a second log server is
// refused as ever, since it asks in the same way. In the group that the two form the kernel asks
// the program below for the index of the socket, and what is too short for it goes to the first.
bool LogReceiver::Join(LogReceiver* records) {
  const int on = 1;
  if (!records->socket_.SetOption(SOL_SOCKET, SO_REUSEPORT, &on, sizeof on) ||
      !socket_.Create(Socket::SOCKET_DGRAM) ||
      !socket_.SetOption(SOL_SOCKET, SO_REUSEPORT, &on, sizeof on) || !Bind()) {
    return false;
  }
  sock_filter steps[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(LogMsg, type)),  // as if in network order
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htonl(LOG_TYPE_FEED_DOG), 0, 1),
      BPF_STMT(BPF_RET | BPF_K, 1),
      BPF_STMT(BPF_RET | BPF_K, 0),
  };
  const sock_fprog program = {sizeof steps / sizeof *steps, steps};
  return socket_.SetOption(SOL_SOCKET, SO_ATTACH_REUSEPORT_CBPF, &program, sizeof program);
}

void LogReceiver::Close() { socket_.Close(); }

// A connected socket takes datagrams of its peer alone, and the peer named here is the socket
// itself, which sends none.
bool LogReceiver::Seal() { return socket_.Connect(SocketAddress(kLogHost, kLogPort)); }

// Asks past the system's limit first, which takes a privilege.
void LogReceiver::EnlargeBuffer() {
  if (buffer_bytes_ == 0) return;
  if (!socket_.SetOption(SOL_SOCKET, SO_RCVBUFFORCE, &buffer_bytes_, sizeof buffer_bytes_)) {
    socket_.SetOption(SOL_SOCKET, SO_RCVBUF, &buffer_bytes_, sizeof buffer_bytes_);
  }
  int granted = 0;
  socklen_t size = sizeof granted;
  getsockopt(socket_.GetNativeSocket(), SOL_SOCKET, SO_RCVBUF, &granted, &size);
  granted /= 2;  // the kernel doubles what it is asked for, for its own overhead
  if (granted < buffer_bytes_) {
    BSP_LOG_WARN(MOD_BSP, "UDP receive buffer is %d bytes, not %d: raise net.core.rmem_max",
                 granted, buffer_bytes_);
  }
}

bool LogReceiver::HasWaiting() const {
  struct pollfd waiting = {fd(), POLLIN, 0};
  return IsOpen() && poll(&waiting, 1, 0) > 0;
}

const std::vector<LogReceiver::Datagram>& LogReceiver::Receive() {
  for (mmsghdr& head : heads_) head.msg_hdr.msg_namelen = sizeof(sockaddr_in);
  const int count = recvmmsg(socket_.GetNativeSocket(), heads_.data(),
                             static_cast<unsigned>(heads_.size()), MSG_DONTWAIT, nullptr);
  datagrams_.clear();
  if (count <= 0) datagrams_.push_back({&msgs_[0], -1, 0});
  for (size_t i = 0; i < static_cast<size_t>(std::max(count, 0)); ++i) {
    const size_t length = heads_[i].msg_len;
    memset(reinterpret_cast<char*>(&msgs_[i]) + length, 0, sizeof msgs_[i] - length);
    datagrams_.push_back({&msgs_[i], static_cast<int>(length), ntohl(senders_[i].sin_addr.s_addr)});
  }
  return datagrams_;
}

// The count that SO_RXQ_OVFL delivers with a datagram, asked for directly: losses at the end of a
// burst then show without another datagram behind them.
uint32_t LogReceiver::CountDrops() const {
  uint32_t info[SK_MEMINFO_VARS] = {};
  socklen_t size = sizeof info;
  getsockopt(socket_.GetNativeSocket(), SOL_SOCKET, SO_MEMINFO, info, &size);
  return info[SK_MEMINFO_DROPS];
}

}  // namespace bsp
