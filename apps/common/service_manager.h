// Tells a service manager how this program is doing, by the notify datagram protocol: state lines
// to the Unix socket that NOTIFY_SOCKET names. Silent when no manager asked for it.
#ifndef BSP_APPS_COMMON_SERVICE_MANAGER_H_
#define BSP_APPS_COMMON_SERVICE_MANAGER_H_

#include <sys/socket.h>
#include <sys/un.h>

#include <cstdint>
#include <string>

namespace app {

// Threads: Ready and Stopping any; Alive on one.
class ServiceManager {
 public:
  // Reads NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID, and takes them out of the environment, so
  // that no child speaks in our name.
  ServiceManager();
  ServiceManager(const ServiceManager&) = delete;
  ServiceManager& operator=(const ServiceManager&) = delete;
  ~ServiceManager();

  void Ready();     // the service is up
  void Stopping();  // its end has begun

  // The manager wants to hear Alive.
  bool IsWatching() const { return fd_ != -1 && period_ms_ > 0; }

  // Called from the loop whose life is to be proven, as often as it likes: at most one datagram
  // goes out per third of the watchdog's period, none without a watchdog.
  void Alive();

 private:
  void Send(const std::string& state);

  int fd_ = -1;  // -1: nobody listens
  struct sockaddr_un address_ = {};
  socklen_t address_size_ = 0;
  int64_t period_ms_ = 0;  // between two Alive datagrams; 0: no watchdog
  int64_t last_ms_ = 0;
};

}  // namespace app

#endif  // BSP_APPS_COMMON_SERVICE_MANAGER_H_
