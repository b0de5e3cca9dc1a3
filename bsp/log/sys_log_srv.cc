// The log server's loop.
//
// One thread, the host's, does everything between Start and Stop: it waits a second at most for
// datagrams, stores them, and behind each turn looks at the clock for the watchdog pass and at the
// store for its trim and its commit by time. So nothing here needs a lock but the end: Stop runs on
// another thread and deletes what the loop uses. It clears running_, makes wake_fd_ readable, so
// that the loop leaves its wait at once, and waits until loop_thread_ is none; a loop that enters
// later finds running_ clear and touches nothing. A sleep in place of this would delete the store
// under a turn that takes longer.
//
// With several datagrams a turn the steps for one datagram, the trim included, are taken for each,
// so that the same rows are stored and trimmed as with one; only system calls are saved.
#include "bsp/log/sys_log_srv.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

#include "bsp/log/log.h"
#include "bsp/log/log_srv_cfg.h"
#include "bsp/log/own_record.h"
#include "bsp/log/status_block.h"
#include "bsp/util/file_util.h"
#include "bsp/util/string_helper.h"
#include "bsp/util/time_util.h"

namespace bsp {
namespace {

constexpr int kTurnMs = 1000;
constexpr int32_t kMostTextBytes = 1023;
constexpr int64_t kMostDrainMs = 10000;
constexpr int64_t kSearchShare = 20;
constexpr int kMostWaiting = 8192;  // datagrams; a buffer of 4 MB holds 3600

// While it exists, a late module does not stop the feeding of the device watchdog.
constexpr const char kWdgCloseFile[] = "/mnt/nand/watchdog_close.conf";

std::string FirstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

std::string HostText(uint32_t host) {
  return StringHelper::Format("%u.%u.%u.%u", host >> 24, host >> 16 & 255, host >> 8 & 255,
                              host & 255);
}

}  // namespace

// ---- Life

SystemLogServer::SystemLogServer(LogSrvOptions options)
    : options_(std::move(options)),
      receiver_(options_.datagrams_per_turn, options_.receive_buffer_bytes),
      feeds_(options_.datagrams_per_turn, options_.receive_buffer_bytes),
      pass_(options_.fair_verdicts) {}

SystemLogServer::~SystemLogServer() { SystemLogServer::Stop(); }

bool SystemLogServer::Start(const std::string& name) {
  error_.clear();
  if (sta_ptr_ != nullptr) return Fail("the log server is started already");
  InitLogCfg();
  if (!Open(name)) {
    TearDown();
    return false;
  }
  SysLogMsgRec(std::string("System start ...") + TimeUtil::TimeMillisStr());
  TellAdopted();
  running_ = true;
  return true;
}

void SystemLogServer::TellAdopted() {
  if (adopted_.modules + adopted_.damaged == 0) return;
  const std::string text = StringHelper::Format("%d modules taken over, %d damaged records freed",
                                                adopted_.modules, adopted_.damaged);
  RecordOwn(BSP_LEVEL_NOTICE, text);
  BSP_LOG_NOTICE(MOD_BSP, "%s", text.c_str());
}

// What can fail without a trace comes first: the block and the store are not touched then.
bool SystemLogServer::Open(const std::string& name) {
  std::string why;
  wdg_ = std::make_unique<SysWdg>(cfg_, options_.watchdog_device);
  if (!wdg_->CheckDeviceWatchDog(&why)) return Fail(why);
  wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake_fd_ == -1) return Fail(StringHelper::Format("eventfd failed: %s", strerror(errno)));
  if (options_.bind_at_start && !OpenReceiver()) return false;

  if (options_.adopt_block) return OpenStore() && OpenBlock(name);
  return OpenBlock(name) && OpenStore();
}

bool SystemLogServer::OpenBlock(const std::string& name) {
  if (!SysLog::Start(name)) {
    BSP_LOG_ERROR(MOD_BSP, "SysLog start failed.");
    const std::string owner = shmc::impl::SVIPCShmAlloc<false>::DescribeOwner(kSystemStatusName);
    return Fail(
        StringHelper::Format("cannot attach the status block %s; %s", kSystemStatusName,
                             owner.empty() ? "no such segment could be made" : owner.c_str()));
  }
  adopted_ = {false, 0, 0};
  if (options_.adopt_block ? wdg_->InitAdopted(sta_ptr_, &adopted_) : wdg_->Init(sta_ptr_)) {
    return true;
  }
  BSP_LOG_ERROR(MOD_BSP, "watchdog init failed.");
  return Fail("watchdog init failed");
}

bool SystemLogServer::OpenStore() {
  StoreKeeperOptions options;
  options.may_be_absent = options_.run_without_store;
  options.watches_file = options_.watch_database;
  store_ = std::make_unique<StoreKeeper>(cfg_, options_.database, options,
                                         options_.record_losses ? &losses_ : nullptr);
  const auto error = store_->Open();
  if (error == nullptr) return true;
  BSP_LOG_ERROR(MOD_BSP, "log rec init failed.");
  return Fail("log store: " + FirstLine(error->Message()));
}

bool SystemLogServer::OpenReceiver() {
  drops_ = feed_drops_ = 0;
  if (receiver_.Open()) {
    if (options_.separate_feeds) feeds_.OpenForFeeds(&receiver_);  // else they go on together
    return true;
  }
  return Fail(StringHelper::Format("cannot receive on UDP port %d: is another log server running?",
                                   kLogPort));
}

bool SystemLogServer::Fail(const std::string& why) {
  error_ = why;
  return false;
}

void SystemLogServer::Stop() {
  running_ = false;
  if (wake_fd_ != -1) eventfd_write(wake_fd_, 1);
  std::unique_lock<std::mutex> lock(loop_mutex_);
  if (loop_thread_ == std::this_thread::get_id()) {
    BSP_LOG_ERROR(MOD_BSP, "Stop on the loop's own thread only ends the loop");
    return;
  }
  loop_left_.wait(lock, [this] { return loop_thread_ == std::thread::id(); });
  // The lock is held to the end: a loop that enters now has to wait, and then finds nothing to do.
  if (options_.flush_at_stop && store_) Drain();
  TearDown();
}

void SystemLogServer::TearDown() {
  receiver_.Close();
  feeds_.Close();
  SysLog::Stop();
  wdg_.reset();
  store_.reset();
  Socket::Close(wake_fd_);
}

void SystemLogServer::InitLogCfg() {
  ReadLogSrvCfg(kLogSrvCfgFile, options_.guard_configuration, &cfg_, &error_);
}

// ---- The loop

// Notes the thread of the loop while it runs, however it ends. One that ends before Stop has
// failed, perhaps by an exception: nobody watches the modules any more, and the device is left to
// see to it.
class SystemLogServer::LoopMark {
 public:
  explicit LoopMark(SystemLogServer* server) : server_(server) {
    std::lock_guard<std::mutex> lock(server_->loop_mutex_);
    is_only_ = server_->loop_thread_ == std::thread::id();
    if (is_only_) server_->loop_thread_ = std::this_thread::get_id();
  }
  LoopMark(const LoopMark&) = delete;
  LoopMark& operator=(const LoopMark&) = delete;
  ~LoopMark() {
    if (!is_only_) return;
    if (server_->running_) server_->wdg_->AbandonDeviceWatchDog();
    // Told under the lock: behind it the server may be gone.
    std::lock_guard<std::mutex> lock(server_->loop_mutex_);
    server_->loop_thread_ = std::thread::id();
    server_->loop_left_.notify_all();
  }
  bool is_only() const { return is_only_; }

 private:
  SystemLogServer* server_;
  bool is_only_;
};

void SystemLogServer::RunLoopLog() {
  const LoopMark mark(this);
  if (!mark.is_only()) {
    BSP_LOG_ERROR(MOD_BSP, "the loop of the log server runs already");
    return;
  }
  if (BeginLoop()) {
    while (running_ && Turn()) {
    }
  }
  if (options_.flush_at_stop && store_) return;  // Stop reads the rest
  receiver_.Close();
  feeds_.Close();
}

bool SystemLogServer::BeginLoop() {
  if (!receiver_.IsOpen() && !OpenReceiver()) return false;
  BSP_LOG_INFO(MOD_BSP, "UDP listening 0.0.0.0:%d...", kLogPort);
  pass_.Begin(TimeUtil::ClockSecond());
  is_anyone_late_ = false;
  if (!running_) return true;
  std::string why;
  if (!wdg_->ArmDeviceWatchDog(&why)) {
    BSP_LOG_ERROR(MOD_BSP, "%s", why.c_str());
    return Fail(why);
  }
  if (options_.on_ready) options_.on_ready();
  return true;
}

// False when the loop cannot go on.
bool SystemLogServer::Turn() {
  // poll, not select: a descriptor may be above 1023; one of -1 is passed over
  struct pollfd waits[] = {
      {feeds_.fd(), POLLIN, 0}, {receiver_.fd(), POLLIN, 0}, {wake_fd_, POLLIN, 0}};
  if (poll(waits, 3, kTurnMs) < 0) {
    error_ = StringHelper::Format("waiting for datagrams failed: %s", strerror(errno));
    BSP_LOG_ERROR(MOD_BSP, "select failed");
    return false;
  }
  if (waits[0].revents != 0) ReceiveTurn(&feeds_);
  const bool is_skipped = waits[1].revents != 0 && !ReceiveTurn(&receiver_);
  if (options_.on_turn) options_.on_turn();
  if (is_skipped && options_.datagrams_per_turn <= 1) return true;

  const int64_t now = TimeUtil::ClockSecond();
  if (pass_.IsDue(now)) RunPass(now);
  if (now != second_) {
    second_ = now;
    LookAtDrops(now);
    store_->LookAfter(now);
  }
  store_->Recycle();
  return true;
}

// Reads and handles what waits, as many as a turn may; false when the last one was skipped.
bool SystemLogServer::ReceiveTurn(LogReceiver* receiver) {
  bool is_handled = false;
  for (const LogReceiver::Datagram& datagram : receiver->Receive()) {
    is_handled = HandleDatagram(datagram);
    if (is_handled) store_->Recycle();
  }
  return is_handled;
}

// False when the datagram is skipped.
bool SystemLogServer::HandleDatagram(const LogReceiver::Datagram& datagram) {
  if (datagram.length < 0) {
    BSP_LOG_ERROR(MOD_BSP, "UDP therefrom failed");
    return false;
  }
  LogMsg& msg = *datagram.msg;
  if (!IsWelcome(datagram)) {
    losses_.Add(Loss::kRefused, 1);
    return false;
  }
  msg.log[msg.len] = '\0';
  msg.mod_name[sizeof msg.mod_name - 1] = '\0';
  if (msg.magic == kLogMagic) {
    LogMsgProc(msg);
  } else {
    losses_.Add(Loss::kRefused, 1);
  }
  return true;
}

bool SystemLogServer::IsWelcome(const LogReceiver::Datagram& datagram) {
  if (datagram.length == 0) {
    BSP_LOG_ERROR(MOD_BSP, "UDP therefrom failed");
    return false;
  }
  if (options_.loopback_only && datagram.from_host >> 24 != 127) {
    if (!has_refused_) {
      BSP_LOG_WARN(MOD_BSP, "datagrams from %s and other machines are dropped",
                   HostText(datagram.from_host).c_str());
    }
    has_refused_ = true;
    return false;
  }
  return datagram.msg->len >= 0 && datagram.msg->len <= kMostTextBytes;
}

// Stores what reached the socket before the end of the loop, however long the disk takes for it. A
// socket that the kernel does not seal has no end while senders go on, so there the time is
// bounded.
void SystemLogServer::Drain() {
  const int64_t end_ms = TimeUtil::ClockMillis() + kMostDrainMs;
  // First that of the feeds: while the other is open, the kernel may choose it for either.
  if (feeds_.IsOpen()) feeds_.Seal();
  const bool is_sealed = receiver_.IsOpen() && receiver_.Seal();
  for (LogReceiver* receiver : {&feeds_, &receiver_}) {
    while ((is_sealed || TimeUtil::ClockMillis() < end_ms) && receiver->HasWaiting()) {
      ReceiveTurn(receiver);
    }
  }
  LookAtDrops(TimeUtil::ClockSecond());
  store_->Flush();
}

// Reads what waited when a verdict was due, so that no feed stands unread before it. Bounded, since
// senders may go on: more than the largest receive buffer holds.
void SystemLogServer::ReadWaiting(LogReceiver* receiver) {
  int left = kMostWaiting;
  while (left > 0 && receiver->HasWaiting()) {
    ReceiveTurn(receiver);
    left -= std::max(options_.datagrams_per_turn, 1);
  }
}

void SystemLogServer::RunPass(int64_t now) {
  if (options_.fair_verdicts) {
    ReadWaiting(feeds_.IsOpen() ? &feeds_ : &receiver_);
    LookAtDrops(now);
  }
  if (pass_.Enter(now)) {
    std::vector<LateModule> late = wdg_->Check();
    TellSpared(pass_.Spare(&late, now));
    TellLate(late);
    is_anyone_late_ = !late.empty();
    if (options_.fair_verdicts) TellEmpty();
  } else {
    BSP_LOG_WARN(MOD_BSP, "the watchdog pass came late, the next one judges the modules");
  }
  if (!is_anyone_late_) {
    wdg_->FeedDeviceWatchDog();
    return;
  }
  if (LoadWord(sta_ptr_->wdg_enable) == 0) wdg_->FeedDeviceWatchDog();
  if (FileUtil::IsFileExist(kWdgCloseFile)) wdg_->FeedDeviceWatchDog();
}

void SystemLogServer::TellLate(const std::vector<LateModule>& late) {
  const std::vector<LateModule> told = options_.record_each_lateness ? pass_.TakeNew(late) : late;
  if (told.empty()) return;
  const std::string text = "mod " + LateText(told) + " not feed the dog\n";
  if (options_.record_each_lateness) {
    RecordLate(text);
  } else {
    TimeOutProc(text);
  }
}

// A device that runs on with none of its modules is fed as one whose modules are all well.
void SystemLogServer::TellEmpty() {
  const bool is_empty = wdg_->CountModules() == 0;
  if (is_empty && !is_empty_told_) {
    BSP_LOG_WARN(MOD_BSP, "nothing is watched: no module has registered");
  }
  is_empty_told_ = is_empty;
}

void SystemLogServer::TellSpared(const std::vector<LateModule>& spared) {
  if (spared.empty()) return;
  const std::string text =
      "mod " + LateText(spared) + "not judged, their feeds may be among the datagrams lost";
  RecordOwn(BSP_LEVEL_WARN, text);
  BSP_LOG_WARN(MOD_BSP, "%s", text.c_str());
}

// The kernel's counts, of which the differences hold modulo 2^32.
void SystemLogServer::LookAtDrops(int64_t now) {
  if (!receiver_.IsOpen()) return;
  const uint32_t of_records = receiver_.CountDrops() - drops_;
  const uint32_t of_feeds = feeds_.IsOpen() ? feeds_.CountDrops() - feed_drops_ : 0;
  drops_ += of_records;
  feed_drops_ += of_feeds;
  if ((feeds_.IsOpen() ? of_feeds : of_records) != 0) pass_.NoteLostFeeds(now);
  losses_.Add(Loss::kBufferFull, of_records + of_feeds);
}

// ---- Records

void SystemLogServer::LogMsgProc(LogMsg& msg) {
  if (!store_) return;
  BSP_LOG_DEBUG(MOD_BSP, "msg %lld %s", static_cast<long long>(msg.timems), msg.log);
  switch (msg.type) {
    case LOG_TYPE_FEED_DOG:
      if (wdg_) wdg_->FeedModuleWatchDog(msg.mod_name);
      break;
    case LOG_TYPE_SEARCH:
      GateSearch();
      break;
    default:
      store_->Record(msg);
  }
}

void SystemLogServer::GateSearch() {
  const int64_t begin = TimeUtil::ClockMillis();
  if (options_.gate_searches && begin < search_time_) return;
  Search();
  const int64_t end = TimeUtil::ClockMillis();
  search_time_ = end + kSearchShare * std::max<int64_t>(end - begin, 1);
}

// A look at the store for whoever reads our log lines.
void SystemLogServer::Search() {
  SearchReq req;
  req.type = LOG_TYPE_BUS;
  req.end_ms = 0x0fffffffffffffff;
  int count = 0;
  std::vector<LogMsg> found;
  SysLogRec* store = store_->store();
  if (store != nullptr) store->SearchCount(req, count);
  if (store == nullptr || store->Search(req, found) != 0) {
    BSP_LOG_ERROR(MOD_BSP, "Search failed.");
    return;
  }
  const int size = static_cast<int>(found.size());
  BSP_LOG_INFO(MOD_BSP, "req %d, total count %d", req.type, size);
  BSP_LOG_INFO(MOD_BSP, "req %d, total count %d, resp size %d", req.type, count, size);
}

void SystemLogServer::TimeOutProc(const std::string& text) {
  static std::atomic<bool> is_told{false};
  if (!is_told.exchange(true)) RecordLate(text);
}

void SystemLogServer::RecordLate(const std::string& text) {
  SysLogMsgRec(text);
  BSP_LOG_ERROR(MOD_BSP, "timeout log: %s", text.c_str());
}

void SystemLogServer::SysLogMsgRec(const std::string& text) { RecordOwn(BSP_LEVEL_ERROR, text); }

void SystemLogServer::RecordOwn(int32_t level, const std::string& text) {
  if (store_) store_->Record(MakeOwnRecord(level, text));
}

}  // namespace bsp
