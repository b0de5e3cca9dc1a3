#include "bsp/log/sys_log_cli.h"

#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <exception>

#include "bsp/log/log.h"
#include "bsp/log/module_census.h"
#include "bsp/util/string_helper.h"
#include "bsp/util/time_util.h"

namespace bsp {
namespace {

constexpr size_t kMostModuleName = 32;
constexpr int32_t kUnfiltered = BSP_LEVEL_DEBUG;

}  // namespace

// ---- SysLog

SysLog::~SysLog() { SysLog::Stop(); }

bool SysLog::Start(const std::string& name) {
  if (name.size() > kMostModuleName) {
    printf("module name %s is too long.\n", name.c_str());
    return false;
  }
  mod_name_ = name;
  // Twice: of modules that create the block at the same moment all but one fail, and find it at
  // their second try.
  if (!shm_.InitForWrite(kSystemStatusName, kSystemStatusSize, shmc::kCreateIfMissing) &&
      !shm_.InitForWrite(kSystemStatusName, kSystemStatusSize, shmc::kCreateIfMissing)) {
    printf("create share memory %s failed.\n", kSystemStatusName);
    return false;
  }
  sta_ptr_ = shm_.ptr();
  return true;
}

void SysLog::Stop() {
  if (sta_ptr_ == nullptr) return;
  shm_.Reset();
  sta_ptr_ = nullptr;
}

// ---- SystemLogClient: life

std::mutex SystemLogClient::mutex_;
const int SystemLogClient::fork_handlers_ =
    pthread_atfork([] { mutex_.lock(); }, [] { mutex_.unlock(); }, [] { mutex_.unlock(); });

SystemLogClient::SystemLogClient(const LogClientOptions& options)
    : options_(options), slotless_level_(kUnfiltered) {}

SystemLogClient::~SystemLogClient() { SystemLogClient::Stop(); }

bool SystemLogClient::Start(const std::string& name) {
  if (!SysLog::Start(name)) {
    puts("SysLog start failed.");
    return false;
  }
  ModSta* mod = RegWatchdogMod();
  if (mod == nullptr) {
    printf("register module %s failed.\n", mod_name_.c_str());
    return false;
  }
  is_retired_ = false;
  slotless_level_ = kUnfiltered;
  Hold(mod);
  hdl_ = std::make_shared<Socket>();
  if (!hdl_) {
    puts("make_shared<Socket>() failed.");
    return false;
  }
  if (!hdl_->Create(Socket::SOCKET_DGRAM)) {
    puts("Failed to create socket");
    return false;
  }
  to_addr_.Set(kLogHost, kLogPort);
  hdl_->SetBlocking(0);
  printf("log client start, mod_name %s.\n", mod_name_.c_str());
  return true;
}

void SystemLogClient::Stop() {
  if (hdl_) hdl_->Close();
  {
    // The slots go away with the block.
    std::lock_guard<std::mutex> lock(mutex_);
    if (cur_sta_ptr_ != nullptr) Release(*cur_sta_ptr_);
    tag_index_.Clear();
    log_mods_.clear();
    cur_sta_ptr_ = nullptr;
  }
  SysLog::Stop();
}

// ---- SystemLogClient: the record and its levels

ModSta* SystemLogClient::RegWatchdogMod() {
  if (sta_ptr_ == nullptr) return nullptr;
  if (mod_name_.empty()) {
    puts("module name is empty.");
    return nullptr;
  }
  const Registration record = RegisterModule(sta_ptr_, mod_name_, {kClientTimeoutSeconds, true});
  if (record.index == -1) {
    printf("register module %s failed, module %d is full.\n", mod_name_.c_str(), kMaxModules);
    return nullptr;
  }
  ModSta* mod = &sta_ptr_->mods[record.index];
  if (record.is_known) {
    RenewModule(mod);
    ResetTagSlots(mod);
    printf("module %s already registered, index %d.\n", mod_name_.c_str(), record.index);
  } else {
    printf("module register %s, index %d.\n", mod_name_.c_str(), record.index);
  }
  return mod;
}

void SystemLogClient::RegLogMod(const std::string& tag) {
  std::lock_guard<std::mutex> lock(mutex_);
  TakeSlot(tag);
}

// With mutex_ held.
void SystemLogClient::TakeSlot(const std::string& tag) {
  ModSta* mod = cur_sta_ptr_;
  if (mod == nullptr) {
    puts("cur_sta_ptr_ is null.");
    return;
  }
  LogModSta* slot = FindFreeSlot(mod);
  if (slot == nullptr) {
    printf("register log %s failed, module %d is full.\n", tag.c_str(), kMaxLogTags);
    return;
  }
  SetTagName(slot, tag);
  const int32_t level = LoadWord(mod->log_level);
  StoreWord(slot->log_level, level);
  EnterTag(tag, slot);
  printf("log register %s, index %d, log level %d.\n", tag.c_str(),
         static_cast<int>(slot - mod->logs), level);
}

// With mutex_ held. The index first: a tag that stands in the map is always found in it.
void SystemLogClient::EnterTag(const std::string& tag, LogModSta* slot) {
  tag_index_.Set(tag, slot != nullptr ? &slot->log_level : &slotless_level_);
  log_mods_[tag] = {slot, slot != nullptr ? LoadWord(slot->log_level) : kUnfiltered};
}

void SystemLogClient::Release(const ModSta& mod) const {
  if (holder_ == getpid() && IsOwn(mod)) ReleaseModule(static_cast<int>(&mod - sta_ptr_->mods));
}

// With mutex_ held, or before there is a second thread.
void SystemLogClient::Hold(ModSta* mod) {
  HoldModule(static_cast<int>(mod - sta_ptr_->mods));
  holder_ = getpid();
  NoteLevels(*mod);
  cur_sta_ptr_ = mod;
}

void SystemLogClient::SetLogLevel(int level) {
  ModSta* mod = cur_sta_ptr_;
  if (mod == nullptr) {
    printf("module %s not registered.\n", mod_name_.c_str());
    return;
  }
  if (level < BSP_LEVEL_EMERG || level > BSP_LEVEL_DEBUG) {
    printf("log level %d is invalid.\n", level);
    return;
  }
  SetModuleLevel(mod, level);
  std::lock_guard<std::mutex> lock(mutex_);
  NoteLevels(*mod);
}

bool SystemLogClient::SetTimeout(int seconds) {
  std::lock_guard<std::mutex> lock(mutex_);
  ModSta* mod = cur_sta_ptr_;
  if (mod == nullptr || seconds < 1) {
    printf("module %s: %d s is no time-out, or the module is not registered.\n", mod_name_.c_str(),
           seconds);
    return false;
  }
  asked_timeout_ = kept_timeout_ = seconds;
  if (IsOwn(*mod)) StoreWord(mod->timeout, static_cast<int32_t>(seconds));
  return true;
}

bool SystemLogClient::Retire() {
  std::lock_guard<std::mutex> lock(mutex_);
  ModSta* mod = cur_sta_ptr_.exchange(nullptr);
  if (mod == nullptr) return false;
  is_retired_ = true;
  // The slots go to whoever takes the record next.
  StoreWord(slotless_level_, LoadWord(mod->log_level));
  for (auto& entry : log_mods_) EnterTag(entry.first, nullptr);
  Release(*mod);
  FreeModule(sta_ptr_, static_cast<int>(mod - sta_ptr_->mods), mod_name_);
  return true;
}

int SystemLogClient::IsRunning() {
  const ModSta* mod = cur_sta_ptr_;
  if (mod == nullptr) return 1;
  return !options_.keep_registered || IsOwn(*mod) ? LoadWord(mod->running) : 0;
}

bool SystemLogClient::IsOwn(const ModSta& mod) const { return IsRecordOf(mod, mod_name_); }

// ---- SystemLogClient: keeping the record

// At each feed: whoever feeds wants to be watched. A child that goes on for its parent holds the
// record in its own name.
void SystemLogClient::KeepRecord() noexcept {
  try {
    std::lock_guard<std::mutex> lock(mutex_);
    ModSta* mod = cur_sta_ptr_;
    if (mod == nullptr) return;
    const bool is_out = !IsOwn(*mod);
    if (is_out) mod = RegisterAgain();
    if (mod == nullptr) return;  // all records are taken: tried again at the next feed
    if (is_out || holder_ != getpid()) HoldModule(static_cast<int>(mod - sta_ptr_->mods));
    holder_ = getpid();
    RestoreTags(mod, is_out);
    NoteLevels(*mod);
    cur_sta_ptr_ = mod;
  } catch (const std::exception&) {
    // no memory for a name: tried again at the next feed
  }
}

ModSta* SystemLogClient::RegisterAgain() {
  const Registration record = RegisterModule(sta_ptr_, mod_name_, {kept_timeout_, true});
  if (record.index == -1) return nullptr;
  printf("module %s registered again, index %d.\n", mod_name_.c_str(), record.index);
  return &sta_ptr_->mods[record.index];
}

// Gives the tags that have lost their slots new ones, with the levels of the last feed. The
// server's own registration of the name, too, has left none of them.
void SystemLogClient::RestoreTags(ModSta* mod, bool is_new) {
  bool has_lost = is_new;
  for (auto& entry : log_mods_) {
    Tag& tag = entry.second;
    const bool has_slot = tag.slot != nullptr;
    if (!has_slot || (!is_new && IsSlotOf(*tag.slot, entry.first))) continue;
    has_lost = true;
    const int32_t level = tag.level;
    LogModSta* slot = FindSlot(mod, entry.first);
    if (slot != nullptr && !IsSlotOf(*slot, entry.first)) {
      SetTagName(slot, entry.first);
      StoreWord(slot->log_level, level);
    }
    EnterTag(entry.first, slot);
  }
  // 0 is what a cleared block reads; another process of this name may have set its own meanwhile.
  if (has_lost && LoadWord(mod->log_level) == 0) StoreWord(mod->log_level, kept_level_);
  if (has_lost && asked_timeout_ != 0) StoreWord(mod->timeout, asked_timeout_);
}

void SystemLogClient::NoteLevels(const ModSta& mod) {
  kept_level_ = LoadWord(mod.log_level);
  kept_timeout_ = LoadWord(mod.timeout);
  for (auto& entry : log_mods_) {
    if (entry.second.slot != nullptr) entry.second.level = LoadWord(entry.second.slot->log_level);
  }
}

// ---- SystemLogClient: the look-up

int SystemLogClient::GetLogLevel(const char* tag) {
  if (tag == nullptr) tag = "";
  const int32_t* level = tag_index_.Find(tag);
  return level != nullptr ? LoadWord(*level) : RegisterOnFirstUse(tag);
}

int SystemLogClient::RegisterOnFirstUse(const char* tag) noexcept {
  try {
    std::lock_guard<std::mutex> lock(mutex_);
    // Another thread may have been first.
    if (log_mods_.count(tag) == 0 && !is_retired_) TakeSlot(tag);
    if (log_mods_.count(tag) == 0) EnterTag(tag, nullptr);
    return LoadWord(*tag_index_.Find(tag));
  } catch (const std::exception&) {
    return kUnfiltered;  // no memory for the tag: it is tried again at its next use
  }
}

// ---- SystemLogClient: records

void SystemLogClient::NameSender(LogMsg* msg) const {
  // An empty name copies nothing, and the sender's own must not travel in its place.
  memset(msg->mod_name, 0, sizeof msg->mod_name);
  const ModSta* mod = cur_sta_ptr_;
  if (mod == nullptr) return;
  char name[33];
  const size_t length = CopyName(mod->mod_name, name);
  if (options_.keep_registered && !IsStoredName(name, length, mod_name_)) return;
  StringHelper::Copy(msg->mod_name, sizeof msg->mod_name, name);
}

void SystemLogClient::LogMsgProc(const char*, const char*, int, LogMsg* msg) {
  const bool is_open = hdl_ && hdl_->IsValid();
  if (!is_open || msg == nullptr) {
    printf("hdl_ not init %d, or msg is null %p.\n", is_open, static_cast<void*>(msg));
    return;
  }
  if (msg->type == LOG_TYPE_FEED_DOG) {
    if (is_retired_) return;
    if (options_.keep_registered) KeepRecord();
  }
  msg->magic = kLogMagic;
  msg->timems = TimeUtil::ClockMillis();
  NameSender(msg);
  if (!to_addr_.IsValid()) to_addr_.Set(kLogHost, kLogPort);
  if (!to_addr_.IsValid()) {
    BSP_LOG_ERROR(MOD_BSP, "to_addr_ not init %d.", to_addr_.IsValid());
    return;
  }
  // The result is not looked at: without a server, or room at the server, the record is lost.
  hdl_->SendTo(reinterpret_cast<const char*>(msg), static_cast<int>(sizeof *msg), to_addr_);
}

}  // namespace bsp
