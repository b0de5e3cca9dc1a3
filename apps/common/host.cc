#include "apps/common/host.h"

#include <fcntl.h>
#include <unistd.h>

#include <exception>

#include "apps/common/diagnostics.h"
#include "bsp/base/socket.h"

namespace app {
namespace {

// Else the next file that is opened, perhaps a database, takes the number of a closed one, and gets
// our lines. What is opened here refuses to be read and written, as a closed one does.
void FillStandardDescriptors() {
  int fd = open("/", O_PATH | O_CLOEXEC);
  while (fd != -1 && fd <= STDERR_FILENO) fd = open("/", O_PATH | O_CLOEXEC);
  if (fd != -1) close(fd);
}

int ParseAndRun(const char* name, const char* text, int argc, char** argv,
                std::function<int()> (*prepare)(CLI::App* command)) {
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
    Tell(name, fault.what());
    return kFailed;
  }
}

}  // namespace

int RunProgram(const char* name, const char* text, int argc, char** argv,
               std::function<int()> (*prepare)(CLI::App* command)) {
  signal(SIGPIPE, SIG_IGN);
  FillStandardDescriptors();
  const int code = ParseAndRun(name, text, argc, argv, prepare);
  EndDiagnostics();
  return code;
}

FILE* OpenOutput(const char* name, bool is_stock) {
  const int out = dup(STDOUT_FILENO);
  dup2(STDERR_FILENO, STDOUT_FILENO);
  setvbuf(stdout, nullptr, _IOLBF, 0);
  if (!is_stock) StartDiagnostics(name);
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
