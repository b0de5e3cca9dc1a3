// The log server: the one receiver of the system log on a machine.
#ifndef BSP_LOG_SYS_LOG_SRV_H_
#define BSP_LOG_SYS_LOG_SRV_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bsp/base/macros.h"
#include "bsp/db/database.h"
#include "bsp/log/log_msg.h"
#include "bsp/log/log_receiver.h"
#include "bsp/log/store_keeper.h"
#include "bsp/log/sys_log_cli.h"
#include "bsp/log/sys_log_rec.h"
#include "bsp/log/sys_wdg.h"
#include "bsp/log/watchdog_pass.h"

namespace bsp {

constexpr const char kLogSrvCfgFile[] = "./com_srv_app.ini";

// What goes beyond the stock behaviour; all off by default.
struct LogSrvOptions {
  // Start takes over a sound status block instead of clearing it: modules that run keep their
  // records, levels and feeds, each with a fresh window, and a row says how many they are. The
  // store is opened first, so that a Start that fails changes nothing in the block.
  bool adopt_block = false;

  // Sizes and paths of the configuration that make no sense have their defaults; these, and unknown
  // sections and keys, are told by log lines with file and line.
  bool guard_configuration = false;

  // A search datagram is answered only while searches take less than a twentieth of the loop's
  // time: a stream of them would keep it from all else.
  bool gate_searches = false;

  // Stop lets no more datagrams in, stores those that have reached the socket and commits the open
  // batch: it loses no row.
  bool flush_at_stop = false;

  // Start takes the port, before it touches the block or the database, and fails when it is taken:
  // a second log server on the machine does no harm, and no datagram behind Start is lost.
  bool bind_at_start = false;

  // Receive buffer to ask the system for; 0: its default, about 90 datagrams. A warning tells when
  // it grants less.
  int receive_buffer_bytes = 0;

  // Most datagrams read in one turn. Above 1, the watchdog pass and the commit by time run behind
  // every turn, whatever the datagrams were; with 1, a turn whose datagram is empty or has a bad
  // length ends at once, so that a stream of such datagrams keeps them from running.
  int datagrams_per_turn = 1;

  // Every datagram that becomes no row is counted by its reason: dropped by the kernel, refused, or
  // not stored. Rows of type 2, level 4, tell the numbers; the first batch that commits has them.
  bool record_losses = false;

  // Watchdog feeds get a receive buffer of their own (as large as receive_buffer_bytes says), so
  // that no flood of records pushes them out, and are read first. A warning tells when the kernel
  // cannot.
  bool separate_feeds = false;

  // A module is judged only on evidence. A pass that itself comes late, by more than a second,
  // judges nobody, and the next one does; what waits in the socket is read before any verdict.
  // Until then the device is fed as after the last verdict.
  bool fair_verdicts = false;

  // A lateness is a row and a log line once for each module and each time that it becomes late, and
  // not once in the process's life.
  bool record_each_lateness = false;

  // Start succeeds, and the watchdog works, where the store cannot be opened: it is tried again
  // every minute, and meanwhile the newest 1000 records are kept in memory.
  bool run_without_store = false;

  // A database file that was removed or replaced under the server is noticed within a minute, told
  // by a row and a log line, and a new one begun.
  bool watch_database = false;

  // Datagrams from other than 127.0.0.0/8 are dropped.
  bool loopback_only = false;

  // Device to keep alive with each feed, such as "/dev/watchdog"; empty: none. Armed when the loop
  // is about to receive, disarmed by Stop. A loop that fails leaves it armed, so that the machine
  // is reset unless the log server comes up again in time.
  std::string watchdog_device;

  DataBaseOptions database;

  // Called on the loop's thread: once when it is about to receive (what is sent behind the call is
  // stored), and once a turn, at least about once a second. Must not call Stop.
  std::function<void()> on_ready;
  std::function<void()> on_turn;
};

// Receives records on UDP port 12122, stores them, watches the modules. Call order: construct,
// Start, RunLoopLog on a thread of the host's choice, Stop from another one. Start may follow Stop.
//
// Threads: as the call order tells; everything else belongs to the loop's thread while it runs.
class BSP_EXPORT SystemLogServer : public SysLog {
 public:
  explicit SystemLogServer(LogSrvOptions options = LogSrvOptions());
  ~SystemLogServer() override;

  // Reads the configuration, clears the status block (but see adopt_block) and registers the
  // configured modules, opens the store and writes the row that marks the start. False, with all
  // undone and the reason in error(), on failure. Throws what InitLogCfg throws.
  bool Start(const std::string& name) override;

  // Ends the loop, returns when it has left, and closes everything.
  void Stop() override;

  // Reads "./com_srv_app.ini" of the working directory into cfg(). What is missing has the default
  // of LogSrvCfg; see also guard_configuration. Throws std::logic_error when the file
  // breaks the grammar (also std::invalid_argument, when a number is none), with file, line and
  // fault in error().
  void InitLogCfg();

  // Receives until Stop, or until it cannot go on, with the reason in error().
  void RunLoopLog();

  // Handles one received record by its type. Its texts are terminated.
  void LogMsgProc(LogMsg& msg);

  // Records that modules are late: a row and a log line, for the first time in the process's life.
  void TimeOutProc(const std::string& text);

  // Stores a row of type 2, level 3, in the server's own name.
  void SysLogMsgRec(const std::string& text);

  const LogSrvCfg& cfg() const { return cfg_; }

  // Why the last Start or RunLoopLog failed, one line; empty when it did not. Not while either
  // runs.
  const std::string& error() const { return error_; }

 private:
  class LoopMark;

  bool Open(const std::string& name);
  bool OpenReceiver();
  bool OpenBlock(const std::string& name);
  bool OpenStore();
  bool Fail(const std::string& why);
  void TearDown();

  bool BeginLoop();
  bool Turn();
  bool ReceiveTurn(LogReceiver* receiver);
  bool HandleDatagram(const LogReceiver::Datagram& datagram);
  bool IsWelcome(const LogReceiver::Datagram& datagram);
  void ReadWaiting(LogReceiver* receiver);
  void RunPass(int64_t now);
  void TellLate(const std::vector<LateModule>& late);
  void TellAdopted();
  void TellEmpty();
  void TellSpared(const std::vector<LateModule>& spared);
  void LookAtDrops(int64_t now);
  void Drain();
  void GateSearch();
  void Search();
  void RecordLate(const std::string& text);
  void RecordOwn(int32_t level, const std::string& text);

  std::atomic<bool> running_{false};  // from the end of Start to Stop
  LogSrvCfg cfg_;
  std::unique_ptr<SysWdg> wdg_;
  LossLedger losses_;
  std::unique_ptr<StoreKeeper> store_;  // from Start to Stop

  const LogSrvOptions options_;
  LogReceiver receiver_;
  LogReceiver feeds_;  // open with separate_feeds
  std::string error_;
  int wake_fd_ = -1;  // readable once Stop has been called
  WatchdogPass pass_;
  Adoption adopted_ = {false, 0, 0};
  bool is_empty_told_ = false;   // that no module is watched
  bool is_anyone_late_ = false;  // by the last verdict
  int64_t second_ = 0;           // ClockSecond of what is done once a second
  uint32_t drops_ = 0;           // drops of records seen so far
  uint32_t feed_drops_ = 0;      // and of feeds
  int64_t search_time_ = 0;      // ClockMillis from which a search may run, with gate_searches
  bool has_refused_ = false;     // a foreign sender has been told of

  std::mutex loop_mutex_;  // guards the two below
  std::condition_variable loop_left_;
  std::thread::id loop_thread_;  // none: no loop runs
};

}  // namespace bsp

#endif  // BSP_LOG_SYS_LOG_SRV_H_
