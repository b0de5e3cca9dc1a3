// What the tests of the shared containers share: names, captured reports, raw bytes of a segment,
// and values that tell whether they are whole.
#ifndef BSP_TESTS_SUPPORT_SHMC_SUPPORT_H_
#define BSP_TESTS_SUPPORT_SHMC_SUPPORT_H_

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "bsp/shmc/shm_hash_map.h"
#include "tests/support/test_env.h"

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

// Each test begins without these segments.
class SegmentTest : public testing::Test {
 protected:
  void SetUp() override {
    NEED_PRIVATE_WORLD();
    RemoveSegments();
  }
};

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

// An object that forked processes share, never given back.
template <typename T>
T* NewShared() {
  return new (mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
      T();
}

// `size` bytes, 8 at least, that begin with the seed and all follow from it, so that a mixture of
// two shows.
inline std::string Pattern(uint64_t seed, size_t size) {
  std::string value(size, '\0');
  memcpy(&value[0], &seed, sizeof seed);
  for (size_t i = sizeof seed; i < size; ++i) {
    value[i] = static_cast<char>((seed * 0x9e3779b97f4a7c15u >> (i % 8 * 8)) + i);
  }
  return value;
}

inline uint64_t SeedOf(const std::string& value) {
  uint64_t seed = 0;
  memcpy(&seed, value.data(), value.size() < 8 ? 0 : 8);
  return seed;
}

inline bool IsWhole(const std::string& value) {
  return value.size() >= 8 && value == Pattern(SeedOf(value), value.size());
}

// The value of `key` (below 256) made by store number `store`; the length follows from both.
inline std::string ValueOf(unsigned long key, uint64_t store) {
  return Pattern(store << 8 | key, 8 + (store * 37 + key) % 250);
}

inline bool IsValueOf(unsigned long key, const std::string& value) {
  return SeedOf(value) % 256 == key && value == ValueOf(key, SeedOf(value) >> 8);
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
