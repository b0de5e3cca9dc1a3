// A wait that is always bounded.
#include "bsp/util/semaphore.h"

#include <cstdio>
#include <thread>

int main() {
  bsp::Semaphore ready;
  const bool is_early = ready.Wait(10);  // false: 10 ms passed without a signal
  std::thread worker([&] { ready.Signal(); });
  const bool is_ready = ready.Wait(5000);
  worker.join();
  printf("%s, then %s\n", is_early ? "early" : "timed out", is_ready ? "ready" : "timed out");
  return is_ready ? 0 : 1;
}
