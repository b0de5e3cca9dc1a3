/* Prints a property of the shared table: property_reader KEY. */
#include <stdio.h>

#include "bsp/bsp.h"

int main(int argc, char** argv) {
  char value[224] = "";
  if (argc < 2) {
    fprintf(stderr, "usage: property_reader KEY\n");
    return 2;
  }
  /* The store keeps no lengths: all 223 bytes are asked for, and the text ends at its zero. */
  if (system_property_get(argv[1], value, (int)sizeof value - 1) != 0) return 1;
  puts(value);
  return 0;
}
