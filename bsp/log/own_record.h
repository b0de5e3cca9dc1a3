// Records that the log server writes in its own name.
#ifndef BSP_LOG_OWN_RECORD_H_
#define BSP_LOG_OWN_RECORD_H_

#include <string>

#include "bsp/log/log_msg.h"

namespace bsp {

// A record of type 2 that begins with the wall clock, which is its timems, too.
LogMsg MakeOwnRecord(int32_t level, const std::string& text);

}  // namespace bsp

#endif  // BSP_LOG_OWN_RECORD_H_
