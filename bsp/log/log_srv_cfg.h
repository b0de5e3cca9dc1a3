// The configuration file of the log server.
#ifndef BSP_LOG_LOG_SRV_CFG_H_
#define BSP_LOG_LOG_SRV_CFG_H_

#include <string>

#include "bsp/log/log_msg.h"

namespace bsp {

// Reads the sections "watchdog", "log_size" and "record" of the file into *cfg. What is missing,
// the file included, has the default of LogSrvCfg. Throws std::logic_error when the file breaks the
// grammar and std::invalid_argument when a number is none, with file, line and fault in *error.
//
// With `is_guarded`, a size of 0 or below and an empty path have their defaults, too; and these,
// unknown sections and keys, and numbers that read as hexadecimal for their letters alone are told
// by a log line with file and line.
void ReadLogSrvCfg(const std::string& path, bool is_guarded, LogSrvCfg* cfg, std::string* error);

}  // namespace bsp

#endif  // BSP_LOG_LOG_SRV_CFG_H_
