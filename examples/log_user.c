/* Logs in every way there is, feeds the watchdog once, and ends: log_user [-p LEVEL].
 * The console lines go to standard output, the records to the log server. */
#include "bsp/bsp.h"

int main(int argc, char** argv) {
  if (log_init(argc, argv, 0) != 0) return 1;
  BSP_LOG_INFO("EXAMPLE", "a console line, level %d", BSP_LEVEL_INFO);
  BSP_LOG_DEBUG("EXAMPLE", "shown with -p 7 only");
  BSP_TRACE(42, 7, "a record of trace 42 in flow 7");
  BSP_CONTROL(7, "a control record of flow 7");
  BSP_SYSTEM(BSP_LEVEL_WARN, "a warning for the log server");
  BSP_FEED_DOG();
  log_deinit();
  return 0;
}
