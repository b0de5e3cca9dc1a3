/* Prints an event of the shared cache: event_cache_reader KEY. */
#include <stdio.h>
#include <stdlib.h>

#include "bsp/bsp.h"

int main(int argc, char** argv) {
  char info[64];
  char data[640];
  int info_size = sizeof info; /* in: the room, out: the length of the record */
  int data_size = sizeof data;
  const unsigned long key = argc > 1 ? strtoul(argv[1], NULL, 10) : 1;
  if (event_cache_init_read() != 0) return 1; /* no writer has run yet */
  if (event_cache_read_info(key, info, &info_size) < 0) return 1;
  if (event_cache_read_data(key, data, &data_size) < 0) return 1;
  if (info_size > (int)sizeof info || data_size > (int)sizeof data) return 1; /* cut */
  printf("event %lu: %.*s, %.*s\n", key, info_size, info, data_size, data);
  return 0;
}
