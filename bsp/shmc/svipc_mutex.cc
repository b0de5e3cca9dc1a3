// The lock of a segment is one set of two semaphores under the segment's own System V key.
//
//   semaphore 0  the lock word: 0 free, 1 held
//   semaphore 1  the gate: the lock can be taken only while it is 0; we never change it, so that a
//                maintainer can hold all processes off by raising it from outside
//
// A set is zero when the kernel creates it, and zero means free. So finding and creating are the
// same atomic semget without IPC_EXCL, nobody ever initialises a set, and no process can meet a
// half-initialised one: the race that semaphore sets are known for does not arise.
//
// Every operation carries SEM_UNDO: the kernel keeps, for each process, what it has added, and
// takes it back when the process ends, however it ends. The set itself, like its segment, outlives
// all processes.
//
// What this does not cover is an exec while another thread of the process is inside: the thread is
// gone, the process goes on as another program, and the kernel keeps the lock for it. Nobody can
// tell that from a holder who is merely slow, so the lock is never broken; whoever must not wait
// for ever uses LockFor, and can name the holder, whom the kernel notes at each change of a
// semaphore.
#include "bsp/shmc/svipc_mutex.h"

#include <sys/ipc.h>
#include <sys/sem.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <ctime>

#include "bsp/shmc/shm_alloc.h"

namespace shmc {
namespace impl {
namespace {

constexpr int kSemaphores = 2;
constexpr unsigned short kLockWord = 0;
constexpr unsigned short kGate = 1;
constexpr int kMode = 0640;  // as the segment's
constexpr int kNoSet = -1;   // no set ever has this id
constexpr int64_t kNanosPerMilli = 1000000;
constexpr int64_t kNanosPerSecond = 1000000000;

template <size_t kCount>
int Apply(int sem_id, struct sembuf (&steps)[kCount]) {
  int result = semop(sem_id, steps, kCount);
  while (result == -1 && errno == EINTR) result = semop(sem_id, steps, kCount);
  return result;
}

int64_t NowNanos() {
  struct timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * kNanosPerSecond + now.tv_nsec;
}

}  // namespace

bool SVIPCMutex::Open(const std::string& segment_name) {
  // Away from 0: a failed Open must not leave us locking a stranger's set.
  sem_id_ = kNoSet;
  int key = 0;
  if (!SVIPCShmAlloc<false>::str2key(segment_name, &key) || key == IPC_PRIVATE) {
    errno = EINVAL;  // a private set could be found by nobody else
    return false;
  }
  sem_id_ = semget(key, kSemaphores, IPC_CREAT | kMode);
  return sem_id_ != kNoSet;
}

int SVIPCMutex::Lock() const {
  struct sembuf steps[] = {
      {kLockWord, 0, SEM_UNDO}, {kGate, 0, SEM_UNDO}, {kLockWord, 1, SEM_UNDO}};
  return Apply(sem_id_, steps);
}

int SVIPCMutex::LockFor(int timeout_ms) const {
  struct sembuf steps[] = {
      {kLockWord, 0, SEM_UNDO}, {kGate, 0, SEM_UNDO}, {kLockWord, 1, SEM_UNDO}};
  const int64_t end = NowNanos() + timeout_ms * kNanosPerMilli;
  int64_t left = timeout_ms * kNanosPerMilli;
  for (;;) {
    const struct timespec time = {static_cast<time_t>(left / kNanosPerSecond),
                                  static_cast<long>(left % kNanosPerSecond)};
    const int result = semtimedop(sem_id_, steps, 3, &time);
    if (result == 0 || errno != EINTR) return result;
    left = std::max<int64_t>(end - NowNanos(), 0);
  }
}

pid_t SVIPCMutex::Holder() const {
  const int saved = errno;
  const int value = semctl(sem_id_, kLockWord, GETVAL);
  const pid_t holder = value > 0 ? semctl(sem_id_, kLockWord, GETPID) : 0;
  errno = saved;
  return std::max(holder, 0);
}

int SVIPCMutex::UnLock() const {
  struct sembuf steps[] = {{kLockWord, -1, SEM_UNDO}};
  return Apply(sem_id_, steps);
}

}  // namespace impl
}  // namespace shmc
