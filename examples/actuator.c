/* Runs the fan: answers the command fan.set. Flat C interface only.
 *
 *   actuator PORT [-p LEVEL]     PORT: where bsp-broker listens on 127.0.0.1
 */
#define _POSIX_C_SOURCE 200809L

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "bsp/bsp.h"

#define TAG "ACTUATOR"

/* Runs on the bus thread. The result is the length of the answer, or a failure code below 0. */
static int SetFan(const char* action, const char* request, int request_length, char* response,
                  int response_max) {
  int speed = -1;
  char value[16];
  (void)action;
  (void)request_length; /* a zero byte stands behind the request */
  if (sscanf(request, "speed=%d", &speed) != 1 || speed < 0 || speed > 100) {
    BSP_LOG_ERROR(TAG, "refused: %s", request);
    return -22;
  }
  snprintf(value, sizeof value, "%d", speed);
  system_property_set("fan.speed", value, (int)strlen(value) + 1);
  BSP_LOG_INFO(TAG, "fan runs at %d%%", speed);
  return snprintf(response, (size_t)response_max, "ok speed=%d pid=%d", speed, (int)getpid());
}

int main(int argc, char** argv) {
  const struct timespec second = {1, 0};
  sigset_t ends;
  void* bus;

  if (argc < 2) {
    fprintf(stderr, "usage: actuator PORT [-p LEVEL]\n");
    return 2;
  }
  /* Awaited below, and blocked before any thread exists so that none is interrupted. */
  sigemptyset(&ends);
  sigaddset(&ends, SIGTERM);
  sigaddset(&ends, SIGINT);
  sigprocmask(SIG_BLOCK, &ends, NULL);
  setvbuf(stdout, NULL, _IOLBF, 0);

  const int port = atoi(argv[1]);
  if (log_init(argc, argv, 0) != 0) return 1;
  bus = rpc_client_c_open("127.0.0.1", port);
  if (bus == NULL) return 1;
  if (rpc_client_c_listen_v1(bus, "fan.set", RPC_TYPE_REQUEST, 0, SetFan, NULL) != 0) {
    rpc_client_c_close(bus);
    return 1;
  }

  BSP_CONTROL(0, "actuator starts, pid %d", (int)getpid());
  while (sigtimedwait(&ends, NULL, &second) == -1) BSP_FEED_DOG();
  BSP_CONTROL(0, "actuator ends");
  rpc_client_c_close(bus);
  log_deinit();
  return 0;
}
