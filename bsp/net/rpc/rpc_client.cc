// How a client's parts live and die
// ---------------------------------
// Shared is what callers' threads, the owner and rpc_cli meet in; it lasts as long as the client.
// Link is one connection, from an Open to its Close, with its loop and its thread; whoever works
// with it holds a pointer of its own. How a call waits for its reply: call_waiters.cc.
//
// The function that runs the loop on rpc_cli holds the loop and not the client, so that dropping
// the last pointer to an open client destroys it. If that pointer is dropped by one of its own
// slots, the destructor runs on rpc_cli, which cannot join itself: the thread's service is then put
// aside, and joined by the next Open or Close of any client.
//
// After a fork the child has a copy of all this and one thread. Locks may be held for ever, tables
// half changed, and the socket and the epoll set are the parent's. So every operation looks at the
// mark of the process in Shared before it takes a lock, and closing in the child closes the
// socket's descriptor and leaves the rest, the service with its thread included, for what it is:
// Shared as a whole is put aside and the client gets a new one. Nothing of the refusal is logged:
// the clock of the log has a lock of its own, in the C library.
#include "bsp/net/rpc/rpc_client.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <mutex>
#include <utility>
#include <vector>

#include "bsp/base/pi_mutex.h"
#include "bsp/base/process.h"
#include "bsp/event/eventservice.h"
#include "bsp/log/log.h"
#include "bsp/net/event_loop.h"
#include "bsp/net/rpc/call_waiters.h"
#include "bsp/net/rpc/frame_input.h"
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

// The client whose rpc_cli this thread is, null on all others. For comparison only.
thread_local const RpcClient* t_client = nullptr;

// As a frame counts it; -1, which Send refuses, for what no frame can carry.
int LengthOf(const std::string& payload) {
  constexpr auto kMost = static_cast<size_t>(std::numeric_limits<int>::max());
  return payload.size() > kMost ? -1 : static_cast<int>(payload.size());
}

// Services whose client was destroyed on their own thread, which then ends by itself.
class OrphanedServices {
 public:
  // Those of this process; those of its parent cannot be joined. Never destroyed: used by
  // destructors.
  static OrphanedServices& Instance() {
    static std::atomic<OrphanedServices*> instance{new OrphanedServices};
    OrphanedServices* known = instance.load();
    if (!known->process_.IsForeign()) return *known;
    auto own = std::make_unique<OrphanedServices>();
    if (!instance.compare_exchange_strong(known, own.get())) return *known;
    KeepForGood(known);
    return *own.release();
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
  const ProcessMark process_;
  std::mutex mutex_;
  std::vector<std::shared_ptr<EventService>> services_;  // guarded by mutex_
};

}  // namespace

// The slots stand here and not in the client: what is connected must neither outlive the connection
// nor, in a forked child, be taken out of a signal that was being raised.
struct RpcClient::Link : public sigslot::has_slots<sigslot::single_threaded> {
  Link(const std::weak_ptr<RpcClient>& owner, const Options& opened_with,
       const std::shared_ptr<FrameMemory>& frame)
      : client(owner),
        options(opened_with),
        store(std::make_shared<ReplyStore>(frame)),
        input(std::make_shared<FrameInput>(store)) {
    loop->SetContainFailures(options.contain_failures);
    tcp->SetSink(input);
    tcp->SetSendWhole(true);
    tcp->SignalError.connect(this, &Link::OnError);
    tcp->SignalRead.connect(this, &Link::OnRead);
  }

  // Of a loop that gave up, when failures went on: nobody will read this connection any more.
  void GiveUp(const std::string& why) {
    BSP_LOG_ERROR(MOD_BSP, "rpc client closes its connection, failures go on: %s", why.c_str());
    try {
      tcp->OnError();
    } catch (...) {  // the slot that is told of it fails as well
      tcp->Disconnect();
    }
  }

  // The pointer keeps the client, and with it this object, to the end of the slot. It cannot be had
  // any more when the last pointer is gone and the destructor waits for this thread.
  void OnRead(std::shared_ptr<TcpClient> from, std::shared_ptr<MemoryBuffer> buffer) {
    const std::shared_ptr<RpcClient> owner = client.lock();
    if (owner != nullptr) owner->TcpHandleMessage(std::move(from), std::move(buffer));
  }
  void OnError(std::shared_ptr<TcpClient> from, std::shared_ptr<MSError> error) {
    const std::shared_ptr<RpcClient> owner = client.lock();
    if (owner != nullptr) owner->TcpHandleError(std::move(from), std::move(error));
  }

  const std::weak_ptr<RpcClient> client;
  const Options options;
  const std::shared_ptr<EventLoop> loop = std::make_shared<EventLoop>();
  const std::shared_ptr<TcpClient> tcp = std::make_shared<TcpClient>(loop);

  // The thread's.
  const std::shared_ptr<ReplyStore> store;
  const std::shared_ptr<FrameInput> input;

  std::shared_ptr<EventService> service;  // the owner's
  std::atomic<bool> is_lost{false};       // with fail_calls_on_disconnect, for IsConnected
};

struct RpcClient::Shared {
  std::shared_ptr<Link> CurrentLink() const {
    const std::lock_guard<PiMutex> lock(link_mutex);
    return link;
  }

  void SetLink(std::shared_ptr<Link> next) {
    const std::lock_guard<PiMutex> lock(link_mutex);
    is_open = next != nullptr;
    link.swap(next);
  }

  // In a forked child, instead of a destructor: closes what is the child's own of a connection.
  void Abandon() {
    // Without the lock: an Open or Close that the fork has cut short shows the pointer before or
    // behind the exchange, and a socket is open only while the link stands here.
    if (link != nullptr) link->tcp->Disconnect();
    KeepForGood(this);
  }

  // Head and payload in one piece, so that they leave in one system call. With send_mutex held.
  const char* Framed(const RpcHeader& head, const char* payload, size_t length) {
    const size_t size = sizeof head + length;
    if (send_buf.size() < size) send_buf.resize(size);
    memcpy(send_buf.data(), &head, sizeof head);
    if (length > 0) memcpy(send_buf.data() + sizeof head, payload, length);
    return send_buf.data();
  }

  const ProcessMark process;
  // Outlives the links for its memory.
  const std::shared_ptr<FrameMemory> frame = std::make_shared<FrameMemory>();

  std::atomic<bool> is_open{false};               // there is a link; asked without the lock
  std::atomic<SemaphorePool*> sem_pool{nullptr};  // set by the first Open
  CallWaiters waiters;

  // The first is taken by all threads but rpc_cli, in front of the second: see CallWaiters.
  std::mutex send_gate;
  PiMutex send_mutex;          // guards send_buf and the order of frames on the connection
  std::vector<char> send_buf;  // the outgoing small frame; never shrinks

  mutable PiMutex link_mutex;  // a leaf, held to copy or exchange the pointer
  std::shared_ptr<Link> link;
};

// On rpc_cli. It has the client for comparison only, and the link when that is still there.
void RpcClient::RunLoop(const RpcClient* client, const std::shared_ptr<EventLoop>& loop,
                        const std::weak_ptr<Link>& weak_link) {
  t_client = client;
  BSP_LOG_DEBUG(MOD_BSP, "rpc client loop start");
  loop->Loop();
  BSP_LOG_DEBUG(MOD_BSP, "rpc client loop end");
  const auto link = weak_link.lock();
  if (link != nullptr && !loop->FailureText().empty()) link->GiveUp(loop->FailureText());
  t_client = nullptr;
}

// ---- The waiter

RpcClient::MsgSem::MsgSem(RpcHeader* request, RpcClient* client, std::string& response)
    : header(request), resp(response) {
  const Shared& shared = client->Mine();
  if (shared.process.IsForeign()) return;
  if (SemaphorePool* const pool = shared.sem_pool) {
    sem = pool->Get();
  } else {
    BSP_LOG_ERROR(MOD_BSP, "semaphore pool is null.");
  }
}

RpcClient::MsgSemGuard::MsgSemGuard(RpcHeader* header, RpcClient* owner, std::string& response)
    : owner_(owner), msg_sem_(std::make_shared<MsgSem>(header, owner, response)) {
  Shared& shared = owner_->Mine();
  if (!shared.process.IsForeign()) shared.waiters.Enter(msg_sem_, &owner_->seq_);
}

RpcClient::MsgSemGuard::~MsgSemGuard() {
  Shared& shared = owner_->Mine();
  if (msg_sem_ == nullptr || shared.process.IsForeign()) return;
  shared.waiters.Leave(msg_sem_);
  if (msg_sem_->sem == nullptr) return;
  while (msg_sem_->sem->Wait(0)) {
  }
  SemaphorePool::Instance()->Put(msg_sem_->sem);
}

bool RpcClient::MsgSemGuard::IsReply() const {
  if (msg_sem_ == nullptr) {
    BSP_LOG_ERROR(MOD_BSP, "msg_sem_ is null");
    return true;
  }
  return msg_sem_->replied;
}

std::shared_ptr<MSError> RpcClient::MsgSemGuard::WaitReply(int timeout_ms) {
  if (msg_sem_ == nullptr) return BSP_NEW_ERROR(RPC_ERR_NO_WAIT, "msg_sem_ is null.");
  if (msg_sem_->sem == nullptr) return BSP_NEW_ERROR(RPC_ERR_NO_WAIT, "semaphore is null.");
  const int64_t end = TimeUtil::ClockMillis() + timeout_ms;
  int left_ms = timeout_ms;
  // A count without reply or loss was meant for an earlier borrower of the semaphore.
  while (!msg_sem_->lost && msg_sem_->sem->Wait(left_ms) && !msg_sem_->replied) {
    left_ms = static_cast<int>(std::max(end - TimeUtil::ClockMillis(), int64_t{0}));
  }
  // From here on no reply can fill the response; one that came in the last moment has done so.
  if (!msg_sem_->replied) owner_->Mine().waiters.Leave(msg_sem_);
  if (msg_sem_->replied) return kOk;
  if (msg_sem_->lost) return BSP_NEW_ERROR(RPC_ERR_FAILED, "connection lost");
  return BSP_NEW_ERROR(RPC_ERR_TIMEOUT, "wait timeout");
}

// ---- Life

RpcClient::RpcClient() : shared_(new Shared) {}

RpcClient::~RpcClient() {
  Shared* const shared = shared_.load(std::memory_order_relaxed);
  if (shared->process.IsForeign()) {
    shared->Abandon();
    return;
  }
  if (IsOwnThread()) {
    LeaveOwnThread();
  } else {
    Close();
  }
  delete shared;
}

std::shared_ptr<MSError> RpcClient::Open(const std::string& host, uint16_t port) {
  if (auto error = CheckProcess(); error != kOk) return error;
  if (Mine().process.IsForeign()) Renew();
  Shared& mine = Mine();
  if (mine.is_open) {
    BSP_LOG_INFO(MOD_BSP, "client is already running");
    return kOk;
  }
  OrphanedServices::Instance().Join();
  mine.sem_pool = SemaphorePool::Instance().get();  // which is never destroyed
  const auto link = std::make_shared<Link>(weak_from_this(), options_, mine.frame);
  if (!link->loop->IsValid()) {
    BSP_LOG_ERROR(MOD_BSP, "create loop error");
    return BSP_NEW_ERROR(RPC_ERR_FAILED, "create loop error");
  }
  mine.waiters.Admit();
  mine.SetLink(link);
  if (!link->tcp->Connect(host, port)) {
    BSP_LOG_ERROR(MOD_BSP, "connect error, ip: %s, port: %d", host.c_str(), port);
    return BSP_NEW_ERROR(RPC_ERR_CONNECT, "connect error, ip: %s, port: %d", host.c_str(), port);
  }
  if (!link->tcp->IsWatched()) {
    link->tcp->Disconnect();
    BSP_LOG_ERROR(MOD_BSP, "cannot watch the connection, ip: %s, port: %d", host.c_str(), port);
    return BSP_NEW_ERROR(RPC_ERR_FAILED,
                         "cannot watch the connection, ip: %s, port: %d: the log names the cause",
                         host.c_str(), port);
  }
  // A request right behind a message must not wait for the acknowledgement of the message.
  const int on = 1;
  link->tcp->SetOption(IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  auto error = StartThread(link);
  if (error != kOk) link->tcp->Disconnect();  // nobody would read the replies
  return error;
}

std::shared_ptr<MSError> RpcClient::StartThread(const std::shared_ptr<Link>& link) {
  link->service = EventService::Create("rpc_cli", kThreadPriority);
  if (link->service == nullptr) {
    BSP_LOG_ERROR(MOD_BSP, "create evt_srv error");
    return BSP_NEW_ERROR(RPC_ERR_FAILED, "create evt_srv error");
  }
  auto error = link->service->Start();
  if (error != kOk) return error;
  link->service->Post(0, [this, loop = link->loop, weak_link = std::weak_ptr<Link>(link)](
                             Message*) { RunLoop(this, loop, weak_link); });
  BSP_LOG_DEBUG(MOD_BSP, "rpc client evt_srv success");
  return kOk;
}

void RpcClient::Close() {
  if (Mine().process.IsForeign()) {
    Renew();
    return;
  }
  if (IsOwnThread()) {
    BSP_LOG_ERROR(MOD_BSP, "Close refused on the client's own thread, it cannot wait for itself");
    return;
  }
  OrphanedServices::Instance().Join();
  Shared& mine = Mine();
  const std::shared_ptr<Link> link = mine.CurrentLink();
  if (link == nullptr) return;
  if (link->options.fail_calls_on_disconnect) mine.waiters.FailAll();
  link->loop->Stop();
  link->loop->Wakeup();
  if (link->service != nullptr) link->service->Stop();
  link->service.reset();
  // Before the link goes: while there is a descriptor, a child of a fork finds it.
  link->tcp->Disconnect();
  mine.SetLink(nullptr);
}

// The destructor on rpc_cli: everything of Close but the join.
void RpcClient::LeaveOwnThread() {
  t_client = nullptr;  // another client may come to lie where this one lies
  const std::shared_ptr<Link> link = Mine().CurrentLink();
  link->loop->Stop();
  link->service->Stop();
  OrphanedServices::Instance().Add(std::move(link->service));
  link->tcp->Disconnect();
}

void RpcClient::Renew() {
  if (t_client == this) t_client = nullptr;  // forked in a slot
  shared_.exchange(new Shared, std::memory_order_acq_rel)->Abandon();
}

std::shared_ptr<MSError> RpcClient::CheckProcess() const {
  const Shared& shared = Mine();
  if (!shared.is_open || !shared.process.IsForeign()) return kOk;
  return BSP_NEW_ERROR(RPC_ERR_FAILED,
                       "the connection belongs to process %d and this is %d: a forked child opens "
                       "a client of its own",
                       shared.process.owner(), ProcessId());
}

bool RpcClient::IsOwnThread() const { return t_client == this && !Mine().process.IsForeign(); }

bool RpcClient::IsConnected() const {
  const Shared& shared = Mine();
  if (!shared.is_open || shared.process.IsForeign()) return false;
  const std::shared_ptr<Link> link = shared.CurrentLink();
  return link != nullptr && link->tcp->IsConnected() && !link->is_lost;
}

std::shared_ptr<MSError> RpcClient::Register() { return kOk; }

namespace {

// A call under way. The frame that goes out is not the head that the reply writes to: that may
// happen before the frame is sent, where the other end makes replies up.
struct Exchange {
  Exchange(const RpcHeader& request, RpcClient* client, std::string& response)
      : head(request), frame(request), waiter(&head, client, response) {
    frame.seq = head.seq;  // which the waiter may have changed
  }

  RpcHeader head;
  RpcHeader frame;
  RpcClient::MsgSemGuard waiter;
};

}  // namespace

// ---- Sending

std::shared_ptr<MSError> RpcClient::Send(RpcHeader* header, const char* payload, int length) {
  if (auto error = CheckProcess(); error != kOk) return error;
  if (header == nullptr || length < 0 || (payload == nullptr && length > 0) ||
      length > std::numeric_limits<int>::max() - kHeadSize) {
    BSP_LOG_ERROR(MOD_BSP, "frame refused: head %p, payload %p, length %d",
                  static_cast<const void*>(header), static_cast<const void*>(payload), length);
    return BSP_NEW_ERROR(RPC_ERR_FAILED, "frame refused: payload length %d", length);
  }
  header->magic = RPC_MAGIC;
  header->pid = ProcessId();
  header->size = length + kHeadSize;
  const RpcHeader head = *header;  // the reply writes to the caller's, while this may still be sent
  const auto size = static_cast<size_t>(length);

  Shared& mine = Mine();
  std::unique_lock<std::mutex> gate(mine.send_gate, std::defer_lock);
  if (t_client == nullptr) gate.lock();
  const std::lock_guard<PiMutex> lock(mine.send_mutex);
  const std::shared_ptr<Link> link = mine.CurrentLink();
  if (link == nullptr) {
    BSP_LOG_ERROR(MOD_BSP, "client_ is null");
    return BSP_NEW_ERROR(RPC_ERR_FAILED, "client_ is null");
  }
  const bool is_sent =
      size < kLargePayload
          ? link->tcp->Send(mine.Framed(head, payload, size), sizeof head + size)
          : link->tcp->Send(reinterpret_cast<const char*>(&head), sizeof head, payload, size);
  return is_sent ? kOk : BSP_NEW_ERROR(RPC_ERR_FAILED, "send error");
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

std::shared_ptr<MSError> RpcClient::CheckCanCall() const {
  if (auto error = CheckProcess(); error != kOk) return error;
  if (IsConnected()) return kOk;
  BSP_LOG_ERROR(MOD_BSP, "not connected");
  return BSP_NEW_ERROR(RPC_ERR_FAILED, "not connected");
}

std::shared_ptr<MSError> RpcClient::SendMessage(const char* cmd, const std::string& message) {
  auto error = CheckCanCall();
  if (error != kOk) return error;
  RpcHeader head = NewHead(RPC_TYPE_MESSAGE, cmd);
  error = Send(&head, message.data(), LengthOf(message));
  if (error != kOk) {
    BSP_LOG_ERROR(MOD_BSP, "send message error, err: %s", error->Message().c_str());
  }
  return error;
}

std::shared_ptr<MSError> RpcClient::SendReplay(const RpcHeader* request, const char* data,
                                               int length) {
  auto error = CheckCanCall();
  if (error != kOk) return error;
  if (request == nullptr) return BSP_NEW_ERROR(RPC_ERR_FAILED, "send replay error: no request");
  RpcHeader head = *request;
  head.type = RPC_TYPE_REPLAY;
  error = Send(&head, data, length);
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
    return BSP_NEW_ERROR(RPC_ERR_FAILED, "check power reply is short");
  }
  memcpy(&record, response.data(), sizeof record);
  type = record.type;
  power = record.power;
  BSP_LOG_DEBUG(MOD_BSP, "chec cmd power %s success, type: %d, power: %d", cmd.c_str(), type,
                power);
  return kOk;
}

std::shared_ptr<MSError> RpcClient::CheckCanAsk(const std::string& cmd) const {
  auto error = CheckCanCall();
  if (error != kOk || cmd.size() < kNameLimit) return error;
  return BSP_NEW_ERROR(RPC_ERR_FAILED, "cmd size is large %d[%d]", static_cast<int>(cmd.size()),
                       static_cast<int>(kNameLimit));
}

std::shared_ptr<MSError> RpcClient::AskWithRecord(int frame_type, const std::string& cmd, int type,
                                                  int power, std::string& response) {
  RpcListenRecord record = {};
  SetRpcCmd(record.cmd, cmd.c_str());
  record.type = type;
  record.power = power;

  Exchange call(NewHead(frame_type, cmd.c_str()), this, response);
  auto error = Send(&call.frame, reinterpret_cast<const char*>(&record), sizeof record);
  if (error != kOk) {
    BSP_LOG_ERROR(MOD_BSP, "send error, err: %s", error->Message().c_str());
    return error;
  }
  error = call.waiter.WaitReply(kRegisterTimeoutMs);
  if (error != kOk) {
    BSP_LOG_ERROR(MOD_BSP, "register timeout, seq: %d", static_cast<int>(call.head.seq));
    return error;
  }
  if (call.head.err_code == 0) return kOk;
  BSP_LOG_ERROR(MOD_BSP, "register error, err_code: %d", call.head.err_code);
  return BSP_NEW_ERROR(call.head.err_code, "register error, err_code: %d", call.head.err_code);
}

std::shared_ptr<MSError> RpcClient::SendRequest(const char* cmd, const std::string& request,
                                                std::string& response, int timeout_ms) {
  auto error = CheckCanCall();
  if (error != kOk) return error;
  Exchange call(NewHead(RPC_TYPE_REQUEST, cmd), this, response);
  error = Send(&call.frame, request.data(), LengthOf(request));
  if (error != kOk) {
    BSP_LOG_ERROR(MOD_BSP, "send error, err: %s", error->Message().c_str());
    return error;
  }
  error = call.waiter.WaitReply(timeout_ms);
  if (error != kOk) {
    BSP_LOG_ERROR(MOD_BSP, "wait reply err: %s", error->Message().c_str());
    return error;
  }
  if (call.head.err_code == 0) return kOk;
  BSP_LOG_ERROR(MOD_BSP, "send error, err_code: %d", call.head.err_code);
  return BSP_NEW_ERROR(call.head.err_code, "register error, err_code: %d", call.head.err_code);
}

// Any answer will do, and a question about the right level of a command is always answered.
std::shared_ptr<MSError> RpcClient::Flush(int timeout_ms) {
  auto error = CheckCanCall();
  if (error != kOk) return error;
  RpcListenRecord record = {};
  record.type = -1;
  record.power = -1;
  std::string response;
  Exchange call(NewHead(RPC_TYPE_CHECK_POWER, ""), this, response);
  error = Send(&call.frame, reinterpret_cast<const char*>(&record), sizeof record);
  return error != kOk ? error : call.waiter.WaitReply(timeout_ms);
}

// ---- Receiving, on the rpc_cli thread

void RpcClient::TcpHandleMessage(std::shared_ptr<TcpClient>, std::shared_ptr<MemoryBuffer> buffer) {
  // May become the last pointer in a slot: nothing of this object is touched behind its end.
  const std::shared_ptr<RpcClient> self = weak_from_this().lock();
  Shared& mine = Mine();
  const std::shared_ptr<Link> link = mine.CurrentLink();
  if (self == nullptr || link == nullptr) return;
  RpcHeader head;
  Frame frame;
  RpcFrameState state = link->input->Look(buffer, &head);
  while (state == RpcFrameState::kComplete && (frame = link->input->Take(buffer, head))) {
    if (frame.head->type == RPC_TYPE_REQUEST || frame.head->type == RPC_TYPE_MESSAGE) {
      SignalMessage(self, frame.head);
    } else if (frame.head->type == RPC_TYPE_REPLAY) {
      mine.waiters.Answer(frame, link->store->PayloadApart());
    }
    state = link->input->Look(buffer, &head);
  }
  // Complete, and not taken: no memory.
  const bool is_readable = state == RpcFrameState::kNoHead || state == RpcFrameState::kIncomplete;
  if (is_readable) return;
  SignalError(self, BSP_NEW_ERROR(RPC_ERR_FAILED, "read error, errno: %d", errno));
}

void RpcClient::TcpHandleError(std::shared_ptr<TcpClient>, std::shared_ptr<MSError>) {
  const std::shared_ptr<RpcClient> self = weak_from_this().lock();
  Shared& mine = Mine();
  const std::shared_ptr<Link> link = mine.CurrentLink();
  if (self == nullptr || link == nullptr) return;
  if (!link->options.fail_calls_on_disconnect || link->is_lost.exchange(true)) return;
  mine.waiters.FailAll();
  SignalError(self, BSP_NEW_ERROR(RPC_ERR_FAILED, "connection lost"));
}

}  // namespace bsp
