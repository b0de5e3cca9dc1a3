/* The smallest module that answers a command, in C: listener_c PORT, until SIGTERM or SIGINT. */
#define _POSIX_C_SOURCE 200809L

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

#include "bsp/bsp.h"

static int Greet(const char* action, const char* request, int request_length, char* response,
                 int response_max) {
  (void)action;
  return snprintf(response, (size_t)response_max, "hello %.*s", request_length, request);
}

int main(int argc, char** argv) {
  sigset_t ends;
  int number = 0;
  void* bus;
  sigemptyset(&ends);
  sigaddset(&ends, SIGTERM);
  sigaddset(&ends, SIGINT);
  sigprocmask(SIG_BLOCK, &ends, NULL); /* before the bus thread exists */
  bus = rpc_client_c_open("127.0.0.1", argc > 1 ? atoi(argv[1]) : 7800);
  if (bus == NULL) return 1;
  if (rpc_client_c_listen_v1(bus, "greet", RPC_TYPE_REQUEST, 0, Greet, NULL) != 0) return 1;
  puts("listening to greet");
  fflush(stdout);
  sigwait(&ends, &number);
  rpc_client_c_close(bus);
  return 0;
}
