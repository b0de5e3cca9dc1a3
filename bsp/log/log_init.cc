// The flat functions that start, use and end a process's log client.
#include <getopt.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <vector>

#include "bsp/log/log.h"
#include "bsp/log/sys_log_cli.h"

namespace {

const char* LastComponent(const char* path) {
  const char* slash = strrchr(path, '/');
  if (slash != nullptr) return slash + 1;
  const char* backslash = strrchr(path, '\\');
  return backslash != nullptr ? backslash + 1 : path;
}

int LevelOf(const char* text) {
  const long level = strtol(text, nullptr, 10);
  return level > INT_MAX ? INT_MAX : level < INT_MIN ? INT_MIN : static_cast<int>(level);
}

// The level that the command line asks for. getopt reorders what it is given and keeps its place in
// globals: it gets a copy, and the host's own scan, done or yet to come, is not disturbed.
int LevelFromCommandLine(int argc, char** argv) {
  std::vector<char*> words(argv, argv + argc);
  words.push_back(nullptr);
  const int saved_index = optind;
  const int saved_errors = opterr;
  optind = 0;  // starts afresh
  opterr = 0;  // the host's options are not ours to complain about
  int level = BSP_LEVEL_INFO;
  int option = 0;
  while ((option = getopt(argc, words.data(), "p:")) != -1) {
    if (option != 'p') continue;
    if (optarg == nullptr) {
      puts("log_level is null.");
      continue;
    }
    level = LevelOf(optarg);
  }
  optind = saved_index > 1 ? saved_index : 0;
  opterr = saved_errors;
  return level;
}

int StartClient(int level, const char* name) {
  bsp::LogClientOptions options;
  options.keep_registered = true;
  log_deinit();  // a client whose start failed, when the host tries again
  g_log = new (std::nothrow) bsp::SystemLogClient(options);
  if (g_log == nullptr) {
    puts("create log failed");
    return 0;
  }
  if (!g_log->Start(name)) {
    puts("log start failed.");
    return -1;
  }
  g_log->SetLogLevel(level);
  printf("log level %d.\n", g_log->GetLogLevel(name));
  return 0;
}

}  // namespace

int log_init_v2(int level, const char* name, int no_client) {
  bsp::Socket::Initialize();
  if (no_client != 0) {
    g_log_level = level;
    return 0;
  }
  try {
    return StartClient(level, name != nullptr ? name : "");
  } catch (const std::exception& failure) {
    printf("log start failed, %s.\n", failure.what());
    return -1;
  }
}

int log_init(int argc, char** argv, int no_client) {
  if (argc <= 0 || argv == nullptr || argv[0] == nullptr) {
    return log_init_v2(BSP_LEVEL_INFO, "", no_client);
  }
  try {
    return log_init_v2(LevelFromCommandLine(argc, argv), LastComponent(argv[0]), no_client);
  } catch (const std::exception& failure) {
    printf("log start failed, %s.\n", failure.what());
    return -1;
  }
}

void log_deinit() {
  if (g_log == nullptr) return;
  bsp::SystemLogClient* client = g_log;
  client->Stop();
  g_log = nullptr;  // first: the socket's destructor logs
  delete client;
}

void log_send_msg(BspLogMsg* msg) {
  if (g_log != nullptr) g_log->LogMsgProc("", "", 0, msg);
}

int log_retire() { return g_log != nullptr && g_log->Retire() ? 0 : -1; }

int log_set_timeout(int seconds) { return g_log != nullptr && g_log->SetTimeout(seconds) ? 0 : -1; }

int mod_is_running() { return g_log == nullptr ? 1 : g_log->IsRunning(); }
