// The pid is read once a process and again by a handler that fork runs in the child. getpid is a
// system call on every glibc since 2.25, too dear for each frame of the bus.
#include "bsp/base/process.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <new>

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

struct Kept {
  const void* copy;
  Kept* next;
};

std::atomic<Kept*> g_kept{nullptr};

}  // namespace

pid_t ProcessId() {
  const pid_t pid = g_pid.load(std::memory_order_relaxed);
  return pid != 0 ? pid : FirstRead();
}

void KeepForGood(const void* copy) {
  auto* const kept = new (std::nothrow) Kept{copy, g_kept.load(std::memory_order_relaxed)};
  if (kept == nullptr) return;  // it stays all the same; only a leak checker misses it
  while (!g_kept.compare_exchange_weak(kept->next, kept, std::memory_order_release,
                                       std::memory_order_relaxed)) {
  }
}

}  // namespace bsp
