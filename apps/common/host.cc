#include "apps/common/host.h"

#include <unistd.h>

#include "bsp/base/socket.h"

namespace app {

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
