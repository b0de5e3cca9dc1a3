// The records of the system log: datagram, shared status block, configuration, search.
//
// LogMsg and SystemStatus are memory images that cross process borders, in native byte order and
// without conversion; docs/formats.md shows them with offsets, the assertions below pin them.
#ifndef BSP_LOG_LOG_MSG_H_
#define BSP_LOG_LOG_MSG_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

#include "bsp/bsp.h"

namespace bsp {

constexpr uint32_t kLogMagic = BSP_LOG_MAGIC;

// Most modules of a device, and most log tags of a module.
constexpr int kMaxModules = 32;
constexpr int kMaxLogTags = 32;

// The record from which every LogMsg starts: magic set, level 6, all else zero.
constexpr LogMsg kLogMsgPrototype = {kLogMagic, 0, 0, BSP_LEVEL_INFO, 0, 0, 0, 0, {}, {}};

static_assert(std::is_trivially_copyable<LogMsg>::value, "LogMsg is a datagram");
static_assert(std::is_standard_layout<LogMsg>::value, "LogMsg is shared with C");
static_assert(sizeof(LogMsg) == 1096, "LogMsg is 1096 bytes");
static_assert(offsetof(LogMsg, magic) == 0, "LogMsg layout");
static_assert(offsetof(LogMsg, type) == 4, "LogMsg layout");
static_assert(offsetof(LogMsg, len) == 8, "LogMsg layout");
static_assert(offsetof(LogMsg, level) == 12, "LogMsg layout");
static_assert(offsetof(LogMsg, flow_id) == 16, "LogMsg layout");
static_assert(offsetof(LogMsg, padding) == 20, "LogMsg layout");
static_assert(offsetof(LogMsg, trace_id) == 24, "LogMsg layout");
static_assert(offsetof(LogMsg, timems) == 32, "LogMsg layout");
static_assert(offsetof(LogMsg, mod_name) == 40, "LogMsg layout");
static_assert(offsetof(LogMsg, log) == 72, "LogMsg layout");

// Threshold of one log tag of a module.
struct LogModSta {
  int32_t reserved;   // zeroed at registration, else not used
  int32_t log_level;  // threshold 0 to 7, read at every _log_debug of the tag
  char log_name[32];  // the tag, at most 30 characters; first byte 0: a free slot
};

static_assert(sizeof(LogModSta) == 40, "LogModSta is 40 bytes");
static_assert(offsetof(LogModSta, reserved) == 0, "LogModSta layout");
static_assert(offsetof(LogModSta, log_level) == 4, "LogModSta layout");
static_assert(offsetof(LogModSta, log_name) == 8, "LogModSta layout");

// State of one module. A record is taken for good; only the log server's start clears it.
struct ModSta {
  int32_t running;    // what mod_is_running reports
  int32_t reserved;   // no process reads or writes it
  int32_t feed_cnt;   // feeds since the server's last check
  int32_t timeout;    // seconds allowed without a feed
  int64_t feed_time;  // ClockSecond of the last feed or registration
  char mod_name[32];  // at most 30 characters; first byte 0: a free record
  int32_t log_level;  // the module's threshold, 0 to 7
  LogModSta logs[kMaxLogTags];
  int32_t padding;
};

static_assert(sizeof(ModSta) == 1344, "ModSta is 1344 bytes");
static_assert(offsetof(ModSta, running) == 0, "ModSta layout");
static_assert(offsetof(ModSta, reserved) == 4, "ModSta layout");
static_assert(offsetof(ModSta, feed_cnt) == 8, "ModSta layout");
static_assert(offsetof(ModSta, timeout) == 12, "ModSta layout");
static_assert(offsetof(ModSta, feed_time) == 16, "ModSta layout");
static_assert(offsetof(ModSta, mod_name) == 24, "ModSta layout");
static_assert(offsetof(ModSta, log_level) == 56, "ModSta layout");
static_assert(offsetof(ModSta, logs) == 60, "ModSta layout");
static_assert(offsetof(ModSta, padding) == 1340, "ModSta layout");

// The block that all modules and the log server share.
struct SystemStatus {
  uint32_t magic;      // kLogMagic once the server has set the block up
  int32_t wdg_enable;  // 1 once the server has set the block up
  ModSta mods[kMaxModules];
};

constexpr const char kSystemStatusName[] = "0x64000000";
constexpr size_t kSystemStatusSize = 43016;

static_assert(std::is_trivially_copyable<SystemStatus>::value, "SystemStatus is shared memory");
static_assert(sizeof(SystemStatus) == kSystemStatusSize, "SystemStatus is 43016 bytes");
static_assert(offsetof(SystemStatus, magic) == 0, "SystemStatus layout");
static_assert(offsetof(SystemStatus, wdg_enable) == 4, "SystemStatus layout");
static_assert(offsetof(SystemStatus, mods) == 8, "SystemStatus layout");

// Settings of one stored log type.
struct LogTypeCfg {
  std::string table;
  int32_t max_count = 2000;  // target number of rows
};

// Configuration of the log server. The values come from the INI file; these are the defaults.
struct LogSrvCfg {
  struct {
    int32_t log_rec_mode = 0;  // the four are read and kept; no code acts on them
    std::string log_rec_file;
    std::string log_rec_host;
    int32_t log_rec_port = 0;
  } rec;
  int32_t log_bus_size = 20000;                      // rows kept in tbl_bus_log
  int32_t log_ctrl_size = 10000;                     // rows kept in tbl_ctrl_log
  int32_t log_sys_size = 5000;                       // rows kept in tbl_sys_log
  std::string log_db_file = "/mnt/nand/sys_log.db";  // path of the SQLite file
  std::string modules[kMaxModules];                  // to register at start; empty ones are skipped
};

// A search over one stored type. -1 in a filter field means no filter.
struct SearchReq {
  int64_t start_ms = 0;  // bounds of timems, inclusive; 0 is a bound like any other
  int64_t end_ms = 0;
  int32_t type = -1;  // record type, selects the table; must be set
  int32_t level = -1;
  int32_t flow_id = -1;
  int64_t trace_id = -1;
  int32_t offset = 0;   // rows to skip; -1: no paging
  int32_t limit = 100;  // rows at most, held to 100; -1: no paging
};

}  // namespace bsp

#endif  // BSP_LOG_LOG_MSG_H_
