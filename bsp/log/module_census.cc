#include "bsp/log/module_census.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <time.h>

#include <cerrno>
#include <cstdlib>

#include "bsp/log/log_msg.h"

namespace bsp {
namespace {

constexpr unsigned short kLockWord = 0;
constexpr unsigned short kGate = 1;
constexpr unsigned short kFirstHolders = 2;
constexpr int kSemaphores = kFirstHolders + kMaxModules;
constexpr int kMode = 0640;  // as the segment's

// A registration takes microseconds: whoever holds the lock for longer is stopped.
constexpr struct timespec kMostWait = {2, 0};

// Looked up each time, since it may have been removed with its segment; -1 when it cannot be had.
int FindSet(int flags) {
  return semget(static_cast<key_t>(strtol(kSystemStatusName, nullptr, 0)), kSemaphores, flags);
}

// Best effort: without the set nothing is counted.
void AddHolder(int index, short change) {
  const int set = FindSet(IPC_CREAT | kMode);
  struct sembuf step = {static_cast<unsigned short>(kFirstHolders + index), change,
                        SEM_UNDO | IPC_NOWAIT};
  if (set != -1) semop(set, &step, 1);
}

}  // namespace

RegistrationLock::RegistrationLock() {
  const int set = FindSet(IPC_CREAT | kMode);
  struct sembuf steps[] = {
      {kLockWord, 0, SEM_UNDO}, {kGate, 0, SEM_UNDO}, {kLockWord, 1, SEM_UNDO}};
  int result = semtimedop(set, steps, 3, &kMostWait);
  while (result == -1 && errno == EINTR) result = semtimedop(set, steps, 3, &kMostWait);
  is_locked_ = result == 0;
}

RegistrationLock::~RegistrationLock() {
  struct sembuf step = {kLockWord, -1, SEM_UNDO | IPC_NOWAIT};
  if (is_locked_) semop(FindSet(0), &step, 1);  // fails only when the set was removed meanwhile
}

void HoldModule(int index) { AddHolder(index, 1); }

void ReleaseModule(int index) { AddHolder(index, -1); }

// With what the processes would give back at their ends.
void ForgetHolders(int index) {
  const int set = FindSet(0);
  if (set != -1) semctl(set, kFirstHolders + index, SETVAL, 0);
}

int CountHolders(int index) {
  const int set = FindSet(0);
  return set == -1 ? -1 : semctl(set, kFirstHolders + index, GETVAL);
}

}  // namespace bsp
