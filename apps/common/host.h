// What the programs share: their frame, their output and their signals.
#ifndef BSP_APPS_COMMON_HOST_H_
#define BSP_APPS_COMMON_HOST_H_

#include <signal.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <functional>
#include <initializer_list>
#include <string>

namespace app {

// Exit codes of every program.
constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;

// Prepares the command line, parses it, runs what `prepare` gave and returns its exit code. Wrong
// usage gives kUsage, an exception kFailed with one line. A dead output pipe is an error of the
// write and no signal. Standard descriptors that are closed refuse all, and no file takes their
// numbers.
int RunProgram(const char* name, const char* text, int argc, char** argv,
               std::function<int()> (*prepare)(CLI::App* command));

// The library logs on standard output, which is for the ready line alone in a host program. Sends
// all that is printed from now on to standard error, and returns the real standard output. Unless
// `is_stock`, the log goes the way of diagnostics.h. Before the program has other threads; `name`
// is a literal.
FILE* OpenOutput(const char* name, bool is_stock);

// Blocks the signals for this thread and those that it starts, so that they come to sigwait alone.
// The set is for sigwait.
sigset_t BlockSignals(std::initializer_list<int> signals);

// False for a host name that has no address: the library would take it for 0.0.0.0, which is all
// interfaces to a listener and this machine to a caller.
bool IsResolved(const std::string& host);

}  // namespace app

#endif  // BSP_APPS_COMMON_HOST_H_
