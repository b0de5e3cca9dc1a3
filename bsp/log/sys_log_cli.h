// The log client of a module process, and the base that it shares with the log server.
#ifndef BSP_LOG_SYS_LOG_CLI_H_
#define BSP_LOG_SYS_LOG_CLI_H_

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

// Registers the process as a module in the status block, keeps the thresholds of its log tags there
// and sends its records to the log server. Hosts use it through log_init and its sisters in
// bsp/bsp.h; g_log owns the one client of a process.
//
// Threads: GetLogLevel, RegLogMod, SetLogLevel, IsRunning and LogMsgProc on any; Start, Stop and
// the destructor only while no other thread logs. All messages go to standard output, since the log
// itself is what is being set up.
class BSP_EXPORT SystemLogClient : public SysLog {
 public:
  SystemLogClient();
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

  // 1 while no record is held, else the record's `running`.
  int IsRunning();

  // Sets magic, timems and mod_name of the record and sends it, by one system call. The record need
  // not stay valid behind the call; file, func and line are not used.
  void LogMsgProc(const char* file, const char* func, int line, LogMsg* msg);

 private:
  int RegisterOnFirstUse(const char* tag) noexcept;
  void TakeSlot(const std::string& tag);
  void EnterTag(const std::string& tag, LogModSta* slot);

  std::mutex mutex_;  // guards log_mods_ and the writing of tag_index_
  std::shared_ptr<Socket> hdl_;
  SocketAddress to_addr_;
  ModSta* cur_sta_ptr_ = nullptr;               // null until registered; set before hdl_ opens
  std::map<std::string, LogModSta*> log_mods_;  // null: a tag without a slot
  LogTagIndex tag_index_;                       // the same for readers without a lock
};

}  // namespace bsp

#endif  // BSP_LOG_SYS_LOG_CLI_H_
