// System property store and event cache, over real processes. Each test runs in a process and an
// IPC namespace of its own, as the stores are singletons on fixed keys.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bsp/bsp.h"
#include "bsp/cache/event_cache.h"
#include "bsp/cache/system_property.h"
#include "bsp/shmc/svipc_mutex.h"
#include "tests/support/child.h"
#include "tests/support/test_env.h"

namespace {

using shmc::impl::SVIPCGuard;
using shmc::impl::SVIPCMutex;
using test::Child;

constexpr key_t kPropertyKey = 0x66000000;

// Runs the body in a fresh process and IPC namespace; gives all that it printed.
std::string InOwnWorld(const std::function<void()>& body) {
  Child child = Child::Fork([&] {
    if (unshare(CLONE_NEWIPC) != 0) return 99;
    body();
    return testing::Test::HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(child.Wait(), 0) << child.output();
  return child.output();
}

size_t Count(const std::string& text, const std::string& what) {
  size_t count = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
  return count;
}

// A value that shows in every byte which write it comes from.
std::string Pattern(uint32_t seed, size_t size) {
  std::string value(size, '\0');
  memcpy(&value[0], &seed, sizeof seed);
  for (size_t i = sizeof seed; i < size; ++i) value[i] = static_cast<char>(seed * 31 + i);
  return value;
}

bool IsWhole(const std::string& value) {
  uint32_t seed = 0;
  memcpy(&seed, value.data(), sizeof seed);
  return value == Pattern(seed, value.size());
}

int SetText(const std::string& key, const std::string& value) {
  return system_property_set(key.c_str(), value.data(), static_cast<int>(value.size()));
}

// The first `size` bytes of the property, or the result in brackets.
std::string GetText(const std::string& key, int size) {
  std::string value(static_cast<size_t>(size), '#');
  const int result = system_property_get(key.c_str(), &value[0], size);
  return result == 0 ? value : "[" + std::to_string(result) + "]";
}

// Everybody starts at once: children wait until the parent opens the gate.
class Gate {
 public:
  Gate() { EXPECT_EQ(pipe(ends_), 0); }
  ~Gate() {
    close(ends_[0]);
    Open();
  }
  void Wait() {
    Open();  // our copy of the end that the parent holds
    char byte = 0;
    EXPECT_EQ(read(ends_[0], &byte, 1), 0);
  }
  void Open() {
    if (ends_[1] != -1) close(ends_[1]);
    ends_[1] = -1;
  }

 private:
  int ends_[2];
};

// A counter that parent and children share.
class SharedCounter {
 public:
  explicit SharedCounter(int value)
      : place_(mmap(nullptr, sizeof(Counter), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                    -1, 0)) {
    new (place_) Counter(value);
  }
  ~SharedCounter() { munmap(place_, sizeof(Counter)); }
  std::atomic<int>& operator*() const { return *static_cast<Counter*>(place_); }

 private:
  using Counter = std::atomic<int>;
  void* place_;
};

// A value is found as set, a shorter one leaves the rest of an older one, and a key finds the first
// slot that begins with it.
TEST(SystemProperty, KeepsBytesAsSet) {
  NEED_PRIVATE_WORLD();
  const std::string out = InOwnWorld([] {
    EXPECT_EQ(SetText("bytes", std::string("a\0c", 3)), 0);
    EXPECT_EQ(GetText("bytes", 3), std::string("a\0c", 3));
    EXPECT_EQ(GetText("bytes", 5), std::string("a\0c\0\0", 5));
    EXPECT_EQ(SetText("old", "12345678"), 0);
    EXPECT_EQ(SetText("old", "abcd"), 0);
    EXPECT_EQ(GetText("old", 8), "abcd5678");
    EXPECT_EQ(SetText("abc", "1"), 0);
    EXPECT_EQ(SetText("ab", "2"), 0);
    EXPECT_EQ(GetText("abc", 1), "2");
    EXPECT_EQ(GetText("abcd", 1), "[-2]");
    const std::string longest(31, 'k');
    EXPECT_EQ(SetText(longest, "31"), 0);
    EXPECT_EQ(GetText(longest, 2), "31");
    EXPECT_EQ(SetText(std::string(32, 'l'), "32"), 0);
    EXPECT_EQ(GetText(std::string(32, 'l'), 2), "[-2]");
    EXPECT_EQ(GetText(std::string(31, 'l'), 2), "32");
    // An empty key writes into the first free slot, which stays free; a new property starts clean.
    EXPECT_EQ(SetText("", "remains"), 0);
    EXPECT_EQ(GetText("", 1), "[-2]");
    EXPECT_EQ(SetText("new", "x"), 0);
    EXPECT_EQ(GetText("new", 3), std::string("x\0\0", 3));
    // Another process sees it all.
    Child reader = Child::Fork([] { return GetText("old", 8) == "abcd5678" ? 0 : 1; });
    EXPECT_EQ(reader.Wait(), 0);
    system_property_dump();
  });
  EXPECT_EQ(Count(out, "MOD_BSP <info> system_property.cc:"), 6u) << out;
  EXPECT_NE(out.find(" Dump, SystemProperty Dump, key: bytes\n"), std::string::npos) << out;
}

// Each bad call is refused with its text and code, changes nothing and reads no byte of a value.
TEST(SystemProperty, RefusesInOrder) {
  NEED_PRIVATE_WORLD();
  const std::string out = InOwnWorld([] {
    char value[224] = "old";
    const char no_bytes = 'v';  // whatever is read behind it is read out of bounds
    EXPECT_EQ(SetText("k", std::string(223, 'v')), 0);
    EXPECT_EQ(GetText("k", 223), std::string(223, 'v'));
    EXPECT_EQ(SetText("k", std::string(224, 'w')), -2);
    EXPECT_EQ(system_property_get("k", value, 224), -2);
    for (const int size : {0, -1, INT32_MIN}) {
      EXPECT_EQ(system_property_set("k", &no_bytes, size), -2);
      EXPECT_EQ(system_property_get("k", value, size), -2);
    }
    EXPECT_EQ(system_property_set(nullptr, "val", 3), -2);
    EXPECT_EQ(system_property_set("k", nullptr, 3), -2);
    EXPECT_EQ(system_property_get(nullptr, value, 3), -2);
    EXPECT_EQ(system_property_get("k", nullptr, 3), -2);
    EXPECT_STREQ(value, "old");
    for (int i = 1; i < SystemProperty::kSlots; ++i) {
      EXPECT_EQ(SetText(std::to_string(1000 + i), std::to_string(i)), 0);
    }
    EXPECT_EQ(SetText("one more", "x"), -2);
    EXPECT_EQ(GetText("1127", 3), "127");
    EXPECT_EQ(SetText("1127", "128"), 0);
    EXPECT_EQ(GetText("1127", 3), "128");
    EXPECT_EQ(GetText("k", 223), std::string(223, 'v'));
  });
  EXPECT_NE(out.find("system_property_set, Set failed, key: k, value_size: 224, err: Set failed, "
                     "key: k, value_size: 224, max_size: 224."),
            std::string::npos);
  EXPECT_NE(out.find("Get failed, key: k, value_size: 224, max_size: 224"), std::string::npos);
  EXPECT_NE(out.find("Set failed, key: (null), value: val, value_size: 3"), std::string::npos);
  EXPECT_NE(out.find("Set failed, key: k, value: , value_size: -1"), std::string::npos);
  EXPECT_NE(out.find("Get failed, key: k, value: (null), value_size: 3"), std::string::npos);
  EXPECT_NE(out.find("Set failed, key: one more, no empty slot"), std::string::npos) << out;
}

// Under load from eight processes, one of them with two threads, every value read is one that was
// written whole. All go on until each has met the values of others often enough.
TEST(SystemProperty, EightProcessesNeverSeeATornValue) {
  NEED_PRIVATE_WORLD();
  InOwnWorld([] {
    constexpr uint32_t kWorkers = 9;
    constexpr uint32_t kTurns = 3000;
    constexpr uint32_t kForeign = 1000;
    SharedCounter unsatisfied(kWorkers);
    const auto work = [&unsatisfied](uint32_t id) {
      uint32_t foreign = 0;
      bool is_satisfied = false;
      for (uint32_t i = 0; *unsatisfied > 0; ++i) {
        const std::string key = "key" + std::to_string(i % 3);
        const int result = SetText(key, Pattern(i * 16 + id, 223));
        const std::string found = GetText(key, 223);
        if (result != 0 || !IsWhole(found)) {
          *unsatisfied = 0;  // the others need not go on
          return 1;
        }
        if (static_cast<unsigned char>(found[0]) % 16 != id) ++foreign;
        if (is_satisfied || i < kTurns || foreign < kForeign) continue;
        is_satisfied = true;
        --*unsatisfied;
      }
      return 0;
    };
    std::vector<Child> children;
    for (uint32_t id = 1; id < kWorkers; ++id) {
      children.push_back(Child::Fork([&work, id] {
        int second = 0;
        std::thread thread;
        if (id == 1) thread = std::thread([&] { second = work(0); });
        const int first = work(id);
        if (thread.joinable()) thread.join();
        return first != 0 ? first : second;
      }));
    }
    for (Child& child : children) EXPECT_EQ(child.Wait(), 0) << child.output();
  });
}

// A process that is killed inside the lock keeps the others out until then and not a moment longer.
TEST(SystemProperty, KernelFreesTheLockOfAKilledHolder) {
  NEED_PRIVATE_WORLD();
  InOwnWorld([] {
    ASSERT_EQ(SetText("k", "before"), 0);
    Child holder = Child::Fork([] {
      SVIPCMutex mutex;
      if (!mutex.Open(SystemProperty::kSegment) || mutex.Lock() != 0) return 1;
      puts("locked");
      fflush(stdout);
      return pause();
    });
    ASSERT_TRUE(holder.WaitForLine("locked"));
    Child setter = Child::Fork([] {
      puts("waiting");
      fflush(stdout);
      const int result = SetText("k", "behind");
      puts("done");
      return result;
    });
    ASSERT_TRUE(setter.WaitForLine("waiting"));
    EXPECT_FALSE(setter.WaitForLine("done", 200));
    holder.Signal(SIGKILL);
    EXPECT_EQ(holder.Wait(), 128 + SIGKILL);
    EXPECT_EQ(setter.Wait(), 0);
    EXPECT_EQ(GetText("k", 6), "behind");
  });
}

// A Set that is killed at any point is done wholly or not at all: no half value, no half key.
TEST(SystemProperty, KilledSetLeavesNoHalfValue) {
  NEED_PRIVATE_WORLD();
  InOwnWorld([] {
    constexpr int kRounds = 800;
    std::mt19937 random(20261122);
    std::vector<std::string> last(4);
    int changes = 0;
    for (int round = 0; round < kRounds; ++round) {
      Child setter = Child::Fork([round] {
        puts("up");
        fflush(stdout);
        for (auto i = static_cast<uint32_t>(round) << 20;; ++i) {
          const std::string key = "some key" + std::to_string(i % 4);
          if (SetText(key, Pattern(i, 223)) != 0) return 1;
        }
      });
      ASSERT_TRUE(setter.WaitForLine("up"));
      usleep(static_cast<useconds_t>(random() % 500));
      setter.Signal(SIGKILL);
      ASSERT_EQ(setter.Wait(), 128 + SIGKILL) << setter.output();
      for (size_t i = 0; i < last.size(); ++i) {
        const std::string found = GetText("some key" + std::to_string(i), 223);
        if (found == "[-2]") continue;  // killed before the first Set of the key
        ASSERT_TRUE(IsWhole(found)) << "round " << round;
        if (found != last[i]) ++changes;
        last[i] = found;
      }
    }
    EXPECT_GT(changes, kRounds);
  });
}

// A journal that a killed process left behind, true or forged, is completed inside the table.
TEST(SystemProperty, JournalIsCompletedWithinBounds) {
  NEED_PRIVATE_WORLD();
  InOwnWorld([] {
    ASSERT_EQ(SetText("k0", "old0"), 0);
    ASSERT_EQ(SetText("k1", "old1"), 0);
    const int id = shmget(kPropertyKey, 0, 0);
    auto* const slots = static_cast<SystemProperty::KeyV*>(shmat(id, nullptr, 0));
    const auto forge = [&](unsigned char slot, unsigned char size) {
      const char mark[] = {
          0, 1, 'J', 'R', 'N', 'L', static_cast<char>(slot), static_cast<char>(size)};
      memcpy(slots[127].key + 8, mark, sizeof mark);
      memcpy(slots[127].value, "new1", 4);
    };
    forge(1, 4);
    EXPECT_EQ(GetText("k1", 4), "new1");
    EXPECT_EQ(SetText("k1", "old1"), 0);
    for (const auto& mark : {std::pair<int, int>{127, 4}, {255, 4}, {1, 224}, {1, 255}}) {
      forge(static_cast<unsigned char>(mark.first), static_cast<unsigned char>(mark.second));
      EXPECT_EQ(GetText("k1", 4), "old1") << mark.first << " " << mark.second;
    }
    EXPECT_EQ(GetText("k0", 4), "old0");
    shmdt(slots);
  });
}

// Of processes that race to create the segment, all end up with a working store.
TEST(SystemProperty, LosersOfTheCreationRaceRecover) {
  NEED_PRIVATE_WORLD();
  for (int round = 0; round < 30; ++round) {
    InOwnWorld([] {
      Gate gate;
      std::vector<Child> children;
      for (int id = 0; id < 4; ++id) {
        children.push_back(Child::Fork([&gate, id] {
          gate.Wait();
          return SetText("key" + std::to_string(id), std::to_string(id));
        }));
      }
      gate.Open();
      for (Child& child : children) EXPECT_EQ(child.Wait(), 0) << child.output();
      for (int id = 0; id < 4; ++id) {
        EXPECT_EQ(GetText("key" + std::to_string(id), 1), std::to_string(id));
      }
    });
  }
}

// An instance without segment fails in order, names owner and size of what is in the way, and works
// as soon as it is gone.
TEST(SystemProperty, FailedInitIsTriedAgain) {
  NEED_PRIVATE_WORLD();
  const std::string out = InOwnWorld([] {
    const int id = shmget(kPropertyKey, 100, IPC_CREAT | 0600);
    EXPECT_EQ(SetText("k", "v"), -2);
    EXPECT_EQ(GetText("k", 1), "[-2]");
    system_property_dump();
    EXPECT_EQ(SystemProperty::Instance()->Init()->ErrorCode(), -1);
    EXPECT_EQ(shmctl(id, IPC_RMID, nullptr), 0);
    EXPECT_EQ(SetText("k", "v"), 0);
    EXPECT_EQ(GetText("k", 1), "v");
    EXPECT_NE(SystemProperty::Instance()->Init(), nullptr);  // attached already
    EXPECT_EQ(GetText("k", 1), "v");
    Child stranger = Child::Fork([] {
      if (setgid(65534) != 0 || setuid(65534) != 0) return 0;  // one user is all we have here
      SystemProperty store;
      return store.Set("k", "v", 1) != nullptr ? 0 : 1;
    });
    EXPECT_EQ(stranger.Wait(), 0) << stranger.output();
    if (geteuid() == 0) {
      EXPECT_NE(stranger.output().find("of 32768 bytes belongs to uid"), std::string::npos)
          << stranger.output();
    }
  });
  EXPECT_NE(out.find("segment 0x66000000 of 100 bytes belongs to uid"), std::string::npos) << out;
  EXPECT_NE(out.find("err: Init failed, shm_name: 0x66000000."), std::string::npos) << out;
}

// Without a lock the store still works, says so once, and touches no stranger's semaphore set,
// also not the one with the id of a fresh mutex.
TEST(SystemProperty, WorksUnlockedAndSaysSoOnce) {
  NEED_PRIVATE_WORLD();
  const std::string out = InOwnWorld([] {
    SVIPCMutex unopened;
    EXPECT_EQ(unopened.Lock(), -1);  // no set 0 yet
    EXPECT_EQ(unopened.UnLock(), -1);
    { const SVIPCGuard guard(&unopened); }
    const int stranger = semget(IPC_PRIVATE, 2, 0600);
    ASSERT_EQ(stranger, 0);
    ASSERT_EQ(semctl(stranger, 0, SETVAL, 1), 0);
    ASSERT_NE(semget(kPropertyKey, 1, IPC_CREAT | 0600), -1);  // too small for a lock
    EXPECT_EQ(SetText("k", "v"), 0);
    EXPECT_EQ(SetText("k", "w"), 0);
    EXPECT_EQ(GetText("k", 1), "w");
    EXPECT_FALSE(unopened.Open("no number"));
    EXPECT_FALSE(unopened.Open("99999999999999999999"));
    EXPECT_EQ(unopened.Lock(), -1);
  });
  EXPECT_EQ(Count(out, "the store works unlocked"), 1u) << out;
}

// A set that exists is found as it is, held or free, and one that is removed under a store does not
// stop it.
TEST(SystemProperty, SemaphoreSetIsFoundAsItIs) {
  NEED_PRIVATE_WORLD();
  const std::string out = InOwnWorld([] {
    ASSERT_EQ(SetText("k", "v"), 0);
    const int id = semget(kPropertyKey, 2, 0);
    ASSERT_NE(id, -1);
    SVIPCMutex holder;
    ASSERT_TRUE(holder.Open(SystemProperty::kSegment));
    ASSERT_EQ(holder.Lock(), 0);
    SVIPCMutex other;
    ASSERT_TRUE(other.Open(SystemProperty::kSegment));
    EXPECT_EQ(semctl(id, 0, GETVAL), 1);
    ASSERT_EQ(other.UnLock(), 0);
    EXPECT_EQ(semctl(id, 0, GETVAL), 0);
    EXPECT_EQ(semctl(id, 0, IPC_RMID), 0);
    EXPECT_EQ(SetText("k", "w"), 0);
    EXPECT_EQ(GetText("k", 1), "w");
  });
  EXPECT_EQ(Count(out, "the store works unlocked"), 1u) << out;
}

// ---- Event cache

constexpr key_t kCacheKeys[] = {0x65000000, 0x65000001, 0x65000010, 0x65000011};

int WriteEvent(unsigned long key, const std::string& info, const std::string& data) {
  return event_cache_write(key, info.data(), static_cast<int>(info.size()), data.data(),
                           static_cast<int>(data.size()));
}

// A record that is read whole, or the result in brackets.
using ReadCall = int (*)(unsigned long key, char* buffer, int* size);
std::string ReadRecord(ReadCall read, unsigned long key) {
  int size = 100000;
  std::string record(static_cast<size_t>(size), '#');
  const int result = read(key, &record[0], &size);
  if (result < 0) return "[" + std::to_string(result) + "]";
  EXPECT_EQ(result, size);
  return record.substr(0, static_cast<size_t>(size));
}
std::string ReadInfo(unsigned long key) { return ReadRecord(event_cache_read_info, key); }
std::string ReadData(unsigned long key) { return ReadRecord(event_cache_read_data, key); }

// Writes until the cache is full; how many events fitted.
int FillCache(unsigned long first_key, const std::string& info, const std::string& data) {
  int count = 0;
  while (WriteEvent(first_key + static_cast<unsigned long>(count), info, data) == 0) ++count;
  return count;
}

// What is written is read by key in any process, cut at the capacity, and a full cache takes a new
// event exactly when an old one is removed.
TEST(EventCache, KeepsAndEvicts) {
  NEED_PRIVATE_WORLD();
  InOwnWorld([] {
    ASSERT_EQ(event_cache_init_write(10, 20, 400), 0);
    const std::string info(16, 'i');
    const std::string data(396, 'd');
    ASSERT_EQ(FillCache(100, info, data), 10);
    EXPECT_EQ(WriteEvent(110, info, data), -2);
    event_cache_remove_oldest();
    EXPECT_EQ(ReadInfo(100), "[-3]");
    EXPECT_EQ(WriteEvent(110, "new", "event"), 0);
    event_cache_remove(105);
    event_cache_remove(105);
    EXPECT_EQ(WriteEvent(111, info, data), 0);
    Child reader = Child::Fork([&] {
      bsp::EventCache cache;  // Instance is the writer's, which this process was forked from
      EXPECT_EQ(cache.InitRead(), nullptr);
      char buffer[400];
      int size = 4;
      const auto cut = cache.ReadData(110, buffer, &size);
      EXPECT_EQ(cut->ErrorCode(), 5);
      EXPECT_EQ(size, 5);
      EXPECT_EQ(std::string(buffer, 4), "even");
      EXPECT_EQ(cut->Message().rfind("Read success key 110, size 5.", 0), 0u) << cut->Message();
      size = 400;
      EXPECT_EQ(cache.ReadInfo(109, buffer, &size)->ErrorCode(), 16);
      EXPECT_EQ(std::string(buffer, 16), info);
      EXPECT_EQ(cache.ReadInfo(105, buffer, &size)->ErrorCode(), -3);
      EXPECT_EQ(cache.ReadInfo(105, nullptr, &size)->ErrorCode(), -1);
      EXPECT_EQ(size, 16);
      const auto length = cache.ReadData(101, nullptr, &size);
      EXPECT_EQ(length->ErrorCode(), 0);
      EXPECT_EQ(size, 396);
      EXPECT_EQ(length->Message().rfind("find this key 101, return data size 396.", 0), 0u);
      return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(reader.Wait(), 0) << reader.output();
  });
}

// The list counts every write of a key, and a removal takes one or all of them.
TEST(EventCache, ListCountsEveryWrite) {
  NEED_PRIVATE_WORLD();
  InOwnWorld([] {
    const auto cache = bsp::EventCache::Instance();
    ASSERT_EQ(event_cache_init_write(10, 100, 400), 0);
    EXPECT_EQ(cache->RemoveOldest()->ErrorCode(), -1);
    for (int i = 1; i <= 11; ++i) EXPECT_EQ(WriteEvent(7, "i", std::to_string(i)), 0);
    EXPECT_EQ(WriteEvent(7, "i", "12"), -3);
    EXPECT_EQ(ReadData(7), "11");
    event_cache_remove_oldest();
    EXPECT_EQ(ReadData(7), "[-3]");
    EXPECT_EQ(WriteEvent(7, "i", "13"), 0);
    EXPECT_EQ(WriteEvent(8, "i", "14"), -3);
    event_cache_remove(7);
    EXPECT_EQ(WriteEvent(8, "i", "15"), 0);
    EXPECT_EQ(cache->RemoveOldest(), nullptr);
    EXPECT_EQ(ReadInfo(8), "[-3]");
    EXPECT_EQ(cache->RemoveOldest()->ErrorCode(), -1);
  });
}

// When one record finds no room, for nodes or for a cell, the event that stood under the key, the
// list and the room for others are as before.
TEST(EventCache, StoresBothRecordsOrNeither) {
  NEED_PRIVATE_WORLD();
  InOwnWorld([] {
    // Nodes of 49 / 10 bytes hold less than the 49 bytes for each event that the totals promise.
    ASSERT_EQ(event_cache_init_write(10, 100, 49), 0);
    ASSERT_EQ(WriteEvent(1, "old info", "old data"), 0);
    for (int i = 0; i < 20; ++i) {
      EXPECT_EQ(WriteEvent(1, "new info", std::string(440, 'd')), -2);
      EXPECT_EQ(WriteEvent(2, "new info", std::string(440, 'd')), -2);
      EXPECT_EQ(WriteEvent(1, std::string(900, 'i'), "new data"), -2);
      EXPECT_EQ(WriteEvent(1, "", "new data"), -2);
      EXPECT_EQ(WriteEvent(1, "new info", ""), -2);
    }
    EXPECT_EQ(ReadInfo(1), "old info");
    EXPECT_EQ(ReadData(1), "old data");
    EXPECT_EQ(ReadInfo(2), "[-3]");
    event_cache_remove_oldest();
    EXPECT_EQ(bsp::EventCache::Instance()->RemoveOldest()->ErrorCode(), -1);
    EXPECT_EQ(FillCache(10, "info", std::string(36, 'd')), 10);
    for (unsigned long key = 10; key < 20; ++key) event_cache_remove(key);
    // Each key of this distance meets all others in each of the six rows.
    constexpr unsigned long kSameColumn = 37UL * 23 * 13 * 7 * 3 * 2;
    for (unsigned long i = 0; i < 6; ++i) EXPECT_EQ(WriteEvent(i * kSameColumn, "i", "d"), 0);
    EXPECT_EQ(WriteEvent(6 * kSameColumn, "i", "d"), -2);
    EXPECT_EQ(WriteEvent(5 * kSameColumn, "j", "e"), 0);
    EXPECT_EQ(ReadInfo(5 * kSameColumn), "j");
  });
}

// Wrong numbers and wrong roles are refused with a line, touch no segment and leave the way open.
TEST(EventCache, RefusesInOrder) {
  NEED_PRIVATE_WORLD();
  const std::string out = InOwnWorld([] {
    char buffer[8] = "old";
    int size = sizeof buffer;
    EXPECT_EQ(WriteEvent(1, "i", "d"), -1);
    EXPECT_EQ(event_cache_read_info(1, buffer, &size), -1);
    EXPECT_EQ(event_cache_read_data(1, nullptr, &size), -1);
    event_cache_remove(1);
    event_cache_remove_oldest();
    EXPECT_EQ(event_cache_init_read(), -1);
    const int numbers[][3] = {{0, 100, 400},   {-1, 100, 400},       {10, 3, 400},
                              {10, 100, 39},   {10, -100, 400},      {10, 100, -400},
                              {-10, -10, -50}, {100000, 100000, 40}, {100000, 4, 100000}};
    for (const auto& n : numbers) {
      EXPECT_EQ(event_cache_init_write(n[0], n[1], n[2]), -1) << n[0] << " " << n[1] << " " << n[2];
    }
    for (const key_t key : kCacheKeys) EXPECT_EQ(shmget(key, 0, 0), -1);
    ASSERT_EQ(event_cache_init_write(10, 100, 400), 0);
    EXPECT_EQ(event_cache_init_write(10, 100, 400), -1);
    EXPECT_EQ(event_cache_init_read(), -1);
    ASSERT_EQ(WriteEvent(1, "info", "data"), 0);
    EXPECT_EQ(event_cache_write(1, "info", -1, "data", 4), -2);
    EXPECT_EQ(event_cache_write(1, "info", 4, "data", INT32_MIN), -2);
    EXPECT_EQ(event_cache_write(1, nullptr, 4, "data", 4), -2);
    EXPECT_EQ(event_cache_write(1, "info", 4, nullptr, 4), -2);
    EXPECT_EQ(event_cache_read_info(1, buffer, nullptr), -1);
    EXPECT_EQ(event_cache_read_data(1, nullptr, nullptr), -1);
    size = -1;
    EXPECT_EQ(event_cache_read_info(1, buffer, &size), -3);
    EXPECT_EQ(size, -1);
    EXPECT_STREQ(buffer, "old");
    EXPECT_EQ(event_cache_read_info(1, nullptr, &size), 0);  // not looked at without a buffer
    EXPECT_EQ(size, 4);
    Child reader = Child::Fork([] {
      bsp::EventCache cache;
      EXPECT_EQ(cache.InitRead(), nullptr);
      EXPECT_EQ(cache.Write(2, "i", 1, "d", 1)->ErrorCode(), -1);
      EXPECT_EQ(cache.Remove(1)->ErrorCode(), -1);
      EXPECT_EQ(cache.RemoveOldest()->ErrorCode(), -1);
      EXPECT_EQ(cache.InitWrite(10, 100, 400)->ErrorCode(), -1);
      return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(reader.Wait(), 0) << reader.output();
    EXPECT_EQ(ReadData(1), "data");
  });
  EXPECT_EQ(Count(out, "no role yet, call InitWrite first"), 3u) << out;
  EXPECT_NE(out.find("Write: key 1, info_size -1, data_size 4"), std::string::npos) << out;
  EXPECT_NE(out.find("size -1: negative capacity"), std::string::npos) << out;
}

// An init that failed, whatever it had attached by then, succeeds once its reason is gone; a failed
// one leaves the events of the last writer alone.
TEST(EventCache, FailedInitMayBeRepeated) {
  NEED_PRIVATE_WORLD();
  const std::string out = InOwnWorld([] {
    bsp::EventCache writer;
    bsp::EventCache reader;
    ASSERT_EQ(writer.InitWrite(10, 100, 400), nullptr);
    ASSERT_EQ(writer.Write(1, "info", 4, "data", 4), nullptr);
    bsp::EventCache next;
    EXPECT_NE(next.InitWrite(200, 100, 400), nullptr);  // another shape of the info map
    EXPECT_NE(next.InitWrite(10, 100, 500), nullptr);   // another shape of the data map alone
    EXPECT_EQ(shmctl(shmget(kCacheKeys[3], 0, 0), IPC_RMID, nullptr), 0);
    const auto failure = reader.InitRead();  // as in the midst of a writer's start
    ASSERT_NE(failure, nullptr);
    EXPECT_EQ(failure->Message().rfind("EventCache InitForRead data_kv_map_ failed.", 0), 0u);
    int size = 0;
    EXPECT_EQ(writer.ReadInfo(1, nullptr, &size)->ErrorCode(), 0);
    ASSERT_EQ(next.InitWrite(10, 100, 400), nullptr);
    ASSERT_EQ(next.Write(2, "info", 4, "data", 4), nullptr);
    ASSERT_EQ(reader.InitRead(), nullptr);
    EXPECT_EQ(reader.ReadData(2, nullptr, &size)->ErrorCode(), 0);
    EXPECT_EQ(reader.ReadInfo(1, nullptr, &size)->ErrorCode(), -1);
  });
  EXPECT_NE(out.find("segment 0x65000000 of "), std::string::npos) << out;
}

// Texts of the lines that an operator sees at level 7.
TEST(EventCache, TellsItsWorkAtLevelSeven) {
  NEED_PRIVATE_WORLD();
  const std::string out = InOwnWorld([] {
    g_log_level = BSP_LEVEL_DEBUG;
    bsp::EventCache first;
    ASSERT_EQ(first.InitWrite(10, 100, 400), nullptr);
    ASSERT_EQ(first.Write(5, "info", 4, "data", 4), nullptr);
    ASSERT_EQ(event_cache_init_read(), 0);
    EXPECT_EQ(ReadInfo(5), "info");
    bsp::EventCache second;
    ASSERT_EQ(second.InitWrite(10, 100, 400), nullptr);
  });
  for (const char* line :
       {"MOD_DOM <debug> event_cache.cc:",
        " Write, free_percentage = 100%, 100%, free_info_size = "
        "1000, free_data_size = 4000.\n",
        " Write, info_kv_map_.size() = 0, data_kv_map_.size() = 0.\n",
        " Write, Write key = 5, info_val_size = 4, data_val_size = 4.\n",
        " InitRead, free_percentage = 90%, 98%, free_info_size = 0, free_data_size = 0.\n",
        " operator(), Data key = 5.\n", " event_cache_read_info, ReadInfo success key 5, size 4.\n",
        " operator(), Erase Info key = 5.\n", " operator(), Erase Data key = 5.\n"}) {
    EXPECT_NE(out.find(line), std::string::npos) << line << out;
  }
}

// Writers are killed at random points of their work while readers go on: no reader ever gets a
// record that was not written whole, each new writer starts, empty, and with the full capacity.
TEST(EventCache, KilledWritersCostNothing) {
  NEED_PRIVATE_WORLD();
  InOwnWorld([] {
    constexpr int kRounds = 200;
    constexpr int kEvents = 20;
    constexpr int kInfo = 40;
    constexpr int kData = 200;
    const std::string info(kInfo - 4, 'i');
    const std::string data(kData - 4, 'd');
    {
      bsp::EventCache first;
      ASSERT_EQ(first.InitWrite(kEvents, kInfo, kData), nullptr);
    }
    const auto read_all = [](SharedCounter* rounds) {
      if (event_cache_init_read() != 0) return 1;
      g_log_level = BSP_LEVEL_EMERG;  // a missing key is no news here
      long whole = 0;
      while (**rounds > 0) {
        for (unsigned long key = 0; key < kEvents; ++key) {
          for (const ReadCall read : {event_cache_read_info, event_cache_read_data}) {
            const std::string record = ReadRecord(read, key);
            if (record[0] == '[') continue;
            if (!IsWhole(record)) return 2;
            ++whole;
          }
        }
      }
      return whole > kRounds ? 0 : 3;
    };
    SharedCounter rounds(kRounds);
    Child reader_a = Child::Fork([&] { return read_all(&rounds); });
    Child reader_b = Child::Fork([&] { return read_all(&rounds); });
    std::mt19937 random(20261122);
    for (; *rounds > 0; --*rounds) {
      const auto seed = static_cast<uint32_t>(random());
      Child writer = Child::Fork([&] {
        event_cache_set_rebuild(1);
        if (event_cache_init_write(kEvents, kInfo, kData) != 0) return 1;
        g_log_level = BSP_LEVEL_EMERG;
        puts("up");
        fflush(stdout);
        for (uint32_t i = seed;; ++i) {
          const std::string record = Pattern(i, 10 + i % (kData - 30));
          const int result = WriteEvent(i % kEvents, Pattern(i, 10), record);
          if (result != 0) event_cache_remove_oldest();
        }
      });
      ASSERT_TRUE(writer.WaitForLine("up")) << writer.output();
      usleep(static_cast<useconds_t>(random() % 1000));
      writer.Signal(SIGKILL);
      ASSERT_EQ(writer.Wait(), 128 + SIGKILL) << writer.output();
      bsp::EventCache next;
      if (next.InitWrite(kEvents, kInfo, kData) != nullptr) {
        next.set_rebuild(true);  // killed between the two words that a free list changes by
        ASSERT_EQ(next.InitWrite(kEvents, kInfo, kData), nullptr);
      }
      unsigned long stored = 0;
      while (next.Write(1000 + stored, info.data(), kInfo - 4, data.data(), kData - 4) == nullptr) {
        ++stored;
      }
      ASSERT_EQ(stored, static_cast<unsigned long>(kEvents));
      while (next.RemoveOldest() == nullptr) continue;
    }
    EXPECT_EQ(reader_a.Wait(), 0) << reader_a.output();
    EXPECT_EQ(reader_b.Wait(), 0) << reader_b.output();
  });
}

// Damage in a free list: refused with the name of the segment and everything left in place, until
// the writer is told to mend it.
TEST(EventCache, DamageIsRefusedOrMendedAsTold) {
  NEED_PRIVATE_WORLD();
  const std::string out = InOwnWorld([] {
    {
      bsp::EventCache writer;
      ASSERT_EQ(writer.InitWrite(10, 100, 400), nullptr);
      ASSERT_EQ(writer.Write(1, "info", 4, "data", 4), nullptr);
    }
    auto* const head = static_cast<char*>(shmat(shmget(kCacheKeys[3], 0, 0), nullptr, 0));
    uint32_t free_node_num = 0;
    memcpy(&free_node_num, head + 32, sizeof free_node_num);
    --free_node_num;
    memcpy(head + 32, &free_node_num, sizeof free_node_num);
    EXPECT_EQ(event_cache_init_write(10, 100, 400), -1);
    bsp::EventCache reader;
    ASSERT_EQ(reader.InitRead(), nullptr);
    int size = 0;
    EXPECT_EQ(reader.ReadInfo(1, nullptr, &size)->ErrorCode(), 0);
    event_cache_set_rebuild(1);
    EXPECT_EQ(event_cache_init_write(10, 100, 400), 0);
    EXPECT_EQ(FillCache(10, std::string(96, 'i'), std::string(396, 'd')), 10);
    shmdt(head);
  });
  EXPECT_NE(out.find("segment 0x65000011 of "), std::string::npos) << out;
}

}  // namespace
