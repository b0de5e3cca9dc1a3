// How grave a line of the library is in a host program.
#ifndef BSP_APPS_COMMON_ROUTINE_LINES_H_
#define BSP_APPS_COMMON_ROUTINE_LINES_H_

namespace app {

// The level under which a line of this format is told; its own unless the table knows better. To
// the library every caller's surprise is an error. To a broker or a log server that serves many,
// the end of a client or a call into the void is an everyday thing, and of several lines with one
// cause the one that names it is enough.
int HostLevel(const char* format, int level);

}  // namespace app

#endif  // BSP_APPS_COMMON_ROUTINE_LINES_H_
