#include "apps/common/host.h"

#include <unistd.h>

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

}  // namespace app
