#include "bsp/log/sys_log_cli.h"

#include <cstdio>
#include <cstring>
#include <exception>

#include "bsp/log/log.h"
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

SystemLogClient::SystemLogClient() = default;

SystemLogClient::~SystemLogClient() { SystemLogClient::Stop(); }

bool SystemLogClient::Start(const std::string& name) {
  if (!SysLog::Start(name)) {
    puts("SysLog start failed.");
    return false;
  }
  cur_sta_ptr_ = RegWatchdogMod();
  if (cur_sta_ptr_ == nullptr) {
    printf("register module %s failed.\n", mod_name_.c_str());
    return false;
  }
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
  if (cur_sta_ptr_ == nullptr) {
    puts("cur_sta_ptr_ is null.");
    return;
  }
  int index = 0;
  while (index < kMaxLogTags && LoadWord(cur_sta_ptr_->logs[index].log_name[0]) != '\0') ++index;
  if (index == kMaxLogTags) {
    printf("register log %s failed, module %d is full.\n", tag.c_str(), kMaxLogTags);
    return;
  }
  LogModSta* slot = &cur_sta_ptr_->logs[index];
  SetTagName(slot, tag);
  const int32_t level = LoadWord(cur_sta_ptr_->log_level);
  StoreWord(slot->log_level, level);
  EnterTag(tag, slot);
  printf("log register %s, index %d, log level %d.\n", tag.c_str(), index, level);
}

// With mutex_ held.
void SystemLogClient::EnterTag(const std::string& tag, LogModSta* slot) {
  log_mods_[tag] = slot;
  tag_index_.Set(tag, slot != nullptr ? &slot->log_level : &kUnfiltered);
}

void SystemLogClient::SetLogLevel(int level) {
  if (cur_sta_ptr_ == nullptr) {
    printf("module %s not registered.\n", mod_name_.c_str());
    return;
  }
  if (level < BSP_LEVEL_EMERG || level > BSP_LEVEL_DEBUG) {
    printf("log level %d is invalid.\n", level);
    return;
  }
  SetModuleLevel(cur_sta_ptr_, level);
}

int SystemLogClient::IsRunning() {
  return cur_sta_ptr_ == nullptr ? 1 : LoadWord(cur_sta_ptr_->running);
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
    if (log_mods_.count(tag) == 0) TakeSlot(tag);
    if (log_mods_.count(tag) == 0) EnterTag(tag, nullptr);
    return LoadWord(*tag_index_.Find(tag));
  } catch (const std::exception&) {
    return kUnfiltered;  // no memory for the tag: it is tried again at its next use
  }
}

// ---- SystemLogClient: records

void SystemLogClient::LogMsgProc(const char*, const char*, int, LogMsg* msg) {
  const bool is_open = hdl_ && hdl_->IsValid();
  if (!is_open || msg == nullptr) {
    printf("hdl_ not init %d, or msg is null %p.\n", is_open, static_cast<void*>(msg));
    return;
  }
  msg->magic = kLogMagic;
  msg->timems = TimeUtil::ClockMillis();
  // An empty name copies nothing, and the sender's own must not travel in its place.
  char name[33];
  CopyName(cur_sta_ptr_->mod_name, name);
  memset(msg->mod_name, 0, sizeof msg->mod_name);
  StringHelper::Copy(msg->mod_name, sizeof msg->mod_name, name);
  if (!to_addr_.IsValid()) to_addr_.Set(kLogHost, kLogPort);
  if (!to_addr_.IsValid()) {
    BSP_LOG_ERROR(MOD_BSP, "to_addr_ not init %d.", to_addr_.IsValid());
    return;
  }
  // The result is not looked at: without a server, or room at the server, the record is lost.
  hdl_->SendTo(reinterpret_cast<const char*>(msg), static_cast<int>(sizeof *msg), to_addr_);
}

}  // namespace bsp
