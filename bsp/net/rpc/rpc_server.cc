// The life of the broker, its connections, and the dispatch of frames.
//
// One thread runs everything: the loop calls TcpClient::OnRead, which raises SignalRead, and
// CliHandleMessage cuts the delivery into frames. Frames are not re-encoded: they are taken into
// one piece of memory, patched in place, and the same bytes go out.
//
// A slow peer cannot block the thread: bytes that its socket does not take wait in its TcpClient.
// Small frames are only queued while events are handled and leave, all that go to one destination
// together, in one system call when the loop is done with the events at hand. A destination gets
// its bytes in the order in which they were handled all the same.
//
// A connection may be closed by what is handled on another one (a takeover, a backlog), and by its
// own frames (a limit). The tables change only in CliClose; whoever is dropped in the midst of a
// walk over listeners is marked, gets nothing more, and is closed when the delivery is done.
#include "bsp/net/rpc/rpc_server.h"

#include <malloc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <system_error>
#include <utility>

#include "bsp/base/socket.h"
#include "bsp/log/log.h"
#include "bsp/net/event_loop.h"
#include "bsp/net/tcp_client.h"
#include "bsp/net/tcp_server.h"
#include "bsp/util/memory_buffer.h"
#include "bsp/util/time_util.h"

namespace bsp {
namespace {

const std::shared_ptr<MSError> kOk;

int CodeOf(const std::shared_ptr<MSError>& error) { return error != kOk ? error->ErrorCode() : 0; }

}  // namespace

// What a host may want done once a second, by a timer on the broker's loop.
class RpcServer::Housekeeping : public EventHandler {
 public:
  Housekeeping(std::shared_ptr<EventLoop> loop, const Options& options,
               std::shared_ptr<FrameMemory> recv_buf)
      : loop_(std::move(loop)), options_(options), recv_buf_(std::move(recv_buf)) {
    timer_ = std::make_shared<Socket>(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    struct itimerspec period = {};
    period.it_value.tv_sec = 1;
    period.it_interval.tv_sec = 1;
    timerfd_settime(timer_->GetNativeSocket(), 0, &period, nullptr);
    loop_->AddEvent(timer_, EVENT_READ, this);
  }
  ~Housekeeping() override { loop_->RemoveEvent(timer_); }
  Housekeeping(const Housekeeping&) = delete;
  Housekeeping& operator=(const Housekeeping&) = delete;

  void NoteBytes(size_t count) {
    bytes_ += count;
    if (bytes_ > kCalmBytes) is_release_due_ = true;
  }

  void OnRead() override {
    uint64_t expirations = 0;
    // A periodic timer is armed anew by being read.
    if (read(timer_->GetNativeSocket(), &expirations, sizeof expirations) == -1) return;
    const bool is_calm = bytes_ <= kCalmBytes;
    bytes_ = 0;
    if (is_release_due_ && is_calm) Release();
    if (options_.on_tick) options_.on_tick();
  }
  void OnWrite() override {}
  void OnError() override {}

 private:
  // Bytes handled in one second: less cannot have grown the process by more than that.
  static constexpr size_t kCalmBytes = size_t{256} * 1024;

  void Release() {
    is_release_due_ = false;
    if (!options_.release_memory) return;
    recv_buf_->Release();
    malloc_trim(0);
  }

  const std::shared_ptr<EventLoop> loop_;
  const Options& options_;
  const std::shared_ptr<FrameMemory> recv_buf_;
  std::shared_ptr<Socket> timer_;
  size_t bytes_ = 0;  // since the last tick
  bool is_release_due_ = false;
};

RpcServer::RpcAgent::~RpcAgent() {
  if (client == nullptr) return;
  BSP_LOG_DEBUG(MOD_BSP, "CloseClient addr=%s", client->GetAddress().ToString().c_str());
  client->Disconnect();
  client.reset();
}

int RpcServer::RpcAgent::GetNativeSocket() const {
  return client == nullptr ? -1 : client->GetNativeSocket();
}

RpcServer::RpcServer() : RpcServer(Options()) {}

RpcServer::RpcServer(const Options& options)
    : recv_buf_(std::make_shared<FrameMemory>()), options_(options) {}

RpcServer::~RpcServer() { Stop(); }

std::shared_ptr<MSError> RpcServer::Start(const std::string& host, int port) {
  if (thread_.joinable()) {
    BSP_LOG_ERROR(MOD_BSP, "RPC server is already running");
    return BSP_NEW_ERROR(-1, "RPC server is already running");
  }
  loop_ = std::make_shared<EventLoop>();
  if (!loop_->IsValid()) {
    BSP_LOG_ERROR(MOD_BSP, "Failed to create event loop");
    return BSP_NEW_ERROR(-1, "Failed to create event loop");
  }
  server_ = std::make_shared<TcpServer>(loop_);
  TcpServer::Options listener;
  if (options_.listen_backlog > 0) listener.backlog = options_.listen_backlog;
  listener.reuse_address = options_.reuse_address;
  listener.keep_reserve = true;  // a peer that cannot be served is to know it at once
  server_->SetOptions(listener);
  if (!server_->Listen(host, port)) {
    BSP_LOG_ERROR(MOD_BSP, "Failed to create server socket");
    return BSP_NEW_ERROR(-1, "Failed to create server socket");
  }
  server_->SignalAccept.connect(this, &RpcServer::HandleAccept);
  if (options_.release_memory || options_.on_tick) {
    housekeeping_ = std::make_unique<Housekeeping>(loop_, options_, recv_buf_);
  }
  try {
    thread_ = std::thread(&RpcServer::Loop, this);
  } catch (const std::system_error& failure) {
    BSP_LOG_ERROR(MOD_BSP, "Failed to start broker thread: %s", failure.what());
    return BSP_NEW_ERROR(-1, "Failed to start broker thread: %s", failure.what());
  }
  BSP_LOG_INFO(MOD_BSP, "RPC server started on %s:%d", host.c_str(), port);
  return kOk;
}

void RpcServer::Loop() {
  loop_->Loop();
  BSP_LOG_ERROR(MOD_BSP, "RPC server loop exit");
}

void RpcServer::Stop() {
  if (loop_ != nullptr) {
    loop_->Stop();
    loop_->Wakeup();
    if (thread_.joinable()) thread_.join();
    housekeeping_.reset();
    loop_.reset();
  }
  server_.reset();
  for (const auto& entry : clients_) {
    if (entry.second->client != nullptr) entry.second->client->Disconnect();
  }
  dropped_.clear();
  clients_.clear();
  cmds_.clear();
}

void RpcServer::HandleAccept(std::shared_ptr<TcpServer>, std::shared_ptr<Socket> socket) {
  if (socket == nullptr || !socket->IsValid()) {
    BSP_LOG_ERROR(MOD_BSP, "Failed to create client");
    return;
  }
  const int fd = socket->GetNativeSocket();
  if (options_.max_clients != 0 && clients_.size() >= options_.max_clients) {
    BSP_LOG_ERROR(MOD_BSP, "refused client %d, pid -1: clients, limit %zu, value %zu", fd,
                  options_.max_clients, clients_.size() + 1);
    return;
  }
  // A frame behind a small one must not wait for the acknowledgement of the small one.
  const int on = 1;
  socket->SetOption(IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);

  auto agent = std::make_shared<RpcAgent>();
  agent->client = std::make_shared<TcpClient>(loop_);
  agent->client->SetDeliverLastBytes(options_.handle_last_frames);
  agent->client->SetSendWhole(true);
  agent->input = std::make_shared<FrameInput>(recv_buf_, options_.max_frame_bytes);
  agent->client->SetSink(agent->input);
  agent->client->UpdateSocket(socket);
  agent->last_active = static_cast<uint64_t>(TimeUtil::ClockMillis());
  agent->client->SignalError.connect(this, &RpcServer::CliHandleError);
  agent->client->SignalRead.connect(this, &RpcServer::CliHandleMessage);
  clients_[fd] = std::move(agent);
}

void RpcServer::CliHandleMessage(std::shared_ptr<TcpClient> client,
                                 std::shared_ptr<MemoryBuffer> buffer) {
  // Looked up anew for each frame: what one frame brings about may close this connection.
  std::shared_ptr<RpcAgent> agent;
  do {
    agent = AgentOf(client);
    if (agent == nullptr) {
      BSP_LOG_ERROR(MOD_BSP, "Client %d not found", client->GetNativeSocket());
      break;
    }
  } while (!agent->is_dropped && HandleNextFrame(agent, buffer));
  CloseDropped();
}

std::shared_ptr<RpcServer::RpcAgent> RpcServer::AgentOf(
    const std::shared_ptr<TcpClient>& client) const {
  const auto found = clients_.find(client->GetNativeSocket());
  return found != clients_.end() ? found->second : nullptr;
}

// False when there is nothing more to take.
bool RpcServer::HandleNextFrame(const std::shared_ptr<RpcAgent>& agent,
                                const std::shared_ptr<MemoryBuffer>& buffer) {
  RpcHeader head;
  bool is_taken = false;
  const RpcFrameState state = agent->input->Take(buffer, &head, &is_taken);
  if (state != RpcFrameState::kComplete && state != RpcFrameState::kIncomplete) {
    HandleRest(agent, buffer, state, head);
    return false;
  }
  const auto size = static_cast<size_t>(head.size);
  const size_t limit = options_.max_frame_bytes;
  if (limit != 0 && size > limit) {
    Drop(agent, "frame bytes", limit, size);
    return false;
  }
  if (state == RpcFrameState::kIncomplete) return false;
  if (!is_taken) {
    Drop(agent, "frame bytes, no memory", 0, size);
    return false;
  }
  BSP_LOG_DEBUG(MOD_BSP, "package size: %d", head.size);
  BSP_LOG_DEBUG(MOD_BSP, "read package size: %d", head.size);
  if (housekeeping_ != nullptr) housekeeping_->NoteBytes(size);
  agent->last_active = static_cast<uint64_t>(TimeUtil::ClockMillis());
  HandleFrame(agent, recv_buf_->data(), size);
  return true;
}

// What is left when no frame stands in front: less than a head, or bytes that are none.
void RpcServer::HandleRest(const std::shared_ptr<RpcAgent>& agent,
                           const std::shared_ptr<MemoryBuffer>& buffer, RpcFrameState state,
                           const RpcHeader& head) {
  if (state == RpcFrameState::kWrongMagic) {
    BSP_LOG_ERROR(MOD_BSP, "buffer is error %s", agent->client->GetAddress().ToString().c_str());
    const size_t limit = options_.max_unread_bytes;
    if (limit != 0 && buffer->size() > limit) Drop(agent, "unread bytes", limit, buffer->size());
  } else if (state == RpcFrameState::kBadSize) {
    BSP_LOG_ERROR(MOD_BSP, "frame size %d is below %zu, closing client %d, pid %d", head.size,
                  sizeof head, agent->GetNativeSocket(), agent->pid);
    CliClose(agent->client);
  }
}

void RpcServer::HandleFrame(const std::shared_ptr<RpcAgent>& agent, char* frame, size_t size) {
  const auto* head = reinterpret_cast<const RpcHeader*>(frame);
  BSP_LOG_DEBUG(MOD_BSP, "type=%d, cmd=%s", head->type, NameOf(head->cmd).c_str());
  switch (head->type) {
    case RPC_TYPE_REQUEST:
      HandleRequest(agent, frame, size);
      return;
    case RPC_TYPE_REPLAY:
      ReplayRequest(agent, frame, static_cast<unsigned int>(size));
      BSP_LOG_DEBUG(MOD_BSP, "replay request, seq: %d, cli_hdl: %lld", static_cast<int>(head->seq),
                    static_cast<long long>(head->cli_hdl));
      return;
    case RPC_TYPE_LISTEN: {
      const int code = CodeOf(Listen(agent, head));
      ServerReplay(agent, head, code);
      BSP_LOG_DEBUG(MOD_BSP, "listen cmd %s error, err_code: %d", name_.c_str(), code);
      return;
    }
    case RPC_TYPE_CHECK_POWER: {
      const int code = CodeOf(CheckCmdPower(agent, head));
      if (code != 0) ServerReplay(agent, head, code);
      BSP_LOG_DEBUG(MOD_BSP, "get cmd list %s error, err_code: %d", name_.c_str(), code);
      return;
    }
    case RPC_TYPE_MESSAGE:
      HandleDirectMessage(agent, frame, size);
      return;
    default:
      BSP_LOG_ERROR(MOD_BSP, "unknown type %d", head->type);
  }
}

// A command of kind MESSAGE, or none at all, is answered here; a REQUEST command by its listener.
void RpcServer::HandleRequest(const std::shared_ptr<RpcAgent>& agent, char* frame, size_t size) {
  const auto* head = reinterpret_cast<const RpcHeader*>(frame);
  BSP_LOG_DEBUG(MOD_BSP, "forward request, seq: %d, cli_hdl: %lld", static_cast<int>(head->seq),
                static_cast<long long>(head->cli_hdl));
  int kind = RPC_TYPE_MESSAGE;
  const int code = CodeOf(ForwardMessage(agent, frame, static_cast<unsigned int>(size), kind));
  if (kind != RPC_TYPE_MESSAGE) return;
  ServerReplay(agent, head, code);
  BSP_LOG_DEBUG(MOD_BSP, "forward message, err_code: %d", code);
}

void RpcServer::HandleDirectMessage(const std::shared_ptr<RpcAgent>& agent, char* frame,
                                    size_t size) {
  BSP_LOG_DEBUG(MOD_BSP, "forward message directly, cmd: %s", name_.c_str());
  int kind = RPC_TYPE_MESSAGE;
  const auto error = ForwardMessage(agent, frame, static_cast<unsigned int>(size), kind);
  if (error == kOk) return;
  BSP_LOG_ERROR(MOD_BSP, "forward message error, cmd: %s, err: %s", name_.c_str(),
                error->Message().c_str());
}

void RpcServer::CliHandleError(std::shared_ptr<TcpClient> client, std::shared_ptr<MSError>) {
  CliClose(client);
}

void RpcServer::CliClose(const std::shared_ptr<TcpClient>& client) {
  BSP_LOG_DEBUG(MOD_BSP, "CloseClient: client=%p", static_cast<const void*>(client.get()));
  if (client == nullptr || client->GetNativeSocket() == -1) {
    BSP_LOG_ERROR(MOD_BSP, "CloseClient: client is null");
    return;
  }
  const int fd = client->GetNativeSocket();
  BSP_LOG_DEBUG(MOD_BSP, "CloseClient hdl=%d, addr=%s", fd,
                client->GetAddress().ToString().c_str());
  const auto found = clients_.find(fd);
  if (found == clients_.end()) {
    BSP_LOG_ERROR(MOD_BSP, "CloseClient: client not found");
    return;
  }
  // Keeps the agent, and with it the descriptor, until the tables have forgotten it.
  const std::shared_ptr<RpcAgent> agent = found->second;
  for (const auto& listened : agent->cmds) {
    const auto entry = cmds_.find(listened.first);
    if (entry == cmds_.end()) continue;
    entry->second.clients.remove(agent);
    if (entry->second.clients.empty()) cmds_.erase(entry);
  }
  clients_.erase(found);
}

void RpcServer::SendTo(const std::shared_ptr<RpcAgent>& agent, const char* data, size_t size) {
  if (agent->is_dropped) return;
  agent->client->SendDeferred(data, size);
  const size_t limit = options_.max_backlog_bytes;
  if (limit == 0) return;
  const size_t backlog = agent->client->SendBacklog();
  if (backlog > limit) Drop(agent, "backlog bytes", limit, backlog);
}

void RpcServer::Drop(const std::shared_ptr<RpcAgent>& agent, const char* what, size_t limit,
                     size_t value) {
  BSP_LOG_ERROR(MOD_BSP, "dropped client %d, pid %d: %s, limit %zu, value %zu",
                agent->GetNativeSocket(), agent->pid, what, limit, value);
  agent->is_dropped = true;
  dropped_.push_back(agent);
}

void RpcServer::CloseDropped() {
  for (size_t i = 0; i < dropped_.size(); ++i) CliClose(dropped_[i]->client);
  dropped_.clear();
}

const std::string& RpcServer::NameOf(const char (&cmd)[64]) {
  name_ = RpcCmdText(cmd);
  return name_;
}

}  // namespace bsp
