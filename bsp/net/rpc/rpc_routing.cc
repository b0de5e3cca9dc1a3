// The command table of the broker: who listens to what, the way of a frame to its listeners and of
// a reply back, and the look at the life of a listener that stands in a newcomer's way.
//
// The only memory of a requester is its descriptor, which the broker writes into the forwarded
// frame and the listener sends back in its reply. A bare descriptor has no generation: when the
// requester is gone and its number has been given away again, the reply reaches the new owner,
// whose client drops it for want of a waiter.
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "bsp/log/log.h"
#include "bsp/net/rpc/rpc_server.h"
#include "bsp/net/tcp_client.h"

namespace bsp {
namespace {

const std::shared_ptr<MSError> kOk;

constexpr size_t kHeadSize = sizeof(RpcHeader);
constexpr size_t kRecordFrameSize = sizeof(RpcHeader) + sizeof(RpcListenRecord);

// The record behind the head; null when the frame is too short to hold one.
const RpcListenRecord* RecordOf(const RpcHeader* head) {
  if (head->size < static_cast<int32_t>(kRecordFrameSize)) return nullptr;
  return reinterpret_cast<const RpcListenRecord*>(head + 1);
}

std::shared_ptr<MSError> RefuseShort(const RpcHeader* head) {
  BSP_LOG_ERROR(MOD_BSP, "frame of type %d is short: %d bytes, needs %zu", head->type, head->size,
                kRecordFrameSize);
  return BSP_NEW_ERROR(-1, "frame of type %d is short: %d bytes, needs %zu", head->type, head->size,
                       kRecordFrameSize);
}

bool IsProcessGone(int32_t pid) { return pid > 0 && kill(pid, 0) == -1 && errno == ESRCH; }

}  // namespace

std::shared_ptr<MSError> RpcServer::Listen(const std::shared_ptr<RpcAgent>& agent,
                                           const RpcHeader* head) {
  const RpcListenRecord* record = RecordOf(head);
  if (record == nullptr) return RefuseShort(head);
  const std::string& name = NameOf(record->cmd);
  if (agent->cmds.count(name) != 0) {
    BSP_LOG_WARN(MOD_BSP, "cmd %s already listen", name.c_str());
    return kOk;
  }
  const size_t limit = options_.max_commands;
  if (limit != 0 && agent->cmds.size() >= limit) {
    BSP_LOG_ERROR(MOD_BSP, "refused cmd %s of client %d, pid %d: commands, limit %zu, value %zu",
                  name.c_str(), agent->GetNativeSocket(), head->pid, limit, agent->cmds.size() + 1);
    return BSP_NEW_ERROR(-1, "client listens to %zu commands, no more are allowed", limit);
  }
  if (IsTakenByRequest(name, record->type)) {
    CleanStaleClients(name);
    if (IsTakenByRequest(name, record->type)) {
      BSP_LOG_ERROR(MOD_BSP, "cmd %s type is REQUEST, can't listen more than one client",
                    name.c_str());
      return BSP_NEW_ERROR(-6, "cmd %s is REQUEST type, can't listen more than one client",
                           name.c_str());
    }
  }
  Cmd2Cli& entry = cmds_[name];
  if (entry.clients.empty()) {
    entry.cmd = name;
    entry.type = record->type;
    entry.power = record->power;
  }
  entry.clients.push_back(agent);
  agent->pid = head->pid;
  agent->cmds[name] = static_cast<unsigned int>(record->type);
  return kOk;
}

// True when the name has a listener and either side wants to be the only one.
bool RpcServer::IsTakenByRequest(const std::string& name, int32_t kind) const {
  const auto found = cmds_.find(name);
  if (found == cmds_.end()) return false;
  return kind == RPC_TYPE_REQUEST || found->second.type == RPC_TYPE_REQUEST;
}

std::shared_ptr<MSError> RpcServer::CheckCmdPower(const std::shared_ptr<RpcAgent>& agent,
                                                  const RpcHeader* head) {
  const RpcListenRecord* record = RecordOf(head);
  if (record == nullptr) return RefuseShort(head);
  const auto found = cmds_.find(NameOf(record->cmd));
  if (found == cmds_.end()) return BSP_NEW_ERROR(-2, "cmd %s not found", name_.c_str());

  const Cmd2Cli& entry = found->second;
  struct {
    RpcHeader head;
    RpcListenRecord record;
  } reply = {};
  static_assert(sizeof reply == kRecordFrameSize, "no padding between head and record");
  reply.head = *head;
  reply.head.err_code = 0;
  memcpy(reply.record.cmd, entry.cmd.data(), std::min(entry.cmd.size(), size_t{63}));
  reply.record.type = entry.type;
  reply.record.power = entry.power;
  BSP_LOG_ERROR(MOD_BSP, "cmd %s, type %d, power %d.", reply.record.cmd, entry.type, entry.power);
  return ServerReplay(agent, reinterpret_cast<char*>(&reply), static_cast<int>(sizeof reply));
}

std::shared_ptr<MSError> RpcServer::ForwardMessage(const std::shared_ptr<RpcAgent>& agent,
                                                   char* frame, unsigned int size, int& kind) {
  auto* head = reinterpret_cast<RpcHeader*>(frame);
  const auto found = cmds_.find(NameOf(head->cmd));
  if (found == cmds_.end()) {
    BSP_LOG_ERROR(MOD_BSP, "cmd %s not found", name_.c_str());
    return BSP_NEW_ERROR(-2, "cmd %s not found", name_.c_str());
  }
  kind = found->second.type;
  head->type = kind;
  head->cli_hdl = agent->GetNativeSocket();
  for (const std::shared_ptr<RpcAgent>& listener : found->second.clients) {
    // A process never gets its own commands, on whichever of its connections.
    if (listener == agent || listener->pid == agent->pid) continue;
    SendTo(listener, frame, size);
  }
  return kOk;
}

std::shared_ptr<MSError> RpcServer::ReplayRequest(const std::shared_ptr<RpcAgent>&, char* frame,
                                                  unsigned int size) {
  const auto* head = reinterpret_cast<const RpcHeader*>(frame);
  BSP_LOG_DEBUG(MOD_BSP, "replay request, seq: %d, cli_hdl: %lld", static_cast<int>(head->seq),
                static_cast<long long>(head->cli_hdl));
  const auto requester = static_cast<int>(head->cli_hdl);
  const auto found = clients_.find(requester);
  if (found == clients_.end()) {
    BSP_LOG_ERROR(MOD_BSP, "req_cli_hdl %d not found", requester);
    return BSP_NEW_ERROR(-1, "req_cli_hdl %d not found", requester);
  }
  SendTo(found->second, frame, size);
  return kOk;
}

std::shared_ptr<MSError> RpcServer::ServerReplay(const std::shared_ptr<RpcAgent>& agent,
                                                 const RpcHeader* head, int code) {
  RpcHeader reply = *head;
  reply.err_code = code;
  return ServerReplay(agent, reinterpret_cast<char*>(&reply), static_cast<int>(kHeadSize));
}

std::shared_ptr<MSError> RpcServer::ServerReplay(const std::shared_ptr<RpcAgent>& agent,
                                                 char* buffer, int data_size) {
  if (data_size == 0) {
    BSP_LOG_ERROR(MOD_BSP, "ServerReplay: data_size is 0");
    return BSP_NEW_ERROR(-1, "ServerReplay: data_size is 0");
  }
  auto* head = reinterpret_cast<RpcHeader*>(buffer);
  head->magic = RPC_MAGIC;
  head->type = RPC_TYPE_REPLAY;
  head->size = data_size;
  SendTo(agent, buffer, static_cast<size_t>(data_size));
  return kOk;
}

// The dead among the listeners of one command are closed with all their commands. The walk and the
// closing are two steps, because CliClose changes the list that is walked.
void RpcServer::CleanStaleClients(const std::string& cmd) {
  const auto found = cmds_.find(cmd);
  if (found == cmds_.end()) return;
  std::list<std::shared_ptr<TcpClient>> stale;
  for (const std::shared_ptr<RpcAgent>& agent : found->second.clients) {
    if (agent->client != nullptr && IsStale(*agent, cmd)) stale.push_back(agent->client);
  }
  for (const std::shared_ptr<TcpClient>& client : stale) CliClose(client);
}

// Neither blocks nor takes a byte from the connection. In doubt a listener is alive.
bool RpcServer::IsStale(const RpcAgent& agent, const std::string& cmd) const {
  const int fd = agent.GetNativeSocket();
  if (fd == -1) return true;
  if (IsProcessGone(agent.pid)) {
    BSP_LOG_INFO(MOD_BSP, "CleanStaleClients: pid %d for cmd %s is dead", agent.pid, cmd.c_str());
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
