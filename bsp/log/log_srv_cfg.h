// The configuration file of the log server.
#ifndef BSP_LOG_LOG_SRV_CFG_H_
#define BSP_LOG_LOG_SRV_CFG_H_

#include <string>

#include "bsp/log/log_msg.h"

namespace bsp {

// Reads the sections "watchdog", "log_size" and "record" of the file into *cfg. What is missing,
// the file included, has the default of LogSrvCfg; so has, with a log line, a size of 0 or below
// and an empty path. Throws std::logic_error when the file breaks the grammar and
// std::invalid_argument when a number is none, with file, line and fault in *error.
void ReadLogSrvCfg(const std::string& path, LogSrvCfg* cfg, std::string* error);

}  // namespace bsp

#endif  // BSP_LOG_LOG_SRV_CFG_H_
