// What a host program tells on standard error, without ever waiting for whoever reads it.
#ifndef BSP_APPS_COMMON_DIAGNOSTICS_H_
#define BSP_APPS_COMMON_DIAGNOSTICS_H_

namespace app {

// Takes the library's console lines (bsp::SetLogSink) and what Tell gets, from now on, and writes
// them to standard error on a thread of its own. `program` is the name that lines of the log itself
// carry, a literal. Once, before the program has other threads. Throws std::exception when there is
// no memory or no thread for it.
void StartDiagnostics(const char* program);

// A line of the program's own, "program: what". Any thread. Without StartDiagnostics it goes to
// standard error at once, and waits for it.
void Tell(const char* program, const char* what);

// Writes what is left, and gives up on it after half a second. The program ends after it. Does
// nothing without StartDiagnostics.
void EndDiagnostics();

}  // namespace app

#endif  // BSP_APPS_COMMON_DIAGNOSTICS_H_
