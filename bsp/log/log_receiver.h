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

  // Makes a second socket for the port of `records`, which is open, that from now on gets the
  // watchdog feeds, and they a receive buffer of their own: no flood of records can push them out.
  // False, with a log line and `records` as it was, when the kernel cannot; before Linux 4.5.
  bool OpenForFeeds(LogReceiver* records);

  void Close();
  bool IsOpen() const { return socket_.IsValid(); }

  // Lets no more datagrams in; those that wait can still be read. False when the kernel refuses.
  bool Seal();

  int fd() const { return socket_.GetNativeSocket(); }

  // Whether something waits to be read.
  bool HasWaiting() const;

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
  bool Bind();
  bool Join(LogReceiver* records);
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
