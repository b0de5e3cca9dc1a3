// The module watchdog of the log server.
#ifndef BSP_LOG_SYS_WDG_H_
#define BSP_LOG_SYS_WDG_H_

#include <cstdint>
#include <string>
#include <vector>

#include "bsp/base/macros.h"
#include "bsp/log/log_msg.h"
#include "bsp/log/status_block.h"

namespace bsp {

// The server's loop checks the modules when more than this has gone by since the last check.
constexpr int64_t kWdgPassSeconds = 4;

// A module that has not fed in time.
struct LateModule {
  std::string name;
  int64_t elapsed;  // seconds since its last feed
  int32_t timeout;  // seconds that it may let pass
};

// "a(25, 20) b(70, 60) ", each with the seconds gone by and its time-out.
BSP_EXPORT std::string LateText(const std::vector<LateModule>& late);

// Watches the feeds of all modules in the status block, and keeps the device watchdog alive when
// told to. Times are ClockSecond, which no setting of the wall clock moves.
//
// The device: without a path, which is the default, its operations do nothing. With one, opening
// the device arms it, so that is a step of its own, ArmDeviceWatchDog, for the moment from which
// the loop will feed it.
//
// Threads: one at a time. Modules write the block at the same time, each field a word.
class BSP_EXPORT SysWdg {
 public:
  // cfg has to outlive the object; `modules` is read from it. device_path: such as "/dev/watchdog";
  // empty: none.
  explicit SysWdg(LogSrvCfg& cfg, std::string device_path = std::string());
  SysWdg(const SysWdg&) = delete;
  SysWdg& operator=(const SysWdg&) = delete;
  ~SysWdg();

  // Binds the block, clears it, registers the configured modules. False for a null pointer.
  bool Init(SystemStatus* sta);

  // The same without clearing a block that is sound: see AdoptBlock. Configured modules that have
  // no record yet are registered. *found tells what was taken over.
  bool InitAdopted(SystemStatus* sta, Adoption* found);

  // How many records have a name.
  int CountModules() const;

  // Clears the block, so that what clients registered before is gone, and registers the configured
  // modules. One that finds no record is logged, and the others follow. False without a block.
  bool InitDefaultModule();

  // Finds the record of this name and counts a feed for it, or takes a free one with a time-out of
  // 60 seconds. Null when there is none.
  static ModSta* ModuleRegister(SystemStatus* sta, const std::string& name);

  // Counts a feed for the first record whose name `mod` is, or begins.
  void FeedModuleWatchDog(const char* mod);

  // One check of all records: those, in record order, that have not fed since the last check and
  // whose last feed is longer ago than their time-out.
  std::vector<LateModule> Check();

  // The same; true when a module is late. `out` then names all late ones, else it is empty.
  bool IsHadTimeOut(std::string& out);

  // Opens nothing; true.
  bool InitDeviceWatchDog();
  // Keeps an armed device alive for one more of its time-outs.
  void FeedDeviceWatchDog();
  // Disarms the device by the magic close and closes it; a driver built never to stop goes on.
  void DeInitDeviceWatchDog();
  // Closes the device and leaves it armed: it resets the machine unless it is opened again in time.
  void AbandonDeviceWatchDog();

  // Whether the path can be a watchdog device that we may write to; *why when not. Does not open
  // it. True without a path.
  bool CheckDeviceWatchDog(std::string* why) const;

  // Opens and so arms the device. False, with *why and the device disarmed again, when it cannot be
  // opened, is no watchdog, or has a time-out below three passes. True without a path, and when it
  // is armed already.
  bool ArmDeviceWatchDog(std::string* why);

 private:
  void RegisterConfigured();

  LogSrvCfg& cfg_;
  int32_t dev_fd_ = -1;              // the armed device
  SystemStatus* sta_ptr_ = nullptr;  // null until Init
  const std::string device_path_;
};

}  // namespace bsp

#endif  // BSP_LOG_SYS_WDG_H_
