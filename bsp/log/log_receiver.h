// The socket of the log server.
#ifndef BSP_LOG_LOG_RECEIVER_H_
#define BSP_LOG_LOG_RECEIVER_H_

#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bsp/base/socket.h"
#include "bsp/log/log_msg.h"

namespace bsp {

// Reads waiting datagrams, several with one system call, into records of its own.
//
// Threads: one at a time.
class LogReceiver {
 public:
  // datagrams_per_turn: most that one Receive reads, at least 1. buffer_bytes: size to ask for as
  // the receive buffer, 0 for the system's default.
  LogReceiver(int datagrams_per_turn, int buffer_bytes);

  // Makes the socket and binds it to all interfaces. False, with a log line, on failure.
  bool Open();
  void Close();
  bool IsOpen() const { return socket_.IsValid(); }

  // Lets no more datagrams in; those that wait can still be read. False when the kernel refuses.
  bool Seal();

  enum class Event { kNothing, kDatagram, kFailure };

  // Waits for a datagram, or until `wake_fd` is readable or the time is over.
  Event Wait(int wake_fd, int timeout_ms);

  // What one datagram brought.
  struct Datagram {
    LogMsg* msg;         // as it came, up to 1096 bytes, zero behind them; until the next Receive
    int length;          // bytes received; 0 or less: nothing, or a failure
    uint32_t from_host;  // IPv4 address of the sender in host order
  };

  // Reads what waits without waiting, at least one entry, which then tells of the failure.
  const std::vector<Datagram>& Receive();

  // Datagrams that the kernel has dropped since Open, for lack of room in the receive buffer
  // nearly always; counted modulo 2^32. Always 0 before Linux 4.12.
  uint32_t CountDrops() const;

 private:
  void EnlargeBuffer();

  const int buffer_bytes_;
  Socket socket_;
  // Parallel, one entry for each datagram of a turn; the first four point into each other.
  std::vector<LogMsg> msgs_;
  std::vector<sockaddr_in> senders_;
  std::vector<iovec> pieces_;
  std::vector<mmsghdr> heads_;
  std::vector<Datagram> datagrams_;
};

}  // namespace bsp

#endif  // BSP_LOG_LOG_RECEIVER_H_
