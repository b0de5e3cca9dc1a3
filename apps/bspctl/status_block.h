// The status block of the system log as the tool sees it: read whole, names within their bytes.
#ifndef BSP_APPS_BSPCTL_STATUS_BLOCK_H_
#define BSP_APPS_BSPCTL_STATUS_BLOCK_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "bsp/log/log_msg.h"

namespace ctl {

constexpr int kStatusKey = 0x64000000;  // System V key of the block

struct TagView {
  std::string name;
  int32_t level;
};

struct ModuleView {
  int index;  // of the record in the block
  std::string name;
  bool is_running;
  bool is_dead;                  // it ran, and no process holds the record any more
  std::optional<int64_t> age_s;  // seconds since the last feed or registration; none: garbage
  int32_t timeout_s;
  bool is_late;
  int32_t level;
  std::vector<TagView> tags;
};

// The modules of the block in record order; empty when there is no block.
std::optional<std::vector<ModuleView>> ReadModules();

// True when a process has the log server's port.
bool IsLogServerRunning();

// Our names and the syslog names of levels, in any case, or their numbers; empty when the text is
// neither.
std::optional<int> ParseLevel(const std::string& text);

// "6 info", or the bare number when it is outside 0 to 7.
std::string LevelText(int32_t level);

}  // namespace ctl

#endif  // BSP_APPS_BSPCTL_STATUS_BLOCK_H_
