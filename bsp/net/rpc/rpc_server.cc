// The life of the broker, its connections, the dispatch of frames, and the protocol's operations.
//
// One thread runs everything: the loop calls TcpClient::OnRead, which raises SignalRead, and
// CliHandleMessage cuts the delivery into frames. Frames are not re-encoded: they are taken into
// one piece of memory, patched in place, and the same bytes go out. Small frames are only queued
// while events are handled and leave, all that go to one destination together, in one system call
// when the loop is done with the events at hand. A destination gets its bytes in the order in which
// they were handled all the same.
//
// Who pays when somebody is slow is FlowControl's matter, by what Backlog and the accounts know.
// Here a frame is refused, never the peer: a request is answered with RPC_ERR_BUSY, the rest is
// counted and told once a second. A peer is dropped for what it does itself alone: garbage, frames
// that are too large, or a socket that takes nothing for stall_timeout_s.
//
// A connection may be closed by what is handled on another one (a takeover, a lack of places), and
// by its own frames (a limit). The tables change only in CliClose; whoever is dropped in the midst
// of a walk over listeners is marked, gets nothing more, and is closed when the delivery is done.
//
// Without track_calls the only memory of a requester is its descriptor, which the broker writes
// into the forwarded frame and the listener sends back in its reply. A bare descriptor has no
// generation: when the requester is gone and its number has been given away again, the reply
// reaches the new owner, whose client drops it for want of a waiter.
#include "bsp/net/rpc/rpc_server.h"

#include <malloc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <time.h>

#include <algorithm>
#include <cstring>
#include <future>
#include <list>
#include <system_error>
#include <utility>

#include "bsp/base/socket.h"
#include "bsp/log/log.h"
#include "bsp/net/event_loop.h"
#include "bsp/net/rpc/call_table.h"
#include "bsp/net/rpc/command_table.h"
#include "bsp/net/rpc/flow_control.h"
#include "bsp/net/rpc/rpc_agent.h"
#include "bsp/net/tcp_client.h"
#include "bsp/net/tcp_server.h"
#include "bsp/util/memory_buffer.h"
#include "bsp/util/time_util.h"

namespace bsp {
namespace {

const std::shared_ptr<MSError> kOk;

constexpr size_t kHeadSize = sizeof(RpcHeader);
constexpr size_t kRecordFrameSize = sizeof(RpcHeader) + sizeof(RpcListenRecord);

// What things cost beside their payload, measured and rounded up.
constexpr size_t kPlaceBytes = 4096;
constexpr size_t kCommandBytes = 768;

constexpr int64_t kTickMs = 1000;
constexpr int64_t kStandStillMs = 1000;  // a large frame without a byte for so long gives way
constexpr int64_t kForgetUs = 10000000;  // a call without an answer for so long, when they are many
// Bytes handled in one second: less cannot have grown the process by more than that.
constexpr size_t kCalmBytes = size_t{256} * 1024;

int CodeOf(const std::shared_ptr<MSError>& error) { return error != kOk ? error->ErrorCode() : 0; }

std::string NameOf(const char (&cmd)[64]) { return std::string(RpcCmdText(cmd)); }

// For "%.*s", which costs nothing while the line is filtered.
int LengthOf(const char (&cmd)[64]) { return static_cast<int>(RpcCmdText(cmd).size()); }

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

// A process never gets its own commands, on whichever of its connections.
bool IsOwn(const RpcAgent& sender, const RpcAgent& listener) {
  return &listener == &sender || listener.pid == sender.pid;
}

std::shared_ptr<MSError> Busy(const char* what) {
  return BSP_NEW_ERROR(RPC_ERR_BUSY, "refused: %s", what);
}

}  // namespace

// ---- Life

RpcServer::RpcServer() : RpcServer(Options()) {}

RpcServer::RpcServer(const Options& options)
    : options_(options),
      budget_(std::make_unique<Budget>(options.max_memory_bytes, options.max_clients)),
      recv_buf_(std::make_shared<FrameMemory>()),
      cmds_(std::make_unique<CommandTable>()),
      calls_(std::make_unique<CallTable>()) {
  FlowControl::Limits limits;
  limits.max_backlog_bytes = options.max_backlog_bytes;
  limits.patience_ms = options.patience_ms;
  flow_ = std::make_unique<FlowControl>(limits, [this] { NoteTick(); });
}

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
  loop_->SetContainFailures(options_.contain_failures);
  flow_->SetLoop(loop_);
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
  if (!server_->IsWatched()) {
    BSP_LOG_ERROR(MOD_BSP, "Failed to watch server socket");
    return BSP_NEW_ERROR(-1, "Failed to watch server socket");
  }
  server_->SignalAccept.connect(this, &RpcServer::HandleAccept);
  if (options_.on_tick) NoteTick();
  try {
    thread_ = std::thread(&RpcServer::Loop, this);
  } catch (const std::system_error& failure) {
    BSP_LOG_ERROR(MOD_BSP, "Failed to start broker thread: %s", failure.what());
    return BSP_NEW_ERROR(-1, "Failed to start broker thread: %s", failure.what());
  }
  BSP_LOG_INFO(MOD_BSP, "RPC server started on %s:%d", host.c_str(), port);
  return kOk;
}

// What each thread makes for itself when it first uses a buffer or tells the time: made at the
// start, since the C library ends the process when there is no memory for its part of it.
void RpcServer::WarmUp() {
  loop_->RunContained([] {
    MemoryBuffer warm;
    warm.WriteBytes("", 1);
    warm.ReadBytes(nullptr, 1);
    TimeUtil::TimeMillisStr();
  });
}

void RpcServer::Loop() {
  WarmUp();
  loop_->Loop();
  BSP_LOG_ERROR(MOD_BSP, "RPC server loop exit");
  if (!loop_->FailureText().empty() && options_.on_give_up) {
    options_.on_give_up(loop_->FailureText());
  }
}

void RpcServer::Stop() {
  if (loop_ != nullptr && loop_->IsLoopThread()) {
    BSP_LOG_ERROR(MOD_BSP, "Stop refused on the broker's own thread, it cannot wait for itself");
    return;
  }
  if (process_.IsForeign()) {
    // The thread is the parent's: neither to be joined nor to be destroyed here.
    if (thread_.joinable()) new std::thread(std::move(thread_));
  } else if (loop_ != nullptr) {
    loop_->Stop();
    loop_->Wakeup();
    if (thread_.joinable()) thread_.join();
  }
  loop_.reset();
  server_.reset();
  for (const auto& entry : clients_) {
    entry.second->is_dropped = true;  // nobody is told of anybody's end
    if (entry.second->client != nullptr) entry.second->client->Disconnect();
  }
  for (const auto& entry : clients_) {
    ForgetCalls(entry.second.get());
    entry.second->account.Close();
    entry.second->account.Set(PeerAccount::kCommands, 0);
  }
  cmds_->Clear();
  flow_->SetLoop(nullptr);
  dropped_.clear();
  clients_.clear();
  tick_ = 0;
}

void RpcServer::RunOnLoop(const std::function<void()>& look) {
  const std::shared_ptr<EventLoop> loop = loop_;
  if (loop == nullptr || loop->IsLoopThread()) return;
  std::promise<void> done;
  const uint64_t id = loop->CallAt(0, [&] {
    look();
    done.set_value();
  });
  const auto future = done.get_future();
  constexpr std::chrono::seconds kPatience{5};  // for a loop that has given up
  while (id != 0 && future.wait_for(kPatience) != std::future_status::ready) {
    if (loop->CancelCall(id)) return;
  }
}

RpcServer::Totals RpcServer::Count() {
  Totals totals;
  RunOnLoop([&] {
    totals = totals_;
    totals.clients = clients_.size();
    totals.commands = cmds_->size();
    totals.calls = calls_->size();
    totals.waiting = flow_->waiting_count();
    totals.memory_bytes = budget_->used_bytes();
  });
  return totals;
}

std::vector<RpcServer::CommandView> RpcServer::Commands() {
  std::vector<CommandView> views;
  RunOnLoop([&] {
    NoteMoment();
    cmds_->ForEach([&](const Cmd2Cli& command) {
      CommandView view;
      view.name = command.cmd;
      view.kind = command.type;
      view.power = command.power;
      view.listeners = command.clients.size();
      if (command.counts != nullptr) {
        const CommandCounts& counts = *command.counts;
        view.calls = counts.calls;
        view.answers = counts.answers;
        view.errors = counts.errors;
        view.lost = counts.lost;
        view.refused = counts.refused;
        view.messages = counts.messages;
        view.calls_per_s = counts.RatePerSecond(now_us_);
        view.p50_us = counts.latency.Percentile(0.5);
        view.p99_us = counts.latency.Percentile(0.99);
      }
      views.push_back(std::move(view));
    });
  });
  return views;
}

void RpcServer::NoteMoment() {
  struct timespec now = {};
  clock_gettime(CLOCK_MONOTONIC_RAW, &now);  // the clock of TimeUtil::ClockMillis
  now_us_ = int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

// ---- Accepting

void RpcServer::HandleAccept(std::shared_ptr<TcpServer>, std::shared_ptr<Socket> socket) {
  if (socket == nullptr || !socket->IsValid()) {
    BSP_LOG_ERROR(MOD_BSP, "Failed to create client");
    return;
  }
  const int fd = socket->GetNativeSocket();
  if (!HasPlace(fd)) return;
  // A frame behind a small one must not wait for the acknowledgement of the small one.
  const int on = 1;
  socket->SetOption(IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);

  const auto agent = std::make_shared<RpcAgent>(++last_number_, budget_.get());
  const std::weak_ptr<RpcAgent> weak = agent;
  agent->client = std::make_shared<TcpClient>(loop_);
  agent->client->SetDeliverLastBytes(options_.handle_last_frames);
  agent->client->SetSendWhole(true);
  agent->client->SetGatherSends(true);
  agent->client->SetWriteHook([this, weak] {
    const AgentPtr written = weak.lock();
    if (written != nullptr && !written->is_dropped) flow_->Book(written.get());
  });
  const auto decide = [this, weak](const RpcHeader& head) {
    const AgentPtr sender = weak.lock();
    return sender != nullptr ? AdmitLarge(sender, head) : Admission::kRefuse;
  };
  agent->input = std::make_shared<FrameInput>(std::make_shared<FrameStore>(recv_buf_), decide);
  agent->client->SetSink(agent->input);
  agent->client->UpdateSocket(socket);
  if (!agent->client->IsWatched()) {
    BSP_LOG_ERROR(MOD_BSP, "refused client %d, pid -1: its socket cannot be watched", fd);
    return;
  }
  agent->last_active = static_cast<uint64_t>(TimeUtil::ClockMillis());
  agent->last_input_ms = EventLoop::NowMs();
  const size_t limit = options_.max_clients;
  agent->is_late = limit != 0 && clients_.size() + options_.kept_places >= limit;
  agent->client->SignalError.connect(this, &RpcServer::CliHandleError);
  agent->client->SignalRead.connect(this, &RpcServer::CliHandleMessage);
  clients_[fd] = agent;
  agent->account.Set(PeerAccount::kPlace, kPlaceBytes);
}

bool RpcServer::HasPlace(int fd) {
  const size_t limit = options_.max_clients;
  if (!budget_->HasPlace()) {
    BSP_LOG_ERROR(MOD_BSP, "refused client %d, pid -1: memory bytes, limit %zu, value %zu", fd,
                  budget_->limit_bytes(), budget_->used_bytes());
    return false;
  }
  if (limit == 0 || clients_.size() < limit) return true;
  const AgentPtr visitor = LongestLateVisitor();
  if (visitor == nullptr) {
    BSP_LOG_ERROR(MOD_BSP, "refused client %d, pid -1: clients, limit %zu, value %zu", fd, limit,
                  clients_.size() + 1);
    return false;
  }
  Drop(visitor, "clients", limit, clients_.size() + 1);
  CloseDropped();
  return true;
}

RpcServer::AgentPtr RpcServer::LongestLateVisitor() const {
  AgentPtr longest;
  for (const auto& entry : clients_) {
    const AgentPtr& agent = entry.second;
    if (!agent->is_late || agent->calls.asked > 0) continue;
    if (longest == nullptr || agent->last_input_ms < longest->last_input_ms) longest = agent;
  }
  return longest;
}

// ---- A delivery, cut into frames

void RpcServer::CliHandleMessage(std::shared_ptr<TcpClient> client,
                                 std::shared_ptr<MemoryBuffer> buffer) {
  AgentPtr agent = AgentOf(client);
  if (agent != nullptr) {
    agent->last_input_ms = EventLoop::NowMs();
    if (agent->received != buffer) agent->received = buffer;
    if (agent->is_waiting && !client->IsEnding()) return;
    agent->is_waiting = false;
  }
  // Looked up anew for each frame: what one frame brings about may close this connection.
  do {
    agent = AgentOf(client);
    if (agent == nullptr) {
      BSP_LOG_ERROR(MOD_BSP, "Client %d not found", client->GetNativeSocket());
      break;
    }
  } while (!agent->is_dropped && HandleNextFrame(agent, buffer));
  if (agent != nullptr && !agent->is_dropped) BookInput(agent.get(), *buffer);
  CloseDropped();
}

RpcServer::AgentPtr RpcServer::AgentOf(const std::shared_ptr<TcpClient>& client) const {
  const auto found = clients_.find(client->GetNativeSocket());
  if (found == clients_.end() || found->second->client != client) return nullptr;
  return found->second;
}

bool RpcServer::HandleNextFrame(const AgentPtr& agent,
                                const std::shared_ptr<MemoryBuffer>& buffer) {
  RpcHeader head;
  const RpcFrameState state = agent->input->Look(buffer, &head);
  if (state == RpcFrameState::kNoHead) return false;
  if (state == RpcFrameState::kWrongMagic || state == RpcFrameState::kBadSize) {
    HandleNoFrame(agent, *buffer, state == RpcFrameState::kWrongMagic, head);
    return false;
  }
  const auto size = static_cast<size_t>(head.size);
  const size_t limit = options_.max_frame_bytes;
  if (limit != 0 && size > limit) {
    Drop(agent, "frame bytes", limit, size);
    return false;
  }
  if (state == RpcFrameState::kIncomplete) return false;
  if (flow_->IsAnyStuck()) BookInput(agent.get(), *buffer);
  if (agent->is_dropped) return false;
  const Admission admission = Admit(agent, head);
  if (admission == Admission::kWait) return false;
  FlowControl::EndWait(agent.get());
  Frame frame;
  if (admission == Admission::kPass) frame = agent->input->Take(buffer, head);
  // A frame in hand is held no more: its memory is free behind it.
  agent->account.Set(PeerAccount::kLarge, 0);
  if (!frame && admission == Admission::kPass) {
    BSP_LOG_ERROR(MOD_BSP, "no memory for %d bytes from client %d, pid %d", head.size,
                  agent->GetNativeSocket(), agent->pid);
  }
  if (!frame) {
    agent->input->Discard(buffer, head);
    Refuse(agent, head);
    return true;
  }
  BSP_LOG_DEBUG(MOD_BSP, "package size: %d", head.size);
  BSP_LOG_DEBUG(MOD_BSP, "read package size: %d", head.size);
  bytes_since_tick_ += size;
  NoteFreed(size);
  NoteMoment();
  agent->last_active = static_cast<uint64_t>(now_us_ / 1000);
  HandleFrame(agent, frame);
  return true;
}

// What is left when no frame stands in front: bytes that are none.
void RpcServer::HandleNoFrame(const AgentPtr& agent, const MemoryBuffer& buffer,
                              bool is_wrong_magic, const RpcHeader& head) {
  if (is_wrong_magic) {
    BSP_LOG_ERROR(MOD_BSP, "buffer is error %s", agent->client->GetAddress().ToString().c_str());
    const size_t limit = options_.max_unread_bytes;
    if (limit != 0 && buffer.size() > limit) Drop(agent, "unread bytes", limit, buffer.size());
    return;
  }
  BSP_LOG_ERROR(MOD_BSP, "frame size %d is below %zu, closing client %d, pid %d", head.size,
                kHeadSize, agent->GetNativeSocket(), agent->pid);
  CliClose(agent->client);
}

void RpcServer::HandleFrame(const AgentPtr& agent, const Frame& frame) {
  const RpcHeader* const head = frame.head;
  const auto size = static_cast<unsigned int>(frame.size);
  BSP_LOG_DEBUG(MOD_BSP, "type=%d, cmd=%.*s", head->type, LengthOf(head->cmd), head->cmd);
  switch (head->type) {
    case RPC_TYPE_REQUEST:
      HandleRequest(agent, frame);
      return;
    case RPC_TYPE_REPLAY:
      ReplayRequest(agent, reinterpret_cast<char*>(frame.head), size);
      BSP_LOG_DEBUG(MOD_BSP, "replay request, seq: %d, cli_hdl: %lld", static_cast<int>(head->seq),
                    static_cast<long long>(head->cli_hdl));
      return;
    case RPC_TYPE_LISTEN: {
      const int code = CodeOf(Listen(agent, head));
      ServerReplay(agent, head, code);
      BSP_LOG_DEBUG(MOD_BSP, "listen cmd %.*s error, err_code: %d", LengthOf(head->cmd), head->cmd,
                    code);
      return;
    }
    case RPC_TYPE_CHECK_POWER: {
      const int code = CodeOf(CheckCmdPower(agent, head));
      if (code != 0) ServerReplay(agent, head, code);
      BSP_LOG_DEBUG(MOD_BSP, "get cmd list %.*s error, err_code: %d", LengthOf(head->cmd),
                    head->cmd, code);
      return;
    }
    case RPC_TYPE_MESSAGE:
      HandleDirectMessage(agent, frame);
      return;
    default:
      BSP_LOG_ERROR(MOD_BSP, "unknown type %d", head->type);
  }
}

// A command of kind MESSAGE, or none at all, is answered here; a REQUEST command by its listener,
// unless the frame did not get there.
void RpcServer::HandleRequest(const AgentPtr& agent, const Frame& frame) {
  const RpcHeader* const head = frame.head;
  BSP_LOG_DEBUG(MOD_BSP, "forward request, seq: %d, cli_hdl: %lld", static_cast<int>(head->seq),
                static_cast<long long>(head->cli_hdl));
  int kind = RPC_TYPE_MESSAGE;
  const int code = CodeOf(ForwardMessage(agent, reinterpret_cast<char*>(frame.head),
                                         static_cast<unsigned int>(frame.size), kind));
  if (kind != RPC_TYPE_MESSAGE && code == 0) return;
  ServerReplay(agent, head, code);
  BSP_LOG_DEBUG(MOD_BSP, "forward message, err_code: %d", code);
}

void RpcServer::HandleDirectMessage(const AgentPtr& agent, const Frame& frame) {
  BSP_LOG_DEBUG(MOD_BSP, "forward message directly, cmd: %.*s", LengthOf(frame.head->cmd),
                frame.head->cmd);
  int kind = RPC_TYPE_MESSAGE;
  const auto error = ForwardMessage(agent, reinterpret_cast<char*>(frame.head),
                                    static_cast<unsigned int>(frame.size), kind);
  if (error == kOk || error->ErrorCode() == RPC_ERR_BUSY) return;  // counted, and told by Tick
  BSP_LOG_ERROR(MOD_BSP, "forward message error, cmd: %s, err: %s", NameOf(frame.head->cmd).c_str(),
                error->Message().c_str());
}

void RpcServer::BookInput(RpcAgent* agent, const MemoryBuffer& buffer) {
  const size_t large = agent->input->LargeBytes();
  const bool is_freed = large < agent->account.held_bytes(PeerAccount::kLarge);
  agent->account.Set(PeerAccount::kInput, buffer.size());
  agent->account.Set(PeerAccount::kLarge, large);
  if (is_freed) flow_->Retry();
  if (buffer.size() > 0 && !agent->is_waiting && agent->account.IsOver()) {
    Reclaim(agent->shared_from_this());
  }
}

// The frame under way is refused, and the rest of its bytes thrown away as it comes. Who sends no
// frames is dropped.
void RpcServer::Reclaim(const AgentPtr& agent) {
  RpcHeader head;
  if (agent->input->GiveUp(agent->received, &head)) {
    agent->account.Set(PeerAccount::kInput, agent->received->size());
    agent->account.Set(PeerAccount::kLarge, 0);
    Refuse(agent, head);
  } else if (agent->input->Look(agent->received, &head) == RpcFrameState::kWrongMagic) {
    Drop(agent, "unread bytes, memory is short", Budget::kAllowanceBytes, agent->received->size());
  }
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
  const AgentPtr agent = found->second;
  agent->is_dropped = true;
  ForgetCalls(agent.get());
  cmds_->Remove(agent);
  clients_.erase(found);
  NoteFreed(agent->account.held_bytes());
  agent->account.Set(PeerAccount::kCommands, 0);
  agent->account.Close();
  flow_->Forget(agent.get());
}

// ---- Who has to wait, and who is refused

// Whether the complete frame with this head goes on. A message to several listeners waits for one
// that reads, and is dropped one by one for those that do not.
Admission RpcServer::Admit(const AgentPtr& agent, const RpcHeader& head) {
  if (!flow_->IsAnyStuck()) return Admission::kPass;
  const auto size = static_cast<size_t>(head.size);
  if (head.type == RPC_TYPE_REPLAY) {
    const auto requester = clients_.find(static_cast<int>(head.cli_hdl));
    if (requester == clients_.end()) return Admission::kPass;
    return flow_->Admit(agent, requester->second, size);
  }
  if (head.type != RPC_TYPE_REQUEST && head.type != RPC_TYPE_MESSAGE) return Admission::kPass;
  if (head.type == RPC_TYPE_REQUEST) {
    const Admission admission = flow_->AdmitRequest(agent);
    if (admission != Admission::kPass) return admission;
  }
  const Cmd2Cli* const command = cmds_->Find(RpcCmdText(head.cmd));
  if (command == nullptr) return Admission::kPass;
  for (const AgentPtr& listener : command->clients) {
    if (IsOwn(*agent, *listener)) continue;
    const Admission admission = flow_->Admit(agent, listener, size);
    if (admission == Admission::kWait) return admission;
    if (admission == Admission::kRefuse && command->type == RPC_TYPE_REQUEST) return admission;
  }
  return Admission::kPass;
}

// Whether a frame of 32 KiB or more, of which the head has come, is received.
Admission RpcServer::AdmitLarge(const AgentPtr& agent, const RpcHeader& head) {
  const auto size = static_cast<size_t>(head.size);
  if (options_.max_frame_bytes != 0 && size > options_.max_frame_bytes) {
    return Admission::kWait;  // HandleNextFrame drops the sender
  }
  if (!agent->account.Admits(size)) ReclaimMemory(*agent);
  const Admission admission = flow_->AdmitLarge(agent, size);
  if (admission == Admission::kRefuse) Refuse(agent, head);
  return admission;
}

void RpcServer::Refuse(const AgentPtr& agent, const RpcHeader& head) {
  last_refused_ = head;
  last_refused_fd_ = agent->GetNativeSocket();
  NoteTick();
  if (head.type == RPC_TYPE_REPLAY) {
    const auto requester = clients_.find(static_cast<int>(head.cli_hdl));
    if (requester == clients_.end()) return;
    ++totals_.dropped_replies;
    const AgentPtr waiting = requester->second;
    if (EndCall(*agent, waiting.get(), head)) ServerReplay(waiting, &head, RPC_ERR_BUSY);
    return;
  }
  Cmd2Cli* const command = cmds_->Find(RpcCmdText(head.cmd));
  if (command != nullptr) ++command->Counts().refused;
  if (head.type == RPC_TYPE_REQUEST || head.type == RPC_TYPE_LISTEN ||
      head.type == RPC_TYPE_CHECK_POWER) {
    ++totals_.refused_requests;
    ServerReplay(agent, &head, RPC_ERR_BUSY);
  } else {
    ++totals_.dropped_messages;
  }
}

// What nobody waits for gives its memory to others: frames of which nothing comes any more, and
// bytes that are no frame and never will be. Not of who asks: its frame is being decided.
void RpcServer::ReclaimMemory(const RpcAgent& asking) {
  const int64_t now_ms = EventLoop::NowMs();
  for (const auto& entry : clients_) {
    const AgentPtr& agent = entry.second;
    const bool is_small = agent->account.held_bytes() <= Budget::kAllowanceBytes;
    if (agent.get() == &asking || is_small || agent->is_dropped) continue;
    if (agent->received == nullptr) continue;
    RpcHeader head;
    const bool is_garbage =
        agent->input->Look(agent->received, &head) == RpcFrameState::kWrongMagic;
    if (is_garbage || now_ms - agent->last_input_ms >= kStandStillMs) Reclaim(agent);
  }
}

// ---- The protocol's operations

std::shared_ptr<MSError> RpcServer::Listen(const AgentPtr& agent, const RpcHeader* head) {
  const RpcListenRecord* record = RecordOf(head);
  if (record == nullptr) return RefuseShort(head);
  const std::string name = NameOf(record->cmd);
  if (agent->cmds.count(name) != 0) {
    BSP_LOG_WARN(MOD_BSP, "cmd %s already listen", name.c_str());
    return kOk;
  }
  const size_t limit = options_.max_commands;
  if (limit != 0 && agent->cmds.size() >= limit) {
    BSP_LOG_ERROR(MOD_BSP, "refused cmd %s of client %d, pid %d: commands, limit %zu, value %zu",
                  name.c_str(), agent->GetNativeSocket(), head->pid, limit, agent->cmds.size() + 1);
    return Busy("commands of one client");
  }
  if (agent->is_late) {
    BSP_LOG_ERROR(MOD_BSP, "refused cmd %s of client %d, pid %d: clients, limit %zu, value %zu",
                  name.c_str(), agent->GetNativeSocket(), head->pid,
                  options_.max_clients - options_.kept_places, clients_.size());
    return Busy("the last places are for short visits");
  }
  if (cmds_->IsTaken(name, record->type)) {
    CleanStaleClients(name);
    if (cmds_->IsTaken(name, record->type)) {
      BSP_LOG_ERROR(MOD_BSP, "cmd %s type is REQUEST, can't listen more than one client",
                    name.c_str());
      return BSP_NEW_ERROR(
          RPC_ERR_TAKEN, "cmd %s is REQUEST type, can't listen more than one client", name.c_str());
    }
  }
  if (!agent->account.Admits(kCommandBytes)) return Busy("memory");
  cmds_->Add(name, record->type, record->power, agent);
  agent->account.Set(PeerAccount::kCommands, agent->cmds.size() * kCommandBytes);
  agent->pid = head->pid;
  return kOk;
}

std::shared_ptr<MSError> RpcServer::CheckCmdPower(const AgentPtr& agent, const RpcHeader* head) {
  const RpcListenRecord* record = RecordOf(head);
  if (record == nullptr) return RefuseShort(head);
  const Cmd2Cli* const command = cmds_->Find(RpcCmdText(record->cmd));
  if (command == nullptr) {
    return BSP_NEW_ERROR(RPC_ERR_NOT_FOUND, "cmd %s not found", NameOf(record->cmd).c_str());
  }
  struct {
    RpcHeader head;
    RpcListenRecord record;
  } reply = {};
  static_assert(sizeof reply == kRecordFrameSize, "no padding between head and record");
  reply.head = *head;
  reply.head.err_code = 0;
  memcpy(reply.record.cmd, command->cmd.data(), std::min(command->cmd.size(), size_t{63}));
  reply.record.type = command->type;
  reply.record.power = command->power;
  BSP_LOG_ERROR(MOD_BSP, "cmd %s, type %d, power %d.", reply.record.cmd, command->type,
                command->power);
  return ServerReplay(agent, reinterpret_cast<char*>(&reply), static_cast<int>(sizeof reply));
}

std::shared_ptr<MSError> RpcServer::ForwardMessage(const AgentPtr& agent, char* frame,
                                                   unsigned int size, int& kind) {
  auto* const head = reinterpret_cast<RpcHeader*>(frame);
  Cmd2Cli* const command = cmds_->Find(RpcCmdText(head->cmd));
  if (command == nullptr) {
    const std::string name = NameOf(head->cmd);
    BSP_LOG_ERROR(MOD_BSP, "cmd %s not found", name.c_str());
    return BSP_NEW_ERROR(RPC_ERR_NOT_FOUND, "cmd %s not found", name.c_str());
  }
  kind = command->type;
  const bool is_request = head->type == RPC_TYPE_REQUEST;
  head->type = kind;
  head->cli_hdl = agent->GetNativeSocket();
  for (const AgentPtr& listener : command->clients) {
    if (IsOwn(*agent, *listener)) continue;
    if (kind == RPC_TYPE_REQUEST) return ForwardCall(agent, listener, command, *head, is_request);
    const bool is_sent = flow_->Send(listener.get(), *agent, frame, size);
    if (options_.track_calls && is_sent) ++command->Counts().messages;
    if (!is_sent) Refuse(agent, *head);
  }
  return kOk;
}

std::shared_ptr<MSError> RpcServer::ForwardCall(const AgentPtr& agent, const AgentPtr& listener,
                                                Cmd2Cli* command, const RpcHeader& head,
                                                bool is_request) {
  const auto* const frame = reinterpret_cast<const char*>(&head);
  bool is_sent = BeginCall(agent.get(), listener.get(), command, head, is_request);
  if (is_sent && !flow_->Send(listener.get(), *agent, frame, static_cast<size_t>(head.size))) {
    EndCall(*listener, agent.get(), head);
    is_sent = false;
  }
  if (is_sent) return kOk;
  last_refused_ = head;
  last_refused_fd_ = agent->GetNativeSocket();
  NoteTick();
  ++command->Counts().refused;
  ++(is_request ? totals_.refused_requests : totals_.dropped_messages);
  return Busy("calls in flight, or the listener's backlog");
}

std::shared_ptr<MSError> RpcServer::ReplayRequest(const AgentPtr& agent, char* frame,
                                                  unsigned int size) {
  const auto* const head = reinterpret_cast<const RpcHeader*>(frame);
  BSP_LOG_DEBUG(MOD_BSP, "replay request, seq: %d, cli_hdl: %lld", static_cast<int>(head->seq),
                static_cast<long long>(head->cli_hdl));
  const auto requester = static_cast<int>(head->cli_hdl);
  const auto found = clients_.find(requester);
  if (found == clients_.end()) {
    BSP_LOG_ERROR(MOD_BSP, "req_cli_hdl %d not found", requester);
    return BSP_NEW_ERROR(-1, "req_cli_hdl %d not found", requester);
  }
  const AgentPtr destination = found->second;
  if (!EndCall(*agent, destination.get(), *head)) {
    ++totals_.stray_replies;
    return BSP_NEW_ERROR(-1, "req_cli_hdl %d has no such call", requester);
  }
  if (flow_->Send(destination.get(), *agent, frame, size, true)) return kOk;
  ++totals_.dropped_replies;
  NoteTick();
  return ServerReplay(destination, head, RPC_ERR_BUSY);
}

std::shared_ptr<MSError> RpcServer::ServerReplay(const AgentPtr& agent, const RpcHeader* head,
                                                 int code) {
  RpcHeader reply = *head;
  reply.err_code = code;
  return ServerReplay(agent, reinterpret_cast<char*>(&reply), static_cast<int>(kHeadSize));
}

std::shared_ptr<MSError> RpcServer::ServerReplay(const AgentPtr& agent, char* buffer,
                                                 int data_size) {
  if (data_size == 0) {
    BSP_LOG_ERROR(MOD_BSP, "ServerReplay: data_size is 0");
    return BSP_NEW_ERROR(-1, "ServerReplay: data_size is 0");
  }
  auto* const head = reinterpret_cast<RpcHeader*>(buffer);
  head->magic = RPC_MAGIC;
  head->type = RPC_TYPE_REPLAY;
  head->size = data_size;
  if (!flow_->Send(agent.get(), *agent, buffer, static_cast<size_t>(data_size), true)) {
    ++totals_.dropped_replies;
    NoteTick();
  }
  return kOk;
}

// The dead among the listeners of one command are closed with all their commands. The walk and the
// closing are two steps, because CliClose changes the list that is walked.
void RpcServer::CleanStaleClients(const std::string& cmd) {
  const Cmd2Cli* const command = cmds_->Find(cmd);
  if (command == nullptr) return;
  std::list<std::shared_ptr<TcpClient>> stale;
  for (const AgentPtr& agent : command->clients) {
    if (agent->client != nullptr && agent->IsStale(cmd)) stale.push_back(agent->client);
  }
  for (const std::shared_ptr<TcpClient>& client : stale) CliClose(client);
}

// ---- Calls in flight

bool RpcServer::BeginCall(RpcAgent* agent, RpcAgent* listener, Cmd2Cli* command,
                          const RpcHeader& head, bool is_request) {
  if (!options_.track_calls) return true;
  const size_t limit = options_.max_calls;
  if (limit != 0 && agent->calls.asked >= limit) {
    const CallTable::Call oldest = *calls_->Oldest(&agent->calls);
    if (now_us_ - oldest.begin_us < kForgetUs) return false;
    RpcHeader forgotten = {};
    forgotten.seq = oldest.seq;
    EndCall(*oldest.listener->agent, agent, forgotten);
  }
  if (!agent->account.Admits(CallTable::kEntryBytes)) return false;
  CommandCounts& counts = command->Counts();
  CallTable::Call call;
  call.requester = &agent->calls;
  call.listener = &listener->calls;
  call.command = command;
  call.begin_us = now_us_;
  call.timestamp = head.timestamp;
  call.seq = head.seq;
  call.pid = head.pid;
  call.wants_answer = is_request;
  calls_->Begin(call);  // the last that may throw
  agent->account.Grow(PeerAccount::kCalls, CallTable::kEntryBytes);
  counts.NoteCall(now_us_);
  return true;
}

// True when the listener may answer this call, which is over then.
bool RpcServer::EndCall(const RpcAgent& listener, RpcAgent* requester, const RpcHeader& head) {
  if (!options_.track_calls) return true;
  CallTable::Call call;
  if (!calls_->End(&requester->calls, head.seq, &listener.calls, &call)) return false;
  requester->account.Shrink(PeerAccount::kCalls, CallTable::kEntryBytes);
  if (head.type == RPC_TYPE_REPLAY) {
    call.command->Counts().NoteAnswer(now_us_ - call.begin_us, head.err_code == 0);
  }
  return true;
}

void RpcServer::ForgetCalls(RpcAgent* agent) {
  calls_->Remove(&agent->calls, [&](const CallTable::Call& call) {
    RpcAgent* const requester = call.requester->agent;
    requester->account.Shrink(PeerAccount::kCalls, CallTable::kEntryBytes);
    if (requester == agent) return;
    ++totals_.lost_calls;
    ++call.command->Counts().lost;
    if (!call.wants_answer) return;
    RpcHeader head = {};
    head.seq = call.seq;
    head.pid = call.pid;
    head.cli_hdl = requester->GetNativeSocket();
    head.timestamp = call.timestamp;
    SetRpcCmd(head.cmd, call.command->cmd.c_str());
    ServerReplay(requester->shared_from_this(), &head, RPC_ERR_LISTENER_GONE);
  });
}

void RpcServer::Drop(const AgentPtr& agent, const char* what, size_t limit, size_t value) {
  BSP_LOG_ERROR(MOD_BSP, "dropped client %d, pid %d: %s, limit %zu, value %zu",
                agent->GetNativeSocket(), agent->pid, what, limit, value);
  ++totals_.dropped_clients;
  agent->is_dropped = true;
  dropped_.push_back(agent);
  NoteTick();  // closes it when no delivery ends before
}

void RpcServer::CloseDropped() {
  for (size_t i = 0; i < dropped_.size(); ++i) CliClose(dropped_[i]->client);
  dropped_.clear();
}

// ---- Once a second, as long as there is a reason

void RpcServer::NoteTick() {
  if (tick_ == 0) tick_ = loop_->CallAt(EventLoop::NowMs() + kTickMs, [this] { Tick(); });
}

void RpcServer::Tick() {
  tick_ = 0;
  DropStalled();
  CloseDropped();
  TellRefused();
  ReleaseMemory();
  if (options_.on_tick) options_.on_tick();
  if (options_.on_tick || flow_->IsAnyStuck() || IsReleaseDue()) NoteTick();
}

void RpcServer::DropStalled() {
  const int limit_s = options_.stall_timeout_s;
  if (!flow_->IsAnyStuck() || limit_s == 0) return;
  const int64_t now_ms = EventLoop::NowMs();
  for (const auto& entry : clients_) {
    const int64_t stalled_s = entry.second->backlog.StalledMs(now_ms) / 1000;
    if (stalled_s < limit_s || entry.second->is_dropped) continue;
    Drop(entry.second, "seconds without a byte taken", static_cast<size_t>(limit_s),
         static_cast<size_t>(stalled_s));
  }
}

void RpcServer::TellRefused() {
  const auto requests = totals_.refused_requests - told_.refused_requests;
  const auto messages = totals_.dropped_messages - told_.dropped_messages;
  const auto replies = totals_.dropped_replies - told_.dropped_replies;
  if (requests + messages + replies == 0) return;
  told_ = totals_;
  const auto sender = clients_.find(last_refused_fd_);
  BSP_LOG_WARN(MOD_BSP,
               "refused %llu requests, dropped %llu messages and %llu replies in the last second, "
               "the last of %d bytes for cmd %s from client %d, pid %d",
               static_cast<unsigned long long>(requests), static_cast<unsigned long long>(messages),
               static_cast<unsigned long long>(replies), last_refused_.size,
               NameOf(last_refused_.cmd).c_str(), last_refused_fd_,
               sender != clients_.end() ? sender->second->pid : -1);
}

// Memory that the allocator may hold on to now.
void RpcServer::NoteFreed(size_t bytes) {
  freed_bytes_ += bytes;
  if (freed_bytes_ > kCalmBytes && options_.release_memory) NoteTick();
}

void RpcServer::ReleaseMemory() {
  const bool is_calm = bytes_since_tick_ <= kCalmBytes;
  bytes_since_tick_ = 0;
  if (!IsReleaseDue() || !is_calm) return;
  freed_bytes_ = 0;
  recv_buf_->Release();
  calls_->Shrink();
  malloc_trim(0);
}

bool RpcServer::IsReleaseDue() const {
  return options_.release_memory && freed_bytes_ > kCalmBytes;
}

}  // namespace bsp
