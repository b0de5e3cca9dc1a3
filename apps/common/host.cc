#include "apps/common/host.h"

#include <unistd.h>

#include <exception>

#include "bsp/base/socket.h"

namespace app {

int RunProgram(const char* name, const char* text, int argc, char** argv,
               std::function<int()> (*prepare)(CLI::App* command)) {
  signal(SIGPIPE, SIG_IGN);
  try {
    CLI::App command(text, name);
    const std::function<int()> run = prepare(&command);
    try {
      command.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
      return command.exit(error) == 0 ? kDone : kUsage;  // help and version have code 0
    }
    return run();
  } catch (const std::exception& fault) {
    fprintf(stderr, "%s: %s\n", name, fault.what());
    return kFailed;
  }
}

FILE* SplitOutput() {
  const int out = dup(STDOUT_FILENO);
  dup2(STDERR_FILENO, STDOUT_FILENO);
  setvbuf(stdout, nullptr, _IOLBF, 0);
  return out == -1 ? stdout : fdopen(out, "w");
}

sigset_t BlockSignals(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : signals) sigaddset(&set, signal);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  return set;
}

bool IsResolved(const std::string& host) {
  const bsp::SocketAddress address(host, 0);
  return host == "0.0.0.0" || std::string(address.Host()) != "0.0.0.0";
}

}  // namespace app
