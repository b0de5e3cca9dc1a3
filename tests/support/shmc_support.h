// What the tests of the shared containers share: names, captured reports, raw bytes of a segment,
// and values that tell whether they are whole.
#ifndef BSP_TESTS_SUPPORT_SHMC_SUPPORT_H_
#define BSP_TESTS_SUPPORT_SHMC_SUPPORT_H_

#include <cstdint>
#include <cstring>
#include <string>

#include "bsp/shmc/shm_hash_map.h"

namespace test {

using ShmAlloc = shmc::impl::SVIPCShmAlloc<false>;
using Map = shmc::UlongShmHashMap;
using LinkTable = shmc::ShmLinkTable<ShmAlloc>;
using HashTable = Map::HashTable;

// A map of this name has these two segments; a table alone uses one of them.
constexpr const char* kMapName = "0x6a00000";
constexpr const char* kHashName = "0x6a000000";
constexpr const char* kLinkName = "0x6a000001";

inline void RemoveSegments() {
  ShmAlloc().Unlink(kHashName);
  ShmAlloc().Unlink(kLinkName);
}

// Collects what the containers report, as "level text".
class Reports {
 public:
  Reports() {
    Utils::log_level = shmc::kLogDebug;
    Utils::log_func = [this](shmc::LogLevel level, const char* text) {
      text_ += std::to_string(level) + " " + text;
    };
  }
  ~Reports() {
    Utils::log_level = 0;
    Utils::log_func = nullptr;
  }
  Reports(const Reports&) = delete;
  Reports& operator=(const Reports&) = delete;

  // All since the last call.
  std::string Take() {
    std::string taken;
    taken.swap(text_);
    return taken;
  }

 private:
  using Utils = shmc::impl::Utils<void>;
  std::string text_;
};

// The bytes of a segment that exists.
class RawSegment {
 public:
  explicit RawSegment(const char* name) { shm_.InitForWrite(name, 1, 0); }
  size_t size() const { return shm_.size(); }
  char* bytes() { return shm_.ptr(); }

  template <typename T>
  T Get(size_t offset) const {
    T value;
    memcpy(&value, shm_.ptr() + offset, sizeof value);
    return value;
  }
  template <typename T>
  void Set(size_t offset, T value) {
    memcpy(shm_.ptr() + offset, &value, sizeof value);
  }

 private:
  shmc::ShmHandle<char, ShmAlloc> shm_;
};

// The value of `key` made by store number `store`: its length and all its bytes follow from both,
// so that a mixture of two shows.
inline std::string Pattern(unsigned long key, uint64_t store) {
  std::string value(8 + (store * 37 + key) % 250, '\0');
  memcpy(&value[0], &store, sizeof store);
  for (size_t i = 8; i < value.size(); ++i) {
    value[i] = static_cast<char>((store * 0x9e3779b97f4a7c15u + key * 31) >> (i % 8 * 8)) +
               static_cast<char>(i);
  }
  return value;
}

inline bool IsPattern(unsigned long key, const std::string& value) {
  uint64_t store = 0;
  if (value.size() < sizeof store) return false;
  memcpy(&store, value.data(), sizeof store);
  return value == Pattern(key, store);
}

// The whole value, read with room to spare; empty when the key is not there.
template <typename AnyMap>
std::string ReadValue(const AnyMap& map, unsigned long key) {
  char room[512];
  size_t length = sizeof room;
  return map.FindC(key, room, &length) ? std::string(room, length < 512 ? length : 512) : "";
}

}  // namespace test

#endif  // BSP_TESTS_SUPPORT_SHMC_SUPPORT_H_
