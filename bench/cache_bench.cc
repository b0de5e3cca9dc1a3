// The stores behind the flat C functions: system property store and event cache.
#include <sched.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/support/pair.h"
#include "bsp/bsp.h"
#include "bsp/cache/system_property.h"

namespace {

// The stores lie under fixed keys: the bench must not work on those of the machine.
bool EnterOwnIpc() {
  const int user = geteuid() == 0 ? 0 : CLONE_NEWUSER;
  if (unshare(CLONE_NEWIPC | user) == 0) return true;
  perror("cache_bench needs an IPC namespace of its own");
  return false;
}

void Require(bool holds, const char* what) {
  if (holds) return;
  fprintf(stderr, "cache_bench: %s failed\n", what);
  exit(1);
}

std::string KeyOfSlot(int slot) { return "property." + std::to_string(1000 + slot); }

// All slots but the last: a look-up of the last key reads the whole table, and the journal is in
// use, so that this is the dearest state there is.
constexpr int kTaken = SystemProperty::kSlots - 1;

void FillProperties() {
  const std::string value(SystemProperty::kMaxValue, 'v');
  for (int slot = 0; slot < kTaken; ++slot) {
    Require(system_property_set(KeyOfSlot(slot).c_str(), value.data(),
                                static_cast<int>(value.size())) == 0,
            "system_property_set");
  }
}

bench::Function GetProperty(int slot, int size) {
  return [slot, size](benchmark::State& state) {
    const std::string key = KeyOfSlot(slot);
    char value[SystemProperty::kMaxValue];
    for (auto _ : state) {
      Require(system_property_get(key.c_str(), value, size) == 0, "system_property_get");
      benchmark::DoNotOptimize(value);
    }
  };
}

bench::Function SetProperty(int slot, int size) {
  return [slot, size](benchmark::State& state) {
    const std::string key = KeyOfSlot(slot);
    char value[SystemProperty::kMaxValue] = {};
    for (auto _ : state) {
      ++value[0];
      Require(system_property_set(key.c_str(), value, size) == 0, "system_property_set");
    }
  };
}

// The least that a lock between processes with these guarantees costs, and the copy under it.
bench::Function TwoSemops(int size) {
  return [size](benchmark::State& state) {
    static const int set = semget(IPC_PRIVATE, 2, 0600);
    struct sembuf lock[] = {{0, 0, SEM_UNDO}, {1, 0, SEM_UNDO}, {0, 1, SEM_UNDO}};
    struct sembuf unlock[] = {{0, -1, SEM_UNDO}};
    static char shared[SystemProperty::kMaxValue];
    char value[SystemProperty::kMaxValue] = {};
    for (auto _ : state) {
      Require(semop(set, lock, 3) == 0, "semop");
      memcpy(shared, value, static_cast<size_t>(size));
      benchmark::DoNotOptimize(shared);
      Require(semop(set, unlock, 1) == 0, "semop");
    }
  };
}

void RegisterProperties() {
  FillProperties();
  const bench::Target target = bench::Target::RatioAtMost(1.5);
  for (const int size : {8, 223}) {
    for (const int slot : {0, kTaken - 1}) {
      const std::string what =
          std::to_string(size) + " B, slot " + std::to_string(slot) + " / 2 semops and memcpy";
      bench::Pair("property: get " + what, GetProperty(slot, size), TwoSemops(size), target);
      bench::Pair("property: set " + what, SetProperty(slot, size), TwoSemops(size), target);
    }
  }
}

// ---- Event cache

constexpr int kEvents = 1000;
constexpr int kInfo = 64;    // bytes
constexpr int kData = 1024;  // bytes
constexpr int kHeld = 500;   // events that stand in the cache while it is measured

void WriteEvent(unsigned long key) {
  static char info[kInfo];
  static char data[kData];
  memcpy(info, &key, sizeof key);
  memcpy(data, &key, sizeof key);
  Require(event_cache_write(key, info, kInfo, data, kData) == 0, "event_cache_write");
}

// A steady state: each event that comes makes the oldest go.
void WriteAndRemove(benchmark::State& state) {
  static unsigned long key = kHeld;
  for (auto _ : state) {
    WriteEvent(key++);
    event_cache_remove_oldest();
  }
}

// The records of the same events without any order, protection or look-up.
struct PrivateEvent {
  char info[kInfo];
  char data[kData];
};
std::vector<PrivateEvent> g_events(kHeld);

void CopyIntoRing(benchmark::State& state) {
  const PrivateEvent event = {};
  size_t turn = 0;
  for (auto _ : state) {
    PrivateEvent* to = &g_events[turn++ % kHeld];
    memcpy(to->info, event.info, kInfo);
    memcpy(to->data, event.data, kData);
    benchmark::DoNotOptimize(*to);
  }
}

void ReadRecord(benchmark::State& state, int (*read)(unsigned long, char*, int*), int size) {
  char buffer[kData];
  // Not the keys that WriteAndRemove moves on.
  constexpr unsigned long kFirst = kEvents * 1000000UL;
  for (int i = 0; i < kHeld; ++i) {
    event_cache_remove_oldest();
    WriteEvent(kFirst + static_cast<unsigned long>(i));
  }
  unsigned long turn = 0;
  for (auto _ : state) {
    int length = size;
    Require(read(kFirst + turn++ * 7 % kHeld, buffer, &length) == size, "read");
    benchmark::DoNotOptimize(buffer);
  }
}

void CopyOut(benchmark::State& state, int size) {
  char buffer[kData];
  size_t turn = 0;
  for (auto _ : state) {
    const PrivateEvent& event = g_events[turn++ * 7 % kHeld];
    memcpy(buffer, size == kInfo ? event.info : event.data, static_cast<size_t>(size));
    benchmark::DoNotOptimize(buffer);
  }
}

void RegisterEvents() {
  Require(event_cache_init_write(kEvents, kInfo + 4, kData + 80) == 0, "event_cache_init_write");
  for (unsigned long key = 0; key < kHeld; ++key) WriteEvent(key);
  bench::Pair("event: write 64 B + 1 KiB, remove oldest / memcpy", WriteAndRemove, CopyIntoRing);
  bench::Pair(
      "event: read info 64 B / memcpy",
      [](benchmark::State& state) { ReadRecord(state, event_cache_read_info, kInfo); },
      [](benchmark::State& state) { CopyOut(state, kInfo); });
  bench::Pair(
      "event: read data 1 KiB / memcpy",
      [](benchmark::State& state) { ReadRecord(state, event_cache_read_data, kData); },
      [](benchmark::State& state) { CopyOut(state, kData); });
}

}  // namespace

void RegisterBenchmarks() {
  if (!EnterOwnIpc()) return;
  RegisterProperties();
  RegisterEvents();
}
