// The status block as all processes write it: names, claims, words.
#ifndef BSP_LOG_STATUS_BLOCK_H_
#define BSP_LOG_STATUS_BLOCK_H_

#include <string>

#include "bsp/base/macros.h"
#include "bsp/log/log_msg.h"
#include "bsp/shmc/shm_handle.h"

namespace bsp {

using StatusBlockHandle = shmc::ShmHandle<SystemStatus, shmc::impl::SVIPCShmAlloc<false>>;

// A word of the block. The block has no lock: each field is one naturally aligned word that any
// process may read or write at any time.
template <typename T>
T LoadWord(const T& word) {
  return __atomic_load_n(&word, __ATOMIC_RELAXED);
}
template <typename T>
void StoreWord(T& word, T value) {
  __atomic_store_n(&word, value, __ATOMIC_RELAXED);
}

// Seconds that a module may let pass without a feed: one that registered itself, and one that the
// log server registered from its configuration.
constexpr int32_t kClientTimeoutSeconds = 20;
constexpr int32_t kServerTimeoutSeconds = 60;

// Copies a name field of the block, whatever bytes it holds, into 33 bytes with a terminator; an
// empty name marks a free record or slot. Returns its length.
BSP_EXPORT size_t CopyName(const char (&field)[32], char (&name)[33]);
BSP_EXPORT std::string NameOf(const char (&field)[32]);

// Index of the record with exactly this name, -1 when there is none.
BSP_EXPORT int FindModule(const SystemStatus& sta, const std::string& name);

// How a new record starts.
struct ModuleStart {
  int32_t timeout;    // seconds
  bool sets_running;  // whether `running` becomes 1, else it is left alone
};

// A record that was found by its name, or taken for it.
struct Registration {
  int index;      // -1: the name is empty, or all 32 are taken
  bool is_known;  // the name had this record already
};

// Finds the record of this name, or takes the first free one, in which the name stands cut to 30
// characters. A record becomes visible with all its fields set; however many processes register at
// the same moment, each name gets one record and each record one name.
Registration RegisterModule(SystemStatus* sta, const std::string& name, const ModuleStart& start);

// Whether a name as CopyName gives it, `length` bytes, is this one, of which the block stores no
// more than 30 characters. Without heap.
bool IsStoredName(const char (&stored)[33], size_t length, const std::string& name);

// Whether the record belongs to the module of this name.
bool IsRecordOf(const ModSta& mod, const std::string& name);

// The module of this record has come up again: one feed, just now.
void RenewModule(ModSta* mod);

// Empties all 32 tag slots, each with level 6.
void ResetTagSlots(ModSta* mod);

// The slot that has this tag, stored cut to 30 characters; else the first free one; null when there
// is neither. An empty tag has none.
LogModSta* FindSlot(ModSta* mod, const std::string& tag);
LogModSta* FindFreeSlot(ModSta* mod);

bool IsSlotOf(const LogModSta& slot, const std::string& tag);

// Names the slot, cut to 30 characters.
void SetTagName(LogModSta* slot, const std::string& tag);

// Sets the threshold of the module and of all its tags, free slots included. `level` is 0 to 7.
BSP_EXPORT void SetModuleLevel(ModSta* mod, int32_t level);

// Frees the record of this name, unless a process holds it. A record that has another name by now
// is left alone.
void FreeModule(SystemStatus* sta, int index, const std::string& name);

// What AdoptBlock has found.
struct Adoption {
  bool is_valid;  // else nothing was changed
  int modules;    // taken over
  int damaged;    // records that no module can have left, and that are free now
};

// Takes over a block that others have set up or registered in: each record stays as it is, but with
// a fresh window. Not valid with another magic than ours or 0.
Adoption AdoptBlock(SystemStatus* sta);

// Zeroes the block: what modules registered before is gone. A registration that it overtakes starts
// over.
void ClearBlock(SystemStatus* sta);

}  // namespace bsp

#endif  // BSP_LOG_STATUS_BLOCK_H_
