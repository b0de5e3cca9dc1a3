/* A program of a project that knows bsp by its installed C page alone. */
#include <stdio.h>
#include <string.h>

#include "bsp/bsp.h"

int main(void) {
  char value[8] = "";
  if (system_property_set("outside", "works", 6) != 0) return 1;
  if (system_property_get("outside", value, 6) != 0) return 1;
  printf("outside c %s\n", value);
  return strcmp(value, "works");
}
