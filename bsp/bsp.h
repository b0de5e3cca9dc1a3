// The whole flat C interface of bsp on one page. Valid C11 and C++17.
//
// Strings are zero-terminated and stay the caller's; a function keeps no pointer to them behind its
// return unless it says so. No function lets a C++ exception out.
#ifndef BSP_BSP_H_
#define BSP_BSP_H_

#include <stddef.h>
#include <stdint.h>

#include "bsp/base/macros.h"

// ---- Log records

#define BSP_LOG_MAGIC 0xaa55aa55u

// One log record, 1096 bytes: what travels to the log server as one UDP datagram, in native byte
// order. The layout is fixed (docs/formats.md, pinned in bsp/log/log_msg.h).
#ifdef __cplusplus
namespace bsp {
#endif
struct LogMsg {
  uint32_t magic;    // BSP_LOG_MAGIC; set by the client
  int32_t type;      // LOG_TYPE_*
  int32_t len;       // length of the text as the formatter reported it, possibly more than stored
  int32_t level;     // 0 to 7
  int32_t flow_id;   // id of a flow, 0 when none
  int32_t padding;   // zero
  int64_t trace_id;  // id of a trace, 0 when none
  int64_t timems;    // milliseconds: raw monotonic from a client, wall clock from the server itself
  char mod_name[32];  // sending module, at most 31 characters; set by the client
  char log[1024];     // the text, zero-terminated
};
#ifdef __cplusplus
}  // namespace bsp
typedef bsp::LogMsg BspLogMsg;
#else
typedef struct LogMsg BspLogMsg;
#endif

// What a record is; the server stores 0 to 2, each in a table of its own.
enum {
  LOG_TYPE_BUS = 0,
  LOG_TYPE_CTRL = 1,
  LOG_TYPE_SYS = 2,
  LOG_TYPE_FEED_DOG = 4,
  LOG_TYPE_SEARCH = 6
};

// Levels: a smaller number is graver. A threshold of n passes the levels 0 to n.
enum {
  BSP_LEVEL_EMERG = 0,
  BSP_LEVEL_ALERT = 1,
  BSP_LEVEL_CRIT = 2,
  BSP_LEVEL_ERROR = 3,
  BSP_LEVEL_WARN = 4,
  BSP_LEVEL_NOTICE = 5,
  BSP_LEVEL_INFO = 6,
  BSP_LEVEL_DEBUG = 7
};

// ---- Logging

#ifdef __cplusplus
namespace bsp {
class SystemLogClient;
}
typedef bsp::SystemLogClient BspSystemLogClient;
#else
typedef struct BspSystemLogClient BspSystemLogClient;
#endif

#ifdef __cplusplus
extern "C" {
#endif

// Console threshold while the process has no log client. Written by log_init* only.
extern BSP_EXPORT int32_t g_log_level;

// The process's log client, null until log_init*; log_deinit sets it back to null. Both run while
// no other thread logs.
extern BSP_EXPORT BspSystemLogClient* g_log;

// Starts logging in this process: registers it as the module `name` (at most 32 characters) in the
// status block and sets the thresholds of all its log tags to `level`. With no_client not 0 nothing
// is registered: the process logs on its console alone, with `level` as g_log_level. 0 on success;
// -1, with a line on standard output, on failure: records are then dropped with a line, and the
// call may be tried again. Call once, while no other thread logs.
BSP_EXPORT int log_init_v2(int level, const char* name, int no_client);

// The same with the name of the program, argv[0] behind its last "/", and the level of the option
// "-p <level>", 6 without it. Other options are passed over; argv stays as it is.
BSP_EXPORT int log_init(int argc, char** argv, int no_client);

// Ends logging: closes and deletes the client. Call while no other thread logs.
BSP_EXPORT void log_deinit(void);

// 1 while the module runs, also without a client; 0 once its record says otherwise: the log server
// has cleared it at its start, or registered it itself from its configuration. After a clearing the
// next feed registers the module again, with its time-out and levels. Any thread.
BSP_EXPORT int mod_is_running(void);

// Lets the watchdog wait `seconds`, at least 1, for each feed of this module, from now on: 20
// without it, or 60 for a module of the server's configuration. It checks every 5 s. 0; -1, with a
// line, for another number; -1 without a registered client. Any thread.
BSP_EXPORT int log_set_timeout(int seconds);

// The module ends in order: nobody waits for its feeds any more, and none are sent. Its record is
// free then, unless another process of its name runs. Call it before log_deinit; a module that ends
// without it becomes late. 0, or -1 without a registered client. Any thread.
BSP_EXPORT int log_retire(void);

// Prints one line on standard output when `level` is at or below the threshold of the tag `module`;
// at most 1022 characters of the text. Any thread. A filtered call formats nothing. A null format
// counts as empty, here and below.
BSP_EXPORT void _log_debug(const char* module, int level, const char* file, const char* func,
                           int line, const char* fmt, ...) BSP_PRINTF(6, 7);

// Records for the log server: one datagram each, no reply awaited, nothing on the heap. Any thread.
// Without a log client they say so on standard output and drop the record.
BSP_EXPORT void _log_trace(int64_t trace_id, int flow_id, const char* file, const char* func,
                           int line, const char* fmt, ...) BSP_PRINTF(6, 7);
BSP_EXPORT void _log_control(int flow_id, const char* file, const char* func, int line,
                             const char* fmt, ...) BSP_PRINTF(5, 6);
BSP_EXPORT void _log_system(int level, const char* file, const char* func, int line,
                            const char* fmt, ...) BSP_PRINTF(5, 6);

// Tells the watchdog that this module lives. The text is accepted and not used.
BSP_EXPORT void _log_feed_dog(const char* file, const char* func, int line, const char* fmt, ...)
    BSP_PRINTF(4, 5);

// Sends a record that the caller has filled: type, len (the length of the text, at which the server
// cuts it), level, flow_id, trace_id and log. magic, timems and mod_name are set here. Does nothing
// without a log client. Any thread.
BSP_EXPORT void log_send_msg(BspLogMsg* msg);

#ifdef __cplusplus
}  // extern "C"
#endif

// True when _log_debug without a client would drop the level; never for one that does not exist,
// which it tells. Public for the macros alone.
static inline int bsp_log_is_filtered(int level) {
  return __builtin_expect(g_log == NULL, 1) && __builtin_expect(level > g_log_level, 1) &&
         (unsigned)level <= BSP_LEVEL_DEBUG;
}

// Takes the arguments of a filtered call. Public for the macros alone.
BSP_PRINTF(2, 3)
static inline void bsp_log_drop(const char* module, const char* fmt, ...) {
  (void)module;
  (void)fmt;
}

// The same with file, function and line filled in. Arguments are evaluated exactly once, filtered
// or not. `module` is the log tag, a text such as "MOD_APP".
#define BSP_LOG(module, level, ...) \
  _log_debug((module), (level), BSP_FILE, __func__, __LINE__, __VA_ARGS__)

#define BSP_LOG_EMERG(module, ...) BSP_LOG(module, BSP_LEVEL_EMERG, __VA_ARGS__)
#define BSP_LOG_ALERT(module, ...) BSP_LOG(module, BSP_LEVEL_ALERT, __VA_ARGS__)
#define BSP_LOG_CRIT(module, ...) BSP_LOG(module, BSP_LEVEL_CRIT, __VA_ARGS__)
#define BSP_LOG_ERROR(module, ...) BSP_LOG(module, BSP_LEVEL_ERROR, __VA_ARGS__)
#define BSP_LOG_WARN(module, ...) BSP_LOG(module, BSP_LEVEL_WARN, __VA_ARGS__)
#define BSP_LOG_NOTICE(module, ...) BSP_LOG(module, BSP_LEVEL_NOTICE, __VA_ARGS__)
#define BSP_LOG_INFO(module, ...) BSP_LOG_OFTEN(module, BSP_LEVEL_INFO, __VA_ARGS__)
#define BSP_LOG_DEBUG(module, ...) BSP_LOG_OFTEN(module, BSP_LEVEL_DEBUG, __VA_ARGS__)

// For a constant level that normal running filters, the filter stands at the place of the call: two
// loads and two branches when there is no log client.
#define BSP_LOG_OFTEN(module, constant_level, ...)                           \
  (bsp_log_is_filtered(constant_level) ? bsp_log_drop((module), __VA_ARGS__) \
                                       : BSP_LOG(module, constant_level, __VA_ARGS__))

#define BSP_TRACE(trace_id, flow_id, ...) \
  _log_trace((trace_id), (flow_id), BSP_FILE, __func__, __LINE__, __VA_ARGS__)
#define BSP_CONTROL(flow_id, ...) _log_control((flow_id), BSP_FILE, __func__, __LINE__, __VA_ARGS__)
#define BSP_SYSTEM(level, ...) _log_system((level), BSP_FILE, __func__, __LINE__, __VA_ARGS__)
#define BSP_FEED_DOG() _log_feed_dog(BSP_FILE, __func__, __LINE__, "feed")

// ---- RPC bus

// What a frame is; the first two are also the kinds of a command.
enum {
  RPC_TYPE_MESSAGE = 10,  // kind: any number of listeners, nobody answers
  RPC_TYPE_REQUEST = 11,  // kind: one listener, who answers
  RPC_TYPE_REPLAY = 12,
  RPC_TYPE_LISTEN = 101,
  RPC_TYPE_CHECK_POWER = 103
};

// What a call can end with beside 0: MSError::ErrorCode of the class RpcClient, and
// rpc_client_c_last_error behind a -1 or null of the functions below. Behind each: what the caller
// should do. Any other negative code is what the listener answered; it should keep off these, since
// a caller cannot tell them apart.
enum {
  // From the client itself.
  RPC_ERR_FAILED = -1,   // not connected, connection lost, not sent, or a bad argument, as the text
                         // says: close, open, listen anew, or mend the call. In a forked child: the
                         // client is the parent's, open another
  RPC_ERR_TIMEOUT = -3,  // no answer in time; the listener may have run, or still run: ask again
                         // only what may be done twice
  RPC_ERR_CONNECT = -4,  // nobody accepts at that address: is a broker running there?
  RPC_ERR_NO_WAIT = -5,  // nothing to wait on: no memory, or a client that was never opened

  // From the broker.
  RPC_ERR_NOT_FOUND = -2,  // nobody listens to the command: try again when its module is up
  RPC_ERR_TAKEN = -6,      // of a listen: the REQUEST command has its listener; try again when that
                           // is gone, or take another name

  // From a bsp-broker with its additions, and from clients with options.
  RPC_ERR_BUSY = -1001,           // refused by a limit, before the listener saw it: try again later
  RPC_ERR_LISTENER_GONE = -1002,  // the listener went with the call: it may have run, or in part;
                                  // ask again, when its module is up, what may be done twice
  RPC_ERR_DENIED = -1003,         // the broker's rights forbid it: trying again is in vain
  RPC_ERR_DOWN = -1004            // no connection now: a session makes a new one by itself
};

// Flags of rpc_client_c_open_v2.
enum {
  // A lost connection ends waiting calls at once with -1, and rpc_client_c_is_connected tells it.
  RPC_OPEN_FAIL_CALLS_ON_DISCONNECT = 1,
  // An exception out of a handler, or memory that ran out on the handle's thread, costs the
  // connection and a log line instead of the process.
  RPC_OPEN_CONTAIN_FAILURES = 2
};

#ifdef __cplusplus
extern "C" {
#endif

// Called for each message and request of the command it was registered for, one at a time, on the
// one thread that reads the handle's connection: a handler that takes long delays everything else
// of its handle, and must not make a waiting call on it. `action` is the command; behind `req` of
// `req_len` bytes (0 or more) stands one zero byte; `resp` has room for `resp_max` bytes (655360).
// The result, for a request: above 0, the bytes written to `resp`, which become the answer; 0, an
// empty answer; below 0, a failure code. For a message it has no effect.
typedef int (*RpcClientHandler)(const char* action, const char* req, int req_len, char* resp,
                                int resp_max);

// A forked child that has inherited a handle must not use it: every call fails with -1 and a line
// on standard output, rpc_client_c_close only closes the child's descriptor, and the parent goes on
// undisturbed. The child may open a handle of its own. If it was to exec and that failed, it ends
// by _exit.

// Connects to the broker and starts the thread of the handle. Null on failure, which is logged.
// Nothing reconnects: close and open again, and listen again.
BSP_EXPORT void* rpc_client_c_open(const char* host, int port);

// The same with RPC_OPEN_* flags. Null for an unknown flag.
BSP_EXPORT void* rpc_client_c_open_v2(const char* host, int port, int flags);

// Ends the thread and the connection; not beside another call on the handle. Refused, with a log
// line, in a handler of the same handle. Null is ignored. What the socket has not taken yet is
// lost: rpc_client_c_flush first.
BSP_EXPORT void rpc_client_c_close(void* rpc_cli);

// 1 while connected, else 0. Without RPC_OPEN_FAIL_CALLS_ON_DISCONNECT it speaks of this end only.
BSP_EXPORT int rpc_client_c_is_connected(void* rpc_cli);

// Why the calling thread's last call on a handle that failed, with -1 or null, did so: RPC_ERR_*,
// or the negative code that a listener answered. As with errno, a call that succeeds does not
// change it.
BSP_EXPORT int rpc_client_c_last_error(void);

// The calls below return -1 for a null handle and on failure, with a log line. Any thread.

// Registers a handler for a command; `type` is its kind, `power` a level that the bus stores and
// tells. Waits up to 5 s. The later handler of one command counts. `user_data` is kept and shown by
// rpc_client_c_dump, nothing else. 0 on success.
BSP_EXPORT int rpc_client_c_listen_v1(void* rpc_cli, const char* cmd, int type, int power,
                                      RpcClientHandler handler, void* user_data);

// The level that a command was registered with; -1 cannot be told from a failure.
BSP_EXPORT int rpc_client_c_check_cmd_power(void* rpc_cli, const char* cmd);

// Calls a command and waits up to `timeout_ms`. Returns the length of the answer: its bytes and one
// zero byte behind them, or 0 for an answer without bytes. It is copied to `resp`, with one more
// zero, when it is below `resp_size`; else `resp` is untouched, and so it is when null. `req` may
// be null with a length of 0. A negative length or size is refused.
BSP_EXPORT int rpc_client_c_send_request(void* rpc_cli, const char* cmd, const char* req,
                                         int req_length, char* resp, int resp_size, int timeout_ms);

// Sends without an answer; 0 when the frame is on its way. With a null message or a length of 0 or
// below the message is empty.
BSP_EXPORT int rpc_client_c_send_message(void* rpc_cli, const char* cmd, const char* message,
                                         int length);

// Waits until the broker has handled everything that was sent on this handle before.
BSP_EXPORT int rpc_client_c_flush(void* rpc_cli, int timeout_ms);

// Logs the registered commands at level 7.
BSP_EXPORT void rpc_client_c_dump(void* rpc_cli);

#ifdef __cplusplus
}  // extern "C"

// Answers a request by its head (bsp/net/rpc/rpc_header.h), for C++ callers that hold one. 0, or
// the code of the error; nothing is logged for a handle that is not null.
struct RpcHeader;
BSP_EXPORT int rpc_client_c_send_reply(void* rpc_cli, const RpcHeader* head, const char* data,
                                       int length);
#endif

// ---- System property store

// A table of 128 properties that all processes share and that lasts until the machine restarts.
// Values are raw bytes whose length is not stored. A key of at most 31 bytes names the first
// property whose key begins with it, so use keys of which none begins with another.
//
// Any thread, any process; a failed call changes nothing and says why in the log. So does one that
// has waited 2 s for another process that holds the store. On a device whose
// segment 0x66000000 belongs to another user, all calls fail.

#ifdef __cplusplus
extern "C" {
#endif

// Copies the first `value_size` bytes, 1 to 223, of the property into `value`, whatever length was
// set; no terminator is added. 0, or -2 (bad argument, no such key, no segment), -1 without store.
BSP_EXPORT int system_property_get(const char* key, char* value, int value_size);

// Stores `value_size` bytes, 1 to 223; bytes of a longer, older value behind them stay. 0, or -2
// (bad argument, all 128 properties taken, no segment), -1 without store.
BSP_EXPORT int system_property_set(const char* key, const char* value, int value_size);

// With `on` not 0, a process that is killed while it replaces a value leaves the old one or the new
// one. Off by default: it may leave half of each. To be switched on in all processes that set; the
// last of the 128 places, while it is free, then serves as the journal.
BSP_EXPORT void system_property_set_journal(int on);

// Logs the key of every property at level 6.
BSP_EXPORT void system_property_dump(void);

#ifdef __cplusplus
}  // extern "C"
#endif

// ---- Event cache

// A bounded number of events in shared memory, each with a small info record and a larger data
// record under one key. One process writes and decides what to evict; others read without a lock.
// Events stay readable when the writer dies, until the next one starts, with an empty cache. A
// process takes one role, by one init; what does not fit it fails with a line in the log.
//
// Inits and reads: any thread. Writes and removals: one thread at a time.

#ifdef __cplusplus
extern "C" {
#endif

// With `on` not 0, event_cache_init_write mends segments that a writer left inconsistent when it
// died in the midst of an operation. Off by default: it then fails, and the segments have to be
// removed (ipcrm -M 0x65000000 -M 0x65000001 -M 0x65000010 -M 0x65000011).
BSP_EXPORT void event_cache_set_rebuild(int on);

// Makes this process the writer of an empty cache for `evt_num` events, each of up to `info_size` -
// 4 bytes of info (info_size 4 at least) and about `data_size` bytes of data (40 at least). A
// writer that starts again must pass the same numbers. 0, or -1; it may be called again then.
BSP_EXPORT int event_cache_init_write(int evt_num, int info_size, int data_size);

// Makes this process a reader; a writer must have started before. 0, or -1; it may be called again
// then.
BSP_EXPORT int event_cache_init_read(void);

// Stores both records, or neither; sizes in bytes, at least 1. 0, or -2: no room for one of the two
// (remove an event and try again) or bad arguments; -3: too many writes since the last removal; -1:
// this process is not the writer.
BSP_EXPORT int event_cache_write(unsigned long key, const char* info, int info_size,
                                 const char* data, int data_size);

// Read one record. *size is the capacity of the buffer; at most that much is copied. The result is
// the length of the record, also in *size, and may exceed the capacity; -3: no such key, or a
// negative capacity. With a null buffer only the length is told, in *size: 0, or -1: no such key.
// -1 too without an init or with a null `size`. A failure leaves *size alone.
BSP_EXPORT int event_cache_read_info(unsigned long key, char* info, int* size);
BSP_EXPORT int event_cache_read_data(unsigned long key, char* data, int* size);

// Removes the event that was written first, or the one under `key`, if there is one.
BSP_EXPORT void event_cache_remove_oldest(void);
BSP_EXPORT void event_cache_remove(unsigned long key);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif  // BSP_BSP_H_
