// IPv4 sockets and addresses: a thin layer over the system calls.
#ifndef BSP_BASE_SOCKET_H_
#define BSP_BASE_SOCKET_H_

#include <netinet/in.h>
#include <sys/uio.h>

#include <memory>
#include <string>

#include "bsp/base/macros.h"

namespace bsp {

// An IPv4 address and port, 16 bytes in the system's own layout; all zero when default-made.
class BSP_EXPORT SocketAddress {
 public:
  SocketAddress() = default;
  SocketAddress(const std::string& host, int port);

  // `host` is a dotted address or a name to look up, `port` 0 to 65535. A host that cannot be
  // resolved is logged and leaves the address 0.0.0.0: all interfaces for Bind, the local host for
  // Connect. A look-up may block for as long as the system's resolver takes.
  void Set(const std::string& host, int port);

  // The dotted address, in a static buffer that the next call overwrites.
  const char* Host() const;
  int Port() const;
  // "host:port".
  std::string ToString() const;

  // False for 255.255.255.255 only, which the old conversion calls return for "no address".
  bool IsValid() const;

  // For the system calls.
  const sockaddr* Native() const { return reinterpret_cast<const sockaddr*>(&address_); }
  sockaddr* Native() { return reinterpret_cast<sockaddr*>(&address_); }
  static socklen_t SizeOf() { return sizeof(sockaddr_in); }

 private:
  sockaddr_in address_ = {};
};
static_assert(sizeof(SocketAddress) == 16, "the system's sockaddr_in and nothing else");

// Owns one descriptor; -1 when there is none. Failures are a false or negative result and a log
// line at level 3; nothing is thrown. All descriptors are close-on-exec: a program started by this
// process must not keep a connection alive behind its back. No socket option is ever set except by
// SetOption.
//
// Threads: no lock inside. System calls on one socket may run side by side, but Create, Close and
// the destructor only while nobody else uses it: the number may belong to another file at once.
class BSP_EXPORT Socket {
 public:
  // Passed straight through to socket(2).
  enum SocketType : int { SOCKET_STREAM = 1, SOCKET_DGRAM = 2 };

  Socket();
  // Takes over a descriptor; the caller sees to close-on-exec.
  explicit Socket(int fd);
  // Closes a valid descriptor.
  virtual ~Socket();
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  // False, with the descriptor left as it is, when there is one already.
  bool Create(SocketType type);

  // Blocks in blocking mode for as long as the kernel takes; a signal does not cut it short.
  bool Connect(const SocketAddress& address);
  bool Bind(const SocketAddress& address);
  bool Listen(int backlog);

  // The next waiting connection, in blocking mode; null when there is none or accepting failed
  // (ErrorNo tells which), without a log line. A signal, or a peer that has gone away while it
  // waited, is passed over: the connection behind it comes out.
  std::shared_ptr<Socket> Accept();

  // One system call each, its result passed up: the bytes moved, possibly fewer than asked for; 0
  // from Recv when the peer has closed; -1 with ErrorNo on failure (EBADF without a descriptor,
  // EINVAL for a negative length). A closed peer never raises a signal.
  int Send(const char* data, int length);
  int Recv(char* buffer, int length);
  int SendTo(const char* data, int length, const SocketAddress& address);
  int RecvFrom(char* buffer, int length, SocketAddress& address);
  // As Send, from `count` pieces of memory, at most 1024.
  int SendPieces(const iovec* pieces, int count);

  void Close();
  // Closes `fd` and sets it to -1; does nothing for -1.
  static void Close(int& fd);

  bool SetOption(int level, int name, const void* value, unsigned int length);

  // Against its name, a non-zero flag makes the socket NON-blocking and 0 makes it blocking.
  bool SetBlocking(int flag);

  int GetNativeSocket() const { return fd_; }
  bool IsValid() const { return fd_ != -1; }

  // errno of the last call on this thread.
  static int ErrorNo();

  // No work on this platform.
  static bool Initialize() { return true; }
  static void Cleanup() {}

 private:
  int fd_ = -1;
};

}  // namespace bsp

#endif  // BSP_BASE_SOCKET_H_
