#include "bsp/log/own_record.h"

#include <cstdio>

#include "bsp/util/time_util.h"

namespace bsp {

LogMsg MakeOwnRecord(int32_t level, const std::string& text) {
  LogMsg msg = kLogMsgPrototype;
  msg.type = LOG_TYPE_SYS;
  msg.level = level;
  msg.timems = TimeUtil::TimeMillis();
  snprintf(msg.log, sizeof msg.log - 1, "%s %s", TimeUtil::TimeMillisStr(), text.c_str());
  return msg;
}

}  // namespace bsp
