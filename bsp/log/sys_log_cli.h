// The log client of a module process, and the base that it shares with the log server.
#ifndef BSP_LOG_SYS_LOG_CLI_H_
#define BSP_LOG_SYS_LOG_CLI_H_

#include <sys/types.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "bsp/base/macros.h"
#include "bsp/base/socket.h"
#include "bsp/log/log_msg.h"
#include "bsp/log/log_tag_index.h"
#include "bsp/log/status_block.h"

namespace bsp {

constexpr const char kLogHost[] = "127.0.0.1";
constexpr int kLogPort = 12122;

// One end of the system log: its name, and its attachment of the status block.
//
// Threads: none of its own.
class BSP_EXPORT SysLog {
 public:
  SysLog() = default;
  SysLog(const SysLog&) = delete;
  SysLog& operator=(const SysLog&) = delete;
  virtual ~SysLog();

  // Stores the name, at most 32 characters, and attaches the block, which is created, all zero, if
  // it is not there. False, with a line on standard output, when the name is too long or the block
  // cannot be had.
  virtual bool Start(const std::string& name);

  // Detaches the block.
  virtual void Stop();

  std::string mod_name_;  // the module's name as given to Start

 protected:
  SystemStatus* sta_ptr_ = nullptr;  // null while detached
  StatusBlockHandle shm_;
};

// What goes beyond the stock behaviour; off by default, on in the client of log_init.
struct LogClientOptions {
  // Where the record is not the module's own any more, since the log server has cleared the block
  // and perhaps another module has taken it, `running` reads 0 and records travel without a name,
  // rather than the stranger's; the next feed registers the module again, with its time-out, its
  // levels and its tags. Without a feed nothing does: a module that does not feed must not be late.
  bool keep_registered = false;
};

// Registers the process as a module in the status block, keeps the thresholds of its log tags there
// and sends its records to the log server. Hosts use it through log_init and its sisters in
// bsp/bsp.h; g_log owns the one client of a process.
//
// Threads: GetLogLevel, RegLogMod, SetLogLevel, IsRunning and LogMsgProc on any; Start, Stop and
// the destructor only while no other thread logs. All messages go to standard output, since the log
// itself is what is being set up.
class BSP_EXPORT SystemLogClient : public SysLog {
 public:
  explicit SystemLogClient(const LogClientOptions& options = LogClientOptions());
  ~SystemLogClient() override;

  // Attaches, registers the module and makes the socket. False, with a line, when a step fails;
  // the object then answers every call in order: tags are not filtered, records are dropped with a
  // line.
  bool Start(const std::string& name) override;

  // Closes the socket, forgets the tags and detaches. The record stays taken: a restarted module
  // finds it again by its name.
  void Stop() override;

  // Finds the module's record by name, or takes a free one; null when there is none.
  ModSta* RegWatchdogMod();

  // Takes a slot for a log tag, with the module's threshold; the name there is cut to 30
  // characters.
  void RegLogMod(const std::string& tag);

  // Threshold of the module and of all its tags, 0 to 7.
  void SetLogLevel(int level);

  // The tag's threshold, read from the block at every call; the first use of a tag registers it.
  // 7, which filters nothing, for a tag that found no slot. A known tag costs no lock, no
  // allocation and no system call, and a literal of the program itself no look at its text. A null
  // tag counts as an empty text.
  int GetLogLevel(const char* tag);
  int GetLogLevel(const std::string& tag) { return GetLogLevel(tag.c_str()); }

  // For _log_debug, which inlines it: where the threshold of this literal stands, null unless
  // GetLogLevel has met it before.
  const int32_t* FindLevel(const char* literal) const { return tag_index_.FindLiteral(literal); }

  // Seconds, at least 1, that the watchdog lets pass without a feed, from now on. False, with a
  // line, when the number is none or no record is held.
  bool SetTimeout(int seconds);

  // The module ends in order: its record is free, unless another process holds it too, and nobody
  // misses its feeds. Records still travel, without a name, feeds do not. False when no record is
  // held.
  bool Retire();

  // 1 while no record is held, else the record's `running`.
  int IsRunning();

  // Sets magic, timems and mod_name of the record and sends it, by one system call. The record need
  // not stay valid behind the call; file, func and line are not used.
  void LogMsgProc(const char* file, const char* func, int line, LogMsg* msg);

 private:
  struct Tag {
    LogModSta* slot;  // null: none was free
    int32_t level;    // at the last feed
  };

  int RegisterOnFirstUse(const char* tag) noexcept;
  void TakeSlot(const std::string& tag);
  void EnterTag(const std::string& tag, LogModSta* slot);
  bool IsOwn(const ModSta& mod) const;
  void NameSender(LogMsg* msg) const;
  void KeepRecord() noexcept;
  ModSta* RegisterAgain();
  void RestoreTags(ModSta* mod, bool is_new);
  void NoteLevels(const ModSta& mod);
  void Hold(ModSta* mod);
  void Release(const ModSta& mod) const;

  const LogClientOptions options_;
  std::shared_ptr<Socket> hdl_;
  SocketAddress to_addr_;
  std::atomic<ModSta*> cur_sta_ptr_{nullptr};  // null until registered; set before hdl_ opens
  std::atomic<bool> is_retired_{false};

  // Guards the fields below, of the index the writing alone. One for all clients, since a fork has
  // to wait for it: its child may log.
  static std::mutex mutex_;
  static const int fork_handlers_;
  std::map<std::string, Tag> log_mods_;
  LogTagIndex tag_index_;      // the slots for readers without a lock
  int32_t slotless_level_;     // of tags without a slot
  int32_t kept_level_ = 0;     // of the module, at the last feed
  int32_t kept_timeout_ = 0;   // the same
  int32_t asked_timeout_ = 0;  // by SetTimeout; 0: it was not called
  pid_t holder_ = 0;           // the process that holds the record
};

}  // namespace bsp

#endif  // BSP_LOG_SYS_LOG_CLI_H_
