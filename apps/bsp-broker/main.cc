// bsp-broker: the broker of the RPC bus as a program.
#include <signal.h>
#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>

#include "apps/common/host.h"
#include "apps/common/service_manager.h"
#include "bsp/base/error.h"
#include "bsp/net/rpc/rpc_server.h"

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;

struct Settings {
  std::string host = "127.0.0.1";
  int port = 7800;
  bool is_stock = false;
  int log_level = BSP_LEVEL_INFO;
  // Fit for a device with 64 MB: the worst single peer costs a frame and a backlog. 0: no limit.
  int listen_backlog = 128;
  size_t max_frame_bytes = size_t{4} << 20;
  size_t max_backlog_bytes = size_t{8} << 20;
  size_t max_unread_bytes = size_t{64} << 10;
  size_t max_clients = 1024;
  size_t max_commands = 4096;
};

void AddOptions(CLI::App* app, Settings* settings) {
  app->set_version_flag("--version", "bsp-broker " BSP_VERSION);
  app->add_option("--host", settings->host, "IPv4 address to listen on, or a name for one")
      ->capture_default_str();
  app->add_option("--port", settings->port, "TCP port to listen on")
      ->capture_default_str()
      ->check(CLI::Range(1, 65535));
  app->add_flag("--stock", settings->is_stock,
                "the library's default behaviour and nothing else: no limits, no reuse of the "
                "address, no memory given back");
  app->add_option("--log-level", settings->log_level, "0 (emerg) to 7 (debug), on standard error")
      ->capture_default_str()
      ->check(CLI::Range(0, 7));
  app->add_option("--listen-backlog", settings->listen_backlog,
                  "connections that the kernel holds until they are accepted")
      ->capture_default_str()
      ->check(CLI::Range(1, 65535));
  app->add_option("--max-frame", settings->max_frame_bytes,
                  "bytes of the largest accepted frame, 0 for any; a larger one costs its sender "
                  "the connection")
      ->capture_default_str();
  app->add_option("--max-backlog", settings->max_backlog_bytes,
                  "bytes that may wait for one client that does not read, 0 for any; beyond it the "
                  "client is dropped")
      ->capture_default_str();
  app->add_option("--max-unread", settings->max_unread_bytes,
                  "bytes of garbage held of one client, 0 for any; beyond it the client is dropped")
      ->capture_default_str();
  app->add_option("--max-clients", settings->max_clients, "connections at a time, 0 for any")
      ->capture_default_str();
  app->add_option("--max-commands", settings->max_commands,
                  "commands that one client may listen to, 0 for any")
      ->capture_default_str();
  app->footer("Whoever can connect may listen and send: keep to a loopback address.");
}

bsp::RpcServer::Options ServerOptions(const Settings& settings) {
  bsp::RpcServer::Options options;
  if (settings.is_stock) return options;
  options.reuse_address = true;
  options.handle_last_frames = true;
  options.release_memory = true;
  options.listen_backlog = settings.listen_backlog;
  options.max_frame_bytes = settings.max_frame_bytes;
  options.max_backlog_bytes = settings.max_backlog_bytes;
  options.max_unread_bytes = settings.max_unread_bytes;
  options.max_clients = settings.max_clients;
  options.max_commands = settings.max_commands;
  return options;
}

// One descriptor a client: takes what the system grants anyway.
void RaiseDescriptorLimit() {
  struct rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);  // best effort: without it more peers are turned away
}

int Serve(const Settings& settings, FILE* out) {
  const char* host = settings.host.c_str();
  if (!app::IsResolved(settings.host)) {
    fprintf(stderr, "bsp-broker: cannot resolve host %s: give an IPv4 address\n", host);
    return kFailed;
  }
  // Before the broker's thread exists.
  const sigset_t ends = app::BlockSignals({SIGTERM, SIGINT});

  if (!settings.is_stock) RaiseDescriptorLimit();
  app::ServiceManager manager;
  bsp::RpcServer::Options options = ServerOptions(settings);
  options.on_tick = [&manager] { manager.Alive(); };
  bsp::RpcServer server(options);
  if (server.Start(settings.host, settings.port) != nullptr) {
    fprintf(stderr,
            "bsp-broker: cannot listen on %s:%d: another broker may be running there, or the "
            "address is not this machine's\n",
            host, settings.port);
    return kFailed;
  }
  fprintf(out, "bsp-broker ready on %s:%d\n", host, settings.port);
  fflush(out);
  manager.Ready();
  int signal = 0;
  sigwait(&ends, &signal);
  manager.Stopping();
  server.Stop();
  return kDone;
}

int Run(int argc, char** argv) {
  Settings settings;
  CLI::App app("The broker of the bsp RPC bus.", "bsp-broker");
  AddOptions(&app, &settings);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kDone : kUsage;
  }
  g_log_level = settings.log_level;
  return Serve(settings, app::SplitOutput());
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  try {
    return Run(argc, argv);
  } catch (const std::exception& fault) {
    fprintf(stderr, "bsp-broker: %s\n", fault.what());
    return kFailed;
  }
}
