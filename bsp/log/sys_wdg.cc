#include "bsp/log/sys_wdg.h"

#include <fcntl.h>
#include <linux/watchdog.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "bsp/log/log.h"
#include "bsp/log/status_block.h"
#include "bsp/util/string_helper.h"
#include "bsp/util/time_util.h"

namespace bsp {
namespace {

// A device must outlast two missed passes, each of which may come a second late.
constexpr int kLeastDeviceTimeoutSeconds = 3 * static_cast<int>(kWdgPassSeconds + 1);

// Most characters of a stored name that a feed is compared with.
constexpr int kComparedChars = 31;

}  // namespace

std::string LateText(const std::vector<LateModule>& late) {
  std::string text;
  for (const LateModule& module : late) {
    text +=
        StringHelper::Format("%s(%ld, %d) ", module.name.c_str(), module.elapsed, module.timeout);
  }
  return text;
}

SysWdg::SysWdg(LogSrvCfg& cfg, std::string device_path)
    : cfg_(cfg), device_path_(std::move(device_path)) {}

SysWdg::~SysWdg() { DeInitDeviceWatchDog(); }

bool SysWdg::Init(SystemStatus* sta) {
  sta_ptr_ = sta;
  if (sta_ptr_ == nullptr) {
    BSP_LOG_ERROR(MOD_BSP, "sta_ptr_ is nullptr\n");
    return false;
  }
  InitDefaultModule();
  InitDeviceWatchDog();
  return true;
}

bool SysWdg::InitDefaultModule() {
  if (sta_ptr_ == nullptr) {
    BSP_LOG_ERROR(MOD_BSP, "sta_ptr_ is nullptr\n");
    return false;
  }
  ClearBlock(sta_ptr_);
  StoreWord(sta_ptr_->wdg_enable, 1);
  StoreWord(sta_ptr_->magic, kLogMagic);
  RegisterConfigured();
  return true;
}

bool SysWdg::InitAdopted(SystemStatus* sta, Adoption* found) {
  if (sta != nullptr) *found = AdoptBlock(sta);
  if (sta == nullptr || !found->is_valid) return Init(sta);
  sta_ptr_ = sta;
  RegisterConfigured();
  InitDeviceWatchDog();
  return true;
}

int SysWdg::CountModules() const {
  const ModSta* mods = sta_ptr_->mods;
  return static_cast<int>(std::count_if(mods, mods + kMaxModules, [](const ModSta& mod) {
    return LoadWord(mod.mod_name[0]) != '\0';
  }));
}

void SysWdg::RegisterConfigured() {
  for (const std::string& module : cfg_.modules) {
    if (!module.empty() && ModuleRegister(sta_ptr_, module) == nullptr) {
      BSP_LOG_ERROR(MOD_BSP, "register module %s failed.\n", module.c_str());
    }
  }
}

ModSta* SysWdg::ModuleRegister(SystemStatus* sta, const std::string& name) {
  if (sta == nullptr) {
    BSP_LOG_ERROR(MOD_BSP, "sta_ptr is nullptr\n");
    return nullptr;
  }
  const Registration record = RegisterModule(sta, name, {kServerTimeoutSeconds, false});
  if (record.index == -1) {
    BSP_LOG_ERROR(MOD_BSP, "register module %s failed, module %d is full.\n", name.c_str(),
                  kMaxModules);
    return nullptr;
  }
  ModSta* mod = &sta->mods[record.index];
  if (record.is_known) {
    RenewModule(mod);
    BSP_LOG_INFO(MOD_BSP, "module %s already registered, index %d\n", name.c_str(), record.index);
  } else {
    BSP_LOG_INFO(MOD_BSP, "module register %s, index %d.\n", name.c_str(), record.index);
  }
  return mod;
}

void SysWdg::FeedModuleWatchDog(const char* mod) {
  if (mod == nullptr) {
    BSP_LOG_ERROR(MOD_BSP, "mod is nullptr\n");
    return;
  }
  const int length = static_cast<int>(strnlen(mod, kComparedChars + 1));
  for (int i = 0; sta_ptr_ != nullptr && i < kMaxModules; ++i) {
    ModSta& record = sta_ptr_->mods[i];
    char name[33] = {};
    if (CopyName(record.mod_name, name) == 0) continue;
    const int ret = StringHelper::Compare(name, kComparedChars, mod, length);
    BSP_LOG_DEBUG(MOD_BSP, "module %s, feed_cnt %d, feed_time %ld, ret %d\n", name,
                  LoadWord(record.feed_cnt), LoadWord(record.feed_time), ret);
    if (ret != 0) continue;
    // wraps in order, whatever number stands in the block
    StoreWord(record.feed_cnt,
              static_cast<int32_t>(static_cast<uint32_t>(LoadWord(record.feed_cnt)) + 1));
    StoreWord(record.feed_time, TimeUtil::ClockSecond());
    return;
  }
  BSP_LOG_ERROR(MOD_BSP, "module %s not found\n", mod);
}

std::vector<LateModule> SysWdg::Check() {
  const int64_t now = TimeUtil::ClockSecond();
  std::vector<LateModule> late;
  for (int i = 0; sta_ptr_ != nullptr && i < kMaxModules; ++i) {
    ModSta& record = sta_ptr_->mods[i];
    char name[33];
    if (CopyName(record.mod_name, name) == 0) continue;
    // unsigned: any number may stand in the block
    const int64_t elapsed = static_cast<int64_t>(static_cast<uint64_t>(now) -
                                                 static_cast<uint64_t>(LoadWord(record.feed_time)));
    const int32_t timeout = LoadWord(record.timeout);
    if (LoadWord(record.feed_cnt) == 0 && elapsed > timeout) {
      late.push_back({name, elapsed, timeout});
    } else {
      StoreWord(record.feed_cnt, 0);
    }
  }
  return late;
}

bool SysWdg::IsHadTimeOut(std::string& out) {
  const std::vector<LateModule> late = Check();
  out = late.empty() ? "" : "mod " + LateText(late) + " not feed the dog\n";
  return !late.empty();
}

bool SysWdg::InitDeviceWatchDog() { return true; }

void SysWdg::FeedDeviceWatchDog() {
  if (dev_fd_ == -1) return;
  // any byte but the magic 'V'
  if (write(dev_fd_, "", 1) != 1) {
    BSP_LOG_ERROR(MOD_BSP, "feeding %s failed, errno %d", device_path_.c_str(), errno);
  }
}

void SysWdg::DeInitDeviceWatchDog() {
  if (dev_fd_ == -1) return;
  if (write(dev_fd_, "V", 1) != 1) {
    BSP_LOG_ERROR(MOD_BSP, "%s cannot be disarmed, errno %d", device_path_.c_str(), errno);
  }
  AbandonDeviceWatchDog();
}

void SysWdg::AbandonDeviceWatchDog() {
  if (dev_fd_ != -1) close(dev_fd_);
  dev_fd_ = -1;
}

bool SysWdg::CheckDeviceWatchDog(std::string* why) const {
  if (device_path_.empty()) return true;
  struct stat info = {};
  if (stat(device_path_.c_str(), &info) != 0 || access(device_path_.c_str(), W_OK) != 0) {
    *why = StringHelper::Format("watchdog device %s cannot be used: %s", device_path_.c_str(),
                                strerror(errno));
    return false;
  }
  if (!S_ISCHR(info.st_mode)) {
    *why = device_path_ + " is no watchdog device: it is no character device";
    return false;
  }
  return true;
}

bool SysWdg::ArmDeviceWatchDog(std::string* why) {
  if (device_path_.empty() || dev_fd_ != -1) return true;
  const char* path = device_path_.c_str();
  dev_fd_ = open(path, O_WRONLY | O_CLOEXEC | O_NOCTTY);
  if (dev_fd_ == -1) {
    *why = StringHelper::Format("watchdog device %s cannot be opened: %s", path, strerror(errno));
    return false;
  }
  struct watchdog_info info = {};
  if (ioctl(dev_fd_, WDIOC_GETSUPPORT, &info) != 0) {
    *why = StringHelper::Format("%s is no watchdog device: %s", path, strerror(errno));
    AbandonDeviceWatchDog();  // without a byte: it may be anything
    return false;
  }
  int timeout = 0;
  const int failed = ioctl(dev_fd_, WDIOC_GETTIMEOUT, &timeout) == 0 ? 0 : errno;
  if (failed == 0 && timeout >= kLeastDeviceTimeoutSeconds) {
    BSP_LOG_INFO(MOD_BSP, "watchdog device %s armed, resets after %d s", path, timeout);
    return true;
  }
  *why = failed != 0 ? StringHelper::Format("watchdog device %s does not tell its time-out: %s",
                                            path, strerror(failed))
                     : StringHelper::Format(
                           "watchdog device %s resets after %d s, and at least %d are "
                           "needed: set a longer time-out in its driver",
                           path, timeout, kLeastDeviceTimeoutSeconds);
  DeInitDeviceWatchDog();
  return false;
}

}  // namespace bsp
