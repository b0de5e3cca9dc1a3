#include "bsp/net/rpc/rpc_agent.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <cerrno>

#include "bsp/log/log.h"
#include "bsp/net/tcp_client.h"

namespace bsp {
namespace {

bool IsProcessGone(int32_t pid) { return pid > 0 && kill(pid, 0) == -1 && errno == ESRCH; }

}  // namespace

RpcAgent::~RpcAgent() {
  if (client == nullptr) return;
  BSP_LOG_DEBUG(MOD_BSP, "CloseClient addr=%s", client->GetAddress().ToString().c_str());
  client->Disconnect();
  client.reset();
}

int RpcAgent::GetNativeSocket() const { return client == nullptr ? -1 : client->GetNativeSocket(); }

bool RpcAgent::IsStale(const std::string& cmd) const {
  const int fd = GetNativeSocket();
  if (fd == -1) return true;
  if (IsProcessGone(pid)) {
    BSP_LOG_INFO(MOD_BSP, "CleanStaleClients: pid %d for cmd %s is dead", pid, cmd.c_str());
    return true;
  }
  struct pollfd ready = {fd, POLLIN, 0};
  if (poll(&ready, 1, 0) <= 0) return false;
  if ((ready.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
    BSP_LOG_INFO(MOD_BSP, "CleanStaleClients: fd %d for cmd %s is stale (revents=0x%x)", fd,
                 cmd.c_str(), static_cast<unsigned int>(ready.revents));
    return true;
  }
  if ((ready.revents & POLLIN) == 0) return false;
  char byte;
  const ssize_t count = recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  const int failure = errno;
  if (count == 0) {
    BSP_LOG_INFO(MOD_BSP, "CleanStaleClients: fd %d for cmd %s peer closed (FIN)", fd, cmd.c_str());
    return true;
  }
  if (count < 0 && failure != EAGAIN) {
    BSP_LOG_INFO(MOD_BSP, "CleanStaleClients: fd %d for cmd %s recv error (errno=%d)", fd,
                 cmd.c_str(), failure);
    return true;
  }
  return false;
}

}  // namespace bsp
