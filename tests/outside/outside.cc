// A program of a project that knows bsp by its installed headers alone.
#include <cstdio>

#include "bsp/base/error.h"
#include "bsp/cache/event_cache.h"
#include "bsp/cache/system_property.h"
#include "bsp/db/database.h"
#include "bsp/event/eventservice.h"
#include "bsp/log/ini.h"
#include "bsp/log/log.h"
#include "bsp/log/sys_log_srv.h"
#include "bsp/net/rpc/rpc_client.h"
#include "bsp/net/rpc/rpc_client_c.h"
#include "bsp/net/rpc/rpc_server.h"
#include "bsp/util/memory_buffer.h"
#include "bsp/util/semaphore.h"

int main() {
  bsp::Semaphore done;
  auto service = bsp::EventService::Create("outside", 1);
  service->Start();
  service->Post(1, [&](bsp::Message*) { done.Signal(); });
  const bool is_done = done.Wait(10000);
  service->Stop();
  puts(is_done ? "outside cpp ok" : "no message");
  return is_done ? 0 : 1;
}
