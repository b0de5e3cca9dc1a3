// The pid is read once a process and again by a handler that fork runs in the child. getpid is a
// system call on every glibc since 2.25, too dear for each frame of the bus.
#include "bsp/base/process.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>

namespace bsp {
namespace {

std::atomic<pid_t> g_pid{0};  // 0: not read yet

void ReadPid() { g_pid.store(getpid(), std::memory_order_relaxed); }

pid_t FirstRead() {
  // Fails for want of memory only; each call then asks the system.
  static const bool follows_forks = pthread_atfork(nullptr, nullptr, ReadPid) == 0;
  if (follows_forks) ReadPid();
  return getpid();
}

}  // namespace

pid_t ProcessId() {
  const pid_t pid = g_pid.load(std::memory_order_relaxed);
  return pid != 0 ? pid : FirstRead();
}

}  // namespace bsp
