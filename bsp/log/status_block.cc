// The life of a status record.
//
// A record is free while the first byte of mod_name is 0, and taken for good once a name stands
// there. Modules start at the same moment at every boot, each in its own process, and the block has
// no lock. So a record is claimed through the first eight bytes of mod_name, one aligned word, in
// three steps:
//
//   free     first byte 0, the rest anything
//   claimed  0, "clm", pid of the claimant: set by compare-and-swap, so one claimant wins and the
//            others go on to the next record. For every reader the record is still free.
//   taken    the first eight bytes of the name: set by compare-and-swap with release order, after
//            all other fields and the rest of the name.
//
// What must hold: only the winner of the first swap writes the fields, so that a late loser cannot
// wipe tag slots that the winner is using already; and who reads a non-empty name reads the fields
// that belong to it, so that no check of the watchdog finds a new module with an old feed time.
//
// One name must not take two records, of which the second would never be fed and be late for ever.
// So who registers looks for its name and claims under one lock for all processes, which the kernel
// frees when its holder dies. The swaps remain what keeps a record whole, since the lock is best
// effort: a stopped holder must not keep a device from starting, and the set may not be had.
//
// The log server may clear the block at any moment of this. It claims all records first, so that
// the second swap of every claimant fails, then zeroes all else, and frees the names last: no name
// is published in the midst of the zeroing and stands there with fields that were wiped behind it.
// A claimant that died between the two swaps leaves its pid behind, and the record is taken over;
// if the pid lives again in another process, the record is passed over until the server's next
// start.
//
// Rejected: filling in the fields before the one swap that sets the name. Two claimants would fill
// in the same record, and the loser's stores can land behind the winner's first use.
#include "bsp/log/status_block.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "bsp/log/module_census.h"
#include "bsp/util/time_util.h"

namespace bsp {
namespace {

constexpr size_t kNameSize = 32;
constexpr size_t kMostNameChars = 30;
constexpr char kClaimMark[4] = {'\0', 'c', 'l', 'm'};

// The name field as words; the attribute lets them overlay the characters.
using NameWord __attribute__((may_alias)) = uint64_t;
constexpr size_t kNameWords = kNameSize / sizeof(NameWord);
static_assert((offsetof(SystemStatus, mods) + offsetof(ModSta, mod_name)) % sizeof(NameWord) == 0 &&
                  sizeof(ModSta) % sizeof(NameWord) == 0,
              "each mod_name begins at an aligned word");

NameWord* NameWords(ModSta* mod) { return reinterpret_cast<NameWord*>(mod->mod_name); }

uint64_t OwnMark() {
  uint64_t mark;
  const int32_t pid = getpid();
  memcpy(&mark, kClaimMark, sizeof kClaimMark);
  memcpy(reinterpret_cast<char*>(&mark) + sizeof kClaimMark, &pid, sizeof pid);
  return mark;
}

// How much of a name stands in the block.
size_t StoredLength(const std::string& name) {
  return std::min(strlen(name.c_str()), kMostNameChars);
}

bool Holds(const char (&field)[32], const std::string& name) {
  char stored[33];
  const size_t length = CopyName(field, stored);
  return IsStoredName(stored, length, name);
}

bool IsLevel(int32_t level) { return level >= BSP_LEVEL_EMERG && level <= BSP_LEVEL_DEBUG; }

// Whether a module can have left the record so.
bool IsSound(const ModSta& mod) {
  for (const LogModSta& slot : mod.logs) {
    if (!IsLevel(LoadWord(slot.log_level)) || NameOf(slot.log_name).size() > kMostNameChars) {
      return false;
    }
  }
  return NameOf(mod.mod_name).size() <= kMostNameChars && IsLevel(LoadWord(mod.log_level)) &&
         LoadWord(mod.timeout) > 0;
}

bool IsTaken(uint64_t first) { return *reinterpret_cast<const char*>(&first) != '\0'; }

// True while the process that set this mark lives. Any other bytes behind a 0 are garbage.
bool IsClaimed(uint64_t first) {
  if (memcmp(&first, kClaimMark, sizeof kClaimMark) != 0) return false;
  int32_t pid;
  memcpy(&pid, reinterpret_cast<const char*>(&first) + sizeof kClaimMark, sizeof pid);
  return pid > 0 && (kill(pid, 0) == 0 || errno != ESRCH);
}

// First swap: free to claimed. Its acquire half keeps the stores to the fields behind it.
bool Reserve(ModSta* mod, uint64_t mark) {
  uint64_t first = LoadWord(NameWords(mod)[0]);
  if (IsTaken(first) || IsClaimed(first)) return false;
  return __atomic_compare_exchange_n(NameWords(mod), &first, mark, false, __ATOMIC_ACQUIRE,
                                     __ATOMIC_RELAXED);
}

// Second swap: claimed to taken. False when the log server has cleared the block meanwhile. The
// release pairs with the acquire in CopyName.
bool Publish(ModSta* mod, uint64_t mark, const std::string& name) {
  uint64_t words[kNameWords] = {};
  memcpy(words, name.c_str(), StoredLength(name));
  for (size_t i = 1; i < kNameWords; ++i) StoreWord(NameWords(mod)[i], words[i]);
  return __atomic_compare_exchange_n(NameWords(mod), &mark, words[0], false, __ATOMIC_RELEASE,
                                     __ATOMIC_RELAXED);
}

void FillIn(ModSta* mod, const ModuleStart& start) {
  if (start.sets_running) StoreWord(mod->running, 1);
  StoreWord(mod->feed_cnt, 0);
  StoreWord(mod->timeout, start.timeout);
  StoreWord(mod->feed_time, TimeUtil::ClockSecond());
  ResetTagSlots(mod);
}

// The index; -1 for an empty name or when all are taken.
int Claim(SystemStatus* sta, const std::string& name, const ModuleStart& start) {
  if (*name.c_str() == '\0') return -1;  // would leave the record free, for the next to take
  const uint64_t mark = OwnMark();
  // 4: the block is cleared only at the log server's start, which cannot overtake us time and again
  for (int attempt = 0; attempt < 4; ++attempt) {
    int i = 0;
    while (i < kMaxModules && !Reserve(&sta->mods[i], mark)) ++i;
    if (i == kMaxModules) return -1;
    FillIn(&sta->mods[i], start);
    if (Publish(&sta->mods[i], mark, name)) return i;
  }
  return -1;
}

// Zeroes records so that no claim of theirs goes through meanwhile: see the top.
void ZeroRecords(SystemStatus* sta, int begin, int end) {
  const size_t first_name_word = offsetof(ModSta, mod_name) / sizeof(NameWord);
  for (int i = begin; i < end; ++i) {
    // The acquire half keeps the zeroing behind it; pairs with the release in Publish.
    __atomic_exchange_n(&NameWords(&sta->mods[i])[0], OwnMark(), __ATOMIC_ACQ_REL);
  }
  for (int i = begin; i < end; ++i) {
    NameWord* words = reinterpret_cast<NameWord*>(&sta->mods[i]);
    for (size_t word = 0; word < sizeof(ModSta) / sizeof(NameWord); ++word) {
      if (word != first_name_word) StoreWord(words[word], uint64_t{0});
    }
  }
  for (int i = begin; i < end; ++i) {
    __atomic_store_n(&NameWords(&sta->mods[i])[0], 0, __ATOMIC_RELEASE);
  }
}

}  // namespace

size_t CopyName(const char (&field)[32], char (&name)[33]) {
  // Acquire on the first byte: pairs with the release in Publish, whose word begins with it.
  name[0] = __atomic_load_n(&field[0], __ATOMIC_ACQUIRE);
  size_t length = 0;
  while (length < kNameSize && name[length] != '\0') {
    ++length;
    name[length] = length < kNameSize ? LoadWord(field[length]) : '\0';
  }
  return length;
}

std::string NameOf(const char (&field)[32]) {
  char name[33];
  const size_t length = CopyName(field, name);
  return std::string(name, length);
}

int FindModule(const SystemStatus& sta, const std::string& name) {
  char found[33];
  for (int i = 0; i < kMaxModules; ++i) {
    const size_t length = CopyName(sta.mods[i].mod_name, found);
    if (length != 0 && name.compare(0, std::string::npos, found, length) == 0) return i;
  }
  return -1;
}

Registration RegisterModule(SystemStatus* sta, const std::string& name, const ModuleStart& start) {
  const RegistrationLock lock;
  const int known = FindModule(*sta, name);
  return known != -1 ? Registration{known, true} : Registration{Claim(sta, name, start), false};
}

bool IsStoredName(const char (&stored)[33], size_t length, const std::string& name) {
  return length == StoredLength(name) && memcmp(stored, name.c_str(), length) == 0;
}

bool IsRecordOf(const ModSta& mod, const std::string& name) { return Holds(mod.mod_name, name); }

void RenewModule(ModSta* mod) {
  StoreWord(mod->feed_cnt, 1);
  StoreWord(mod->feed_time, TimeUtil::ClockSecond());
}

void ResetTagSlots(ModSta* mod) {
  for (LogModSta& slot : mod->logs) {
    for (char& byte : slot.log_name) StoreWord(byte, '\0');
    StoreWord(slot.reserved, 0);
    StoreWord(slot.log_level, static_cast<int32_t>(BSP_LEVEL_INFO));
  }
}

bool IsSlotOf(const LogModSta& slot, const std::string& tag) { return Holds(slot.log_name, tag); }

LogModSta* FindSlot(ModSta* mod, const std::string& tag) {
  if (tag.empty()) return nullptr;
  for (LogModSta& slot : mod->logs) {
    if (IsSlotOf(slot, tag)) return &slot;
  }
  return FindFreeSlot(mod);
}

LogModSta* FindFreeSlot(ModSta* mod) {
  for (LogModSta& slot : mod->logs) {
    if (LoadWord(slot.log_name[0]) == '\0') return &slot;
  }
  return nullptr;
}

void SetTagName(LogModSta* slot, const std::string& tag) {
  char name[kNameSize] = {};
  memcpy(name, tag.c_str(), StoredLength(tag));
  for (size_t i = kNameSize; --i > 0;) StoreWord(slot->log_name[i], name[i]);
  // Last, pairs with the acquire in CopyName: who sees the slot taken sees its whole name.
  __atomic_store_n(&slot->log_name[0], name[0], __ATOMIC_RELEASE);
}

void SetModuleLevel(ModSta* mod, int32_t level) {
  StoreWord(mod->log_level, level);
  for (LogModSta& slot : mod->logs) StoreWord(slot.log_level, level);
}

void FreeModule(SystemStatus* sta, int index, const std::string& name) {
  const RegistrationLock lock;
  if (!IsRecordOf(sta->mods[index], name)) return;
  if (CountHolders(index) <= 0) ZeroRecords(sta, index, index + 1);
}

Adoption AdoptBlock(SystemStatus* sta) {
  const RegistrationLock lock;
  const uint32_t magic = LoadWord(sta->magic);
  if (magic != kLogMagic && magic != 0) return {false, 0, 0};
  Adoption found = {true, 0, 0};
  for (int i = 0; i < kMaxModules; ++i) {
    ModSta& mod = sta->mods[i];
    if (!IsTaken(LoadWord(NameWords(&mod)[0]))) continue;
    if (!IsSound(mod)) {
      ZeroRecords(sta, i, i + 1);
      ForgetHolders(i);
      ++found.damaged;
      continue;
    }
    StoreWord(mod.feed_cnt, 0);
    StoreWord(mod.feed_time, TimeUtil::ClockSecond());
    ++found.modules;
  }
  // What somebody has switched off stays off.
  if (magic == 0) StoreWord(sta->wdg_enable, 1);
  StoreWord(sta->magic, kLogMagic);
  return found;
}

void ClearBlock(SystemStatus* sta) {
  const RegistrationLock lock;
  StoreWord(sta->magic, 0u);
  StoreWord(sta->wdg_enable, 0);
  ZeroRecords(sta, 0, kMaxModules);
  for (int i = 0; i < kMaxModules; ++i) ForgetHolders(i);
}

}  // namespace bsp
