// bsp-broker: the broker of the RPC bus as a program.
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "apps/common/diagnostics.h"
#include "apps/common/host.h"
#include "apps/common/service_manager.h"
#include "bsp/base/error.h"
#include "bsp/net/rpc/rpc_header.h"
#include "bsp/net/rpc/rpc_server.h"

namespace {

using app::kDone;
using app::kFailed;

struct Settings {
  std::string host = "127.0.0.1";
  int port = 7800;
  bool is_stock = false;
  int log_level = BSP_LEVEL_INFO;
  // Fit for a device with 64 MB. 0: none.
  int listen_backlog = 128;
  int stall_timeout_s = 30;
  size_t max_frame_bytes = size_t{4} << 20;
  size_t max_backlog_bytes = size_t{8} << 20;
  size_t max_memory_bytes = size_t{48} << 20;
  size_t max_unread_bytes = size_t{64} << 10;
  size_t max_clients = 1024;
  size_t max_commands = 4096;
  size_t max_calls = 4096;
};

// What the program takes by itself, of --max-memory: code, stacks, and what the allocator holds.
constexpr size_t kOwnBytes = size_t{8} << 20;

// What nobody can take from a client, of the rest.
constexpr size_t kClientBytes = size_t{12} << 10;

// Beyond it a sender's own call is likely to have timed out.
constexpr int kPatienceMs = 2000;

// Of --max-clients; below some dozens places all are alike.
constexpr size_t kKeptPlaces = 8;

// A limit in decimal digits: 0 for none, else `least` or more. The parser itself would take "-1"
// for the largest number there is.
CLI::Validator Limit(uint64_t least) {
  constexpr size_t kMostDigits = 15;
  const auto refuse = [least](const std::string& text) -> std::string {
    const bool is_number = !text.empty() && text.size() <= kMostDigits &&
                           text.find_first_not_of("0123456789") == std::string::npos;
    const uint64_t value = is_number ? std::stoull(text) : 0;
    if (is_number && (value == 0 || value >= least)) return std::string();
    return text + " is not a limit: give 0 for none, or a number from " + std::to_string(least) +
           " on";
  };
  return CLI::Validator(refuse, "");
}

void AddOptions(CLI::App* app, Settings* settings) {
  app->set_version_flag("--version", "bsp-broker " BSP_VERSION);
  app->add_option("--host", settings->host, "IPv4 address to listen on, or a name for one")
      ->capture_default_str();
  app->add_option("--port", settings->port, "TCP port to listen on")
      ->capture_default_str()
      ->check(CLI::Range(1, 65535));
  CLI::Option* stock = app->add_flag(
      "--stock", settings->is_stock,
      "the library's default behaviour and nothing else: no limits, no reuse of the address, the "
      "last frames of a closing client lost, no memory given back, a log that waits for its "
      "reader");
  app->add_option("--log-level", settings->log_level, "0 (emerg) to 7 (debug), on standard error")
      ->capture_default_str()
      ->check(CLI::Range(0, 7));

  const auto add_limit = [=](const char* name, size_t& value, uint64_t least, const char* text) {
    app->add_option(name, value, text)->capture_default_str()->check(Limit(least))->excludes(stock);
  };
  app->add_option("--listen-backlog", settings->listen_backlog,
                  "connections that the kernel holds until they are accepted")
      ->capture_default_str()
      ->check(CLI::Range(1, 65535))
      ->excludes(stock);
  // A listen frame must pass, else no client could do anything.
  add_limit("--max-frame", settings->max_frame_bytes, sizeof(RpcHeader) + sizeof(RpcListenRecord),
            "bytes of the largest accepted frame; a larger one costs its sender the connection");
  add_limit("--max-backlog", settings->max_backlog_bytes, 1,
            "bytes that may wait for one client whose socket is full; senders wait for one that "
            "reads, else a request is answered with -1001 and a message is dropped");
  add_limit("--max-memory", settings->max_memory_bytes, kOwnBytes,
            "bytes of memory in all, 8 MiB of them the program's own");
  app->add_option("--stall-timeout", settings->stall_timeout_s,
                  "seconds after which a client is dropped whose socket takes no byte of those "
                  "that wait for it; 0 for never")
      ->capture_default_str()
      ->check(CLI::Range(0, 86400))
      ->excludes(stock);
  add_limit("--max-calls", settings->max_calls, 1,
            "calls in flight of one client; one more is answered with -1001");
  add_limit("--max-unread", settings->max_unread_bytes, 1,
            "bytes of garbage held of one client; beyond it the client is dropped");
  add_limit("--max-clients", settings->max_clients, 1,
            "connections at a time; one more is closed at once");
  add_limit("--max-commands", settings->max_commands, 1,
            "commands that one client may listen to; one more is answered with -1001");
  app->footer(
      "A limit of 0 means none. Whoever can connect may listen and send: keep to a loopback "
      "address.");
}

// Limits that cannot work together, with the remedy; empty when they can.
std::string Contradiction(const Settings& settings) {
  const size_t frame = settings.max_frame_bytes;
  const size_t backlog = settings.max_backlog_bytes;
  const size_t memory = settings.max_memory_bytes;
  if (backlog != 0 && backlog < frame) {
    return "--max-backlog " + std::to_string(backlog) + " is below --max-frame " +
           std::to_string(frame) +
           ", so that a frame could pass to nobody: raise the one or lower the other";
  }
  const size_t least = kOwnBytes + settings.max_clients * kClientBytes + 2 * frame;
  if (memory != 0 && memory < least) {
    return "--max-memory " + std::to_string(memory) + " is too little for --max-frame " +
           std::to_string(frame) + " and --max-clients " + std::to_string(settings.max_clients) +
           ": give at least " + std::to_string(least) + ", or lower these";
  }
  return std::string();
}

bsp::RpcServer::Options ServerOptions(const Settings& settings) {
  bsp::RpcServer::Options options;
  if (settings.is_stock) return options;
  options.contain_failures = true;
  options.track_calls = true;
  options.patience_ms = kPatienceMs;
  options.stall_timeout_s = settings.stall_timeout_s;
  options.max_calls = settings.max_calls;
  if (settings.max_memory_bytes != 0) {
    options.max_memory_bytes = settings.max_memory_bytes - kOwnBytes;
  }
  options.kept_places = std::min(kKeptPlaces, settings.max_clients / 8);
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

int Fail(const std::string& why) {
  app::Tell("bsp-broker", why.c_str());
  return kFailed;
}

int Serve(const Settings& settings, FILE* out) {
  const char* host = settings.host.c_str();
  if (!app::IsResolved(settings.host)) {
    return Fail("cannot resolve host " + settings.host + ": give an IPv4 address");
  }
  // Before the broker's thread exists.
  const sigset_t ends = app::BlockSignals({SIGTERM, SIGINT});

  if (!settings.is_stock) RaiseDescriptorLimit();
  app::ServiceManager manager;
  bsp::RpcServer::Options options = ServerOptions(settings);
  if (manager.IsWatching()) {  // also with --stock: the manager asks for it
    options.on_tick = [&manager] { manager.Alive(); };
  }
  std::atomic<bool> has_given_up{false};
  options.on_give_up = [&](const std::string& why) {
    char text[64];  // there may be no memory
    snprintf(text, sizeof text, "cannot go on: %s, again and again", why.c_str());
    app::Tell("bsp-broker", text);
    has_given_up = true;
    kill(getpid(), SIGTERM);
  };
  bsp::RpcServer server(options);
  const auto error = server.Start(settings.host, settings.port);
  if (error != nullptr) {
    const std::string why = error->Message();
    return Fail("cannot listen on " + settings.host + ":" + std::to_string(settings.port) +
                ": another broker may be running there, or the address is not this machine's: " +
                why.substr(0, why.find('\n')));
  }
  fprintf(out, "bsp-broker ready on %s:%d\n", host, settings.port);
  fflush(out);
  manager.Ready();
  int signal = 0;
  sigwait(&ends, &signal);
  manager.Stopping();
  server.Stop();
  return has_given_up ? kFailed : kDone;
}

std::function<int()> Prepare(CLI::App* command) {
  const auto settings = std::make_shared<Settings>();
  AddOptions(command, settings.get());
  return [settings] {
    const std::string contradiction = Contradiction(*settings);
    if (!contradiction.empty()) {
      app::Tell("bsp-broker", contradiction.c_str());
      return app::kUsage;
    }
    g_log_level = settings->log_level;
    return Serve(*settings, app::OpenOutput("bsp-broker", settings->is_stock));
  };
}

}  // namespace

int main(int argc, char** argv) {
  return app::RunProgram("bsp-broker", "The broker of the bsp RPC bus.", argc, argv, Prepare);
}
