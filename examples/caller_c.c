/* The smallest caller, in C: caller_c PORT TEXT calls the command greet and prints the answer. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "bsp/bsp.h"

int main(int argc, char** argv) {
  const char* text = argc > 2 ? argv[2] : "world";
  char answer[256] = "";
  void* bus = rpc_client_c_open("127.0.0.1", argc > 1 ? atoi(argv[1]) : 7800);
  if (bus == NULL) return 1;
  /* The result counts the zero byte behind the answer; at or above the size, nothing was copied. */
  const int length = rpc_client_c_send_request(bus, "greet", text, (int)strlen(text), answer,
                                               (int)sizeof answer, 1000);
  rpc_client_c_close(bus);
  if (length < 0 || length >= (int)sizeof answer) return 1;
  puts(answer);
  return 0;
}
