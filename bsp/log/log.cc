// Log front end: the console log and the record entry points.
//
// A filtered _log_debug is on every path of the library, so it must cost a threshold look-up and
// nothing else. The macros of bsp/bsp.h make it where they stand, two loads and two branches, and
// call only what passes; a process with a log client goes on to the client's threshold of the tag,
// which is inlined for a known literal. A direct call is held up by its entry as a variadic
// function; all that needs saved registers or stack stands in functions of their own that are never
// inlined. The record entry points build their LogMsg on the stack and allocate nothing.
#include "bsp/log/log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "bsp/log/log_msg.h"
#include "bsp/log/status_block.h"
#include "bsp/log/sys_log_cli.h"
#include "bsp/util/time_util.h"

bsp::SystemLogClient* g_log = nullptr;
int32_t g_log_level = BSP_LEVEL_INFO;

namespace {

// Most of a text that a line or record keeps: 1022 characters and the terminator.
constexpr size_t kTextLimit = 1023;

// Where lines go; null: standard output. Atomic so that a sink set too late is no data race; what
// it uses is made before, which the release of SetLogSink shows to every reader.
std::atomic<bsp::LogSink> g_sink{nullptr};

constexpr const char* kLevelNames[] = {"emerg", "alert",  "crit", "error",
                                       "warn",  "notice", "info", "debug"};

bool Passes(const char* module, int level) {
  return level <= (g_log != nullptr ? g_log->GetLogLevel(module) : g_log_level);
}

// The full length of the text, of which 1022 characters are stored.
BSP_PRINTF(2, 0)
int FormatText(char (&text)[1024], const char* fmt, va_list args) {
  return fmt != nullptr ? vsnprintf(text, kTextLimit, fmt, args) : 0;
}

__attribute__((noinline)) void PrintLine(const char* module, int level, const char* file,
                                         const char* func, int line, const char* fmt,
                                         va_list args) {
  char text[1024] = {};
  FormatText(text, fmt, args);
  if (const bsp::LogSink sink = g_sink.load(std::memory_order_acquire)) {
    sink({module, level, file, func, line, fmt != nullptr ? fmt : "", text});
    return;
  }
  printf("[%s] %s <%s> %s:%d %s, %s\n", bsp::TimeUtil::TimeMillisStr(), module, kLevelNames[level],
         file, line, func, text);
}

void ComplainOfLevel(const char* module, int level, const char* file, const char* func, int line) {
  constexpr const char kFormat[] = "log level %d is invalid.";
  char text[64];
  snprintf(text, sizeof text, kFormat, level);
  if (const bsp::LogSink sink = g_sink.load(std::memory_order_acquire)) {
    sink({module, BSP_LEVEL_ERROR, file, func, line, kFormat, text});
    return;
  }
  puts(text);
}

__attribute__((noinline)) void FilterAndPrint(const char* module, int level, const char* file,
                                              const char* func, int line, const char* fmt,
                                              va_list args) {
  if (level < BSP_LEVEL_EMERG || level > BSP_LEVEL_DEBUG) {
    ComplainOfLevel(module, level, file, func, line);
    return;
  }
  if (Passes(module, level)) PrintLine(module, level, file, func, line, fmt, args);
}

// True when a client is known to drop the line; FilterAndPrint decides what this cannot tell.
inline bool IsFilteredByClient(const char* module, int level) {
  if (g_log == nullptr || static_cast<unsigned>(level) > BSP_LEVEL_DEBUG) return false;
  const int32_t* known = g_log->FindLevel(module);
  return known != nullptr && level > bsp::LoadWord(*known);
}

bool IsClientMissing() {
  if (g_log != nullptr) return false;
  puts("log_cli is null.");
  return true;
}

void SendRecord(int type, int level, int flow_id, int64_t trace_id, const char* file,
                const char* func, int line, const char* fmt, va_list args) {
  bsp::LogMsg msg = bsp::kLogMsgPrototype;
  msg.type = type;
  msg.level = level;
  msg.flow_id = flow_id;
  msg.trace_id = trace_id;
  msg.len = FormatText(msg.log, fmt, args);
  g_log->LogMsgProc(file, func, line, &msg);
}

BSP_PRINTF(4, 5)
void SendFeed(const char* file, const char* func, int line, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  SendRecord(LOG_TYPE_FEED_DOG, 0, 0, 0, file, func, line, fmt, args);
  va_end(args);
}

}  // namespace

bool bsp::IsLogged(const char* module, int level) { return Passes(module, level); }

void bsp::SetLogSink(LogSink sink) { g_sink.store(sink, std::memory_order_release); }

void _log_debug(const char* module, int level, const char* file, const char* func, int line,
                const char* fmt, ...) {
  if (bsp_log_is_filtered(level) || IsFilteredByClient(module, level)) return;

  va_list args;
  va_start(args, fmt);
  FilterAndPrint(module, level, file, func, line, fmt, args);
  va_end(args);
}

void _log_trace(int64_t trace_id, int flow_id, const char* file, const char* func, int line,
                const char* fmt, ...) {
  if (IsClientMissing()) return;
  va_list args;
  va_start(args, fmt);
  SendRecord(LOG_TYPE_BUS, BSP_LEVEL_INFO, flow_id, trace_id, file, func, line, fmt, args);
  va_end(args);
}

void _log_control(int flow_id, const char* file, const char* func, int line, const char* fmt, ...) {
  if (IsClientMissing()) return;
  va_list args;
  va_start(args, fmt);
  SendRecord(LOG_TYPE_CTRL, BSP_LEVEL_INFO, flow_id, 0, file, func, line, fmt, args);
  va_end(args);
}

void _log_system(int level, const char* file, const char* func, int line, const char* fmt, ...) {
  if (IsClientMissing()) return;
  va_list args;
  va_start(args, fmt);
  // Stored with the control records; LOG_TYPE_SYS is the server's own.
  SendRecord(LOG_TYPE_CTRL, level, 0, 0, file, func, line, fmt, args);
  va_end(args);
}

void _log_feed_dog(const char* file, const char* func, int line, const char*, ...) {
  if (IsClientMissing()) return;
  SendFeed(file, func, line, "module %s feed dog", g_log->mod_name_.c_str());
}
