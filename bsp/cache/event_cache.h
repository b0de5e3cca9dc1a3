// The event cache: a bounded number of events in shared memory, written by one process.
#ifndef BSP_CACHE_EVENT_CACHE_H_
#define BSP_CACHE_EVENT_CACHE_H_

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <string>

#include "bsp/base/error.h"
#include "bsp/base/macros.h"
#include "bsp/bsp.h"
#include "bsp/shmc/shm_hash_map.h"

namespace bsp {

// Each event has a small info record and a larger data record under one key. One process, the
// writer, fills the cache and decides what to evict: a full cache refuses a write, the writer then
// removes the oldest event and tries again. Other processes read by key, without a lock and without
// disturbing the writer. Keys and records mean nothing to the cache.
//
// The segments 0x65000000, 0x65000001 (info) and 0x65000010, 0x65000011 (data) outlive all
// processes: events stay readable after the writer has died, until the next one starts with an
// empty cache.
//
// A process takes one role for its lifetime, by InitWrite or InitRead. What does not fit the role,
// or comes before it, fails in order.
//
// Threads: InitWrite, InitRead, ReadInfo and ReadData any. Write, Remove and RemoveOldest: one
// thread at a time, of one process on the device.
class BSP_EXPORT EventCache {
 public:
  EventCache() = default;
  virtual ~EventCache() = default;
  EventCache(const EventCache&) = delete;
  EventCache& operator=(const EventCache&) = delete;

  // The object of this process, with no role. Never destroyed, so that also the destructors of
  // static objects, and threads that still run at exit, may use it.
  static std::shared_ptr<EventCache> Instance();

  // What InitWrite does with segments that a writer left inconsistent when it died in the midst of
  // an operation. Off: it fails, and they have to be removed from outside. On: it mends them.
  void set_rebuild(bool on);

  // Makes this process the writer of an empty cache for `evt_num` events, each of up to `info_size`
  // - 4 bytes of info (at least 4) and about `data_size` bytes of data (at least 40, in ten nodes
  // of a tenth). A writer that starts again must pass the same numbers. Code -1 on failure; the
  // call may be repeated. The info map is opened and emptied first: numbers that fit it and not the
  // data map leave the old events without their info.
  std::shared_ptr<MSError> InitWrite(int evt_num, int info_size, int data_size);

  // Makes this process a reader; a writer must have run before. Code -1 on failure; the call may be
  // repeated.
  std::shared_ptr<MSError> InitRead();

  // Stores both records, each of at least one byte, or neither; an event that stood under the key
  // is replaced by the new one, or stays as it was on failure. Code -2: no room for one of the two,
  // or sizes that cannot be stored. -3: the list of keys is full, which counts every write of a
  // key. -1: not the writer.
  std::shared_ptr<MSError> Write(unsigned long key, const char* info, int info_size,
                                 const char* data, int data_size);

  // Read one record. Always give an object: success has a code that is not negative.
  //
  // Buffer given: *size is its capacity; at most that much is copied, and both *size and the code
  // become the length of the record, which may be more. -3: no such key, or a bad capacity. Null
  // buffer: only the length, in *size; the code is 0, or -1 when there is no such key. *size is
  // changed on success alone. -1: no role yet, or a null `size`.
  std::shared_ptr<MSError> ReadInfo(unsigned long key, char* info, int* size);
  std::shared_ptr<MSError> ReadData(unsigned long key, char* data, int* size);

  // Removes the event at the front of the list. Code -1: the list is empty, or not the writer.
  std::shared_ptr<MSError> RemoveOldest();

  // Removes the event, if it is there. Code -1: not the writer.
  std::shared_ptr<MSError> Remove(unsigned long key);

 private:
  friend int ::event_cache_read_info(unsigned long key, char* info, int* size);
  friend int ::event_cache_read_data(unsigned long key, char* data, int* size);

  using Map = shmc::UlongShmHashMap;

  // What this process is, complete: what a failed init has begun is never seen.
  struct Role {
    bool is_writer = false;
    int max_evt_num = 0;  // the numbers of InitWrite; 0 in a reader
    int info_total_size = 0;
    int data_total_size = 0;
    std::list<unsigned long> evt_key_list_;  // keys of this process's view, oldest first
    Map info_kv_map_;
    Map data_kv_map_;
  };

  // What a read gave. Only who shows it makes text of it.
  struct Reading {
    int code;
    int size;
    bool is_length_only;
    const char* refusal;  // null: the read took place
  };

  void Adopt(std::unique_ptr<Role> role);
  Role* Writer(const char* operation) const;
  Reading Read(const Map Role::*map, unsigned long key, char* buffer, int* size) const;
  static std::shared_ptr<MSError> ToError(const Reading& reading, const char* operation,
                                          unsigned long key);
  static int ReadForC(const char* function, const Map Role::*map, const char* operation,
                      unsigned long key, char* buffer, int* size);

  std::atomic<Role*> role_{nullptr};  // set once

  std::mutex init_mutex_;        // held during an init; guards the fields below
  std::unique_ptr<Role> owner_;  // of role_
  bool rebuild_ = false;
};

}  // namespace bsp

#endif  // BSP_CACHE_EVENT_CACHE_H_
