// The system property store: a small table of keys and bytes that all processes share.
#ifndef BSP_CACHE_SYSTEM_PROPERTY_H_
#define BSP_CACHE_SYSTEM_PROPERTY_H_

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "bsp/base/error.h"
#include "bsp/base/macros.h"
#include "bsp/bsp.h"
#include "bsp/shmc/shm_alloc.h"
#include "bsp/shmc/shm_handle.h"
#include "bsp/shmc/svipc_mutex.h"

// 128 slots in the segment "0x66000000", which the first process creates and which stays until the
// machine restarts. A slot once taken stays taken. No length of a value is stored: a reader names
// the bytes that it wants, and after those of the last Set it finds zeros or the rest of an older
// value.
//
// A key names the first slot whose key begins with it: the key "ab" finds "abc" when that slot
// comes first. Use keys of which none begins with another.
//
// All errors have the code -1 and leave the table as it was.
//
// Threads and processes: any, one inside at a time by a lock that the kernel takes back from a
// process that dies. A new property is then there wholly or not at all; with set_journal a new
// value is too. A call that does not get the lock within kLockPatienceMs fails and names the
// holder.
class BSP_EXPORT SystemProperty {
 public:
  // One slot, a format in shared memory in native byte order.
  struct KeyV {
    char key[32];     // zero-terminated; first byte 0: the slot is free
    char value[224];  // raw bytes; the last one is never used
  };

  static constexpr char kSegment[] = "0x66000000";
  static constexpr int kSlots = 128;
  static constexpr size_t kSegmentSize = kSlots * sizeof(KeyV);
  static constexpr int kMaxValue = sizeof(KeyV::value) - 1;  // bytes
  static constexpr int kLockPatienceMs = 2000;               // the lock is held for microseconds

  // The object of this process, initialised on the first call; see Init for a failure. Never
  // destroyed, so that also the destructors of static objects, and threads that still run at exit,
  // may use it.
  static std::shared_ptr<SystemProperty> Instance();

  // Off: a process that is killed while it replaces a value may leave it half new. On, here and in
  // every process that sets: it is done wholly or not at all; the last slot, for as long as it is
  // free, then serves as the journal, and its bytes change. Any thread, before the first Set.
  void set_journal(bool on) { has_journal_ = on; }

  // Attaches the segment, which may be done once. After a failure every operation tries again
  // before it fails. A lock that cannot be had is told in the log; the store then works unlocked.
  std::shared_ptr<MSError> Init();

  // Stores `value_size` bytes, 1 to kMaxValue, under `key`; bytes behind them stay as they were. A
  // key of more than 31 bytes is stored cut and never found again.
  std::shared_ptr<MSError> Set(const char* key, const char* value, int value_size);

  // Copies the first `value_size` bytes of the property, 1 to kMaxValue, whatever length was set.
  std::shared_ptr<MSError> Get(const char* key, char* value, int value_size);

  // Logs the key of every taken slot at level 6.
  void Dump();

 private:
  class Section;

  // Where a key was found before. Used inside the lock.
  struct Hint {
    uint64_t key[sizeof(KeyV::key) / sizeof(uint64_t)];  // zero-padded; all zero: none
    uint64_t slot;
  };
  static constexpr int kHintBits = 6;  // 64 hints: more keys than a module uses often

  std::shared_ptr<MSError> Attach();
  std::shared_ptr<MSError> EnsureAttached();
  void TellUnlocked(int error);
  std::string DescribeHolder() const;

  std::atomic<KeyV*> slots_{nullptr};  // set once, by Attach
  shmc::impl::SVIPCMutex mutex_;
  shmc::ShmHandle<KeyV, shmc::impl::SVIPCShmAlloc<false>> shm_;
  Hint hints_[1 << kHintBits] = {};

  std::mutex init_mutex_;  // held while the segment is attached; guards shm_
  std::atomic<bool> unlocked_told_{false};
  std::atomic<bool> has_journal_{false};
  std::atomic<pid_t> stuck_holder_{0};  // whom the last call has waited for in vain
};

static_assert(sizeof(SystemProperty::KeyV) == 256, "KeyV is 256 bytes");
static_assert(offsetof(SystemProperty::KeyV, key) == 0, "KeyV layout");
static_assert(offsetof(SystemProperty::KeyV, value) == 32, "KeyV layout");
static_assert(SystemProperty::kSegmentSize == 32768, "the segment is 32768 bytes");

#endif  // BSP_CACHE_SYSTEM_PROPERTY_H_
