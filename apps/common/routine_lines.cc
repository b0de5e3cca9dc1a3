#include "apps/common/routine_lines.h"

#include <cstring>

#include "bsp/bsp.h"

namespace app {
namespace {

struct Rule {
  const char* format;
  int level;
};

constexpr Rule kRules[] = {
    // A client comes, asks and goes; the program ends in order.
    {"socket is null.", BSP_LEVEL_DEBUG},
    {"cmd %s, type %d, power %d.", BSP_LEVEL_DEBUG},
    {"CloseClient: client is null", BSP_LEVEL_DEBUG},
    {"CloseClient: client not found", BSP_LEVEL_DEBUG},
    {"Loop exit.", BSP_LEVEL_DEBUG},
    {"RPC server loop exit", BSP_LEVEL_DEBUG},

    // A module that is not up yet, or is gone: its callers hear of it, the bus goes on.
    {"cmd %s not found", BSP_LEVEL_NOTICE},
    {"req_cli_hdl %d not found", BSP_LEVEL_NOTICE},

    // What repeats the line in front of it, or the program's own line after it.
    {"forward message error, cmd: %s, err: %s", BSP_LEVEL_DEBUG},
    {"Failed to bind to %s:%d", BSP_LEVEL_DEBUG},
    {"bind socket failed.", BSP_LEVEL_DEBUG},
    {"listen socket failed.", BSP_LEVEL_DEBUG},
    {"Failed to create server socket", BSP_LEVEL_DEBUG},
    {"Failed to watch server socket", BSP_LEVEL_DEBUG},
    {"UDP bind failed", BSP_LEVEL_DEBUG},
    {"SysLog start failed.", BSP_LEVEL_DEBUG},
    {"log rec init failed.", BSP_LEVEL_DEBUG},
    {"cannot use database %s: %s, rc = %d: %s", BSP_LEVEL_DEBUG},
    {"Init: db_.Open failed, err = %s", BSP_LEVEL_DEBUG},
    {"Init: db_.Exec failed, err = %s", BSP_LEVEL_DEBUG},
    {"Open failed, db_path = %s", BSP_LEVEL_DEBUG},
    {"Config: Config failed, db_path = %s", BSP_LEVEL_DEBUG},
    {"Check: Check failed, db_path = %s", BSP_LEVEL_DEBUG},
    {"db_.Exec failed, err = %s\n", BSP_LEVEL_DEBUG},
    {"db_.Query failed, err = %s", BSP_LEVEL_DEBUG},
    {"Search failed.", BSP_LEVEL_DEBUG},
};

}  // namespace

int HostLevel(const char* format, int level) {
  for (const Rule& rule : kRules) {
    if (strcmp(rule.format, format) == 0) return rule.level;
  }
  return level;
}

}  // namespace app
