// Log front end for C++: the entry points, macros and client pointer of bsp/bsp.h, and our tags.
#ifndef BSP_LOG_LOG_H_
#define BSP_LOG_LOG_H_

#include "bsp/base/macros.h"
#include "bsp/bsp.h"

namespace bsp {

// Whether _log_debug prints what is logged with this tag and level: asked before making a text that
// is dear. Any thread.
BSP_EXPORT bool IsLogged(const char* module, int level);

// One line of _log_debug that has passed the filter. All pointers are good for the call alone.
struct LogLine {
  const char* module;
  int level;  // 0 to 7
  const char* file;
  const char* func;
  int line;
  const char* format;  // as the caller gave it, "" for null: the same for all lines of one reason
  const char* text;    // finished, at most 1022 characters
};

// Takes the lines of a process. Called on the thread that logs, on several at a time, possibly with
// locks of the library held: it must not log, and not wait for anything slow.
using LogSink = void (*)(const LogLine& line) noexcept;

// Gives all that _log_debug would print to `sink`, and prints nothing of it any more; null, as in
// the beginning, prints again. The complaint about a level that does not exist comes as a line of
// level 3. Nothing is allocated on the way, and a filtered call costs what it did. To be set while
// no other thread logs: before there are threads.
BSP_EXPORT void SetLogSink(LogSink sink);

}  // namespace bsp

// Log tags of the library's own calls.
#define MOD_BSP "MOD_BSP"    // nearly everything
#define MOD_EB "MOD_EB"      // pooled buffers
#define MOD_DOM "MOD_DOM"    // event cache
#define MOD_WEB "MOD_WEB"    // C binding of the bus
#define MOD_CORE "MOD_CORE"  // C binding of the bus

#endif  // BSP_LOG_LOG_H_
