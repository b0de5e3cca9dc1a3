/* A whole module in C: answers the command "hello", logs, feeds the watchdog, ends on SIGTERM. */
#define _POSIX_C_SOURCE 200809L

#include <signal.h>
#include <stdio.h>
#include <time.h>

#include "bsp/bsp.h"

/* Runs on the thread of the bus; the result is the length of the answer. */
static int Hello(const char* command, const char* request, int length, char* answer, int room) {
  BSP_LOG_INFO("HELLO", "%s for %.*s", command, length, request);
  return snprintf(answer, (size_t)room, "hello %.*s", length, request);
}

int main(int argc, char** argv) {
  const struct timespec second = {1, 0};
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGTERM);
  sigaddset(&ends, SIGINT);
  sigprocmask(SIG_BLOCK, &ends, NULL); /* before there is a second thread */

  if (log_init(argc, argv, 0) != 0) return 1;
  void* bus = rpc_client_c_open("127.0.0.1", 7800);
  if (bus == NULL) return 1;
  if (rpc_client_c_listen_v1(bus, "hello", RPC_TYPE_REQUEST, 0, Hello, NULL) != 0) return 1;
  BSP_CONTROL(0, "hello is up");
  while (sigtimedwait(&ends, NULL, &second) == -1) BSP_FEED_DOG();
  rpc_client_c_close(bus);
  log_deinit();
  return 0;
}
