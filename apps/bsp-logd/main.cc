// bsp-logd: the log server as a program.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "apps/common/diagnostics.h"
#include "apps/common/host.h"
#include "apps/common/service_manager.h"
#include "bsp/log/log.h"
#include "bsp/log/sys_log_srv.h"

namespace {

using app::kDone;
using app::kFailed;

// 4 MB hold a burst of some 3600 datagrams, while a commit waits for the disk.
constexpr int kReceiveBufferBytes = 4 << 20;
// 64: system calls cost next to nothing then, and the records take 70 kB.
constexpr int kDatagramsPerTurn = 64;

struct Settings {
  std::string dir = ".";
  std::string watchdog_device;
  bool is_stock = false;
  bool adopts = true;
  bool runs_without_store = true;
  int log_level = BSP_LEVEL_INFO;
};

void AddOptions(CLI::App* app, Settings* settings) {
  app->set_version_flag("--version", "bsp-logd " BSP_VERSION);
  app->add_option("--dir", settings->dir,
                  "folder to run in; com_srv_app.ini is read from there, and relative paths in it "
                  "begin there")
      ->capture_default_str();
  auto* watchdog = app->add_option("--watchdog", settings->watchdog_device,
                                   "device to keep alive while no module is late, such as "
                                   "/dev/watchdog; its time-out must be at least 15 s");
  app->add_flag(
         "--stock", settings->is_stock,
         "the library's default behaviour and nothing else: no journal on disk, no flush at "
         "the end, the system's receive buffer, datagrams from anywhere, a log that waits for "
         "its reader")
      ->excludes(watchdog);
  app->add_flag("--adopt,!--no-adopt", settings->adopts,
                "take over the status block of a server that died, so that running modules go on "
                "(default); with --no-adopt it is cleared");
  app->add_flag("--run-without-store,!--no-run-without-store", settings->runs_without_store,
                "where the database cannot be opened, watch the modules none the less, keep the "
                "newest records in memory and try again every minute (default)");
  app->add_option("--log-level", settings->log_level, "0 (emerg) to 7 (debug), on standard error")
      ->capture_default_str()
      ->check(CLI::Range(0, 7));
  app->footer("Start it before the modules: what they log before is lost.");
}

bsp::LogSrvOptions ServerOptions(const Settings& settings) {
  bsp::LogSrvOptions options;
  if (settings.is_stock) return options;
  options.guard_configuration = true;
  options.gate_searches = true;
  options.adopt_block = settings.adopts;
  options.flush_at_stop = true;
  options.bind_at_start = true;
  options.receive_buffer_bytes = kReceiveBufferBytes;
  options.datagrams_per_turn = kDatagramsPerTurn;
  options.record_losses = true;
  options.run_without_store = settings.runs_without_store;
  options.watch_database = true;
  options.separate_feeds = true;
  options.fair_verdicts = true;
  options.record_each_lateness = true;
  options.loopback_only = true;
  options.watchdog_device = settings.watchdog_device;
  options.database.journal = true;
  options.database.keep_damaged = true;
  return options;
}

int Fail(const std::string& why) {
  app::Tell("bsp-logd", why.c_str());
  return kFailed;
}

// True when the file is there but cannot be read, with errno; the reader of the library would take
// it as missing.
bool IsUnreadable(const char* path) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd == -1) return errno != ENOENT;
  char byte;
  const bool is_read = read(fd, &byte, 1) != -1;
  const int saved = errno;
  close(fd);
  errno = saved;
  return !is_read;
}

// Tells sigwait that the loop has ended by itself.
constexpr int kLoopEnded = SIGUSR2;

// The loop on its thread, from construction to Join. Its end sends kLoopEnded to `waiter`.
class Loop {
 public:
  Loop(bsp::SystemLogServer* server, pthread_t waiter)
      : thread_([this, server, waiter] {
          try {
            server->RunLoopLog();
          } catch (const std::exception& fault) {
            fault_ = fault.what();
          }
          pthread_kill(waiter, kLoopEnded);
        }) {}

  // What ended the loop; empty when Stop did.
  std::string Join(const bsp::SystemLogServer& server) {
    thread_.join();
    return fault_.empty() ? server.error() : fault_;
  }

 private:
  std::string fault_;
  std::thread thread_;
};

int Serve(const Settings& settings, FILE* out) {
  // Before there is a second thread: a signal must never cut a wait of the loop short.
  const sigset_t ends = app::BlockSignals({SIGTERM, SIGINT, kLoopEnded});

  if (chdir(settings.dir.c_str()) != 0) {
    return Fail("cannot change to the folder " + settings.dir + ": " + strerror(errno));
  }
  if (!settings.is_stock && IsUnreadable(bsp::kLogSrvCfgFile)) {
    return Fail(std::string("cannot read ") + bsp::kLogSrvCfgFile + " in " + settings.dir + ": " +
                strerror(errno));
  }
  app::ServiceManager manager;
  bsp::LogSrvOptions options = ServerOptions(settings);
  options.on_ready = [out, &manager] {
    fprintf(out, "bsp-logd ready on 0.0.0.0:%d\n", bsp::kLogPort);
    fflush(out);
    manager.Ready();
  };
  options.on_turn = [&manager] { manager.Alive(); };
  bsp::SystemLogServer server(options);
  try {
    if (!server.Start("bsp-logd")) return Fail(server.error());
  } catch (const std::exception& fault) {
    return Fail(server.error().empty() ? fault.what() : server.error());
  }

  Loop loop(&server, pthread_self());
  int signal = 0;
  sigwait(&ends, &signal);
  manager.Stopping();
  server.Stop();
  const std::string why = loop.Join(server);
  return why.empty() ? kDone : Fail(why);
}

std::function<int()> Prepare(CLI::App* command) {
  const auto settings = std::make_shared<Settings>();
  AddOptions(command, settings.get());
  return [settings] {
    g_log_level = settings->log_level;
    return Serve(*settings, app::OpenOutput("bsp-logd", settings->is_stock));
  };
}

}  // namespace

int main(int argc, char** argv) {
  return app::RunProgram("bsp-logd",
                         "The log server of bsp: stores log records, watches the modules.", argc,
                         argv, Prepare);
}
