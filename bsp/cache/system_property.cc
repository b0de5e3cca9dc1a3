// One table of 128 slots, one lock, no head: whoever attaches the segment can work at once.
//
// All work on the table stands inside one Section, which holds the lock between processes. The
// accesses are relaxed atomic words: the lock gives the order, the words keep a process that could
// not get the lock from undefined behaviour.
//
// The lock alone leaves one hole: the kernel frees it when its holder dies, also in the midst of
// copying a value, and the next reader would get half a value. So each step is laid out such that a
// death leaves the old state or one that the next Section completes:
//
//   a new key     The value goes in first, then the key from its last word to its first: until the
//                 first byte stands the slot counts as free.
//   a new value   With set_journal, the last slot is a journal for as long as it is free. The value
//                 goes there, then a mark that names the slot to write, then to its own place; the
//                 mark is cleared. A Section that finds a mark does the copy again, whether its own
//                 process keeps a journal or not: else an old value could come back over a new one.
//
// A mark stands in bytes 8 to 15 of a key field whose first byte is 0, where no process looks. It
// begins with a zero and goes on with other bytes, which the rest of a zero-padded key never does.
// Without a journal, and when the last slot is taken, a value whose setter was killed in these few
// nanoseconds stays half new until the next Set. It is an option because the bytes of a free slot
// are nobody's to change by default.
//
// And one wait: a process that calls exec while one of its threads is inside holds the lock for all
// the life of the new program (svipc_mutex.cc). A call that has waited for it long enough fails and
// names the process; going on unlocked would risk the table, should the holder be merely stopped.
// The next calls wait for the same holder only as long as a sound one ever takes.
//
// Reading 128 keys costs as much as the lock, so a process remembers where it found a key. Slots
// are taken in order and never given up, so the first slot that a key fits stays the first for
// ever.
//
// Only the compiler's order matters to a death: what a process has executed reaches the next holder
// of the lock by way of the kernel. Hence signal fences.
#include "bsp/cache/system_property.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>

#include "bsp/base/c_boundary.h"
#include "bsp/log/log.h"
#include "bsp/shmc/shm_access.h"
#include "bsp/util/string_helper.h"

namespace {

using KeyV = SystemProperty::KeyV;
using shmc::impl::CopyIn;
using shmc::impl::CopyOut;
using shmc::impl::Load;
using shmc::impl::Store;
using Allocator = shmc::impl::SVIPCShmAlloc<false>;

const std::shared_ptr<MSError> kOk;

// The fields are characters, the accesses words.
using Word = uint64_t;

constexpr size_t kKeyWords = sizeof(KeyV::key) / sizeof(Word);
static_assert(sizeof(KeyV) % sizeof(Word) == 0, "keys are read by words");

Word LoadWord(const char* shared) { return Load(reinterpret_cast<const Word*>(shared)); }

// What stands above must be executed before what stands below, should we die between the two.
void KeepOrder() { std::atomic_signal_fence(std::memory_order_seq_cst); }

bool IsFree(const KeyV& slot) { return Load(slot.key) == 0; }

// What a stored key must begin with to be the one sought: a compare of both over the length of the
// shorter, done by words. Nothing begins with an empty key.
class KeyPrefix {
 public:
  explicit KeyPrefix(const char* key) {
    const size_t length = strnlen(key, sizeof(KeyV::key));
    memcpy(want_, key, length);
    memset(mask_, 0xff, length);
    words_ = (length + sizeof(Word) - 1) / sizeof(Word);
  }

  // From the last word on, as keys differ at their ends more often than at their beginnings.
  bool IsAtStartOf(const KeyV& slot) const {
    for (size_t i = words_; i-- > 0;) {
      if (((LoadWord(slot.key + i * sizeof(Word)) ^ want_[i]) & mask_[i]) != 0) return false;
    }
    return words_ > 0;
  }

  // `key`: a whole key, zero-padded.
  bool IsSame(const Word (&key)[kKeyWords]) const {
    for (size_t i = 0; i < kKeyWords; ++i) {
      if (Load(&key[i]) != want_[i]) return false;
    }
    return true;
  }

  // The whole key, zero-padded.
  const Word* words() const { return want_; }

  uint64_t Hash() const {
    uint64_t hash = 0;
    for (const Word word : want_) hash = (hash ^ word) * 0x9e3779b97f4a7c15;  // 2^64 / golden ratio
    return hash;
  }

 private:
  Word want_[kKeyWords] = {};
  Word mask_[kKeyWords] = {};
  size_t words_;
};

// Bytes 8 to 15 of the journal's key field.
struct Mark {
  char zero;
  char tag[5];
  uint8_t slot;
  uint8_t size;  // bytes of the value
};
static_assert(sizeof(Mark) == sizeof(Word), "a mark is stored at once");
static_assert(SystemProperty::kMaxValue <= UINT8_MAX, "a mark carries the size");

constexpr int kShortPatienceMs = 10;  // a thousand times what a sound holder takes

constexpr size_t kMarkOffset = 8;
constexpr char kMarkTag[] = {'\1', 'J', 'R', 'N', 'L'};
constexpr int kJournal = SystemProperty::kSlots - 1;

}  // namespace

// Exclusive use of the attached table, for the scope of the object.
class SystemProperty::Section {
 public:
  explicit Section(SystemProperty* owner)
      : guard_(&owner->mutex_, PatienceMs(*owner)),
        slots_(owner->slots_.load(std::memory_order_acquire)),
        hints_(owner->hints_),
        has_journal_(owner->has_journal_.load(std::memory_order_relaxed)) {
    if (guard_.is_locked()) {
      if (owner->stuck_holder_.load(std::memory_order_relaxed) != 0) owner->stuck_holder_ = 0;
      FinishDeadSet();
    } else if (errno == EAGAIN) {
      is_refused_ = true;
      owner->stuck_holder_ = owner->mutex_.Holder();
    } else {
      owner->TellUnlocked(errno);
    }
  }

  // The lock was not to be had in time: nothing may be done.
  bool is_refused() const { return is_refused_; }

  const KeyV& slot(int index) const { return slots_[index]; }

  // The first slot whose key begins with `key`, or null.
  KeyV* Find(const char* key) const {
    const KeyPrefix prefix(key);
    if (!guard_.is_locked()) return Search(prefix);
    Hint& hint = hints_[prefix.Hash() >> (64 - kHintBits)];
    KeyV* const known = &slots_[Load(&hint.slot)];
    if (prefix.IsSame(hint.key) && prefix.IsAtStartOf(*known)) return known;
    KeyV* const found = Search(prefix);
    if (found == nullptr) return nullptr;
    CopyIn(hint.key, prefix.words(), sizeof hint.key);
    Store(&hint.slot, found - slots_);
    return found;
  }

  KeyV* FindFree() const {
    for (int i = 0; i < kSlots; ++i) {
      if (IsFree(slots_[i])) return &slots_[i];
    }
    return nullptr;
  }

  void Replace(KeyV* slot, const char* value, size_t size) {
    // Processes that could not get the lock must not share the journal.
    const bool is_journalled = has_journal_ && guard_.is_locked() && IsFree(slots_[kJournal]);
    if (is_journalled) {
      CopyIn(slots_[kJournal].value, value, size);
      KeepOrder();
      SetMark(static_cast<uint8_t>(slot - slots_), static_cast<uint8_t>(size));
      KeepOrder();
    }
    CopyIn(slot->value, value, size);
    KeepOrder();
    if (is_journalled) ClearMark();
  }

  // The key is cut at 31 bytes. An empty one leaves the slot free.
  void Take(KeyV* slot, const char* key, const char* value, size_t size) {
    if (slot == &slots_[kJournal]) {  // what lies there are values of other keys
      const char zeros[kMaxValue] = {};
      CopyIn(slot->value, zeros, sizeof zeros);
    }
    CopyIn(slot->value, value, size);
    char text[sizeof(KeyV::key)] = {};
    memcpy(text, key, strnlen(key, sizeof text - 1));
    for (size_t i = kKeyWords; i-- > 0;) {
      KeepOrder();
      CopyIn(slot->key + i * sizeof(Word), text + i * sizeof(Word), sizeof(Word));
    }
  }

 private:
  static int PatienceMs(const SystemProperty& owner) {
    const pid_t stuck = owner.stuck_holder_.load(std::memory_order_relaxed);
    return stuck != 0 && stuck == owner.mutex_.Holder() ? kShortPatienceMs : kLockPatienceMs;
  }

  KeyV* Search(const KeyPrefix& prefix) const {
    for (int i = 0; i < kSlots; ++i) {
      if (prefix.IsAtStartOf(slots_[i])) return &slots_[i];
    }
    return nullptr;
  }

  char* mark_place() { return slots_[kJournal].key + kMarkOffset; }

  void SetMark(uint8_t slot, uint8_t size) {
    Mark mark = {0, {}, slot, size};
    memcpy(mark.tag, kMarkTag, sizeof mark.tag);
    CopyIn(mark_place(), &mark, sizeof mark);
  }

  void ClearMark() { Store(reinterpret_cast<Word*>(mark_place()), 0); }

  void FinishDeadSet() {
    if (LoadWord(mark_place()) == 0 || !IsFree(slots_[kJournal])) return;
    Mark mark;
    CopyOut(&mark, mark_place(), sizeof mark);
    if (mark.zero != 0 || memcmp(mark.tag, kMarkTag, sizeof mark.tag) != 0) return;
    if (mark.slot < kJournal && mark.size <= kMaxValue) {
      char value[kMaxValue];
      CopyOut(value, slots_[kJournal].value, mark.size);
      CopyIn(slots_[mark.slot].value, value, mark.size);
      KeepOrder();
    }
    ClearMark();
  }

  shmc::impl::SVIPCGuard guard_;
  KeyV* const slots_;
  Hint* const hints_;
  const bool has_journal_;
  bool is_refused_ = false;
};

namespace {

bool IsBadCall(const char* key, const char* value, int value_size) {
  return key == nullptr || value == nullptr || value_size <= 0;
}

// A value as text for an error. It is raw bytes without a terminator, so nothing behind its size
// may be read.
std::string TextOf(const char* value, int value_size) {
  if (value == nullptr) return "(null)";
  return std::string(value, value_size > 0 ? strnlen(value, static_cast<size_t>(value_size)) : 0);
}

}  // namespace

std::shared_ptr<SystemProperty> SystemProperty::Instance() {
  // Held by a plain pointer that nobody deletes: it outlives every static, and threads at exit.
  static const auto* const instance = [] {
    const auto* const made = new std::shared_ptr<SystemProperty>(new SystemProperty);
    (*made)->Init();  // has logged a failure; every operation tries again
    return made;
  }();
  return *instance;
}

std::shared_ptr<MSError> SystemProperty::Init() {
  const std::lock_guard<std::mutex> lock(init_mutex_);
  return Attach();
}

std::shared_ptr<MSError> SystemProperty::EnsureAttached() {
  // Pairs with the release in Attach: the lock was opened before.
  if (slots_.load(std::memory_order_acquire) != nullptr) return kOk;
  const std::lock_guard<std::mutex> lock(init_mutex_);
  if (slots_.load(std::memory_order_relaxed) != nullptr) return kOk;
  return Attach();
}

std::shared_ptr<MSError> SystemProperty::Attach() {
  if (!shm_.InitForWrite(kSegment, kSegmentSize, shmc::kCreateIfMissing)) {
    const std::string reason = shm_.is_initialized() ? "attached already" : strerror(errno);
    BSP_LOG_ERROR(MOD_BSP, "Init failed, shm_name: %s, need %zu bytes, found %s: %s", kSegment,
                  kSegmentSize, Allocator::DescribeOwner(kSegment).c_str(), reason.c_str());
    return BSP_NEW_ERROR(-1, "Init failed, shm_name: %s", kSegment);
  }
  if (!mutex_.Open(kSegment)) TellUnlocked(errno);
  slots_.store(shm_.ptr(), std::memory_order_release);
  return kOk;
}

void SystemProperty::TellUnlocked(int error) {
  if (unlocked_told_.exchange(true)) return;
  BSP_LOG_ERROR(MOD_BSP, "no lock for shm_name: %s, errno %d: %s, the store works unlocked",
                kSegment, error, strerror(error));
}

std::string SystemProperty::DescribeHolder() const {
  const pid_t pid = stuck_holder_;
  std::string name;
  std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/comm"), name);  // empty: it is gone
  return bsp::StringHelper::Format(
      "the lock of shm_name: %s is held by pid %d (%s), for %d ms at least: end that process",
      kSegment, pid, name.c_str(), kLockPatienceMs);
}

std::shared_ptr<MSError> SystemProperty::Set(const char* key, const char* value, int value_size) {
  std::shared_ptr<MSError> attached = EnsureAttached();
  if (attached != kOk) return attached;

  Section section(this);
  if (section.is_refused()) {
    return BSP_NEW_ERROR(-1, "Set failed, key: %s, %s", key, DescribeHolder().c_str());
  }
  if (IsBadCall(key, value, value_size)) {
    return BSP_NEW_ERROR(-1, "Set failed, key: %s, value: %s, value_size: %d", key,
                         TextOf(value, value_size).c_str(), value_size);
  }
  if (value_size > kMaxValue) {
    return BSP_NEW_ERROR(-1, "Set failed, key: %s, value_size: %d, max_size: %d", key, value_size,
                         kMaxValue + 1);
  }
  const auto size = static_cast<size_t>(value_size);
  KeyV* const slot = section.Find(key);
  if (slot != nullptr) {
    section.Replace(slot, value, size);
    return kOk;
  }
  KeyV* const free_slot = section.FindFree();
  if (free_slot == nullptr) {
    return BSP_NEW_ERROR(-1, "Set failed, key: %s, no empty slot", key);
  }
  section.Take(free_slot, key, value, size);
  return kOk;
}

std::shared_ptr<MSError> SystemProperty::Get(const char* key, char* value, int value_size) {
  std::shared_ptr<MSError> attached = EnsureAttached();
  if (attached != kOk) return attached;

  const Section section(this);
  if (section.is_refused()) {
    return BSP_NEW_ERROR(-1, "Get failed, key: %s, %s", key, DescribeHolder().c_str());
  }
  if (IsBadCall(key, value, value_size)) {
    return BSP_NEW_ERROR(-1, "Get failed, key: %s, value: %s, value_size: %d", key,
                         TextOf(value, value_size).c_str(), value_size);
  }
  if (value_size > kMaxValue) {
    return BSP_NEW_ERROR(-1, "Get failed, key: %s, value_size: %d, max_size: %d", key, value_size,
                         kMaxValue + 1);
  }
  const KeyV* const slot = section.Find(key);
  if (slot == nullptr) return BSP_NEW_ERROR(-1, "Get failed, key: %s, no such key", key);
  CopyOut(value, slot->value, static_cast<size_t>(value_size));
  return kOk;
}

// The keys are copied first: a console that takes no output must not hold all processes off.
void SystemProperty::Dump() {
  if (EnsureAttached() != kOk) return;
  char keys[kSlots][sizeof(KeyV::key) + 1] = {};
  {
    const Section section(this);
    if (section.is_refused()) {
      BSP_LOG_ERROR(MOD_BSP, "Dump failed, %s", DescribeHolder().c_str());
      return;
    }
    for (int i = 0; i < kSlots; ++i) CopyOut(keys[i], section.slot(i).key, sizeof(KeyV::key));
  }
  for (const char* key : keys) {
    if (key[0] != '\0') BSP_LOG_INFO(MOD_BSP, "SystemProperty Dump, key: %s", key);
  }
}

int system_property_get(const char* key, char* value, int value_size) try {
  if (SystemProperty::Instance() == nullptr) {
    BSP_LOG_ERROR(MOD_BSP, "param is null.");
    return -1;
  }
  const std::shared_ptr<MSError> error = SystemProperty::Instance()->Get(key, value, value_size);
  if (error != kOk) {
    BSP_LOG_ERROR(MOD_BSP, "Get failed, key: %s, value_size: %d, err: %s", key, value_size,
                  error->Message().c_str());
    return -2;
  }
  return 0;
} catch (...) {
  return bsp::FailForC(__func__, -2);
}

int system_property_set(const char* key, const char* value, int value_size) try {
  if (SystemProperty::Instance() == nullptr) {
    BSP_LOG_ERROR(MOD_BSP, "param is null.");
    return -1;
  }
  const std::shared_ptr<MSError> error = SystemProperty::Instance()->Set(key, value, value_size);
  if (error != kOk) {
    BSP_LOG_ERROR(MOD_BSP, "Set failed, key: %s, value_size: %d, err: %s", key, value_size,
                  error->Message().c_str());
    return -2;
  }
  return 0;
} catch (...) {
  return bsp::FailForC(__func__, -2);
}

void system_property_set_journal(int on) try {
  const auto store = SystemProperty::Instance();
  if (store != nullptr) store->set_journal(on != 0);
} catch (...) {
  bsp::FailForC(__func__, 0);
}

void system_property_dump(void) try {
  if (SystemProperty::Instance() == nullptr) {
    BSP_LOG_ERROR(MOD_BSP, "param is null.");
    return;
  }
  SystemProperty::Instance()->Dump();
} catch (...) {
  bsp::FailForC(__func__, 0);
}
