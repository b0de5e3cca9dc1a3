// A thread that runs immediate and delayed messages in the order in which they fall due.
#include <cstdio>
#include <memory>

#include "bsp/event/eventservice.h"
#include "bsp/util/semaphore.h"

int main() {
  bsp::Semaphore done;
  auto service = bsp::EventService::Create("worker", 10);
  const auto tell = [](bsp::Message* message) { printf("message %d\n", message->id); };
  service->PostDelay(3, 200, [&](bsp::Message* message) {
    tell(message);
    done.Signal();
  });
  service->PostDelay(2, 100, tell);
  service->Post(1, tell);
  service->Start();  // what was posted before waits for the thread
  const bool is_done = done.Wait(5000);
  service->Stop();
  return is_done ? 0 : 1;
}
