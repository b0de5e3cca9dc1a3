#include "bsp/base/socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "bsp/log/log.h"

namespace bsp {

namespace {

constexpr size_t kResolveMost = size_t{1} << 20;  // a host with thousands of aliases and addresses

// gethostbyname, in the form that two threads may call at once.
bool Resolve(const std::string& host, in_addr* address) {
  std::vector<char> buffer(1024);
  hostent entry = {};
  hostent* found = nullptr;
  int reason = 0;
  while (gethostbyname_r(host.c_str(), &entry, buffer.data(), buffer.size(), &found, &reason) ==
             ERANGE &&
         buffer.size() < kResolveMost) {
    buffer.resize(buffer.size() * 2);
  }
  if (found == nullptr || found->h_addr_list[0] == nullptr) return false;
  if (found->h_length != static_cast<int>(sizeof(*address))) return false;
  memcpy(address, found->h_addr_list[0], sizeof(*address));
  return true;
}

// A connect that a signal interrupts goes on in the kernel; asked again it would only say so.
bool FinishConnect(int fd) {
  pollfd waiting = {fd, POLLOUT, 0};
  while (poll(&waiting, 1, -1) == -1) {
    if (errno != EINTR) return false;
  }
  int error = 0;
  socklen_t length = sizeof(error);
  if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == -1) return false;
  errno = error;
  return error == 0;
}

// Keeps errno over the log line of a failure.
class KeepErrno {
 public:
  KeepErrno() = default;
  ~KeepErrno() { errno = saved_; }
  KeepErrno(const KeepErrno&) = delete;
  KeepErrno& operator=(const KeepErrno&) = delete;

 private:
  const int saved_ = errno;
};

// The result of an operation that the socket cannot do: errno must not keep the EAGAIN of an
// earlier call, which callers take as "later".
int Refused(int error) {
  errno = error;
  return -1;
}

}  // namespace

SocketAddress::SocketAddress(const std::string& host, int port) { Set(host, port); }

void SocketAddress::Set(const std::string& host, int port) {
  address_ = {};
  address_.sin_family = AF_INET;
  address_.sin_port = htons(static_cast<uint16_t>(port));
  if (port < 0 || port > 65535) {
    BSP_LOG_ERROR(MOD_BSP, "Port %d is not between 0 and 65535, taken as %d", port, Port());
  }
  if (inet_pton(AF_INET, host.c_str(), &address_.sin_addr) == 1) return;
  if (!Resolve(host, &address_.sin_addr)) {
    BSP_LOG_ERROR(MOD_BSP, "Failed to resolve host: %s", host.c_str());
  }
}

const char* SocketAddress::Host() const { return inet_ntoa(address_.sin_addr); }

int SocketAddress::Port() const { return ntohs(address_.sin_port); }

std::string SocketAddress::ToString() const {
  return std::string(Host()) + ":" + std::to_string(Port());
}

bool SocketAddress::IsValid() const { return address_.sin_addr.s_addr != INADDR_NONE; }

Socket::Socket() { Initialize(); }

Socket::Socket(int fd) : fd_(fd) { Initialize(); }

Socket::~Socket() {
  const int fd = fd_;
  Close();
  BSP_LOG_DEBUG(MOD_BSP, "Socket %d destroyed", fd);
}

bool Socket::Create(SocketType type) {
  if (IsValid()) {
    BSP_LOG_ERROR(MOD_BSP, "Socket already created");
    return false;
  }
  fd_ = socket(AF_INET, static_cast<int>(type) | SOCK_CLOEXEC, 0);
  if (fd_ != -1) return true;
  const KeepErrno keep;
  BSP_LOG_ERROR(MOD_BSP, "Failed to create socket");
  return false;
}

bool Socket::Connect(const SocketAddress& address) {
  if (!IsValid()) {
    BSP_LOG_ERROR(MOD_BSP, "Socket not initialized");
    return false;
  }
  if (connect(fd_, address.Native(), SocketAddress::SizeOf()) == 0) return true;
  if (errno == EINTR && FinishConnect(fd_)) return true;
  const KeepErrno keep;
  BSP_LOG_ERROR(MOD_BSP, "Failed to connect to %s:%d", address.Host(), address.Port());
  return false;
}

bool Socket::Bind(const SocketAddress& address) {
  if (!IsValid()) {
    BSP_LOG_ERROR(MOD_BSP, "Socket not initialized");
    return false;
  }
  if (bind(fd_, address.Native(), SocketAddress::SizeOf()) == 0) return true;
  const KeepErrno keep;
  BSP_LOG_ERROR(MOD_BSP, "Failed to bind to %s:%d", address.Host(), address.Port());
  return false;
}

bool Socket::Listen(int backlog) {
  if (!IsValid()) {
    BSP_LOG_ERROR(MOD_BSP, "Socket not bound");
    return false;
  }
  if (listen(fd_, backlog) == 0) return true;
  const KeepErrno keep;
  BSP_LOG_ERROR(MOD_BSP, "Failed to listen");
  return false;
}

std::shared_ptr<Socket> Socket::Accept() {
  if (!IsValid()) {
    BSP_LOG_ERROR(MOD_BSP, "Socket not listening");
    errno = EBADF;
    return nullptr;
  }
  sockaddr_in peer = {};
  int fd = -1;
  do {
    socklen_t length = sizeof(peer);
    fd = accept4(fd_, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC);
  } while (fd == -1 && (errno == EINTR || errno == ECONNABORTED));
  if (fd == -1) return nullptr;
  try {
    return std::make_shared<Socket>(fd);
  } catch (...) {
    Close(fd);  // else the peer waits for ever
    throw;
  }
}

int Socket::Send(const char* data, int length) {
  if (!IsValid()) {
    BSP_LOG_ERROR(MOD_BSP, "Socket not connected");
    return Refused(EBADF);
  }
  if (length < 0) return Refused(EINVAL);
  return static_cast<int>(send(fd_, data, static_cast<size_t>(length), MSG_NOSIGNAL));
}

int Socket::SendPieces(const iovec* pieces, int count) {
  if (!IsValid()) {
    BSP_LOG_ERROR(MOD_BSP, "Socket not connected");
    return Refused(EBADF);
  }
  if (count < 0) return Refused(EINVAL);
  msghdr message = {};
  message.msg_iov = const_cast<iovec*>(pieces);  // the kernel only reads it
  message.msg_iovlen = static_cast<size_t>(count);
  return static_cast<int>(sendmsg(fd_, &message, MSG_NOSIGNAL));
}

int Socket::Recv(char* buffer, int length) {
  if (!IsValid()) {
    BSP_LOG_ERROR(MOD_BSP, "Socket not connected");
    return Refused(EBADF);
  }
  if (length < 0) return Refused(EINVAL);
  return static_cast<int>(recv(fd_, buffer, static_cast<size_t>(length), 0));
}

int Socket::SendTo(const char* data, int length, const SocketAddress& address) {
  if (!IsValid()) {
    BSP_LOG_ERROR(MOD_BSP, "Socket not initialized");
    return Refused(EBADF);
  }
  if (length < 0) return Refused(EINVAL);
  return static_cast<int>(sendto(fd_, data, static_cast<size_t>(length), MSG_NOSIGNAL,
                                 address.Native(), SocketAddress::SizeOf()));
}

int Socket::RecvFrom(char* buffer, int length, SocketAddress& address) {
  if (!IsValid()) {
    BSP_LOG_ERROR(MOD_BSP, "Socket not initialized");
    return Refused(EBADF);
  }
  if (length < 0) return Refused(EINVAL);
  socklen_t address_length = SocketAddress::SizeOf();
  return static_cast<int>(
      recvfrom(fd_, buffer, static_cast<size_t>(length), 0, address.Native(), &address_length));
}

void Socket::Close() { Close(fd_); }

void Socket::Close(int& fd) {
  if (fd == -1) return;
  close(fd);  // the descriptor is gone whatever close reports
  fd = -1;
}

bool Socket::SetOption(int level, int name, const void* value, unsigned int length) {
  return setsockopt(fd_, level, name, value, length) != -1;
}

bool Socket::SetBlocking(int flag) {
  const int flags = fcntl(fd_, F_GETFL);
  if (flags == -1) {
    const KeepErrno keep;
    BSP_LOG_ERROR(MOD_BSP, "Failed to get socket flags");
    return false;
  }
  const int wanted = flag != 0 ? flags | O_NONBLOCK : flags & ~O_NONBLOCK;
  return fcntl(fd_, F_SETFL, wanted) != -1;
}

int Socket::ErrorNo() { return errno; }

}  // namespace bsp
