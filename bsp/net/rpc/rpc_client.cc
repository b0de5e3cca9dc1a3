// A call that waits, over a connection that another thread reads.
//
// The caller draws a seq, enters a waiter (MsgSem) under it into the table, sends the frame and
// waits on the waiter's semaphore. The rpc_cli thread finds the waiter by the seq of the reply,
// fills the caller's string and head, and signals. The caller's head and string lie on its stack:
// what keeps the reply step from writing to a caller that has gone is that it touches them only
// under msg_sem_mutex_ and only through an entry of the table, and that the guard takes the entry
// out under the same mutex before the caller goes on.
//
// Semaphores are borrowed. The reply step signals outside the mutex, so a signal may reach a
// semaphore that its call has given back meanwhile, and with it the next borrower. Two things keep
// that from ending the next call: the guard gives the semaphore back drained, and WaitReply takes a
// count only as a reason to look at `replied`.
//
// The function that runs the loop on rpc_cli holds the loop and not the client, so that dropping
// the last pointer to an open client destroys it. If that pointer is dropped by one of its own
// slots, the destructor runs on rpc_cli, which cannot join itself: the thread's service is then put
// aside, and joined by the next Open or Close of any client.
#include "bsp/net/rpc/rpc_client.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

#include "bsp/event/eventservice.h"
#include "bsp/log/log.h"
#include "bsp/net/event_loop.h"
#include "bsp/net/tcp_client.h"
#include "bsp/util/memory_buffer.h"
#include "bsp/util/semaphore.h"
#include "bsp/util/time_util.h"

namespace bsp {
namespace {

const std::shared_ptr<MSError> kOk;

constexpr int kHeadSize = static_cast<int>(sizeof(RpcHeader));
constexpr int kRegisterTimeoutMs = 5000;             // of Listen and CheckCmdPower
constexpr int kThreadPriority = 50;                  // SCHED_FIFO, where the system grants it
constexpr size_t kLargePayload = size_t{64} * 1024;  // from here on a copy costs more than a call
constexpr size_t kNameLimit = 64;                    // a name of this length or more is refused

// The loop that runs on this thread, null on all threads but rpc_cli ones.
thread_local const EventLoop* t_loop = nullptr;

// As a frame counts it; -1, which Send refuses, for what no frame can carry.
int LengthOf(const std::string& payload) {
  constexpr auto kMost = static_cast<size_t>(std::numeric_limits<int>::max());
  return payload.size() > kMost ? -1 : static_cast<int>(payload.size());
}

void RunLoop(const std::shared_ptr<EventLoop>& loop) {
  t_loop = loop.get();
  BSP_LOG_DEBUG(MOD_BSP, "rpc client loop start");
  loop->Loop();
  BSP_LOG_DEBUG(MOD_BSP, "rpc client loop end");
  t_loop = nullptr;
}

// Services whose client was destroyed on their own thread, which then ends by itself.
class OrphanedServices {
 public:
  static OrphanedServices& Instance() {
    static auto* const orphans = new OrphanedServices;  // never destroyed: used by destructors
    return *orphans;
  }

  void Add(std::shared_ptr<EventService> service) {
    const std::lock_guard<std::mutex> lock(mutex_);
    services_.push_back(std::move(service));
  }

  // Not on the thread of a service that is in here.
  void Join() {
    std::vector<std::shared_ptr<EventService>> services;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      services.swap(services_);
    }
    for (const auto& service : services) service->Stop();
  }

 private:
  std::mutex mutex_;
  std::vector<std::shared_ptr<EventService>> services_;  // guarded by mutex_
};

}  // namespace

// ---- The waiter

RpcClient::MsgSem::MsgSem(RpcHeader* request, RpcClient* client, std::string& response)
    : header(request), resp(response) {
  if (client->sem_pool_ != nullptr) {
    sem = client->sem_pool_->Get();
  } else {
    BSP_LOG_ERROR(MOD_BSP, "semaphore pool is null.");
  }
}

RpcClient::MsgSemGuard::MsgSemGuard(RpcHeader* header, RpcClient* owner, std::string& response)
    : owner_(owner), msg_sem_(std::make_shared<MsgSem>(header, owner, response)) {
  owner_->EnterWaiter(msg_sem_);
}

RpcClient::MsgSemGuard::~MsgSemGuard() {
  if (msg_sem_ == nullptr) return;
  owner_->LeaveWaiter(msg_sem_);
  if (msg_sem_->sem == nullptr) return;
  while (msg_sem_->sem->Wait(0)) {
  }
  owner_->sem_pool_->Put(msg_sem_->sem);
}

bool RpcClient::MsgSemGuard::IsReply() const {
  if (msg_sem_ == nullptr) {
    BSP_LOG_ERROR(MOD_BSP, "msg_sem_ is null");
    return true;
  }
  return msg_sem_->replied;
}

std::shared_ptr<MSError> RpcClient::MsgSemGuard::WaitReply(int timeout_ms) {
  if (msg_sem_ == nullptr) return BSP_NEW_ERROR(-5, "msg_sem_ is null.");
  if (msg_sem_->sem == nullptr) return BSP_NEW_ERROR(-5, "semaphore is null.");
  const int64_t end = TimeUtil::ClockMillis() + timeout_ms;
  int left_ms = timeout_ms;
  // A count without reply or loss was meant for an earlier borrower of the semaphore.
  while (!msg_sem_->lost && msg_sem_->sem->Wait(left_ms) && !msg_sem_->replied) {
    left_ms = static_cast<int>(std::max(end - TimeUtil::ClockMillis(), int64_t{0}));
  }
  // From here on no reply can fill the response; one that came in the last moment has done so.
  if (!msg_sem_->replied) owner_->LeaveWaiter(msg_sem_);
  if (msg_sem_->replied) return kOk;
  if (msg_sem_->lost) return BSP_NEW_ERROR(-1, "connection lost");
  return BSP_NEW_ERROR(-3, "wait timeout");
}

void RpcClient::EnterWaiter(const std::shared_ptr<MsgSem>& waiter) {
  const std::lock_guard<std::mutex> lock(msg_sem_mutex_);
  waiter->lost = is_lost_.load();
  WaiterTable::node_type node;
  if (spare_nodes_.empty()) {
    WaiterTable maker;
    maker.emplace(0, nullptr);
    node = maker.extract(maker.begin());
  } else {
    node = std::move(spare_nodes_.back());
    spare_nodes_.pop_back();
  }
  node.mapped() = waiter;
  // The counter wraps; the seq of a call still in flight is passed over.
  while (msg_sems_.count(waiter->header->seq) != 0) waiter->header->seq = seq_.fetch_add(1);
  node.key() = waiter->header->seq;
  msg_sems_.insert(std::move(node));
}

void RpcClient::LeaveWaiter(const std::shared_ptr<MsgSem>& waiter) {
  const std::lock_guard<std::mutex> lock(msg_sem_mutex_);
  const auto found = msg_sems_.find(waiter->header->seq);
  if (found == msg_sems_.end() || found->second != waiter) return;
  WaiterTable::node_type node = msg_sems_.extract(found);
  node.mapped().reset();
  spare_nodes_.push_back(std::move(node));
}

// ---- Life

RpcClient::RpcClient() : recv_buf_(std::make_shared<FrameMemory>()) {}

RpcClient::~RpcClient() {
  if (IsOwnThread()) {
    LeaveOwnThread();
  } else {
    Close();
  }
  disconnect_all();
}

std::shared_ptr<MSError> RpcClient::Open(const std::string& host, uint16_t port) {
  if (Connection() != nullptr) {
    BSP_LOG_INFO(MOD_BSP, "client is already running");
    return kOk;
  }
  OrphanedServices::Instance().Join();
  {
    const std::lock_guard<std::mutex> lock(msg_sem_mutex_);
    is_lost_ = false;
  }
  pid_ = getpid();
  // Once: calls of an earlier life may still wait, and give their semaphores back.
  if (sem_pool_ == nullptr) sem_pool_ = SemaphorePool::Instance();
  loop_ = std::make_shared<EventLoop>();
  if (!loop_->IsValid()) {
    BSP_LOG_ERROR(MOD_BSP, "create loop error");
    return BSP_NEW_ERROR(-1, "create loop error");
  }
  const auto client = std::make_shared<TcpClient>(loop_);
  SetConnection(client);
  store_ = std::make_shared<ReplyStore>(recv_buf_);
  input_ = std::make_shared<FrameInput>(store_);
  client->SetSink(input_);
  client->SetSendWhole(true);
  client->SignalError.connect(this, &RpcClient::TcpHandleError);
  client->SignalRead.connect(this, &RpcClient::TcpHandleMessage);
  if (!client->Connect(host, port)) {
    BSP_LOG_ERROR(MOD_BSP, "connect error, ip: %s, port: %d", host.c_str(), port);
    return BSP_NEW_ERROR(-4, "connect error, ip: %s, port: %d", host.c_str(), port);
  }
  // A request right behind a message must not wait for the acknowledgement of the message.
  const int on = 1;
  client->SetOption(IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  evt_srv_ = EventService::Create("rpc_cli", kThreadPriority);
  if (evt_srv_ == nullptr) {
    BSP_LOG_ERROR(MOD_BSP, "create evt_srv error");
    return BSP_NEW_ERROR(-1, "create evt_srv error");
  }
  const auto error = evt_srv_->Start();
  if (error != kOk) return error;
  evt_srv_->Post(0, [loop = loop_](Message*) { RunLoop(loop); });
  BSP_LOG_DEBUG(MOD_BSP, "rpc client evt_srv success");
  return kOk;
}

void RpcClient::Close() {
  if (IsOwnThread()) {
    BSP_LOG_ERROR(MOD_BSP, "Close refused on the client's own thread, it cannot wait for itself");
    return;
  }
  OrphanedServices::Instance().Join();
  if (loop_ != nullptr) {
    loop_->Stop();
    loop_->Wakeup();
  }
  if (evt_srv_ != nullptr) {
    evt_srv_->Stop();
    evt_srv_.reset();
  }
  loop_.reset();
  const std::shared_ptr<TcpClient> client = Connection();
  if (client == nullptr) return;
  SetConnection(nullptr);
  // Not left to its destructor, which may run on the thread of a caller who is about to leave Send,
  // at the same time as the next Open connects to this object.
  client->SignalError.disconnect_all();
  client->SignalRead.disconnect_all();
  client->Disconnect();
}

bool RpcClient::IsOwnThread() const { return loop_ != nullptr && t_loop == loop_.get(); }

// The destructor on rpc_cli: everything of Close but the join.
void RpcClient::LeaveOwnThread() {
  loop_->Stop();
  evt_srv_->Stop();
  OrphanedServices::Instance().Add(std::move(evt_srv_));
  const std::shared_ptr<TcpClient> client = Connection();
  SetConnection(nullptr);
  if (client != nullptr) client->Disconnect();
}

std::shared_ptr<TcpClient> RpcClient::Connection() const {
  const std::lock_guard<std::mutex> lock(client_mutex_);
  return client_;
}

void RpcClient::SetConnection(std::shared_ptr<TcpClient> client) {
  const std::lock_guard<std::mutex> lock(client_mutex_);
  client_ = std::move(client);
}

bool RpcClient::IsConnected() const {
  const std::shared_ptr<TcpClient> client = Connection();
  return client != nullptr && client->IsConnected() && !is_lost_;
}

std::shared_ptr<MSError> RpcClient::Register() { return kOk; }

// ---- Sending

std::shared_ptr<MSError> RpcClient::Send(RpcHeader* header, const char* payload, int length) {
  if (header == nullptr || length < 0 || (payload == nullptr && length > 0) ||
      length > std::numeric_limits<int>::max() - kHeadSize) {
    BSP_LOG_ERROR(MOD_BSP, "frame refused: head %p, payload %p, length %d",
                  static_cast<const void*>(header), static_cast<const void*>(payload), length);
    return BSP_NEW_ERROR(-1, "frame refused: payload length %d", length);
  }
  const std::lock_guard<std::mutex> lock(send_mutex_);
  header->magic = RPC_MAGIC;
  header->pid = pid_;
  header->size = length + kHeadSize;
  const std::shared_ptr<TcpClient> client = Connection();
  if (client == nullptr) {
    BSP_LOG_ERROR(MOD_BSP, "client_ is null");
    return BSP_NEW_ERROR(-1, "client_ is null");
  }
  const auto payload_size = static_cast<size_t>(length);
  const bool is_sent =
      payload_size < kLargePayload
          ? client->Send(Framed(*header, payload, payload_size), sizeof *header + payload_size)
          : client->Send(reinterpret_cast<const char*>(header), sizeof *header, payload,
                         payload_size);
  return is_sent ? kOk : BSP_NEW_ERROR(-1, "send error");
}

// Head and payload in one piece, so that they leave in one system call.
const char* RpcClient::Framed(const RpcHeader& header, const char* payload, size_t length) {
  const size_t size = sizeof header + length;
  if (send_buf_.size() < size) send_buf_.resize(size);
  memcpy(send_buf_.data(), &header, sizeof header);
  if (length > 0) memcpy(send_buf_.data() + sizeof header, payload, length);
  return send_buf_.data();
}

RpcHeader RpcClient::NewHead(int type, const char* cmd) {
  RpcHeader head = {};
  SetRpcCmd(head.cmd, cmd);
  head.size = kHeadSize;
  head.type = type;
  head.seq = seq_.fetch_add(1);
  head.timestamp = TimeUtil::ClockMillis();
  return head;
}

std::shared_ptr<MSError> RpcClient::RefuseUnconnected() {
  BSP_LOG_ERROR(MOD_BSP, "not connected");
  return BSP_NEW_ERROR(-1, "not connected");
}

std::shared_ptr<MSError> RpcClient::SendMessage(const char* cmd, const std::string& message) {
  if (!IsConnected()) return RefuseUnconnected();
  RpcHeader head = NewHead(RPC_TYPE_MESSAGE, cmd);
  auto error = Send(&head, message.data(), LengthOf(message));
  if (error != kOk) {
    BSP_LOG_ERROR(MOD_BSP, "send message error, err: %s", error->Message().c_str());
  }
  return error;
}

std::shared_ptr<MSError> RpcClient::SendReplay(const RpcHeader* request, const char* data,
                                               int length) {
  if (!IsConnected()) return RefuseUnconnected();
  if (request == nullptr) return BSP_NEW_ERROR(-1, "send replay error: no request");
  RpcHeader head = *request;
  head.type = RPC_TYPE_REPLAY;
  const auto error = Send(&head, data, length);
  if (error == kOk) return kOk;
  BSP_LOG_ERROR(MOD_BSP, "send replay error: %s", error->Message().c_str());
  return BSP_WRAP_ERROR(error, "send replay error");
}

// ---- Calls that wait

std::shared_ptr<MSError> RpcClient::Listen(const std::string& cmd, int type, int power) {
  auto error = CheckCanAsk(cmd);
  if (error != kOk) return error;
  std::string response;
  error = AskWithRecord(RPC_TYPE_LISTEN, cmd, type, power, response);
  if (error != kOk) return error;
  BSP_LOG_DEBUG(MOD_BSP, "listen cmd %s success", cmd.c_str());
  return kOk;
}

std::shared_ptr<MSError> RpcClient::CheckCmdPower(const std::string& cmd, int& type, int& power) {
  auto error = CheckCanAsk(cmd);
  if (error != kOk) return error;
  BSP_LOG_INFO(MOD_BSP, "cmd: %s, type: %d, power: %d", cmd.c_str(), type, power);
  std::string response;
  error = AskWithRecord(RPC_TYPE_CHECK_POWER, cmd, -1, -1, response);
  if (error != kOk) return error;
  RpcListenRecord record;
  // One more than the payload: the reply step appends a zero.
  if (response.size() < sizeof record + 1) {
    BSP_LOG_ERROR(MOD_BSP, "check power reply for %s is short: %zu bytes, needs %zu", cmd.c_str(),
                  response.empty() ? size_t{0} : response.size() - 1, sizeof record);
    return BSP_NEW_ERROR(-1, "check power reply is short");
  }
  memcpy(&record, response.data(), sizeof record);
  type = record.type;
  power = record.power;
  BSP_LOG_DEBUG(MOD_BSP, "chec cmd power %s success, type: %d, power: %d", cmd.c_str(), type,
                power);
  return kOk;
}

std::shared_ptr<MSError> RpcClient::CheckCanAsk(const std::string& cmd) const {
  if (!IsConnected()) return RefuseUnconnected();
  if (cmd.size() < kNameLimit) return kOk;
  return BSP_NEW_ERROR(-1, "cmd size is large %d[%d]", static_cast<int>(cmd.size()),
                       static_cast<int>(kNameLimit));
}

std::shared_ptr<MSError> RpcClient::AskWithRecord(int frame_type, const std::string& cmd, int type,
                                                  int power, std::string& response) {
  RpcHeader head = NewHead(frame_type, cmd.c_str());
  RpcListenRecord record = {};
  SetRpcCmd(record.cmd, cmd.c_str());
  record.type = type;
  record.power = power;

  MsgSemGuard waiter(&head, this, response);
  auto error = Send(&head, reinterpret_cast<const char*>(&record), sizeof record);
  if (error != kOk) {
    BSP_LOG_ERROR(MOD_BSP, "send error, err: %s", error->Message().c_str());
    return error;
  }
  error = waiter.WaitReply(kRegisterTimeoutMs);
  if (error != kOk) {
    BSP_LOG_ERROR(MOD_BSP, "register timeout, seq: %d", static_cast<int>(head.seq));
    return error;
  }
  if (head.err_code == 0) return kOk;
  BSP_LOG_ERROR(MOD_BSP, "register error, err_code: %d", head.err_code);
  return BSP_NEW_ERROR(head.err_code, "register error, err_code: %d", head.err_code);
}

std::shared_ptr<MSError> RpcClient::SendRequest(const char* cmd, const std::string& request,
                                                std::string& response, int timeout_ms) {
  if (!IsConnected()) return RefuseUnconnected();
  RpcHeader head = NewHead(RPC_TYPE_REQUEST, cmd);
  MsgSemGuard waiter(&head, this, response);
  auto error = Send(&head, request.data(), LengthOf(request));
  if (error != kOk) {
    BSP_LOG_ERROR(MOD_BSP, "send error, err: %s", error->Message().c_str());
    return error;
  }
  error = waiter.WaitReply(timeout_ms);
  if (error != kOk) {
    BSP_LOG_ERROR(MOD_BSP, "wait reply err: %s", error->Message().c_str());
    return error;
  }
  if (head.err_code == 0) return kOk;
  BSP_LOG_ERROR(MOD_BSP, "send error, err_code: %d", head.err_code);
  return BSP_NEW_ERROR(head.err_code, "register error, err_code: %d", head.err_code);
}

// Any answer will do, and a question about the right level of a command is always answered.
std::shared_ptr<MSError> RpcClient::Flush(int timeout_ms) {
  if (!IsConnected()) return RefuseUnconnected();
  RpcHeader head = NewHead(RPC_TYPE_CHECK_POWER, "");
  RpcListenRecord record = {};
  record.type = -1;
  record.power = -1;
  std::string response;
  MsgSemGuard waiter(&head, this, response);
  const auto error = Send(&head, reinterpret_cast<const char*>(&record), sizeof record);
  return error != kOk ? error : waiter.WaitReply(timeout_ms);
}

// ---- Receiving, on the rpc_cli thread

void RpcClient::TcpHandleMessage(std::shared_ptr<TcpClient>, std::shared_ptr<MemoryBuffer> buffer) {
  // Null when the last pointer is gone and the destructor waits for this thread. May become the
  // last pointer in a slot: nothing of this object is touched behind its end.
  const std::shared_ptr<RpcClient> self = weak_from_this().lock();
  if (self == nullptr) return;
  RpcHeader head;
  RpcFrameState state = input_->Look(buffer, &head);
  bool is_short_of_memory = false;
  while (state == RpcFrameState::kComplete && !is_short_of_memory) {
    const Frame frame = input_->Take(buffer, head);
    is_short_of_memory = !frame;
    if (!frame) break;
    if (frame.head->type == RPC_TYPE_REQUEST || frame.head->type == RPC_TYPE_MESSAGE) {
      SignalMessage(self, frame.head);
    } else if (frame.head->type == RPC_TYPE_REPLAY) {
      TakeReply(frame.head, store_->PayloadApart());
    }
    state = input_->Look(buffer, &head);
  }
  const bool is_unreadable =
      state == RpcFrameState::kWrongMagic || state == RpcFrameState::kBadSize || is_short_of_memory;
  if (is_unreadable) ReportUnreadable(self);
}

void RpcClient::ReportUnreadable(const std::shared_ptr<RpcClient>& self) {
  SignalError(self, BSP_NEW_ERROR(-1, "read error, errno: %d", errno));
}

// `payload`: where the payload lies apart from the head, null where it stands behind it.
void RpcClient::TakeReply(const RpcHeader* head, std::string* payload) {
  std::shared_ptr<Semaphore> sem;
  {
    const std::lock_guard<std::mutex> lock(msg_sem_mutex_);
    const auto found = msg_sems_.find(head->seq);
    if (found == msg_sems_.end()) return;  // its caller has gone
    MsgSem& waiter = *found->second;
    if (waiter.replied) return;  // the first reply wins
    const auto length = static_cast<size_t>(head->size) - sizeof *head;
    if (head->err_code == 0 && payload != nullptr) {
      waiter.resp.swap(*payload);
    } else if (head->err_code == 0 && length > 0) {
      // The zero behind the frame in recv_buf_ becomes the zero behind the answer.
      waiter.resp.assign(reinterpret_cast<const char*>(head + 1), length + 1);
    }
    waiter.header->err_code = head->err_code;
    waiter.replied = true;
    sem = waiter.sem;
  }
  if (sem != nullptr) sem->Signal();
}

void RpcClient::TcpHandleError(std::shared_ptr<TcpClient>, std::shared_ptr<MSError>) {
  if (!options_.fail_calls_on_disconnect) return;
  const std::shared_ptr<RpcClient> self = weak_from_this().lock();
  if (self == nullptr) return;
  {
    const std::lock_guard<std::mutex> lock(msg_sem_mutex_);
    if (is_lost_) return;
    is_lost_ = true;
    for (const auto& entry : msg_sems_) {
      entry.second->lost = true;
      if (entry.second->sem != nullptr) entry.second->sem->Signal();
    }
  }
  SignalError(self, BSP_NEW_ERROR(-1, "connection lost"));
}

}  // namespace bsp
