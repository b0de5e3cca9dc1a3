// System property store and event cache, over real processes. Each test runs in a process and an
// IPC namespace of its own, as the stores are singletons on fixed keys.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bsp/bsp.h"
#include "bsp/cache/event_cache.h"
#include "bsp/cache/system_property.h"
#include "bsp/shmc/svipc_mutex.h"
#include "tests/support/child.h"
#include "tests/support/shmc_support.h"

namespace {

using shmc::impl::SVIPCMutex;
using test::Child;
using test::IsWhole;
using test::Pattern;
using test::SeedOf;
using Cache = test::SegmentTest;

constexpr key_t kPropertyKey = 0x66000000;
constexpr key_t kCacheKeys[] = {0x65000000, 0x65000001, 0x65000010, 0x65000011};

// Runs the body in a fresh process and IPC namespace; gives all that it printed.
std::string InOwnWorld(const std::function<void()>& body) {
  Child child = Child::Fork([&] {
    if (unshare(CLONE_NEWIPC) != 0) return 99;
    body();
    return testing::Test::HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(child.Wait(240000), 0) << child.output();
  return child.output();
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

// A value is found as set, a shorter one leaves the rest of an older one, and a key finds the first
// slot that begins with it. Each bad call is refused and changes nothing.
TEST_F(Cache, PropertyKeepsBytesAndRefusesInOrder) {
  const std::string out = InOwnWorld([] {
    EXPECT_EQ(SetText("bytes", std::string("a\0c", 3)), 0);
    EXPECT_EQ(GetText("bytes", 5), std::string("a\0c\0\0", 5));
    EXPECT_FALSE(SetText("old", "12345678") || SetText("old", "abcd"));
    EXPECT_EQ(GetText("old", 8), "abcd5678");
    EXPECT_FALSE(SetText("abc", "1") || SetText("ab", "2"));
    EXPECT_EQ(GetText("abc", 1) + GetText("abcd", 1), "2[-2]");
    EXPECT_EQ(SetText(std::string(32, 'l'), "32"), 0);  // stored cut, found by what is stored
    EXPECT_EQ(GetText(std::string(31, 'l'), 2) + GetText(std::string(32, 'l'), 2), "32[-2]");
    EXPECT_EQ(SetText("", "remains"), 0);  // writes into the first free slot, which stays free
    EXPECT_EQ(GetText("", 1), "[-2]");
    EXPECT_EQ(SetText("new", "x"), 0);
    EXPECT_EQ(GetText("new", 3), "xem");
    char value[224] = "old";
    EXPECT_EQ(SetText("k", std::string(223, 'v')), 0);
    for (const int size : {224, 0, -1, INT32_MIN}) {
      const char no_bytes = 'v';  // whatever is read behind it is read out of bounds
      EXPECT_EQ(system_property_set("k", &no_bytes, size), -2);
      EXPECT_EQ(system_property_get("k", value, size), -2);
    }
    EXPECT_EQ(system_property_set(nullptr, "val", 3) + system_property_set("k", nullptr, 3), -4);
    EXPECT_EQ(system_property_get(nullptr, value, 3) + system_property_get("k", nullptr, 3), -4);
    EXPECT_STREQ(value, "old");
    for (int i = 6; i < SystemProperty::kSlots; ++i) {
      EXPECT_EQ(SetText(std::to_string(1000 + i), std::to_string(i)), 0);
    }
    EXPECT_EQ(SetText("one more", "x"), -2);
    EXPECT_EQ(GetText("1127", 5), std::string("127\0\0", 5)) << "the last slot begins clean";
    EXPECT_EQ(GetText("k", 223), std::string(223, 'v'));
    system_property_dump();
  });
  EXPECT_LT(out.find("key: bytes\n"), out.find("key: 1127\n")) << out;
  EXPECT_NE(out.find("key: 1127\n"), std::string::npos) << out;
}

// Under load from eight processes, one of them with two threads, every value read is one that was
// written whole. All go on until each has met the values of others often enough.
TEST_F(Cache, PropertyIsNeverTorn) {
  InOwnWorld([] {
    constexpr uint64_t kWorkers = 9;
    auto* const satisfied = test::NewShared<std::atomic<uint64_t>>();
    auto* const bad = test::NewShared<std::atomic<int>>();
    const auto work = [&](uint64_t id) {
      int foreign = 0;
      for (uint64_t i = 0; *satisfied < kWorkers && *bad == 0; ++i) {
        const std::string key = "key" + std::to_string(i % 3);
        const int result = SetText(key, Pattern(i * 16 + id, 223));
        const std::string found = GetText(key, 223);
        if (result != 0 || !IsWhole(found)) ++*bad;
        if (SeedOf(found) % 16 != id && ++foreign == 1000) ++*satisfied;
      }
      return 0;
    };
    std::vector<Child> children;
    for (uint64_t id = 1; id < kWorkers; ++id) {
      children.push_back(Child::Fork([&, id] {
        std::thread thread([&] { id == 1 ? work(0) : 0; });
        work(id);
        thread.join();
        return 0;
      }));
    }
    for (Child& child : children) EXPECT_EQ(child.Wait(), 0) << child.output();
    EXPECT_EQ(*bad, 0);
  });
}

// With a journal, a Set that is killed at any point is done wholly or not at all: no half value, no
// half key. A mark that it left, or that somebody forged, is completed inside the table. Without
// one no byte of a free slot changes.
TEST_F(Cache, PropertyIsWholeBehindAKilledSet) {
  InOwnWorld([] {
    ASSERT_FALSE(SetText("some key", std::string(223, 'a')) || SetText("some key", "b"));
    auto* const slots =
        static_cast<SystemProperty::KeyV*>(shmat(shmget(kPropertyKey, 0, 0), nullptr, 0));
    const std::string free_slots(reinterpret_cast<const char*>(slots + 1), 127 * sizeof *slots);
    EXPECT_EQ(free_slots, std::string(127 * sizeof *slots, '\0'));
    std::mt19937 random(20261122);
    for (uint64_t round = 1; round <= 300; ++round) {
      const uint64_t first = round << 32;
      Child setter = Child::Fork([first] {
        system_property_set_journal(1);
        for (uint64_t i = first; SetText("some key", Pattern(i, 223)) == 0; ++i) {
          if (i == first) dprintf(STDOUT_FILENO, "up\n");
        }
        return 1;
      });
      ASSERT_TRUE(setter.WaitForLine("up")) << setter.output();
      usleep(static_cast<useconds_t>(random() % 500));
      setter.Signal(SIGKILL);
      ASSERT_EQ(setter.Wait(), 128 + SIGKILL) << setter.output();
      const std::string found = GetText("some key", 223);
      ASSERT_TRUE(IsWhole(found) && SeedOf(found) >= first) << "round " << round;
    }

    ASSERT_EQ(SetText("k1", "old1"), 0);
    const auto forge = [&](int slot, int size) {
      const char mark[] = {
          0, 1, 'J', 'R', 'N', 'L', static_cast<char>(slot), static_cast<char>(size)};
      memcpy(slots[127].key + 8, mark, sizeof mark);
      memcpy(slots[127].value, "new1", 4);
      return GetText("k1", 4);
    };
    EXPECT_EQ(forge(127, 4) + forge(255, 4) + forge(1, 224), "old1old1old1");
    EXPECT_EQ(forge(1, 4), "new1");
  });
}

// Processes that race to create the segment all end up with a working store. One that finds a
// segment of another shape fails in order, says whose it is, and works once it is gone.
TEST_F(Cache, PropertyInitIsRacedForAndTriedAgain) {
  for (int round = 0; round < 20; ++round) {
    InOwnWorld([] {
      auto* const ready = test::NewShared<std::atomic<int>>();
      std::vector<Child> children;
      for (const char* key : {"a", "b", "c", "d"}) {
        children.push_back(Child::Fork([=] {
          for (++*ready; *ready < 4;) sched_yield();
          return SetText(key, key);
        }));
      }
      for (Child& child : children) EXPECT_EQ(child.Wait(), 0) << child.output();
      EXPECT_EQ(GetText("a", 1) + GetText("b", 1) + GetText("c", 1) + GetText("d", 1), "abcd");
    });
  }
  const std::string out = InOwnWorld([] {
    const int id = shmget(kPropertyKey, 100, IPC_CREAT | 0600);
    EXPECT_EQ(SetText("k", "v"), -2);
    EXPECT_EQ(GetText("k", 1), "[-2]");
    EXPECT_EQ(shmctl(id, IPC_RMID, nullptr), 0);
    EXPECT_EQ(SetText("k", "v"), 0);
    EXPECT_NE(SystemProperty::Instance()->Init(), nullptr);  // attached already
    EXPECT_EQ(GetText("k", 1), "v");
  });
  EXPECT_NE(out.find("segment 0x66000000 of 100 bytes belongs to uid"), std::string::npos) << out;
}

// A program that has inherited the lock by exec holds nobody for ever: calls fail in order, name
// it, and work again once it is gone.
TEST_F(Cache, PropertyNamesAHolderThatNeverLetsGo) {
  InOwnWorld([] {
    ASSERT_EQ(SetText("k", "v"), 0);
    Child holder = Child::Fork([] {
      SVIPCMutex mutex;
      if (!mutex.Open("0x66000000")) return 1;
      std::thread([&] { mutex.Lock(); }).join();
      dprintf(STDOUT_FILENO, "locked\n");
      return execlp("sleep", "sleep", "1000", nullptr);
    });
    ASSERT_TRUE(holder.WaitForLine("locked"));
    const auto get = [] {
      char value = 0;
      const auto error = SystemProperty::Instance()->Get("k", &value, 1);
      return error == nullptr ? std::string(1, value) : error->Message();
    };
    const std::string expected = "is held by pid " + std::to_string(holder.pid()) + " (";
    EXPECT_NE(get().find(expected), std::string::npos);
    EXPECT_EQ(SetText("k", "w"), -2);
    holder.Signal(SIGKILL);
    EXPECT_EQ(holder.Wait(), 128 + SIGKILL);
    EXPECT_EQ(get(), "v");
  });
}

// Without a semaphore set the store still works, says so once, and touches no stranger's set, also
// not the one with the id of a fresh mutex.
TEST_F(Cache, PropertyWorksUnlockedAndSaysSoOnce) {
  const std::string out = InOwnWorld([] {
    SVIPCMutex unopened;
    EXPECT_EQ(unopened.Lock(), -1);  // no set 0 yet
    { const shmc::impl::SVIPCGuard guard(&unopened); }
    const int stranger = semget(IPC_PRIVATE, 2, 0600);
    ASSERT_EQ(stranger, 0);
    ASSERT_EQ(semctl(stranger, 0, SETVAL, 1), 0);
    ASSERT_NE(semget(kPropertyKey, 1, IPC_CREAT | 0600), -1);  // too small for a lock
    EXPECT_FALSE(SetText("k", "v") || SetText("k", "w"));
    EXPECT_EQ(GetText("k", 1), "w");
    EXPECT_FALSE(unopened.Open("no number") || unopened.Lock() == 0);
  });
  const size_t said = out.find("the store works unlocked");
  EXPECT_TRUE(said != std::string::npos && said == out.rfind("the store works unlocked")) << out;
}

// ---- Event cache

int WriteEvent(unsigned long key, const std::string& info, const std::string& data) {
  return event_cache_write(key, info.data(), static_cast<int>(info.size()), data.data(),
                           static_cast<int>(data.size()));
}

// A record that is read whole, or the result in brackets.
std::string ReadRecord(int (*read)(unsigned long, char*, int*), unsigned long key) {
  char record[1000];
  int size = sizeof record;
  const int result = read(key, record, &size);
  return result < 0 ? "[" + std::to_string(result) + "]" : std::string(record, record + size);
}
std::string ReadInfo(unsigned long key) { return ReadRecord(event_cache_read_info, key); }
std::string ReadData(unsigned long key) { return ReadRecord(event_cache_read_data, key); }

// What is written is read by key in any process, cut at the capacity; a full cache takes a new
// event exactly when an old one is removed; the list counts every write of a key.
TEST_F(Cache, EventsAreKeptAndEvicted) {
  InOwnWorld([] {
    ASSERT_EQ(event_cache_init_write(10, 20, 400), 0);
    const std::string info(16, 'i');
    const std::string data(396, 'd');
    for (unsigned long key = 100; key < 110; ++key) ASSERT_EQ(WriteEvent(key, info, data), 0);
    EXPECT_EQ(WriteEvent(110, info, data), -2);
    event_cache_remove_oldest();
    EXPECT_EQ(ReadInfo(100) + ReadData(100), "[-3][-3]");
    EXPECT_EQ(WriteEvent(110, "new", "event"), 0);
    for (int twice = 0; twice < 2; ++twice) event_cache_remove(105);
    EXPECT_EQ(WriteEvent(111, info, data), 0);
    bsp::EventCache reader;
    EXPECT_EQ(reader.InitRead(), nullptr);
    char buffer[400];
    int size = 4;
    EXPECT_EQ(reader.ReadData(110, buffer, &size)->ErrorCode(), 5);
    EXPECT_EQ(std::string(buffer, 4) + std::to_string(size), "even5");
    EXPECT_EQ(reader.ReadInfo(105, buffer, &size)->ErrorCode(), -3);
    EXPECT_EQ(reader.ReadInfo(105, nullptr, &size)->ErrorCode(), -1);
    EXPECT_EQ(size, 5);
    EXPECT_EQ(reader.ReadData(101, nullptr, &size)->ErrorCode() + size, 396);  // asks the size
    for (int i = 0; i < 10; ++i) event_cache_remove_oldest();
    for (int i = 1; i <= 11; ++i) EXPECT_EQ(WriteEvent(7, "i", std::to_string(i)), 0);
    EXPECT_EQ(WriteEvent(7, "i", "12"), -3);
    EXPECT_EQ(ReadData(7), "11");
    event_cache_remove_oldest();
    EXPECT_EQ(ReadData(7), "[-3]");
    EXPECT_EQ(WriteEvent(7, "i", "13"), 0);
    event_cache_remove(7);
    EXPECT_EQ(bsp::EventCache::Instance()->RemoveOldest()->ErrorCode(), -1);
  });
}

// When one record finds no room, for nodes or for a cell, the event that stood under the key, the
// list and the room for others are as before.
TEST_F(Cache, EventsStoreBothRecordsOrNeither) {
  InOwnWorld([] {
    // Nodes of 49 / 10 bytes hold less than the 49 bytes for each event that the totals promise.
    ASSERT_EQ(event_cache_init_write(10, 100, 49), 0);
    ASSERT_EQ(WriteEvent(1, "old info", "old data"), 0);
    for (int i = 0; i < 20; ++i) {
      EXPECT_EQ(WriteEvent(1, "new info", std::string(440, 'd')), -2);
      EXPECT_EQ(WriteEvent(2, "new info", std::string(440, 'd')), -2);
      EXPECT_EQ(WriteEvent(1, std::string(900, 'i'), "new data"), -2);
      EXPECT_EQ(WriteEvent(1, "", "new data") + WriteEvent(1, "new info", ""), -4);
    }
    EXPECT_EQ(ReadInfo(1) + ReadData(1) + ReadInfo(2), "old infoold data[-3]");
    event_cache_remove_oldest();
    EXPECT_EQ(bsp::EventCache::Instance()->RemoveOldest()->ErrorCode(), -1);
    // Each key of this distance meets all others in each of the six rows.
    constexpr unsigned long kSameColumn = 37UL * 23 * 13 * 7 * 3 * 2;
    for (unsigned long i = 0; i <= 6; ++i) {
      EXPECT_EQ(WriteEvent(i * kSameColumn, "i", "d"), i < 6 ? 0 : -2);
    }
    EXPECT_EQ(WriteEvent(5 * kSameColumn, "j", "e"), 0);
  });
}

// Wrong numbers and wrong roles are refused, touch no segment and leave the way open; so do
// segments of another shape, or damaged ones, until the writer is told to mend them.
TEST_F(Cache, EventsRefuseInOrder) {
  InOwnWorld([] {
    char buffer[8] = "old";
    int size = sizeof buffer;
    EXPECT_EQ(WriteEvent(1, "i", "d") + event_cache_read_info(1, buffer, &size), -2);
    event_cache_remove(1);
    event_cache_remove_oldest();
    EXPECT_EQ(event_cache_init_read(), -1);
    const int numbers[][2] = {{0, 100}, {10, 3}, {10, -100}, {-10, -10}, {100000, 100000}};
    for (const auto& [events, info] : numbers) {
      EXPECT_EQ(event_cache_init_write(events, info, 400), -1) << events << info;
    }
    for (const key_t key : kCacheKeys) EXPECT_EQ(shmget(key, 0, 0), -1);
    for (const int data : {39, -400, INT32_MAX}) {
      EXPECT_EQ(event_cache_init_write(10, 100, data), -1) << data;
    }
    EXPECT_TRUE(shmget(kCacheKeys[1], 0, 0) != -1 && shmget(kCacheKeys[2], 0, 0) == -1);
    ASSERT_EQ(event_cache_init_write(10, 100, 400), 0);
    EXPECT_EQ(event_cache_init_write(10, 100, 400) + event_cache_init_read(), -2);
    ASSERT_EQ(WriteEvent(1, "info", "data"), 0);
    EXPECT_EQ(event_cache_write(1, "info", -1, "data", 4), -2);
    EXPECT_EQ(event_cache_write(1, "info", 4, "data", INT32_MIN), -2);
    EXPECT_EQ(event_cache_write(1, "info", 4, nullptr, 4), -2);
    EXPECT_EQ(event_cache_read_info(1, buffer, nullptr), -1);
    size = -1;
    EXPECT_EQ(event_cache_read_info(1, buffer, &size), -3);
    EXPECT_STREQ(buffer, "old");
    bsp::EventCache reader;
    ASSERT_EQ(reader.InitRead(), nullptr);
    EXPECT_EQ(reader.Write(2, "i", 1, "d", 1)->ErrorCode(), -1);
    EXPECT_EQ(reader.Remove(1)->ErrorCode() + reader.RemoveOldest()->ErrorCode(), -2);
    bsp::EventCache next;
    EXPECT_NE(next.InitWrite(200, 100, 400), nullptr);  // another shape of the info map
    EXPECT_EQ(ReadInfo(1), "info");
    EXPECT_NE(next.InitWrite(10, 100, 500), nullptr);  // another shape of the data map alone
    EXPECT_EQ(ReadInfo(1), "[-3]") << "the info map was opened and emptied before";
    auto* const head = static_cast<char*>(shmat(shmget(kCacheKeys[3], 0, 0), nullptr, 0));
    --*reinterpret_cast<uint32_t*>(head + 32);  // free_node_num
    EXPECT_NE(next.InitWrite(10, 100, 400), nullptr);
    EXPECT_EQ(ReadData(1), "data");
    next.set_rebuild(true);
    EXPECT_EQ(next.InitWrite(10, 100, 400), nullptr);
    EXPECT_EQ(ReadData(1), "[-3]");
  });
}

// A new writer starts empty also where a damaged map holds a key in two cells, of which the first
// cannot be read.
TEST_F(Cache, EventsStartEmptyOverAKeyInTwoCells) {
  InOwnWorld([] {
    ASSERT_EQ(event_cache_init_write(10, 100, 400), 0);
    ASSERT_EQ(WriteEvent(38, "info", "data") + WriteEvent(1, "info", "data"), 0);  // 1 in row 1
    for (const key_t hash : {kCacheKeys[0], kCacheKeys[2]}) {
      auto* const bytes = static_cast<char*>(shmat(shmget(hash, 0, 0), nullptr, 0));
      auto* const cell = reinterpret_cast<uint64_t*>(bytes + 112 + 16 * (1 % 37));
      ASSERT_EQ(cell[0], 38u);
      cell[0] = 1;
      cell[1] ^= uint64_t{1} << 32;  // of the tag
    }
    bsp::EventCache next;
    ASSERT_EQ(next.InitWrite(10, 100, 400), nullptr);
    EXPECT_EQ(ReadInfo(1) + ReadData(1), "[-3][-3]");
  });
}

// What runs after the exit handlers of the library finds the stores as ever: a destructor of a
// static object that was there before them, and threads that nobody has joined.
TEST_F(Cache, StoresOutliveExitHandlers) {
  const auto use_all = [] {
    return SetText("late", "v") == 0 && GetText("late", 1) == "v" && WriteEvent(1, "i", "d") == 0 &&
           ReadInfo(1) + ReadData(1) == "id";
  };
  for (int round = 0; round < 40; ++round) {
    Child child = Child::Fork([&]() -> int {
      if (unshare(CLONE_NEWIPC) != 0) return 99;
      static bool is_served = false;
      static std::atomic<int> turns{0};
      atexit([] { _exit(is_served ? 0 : 3); });
      atexit([] {  // stands for the destructor; the threads need a moment to meet what is gone
        for (const int end = turns + 1000; turns < end;) sched_yield();
        is_served = SetText("last", "v") == 0 && ReadInfo(1) == "i";
      });
      g_log_level = BSP_LEVEL_EMERG;  // a missing key is no news here
      if (event_cache_init_write(2, 20, 400) != 0 || !use_all()) return 1;
      std::thread([] {
        for (;; ++turns) ReadInfo(turns % 2 == 0 ? 1 : 99);
      }).detach();
      std::thread([&] {
        for (;; ++turns) GetText("late", 1);
      }).detach();
      exit(1);
    });
    ASSERT_EQ(child.Wait(), 0) << child.output();
  }
}

// Whatever a module's log hook throws ends in the C function, which fails in order; a thread that
// is cancelled in one still ends.
TEST_F(Cache, NothingIsThrownThroughC) {
  const std::string out = InOwnWorld([] {
    using Utils = shmc::impl::Utils<void>;
    Utils::log_level = shmc::kLogDebug;
    Utils::log_func = [](shmc::LogLevel, const char*) { throw 7; };
    EXPECT_EQ(event_cache_init_write(10, 100, 400), -1);
    Utils::log_func = [](shmc::LogLevel, const char*) { pthread_exit(nullptr); };
    std::thread([] { event_cache_init_read(); }).join();
    Utils::log_func = nullptr;
    EXPECT_EQ(event_cache_init_write(10, 100, 400), 0);
  });
  EXPECT_NE(out.find(" event_cache_init_write, an exception that is no"), std::string::npos) << out;
}

// Writers are killed at random points of their work while readers go on: no reader ever gets a
// record that was not written whole, each new writer starts, empty, and with the full capacity.
TEST_F(Cache, EventsOutliveKilledWriters) {
  InOwnWorld([] {
    constexpr int kEvents = 20;
    constexpr int kInfo = 40;
    constexpr int kData = 200;
    const auto open = [](bsp::EventCache* cache, bool rebuild) {
      cache->set_rebuild(rebuild);
      return cache->InitWrite(kEvents, kInfo, kData) == nullptr;
    };
    ASSERT_TRUE(open(std::make_unique<bsp::EventCache>().get(), false));
    g_log_level = BSP_LEVEL_EMERG;  // a missing key is no news here
    auto* const is_over = test::NewShared<std::atomic<bool>>();
    const auto read_all = [is_over] {
      if (event_cache_init_read() != 0) return 1;
      bool has_read = false;
      for (unsigned long key = 0; !*is_over; key = (key + 1) % kEvents) {
        for (const std::string& record : {ReadInfo(key), ReadData(key)}) {
          if (!IsWhole(record) && record != "[-3]") return 2;
          has_read = has_read || IsWhole(record);
        }
      }
      return has_read ? 0 : 3;
    };
    Child reader_a = Child::Fork(read_all);
    Child reader_b = Child::Fork(read_all);
    std::mt19937 random(20261122);
    for (int round = 0; round < 300; ++round) {
      const uint64_t seed = uint64_t{random()} << 8;
      Child writer = Child::Fork([&] {
        event_cache_set_rebuild(1);
        if (event_cache_init_write(kEvents, kInfo, kData) != 0) return 1;
        dprintf(STDOUT_FILENO, "up\n");
        for (uint64_t i = seed;; ++i) {
          const std::string data = Pattern(i, 10 + i % (kData - 30));
          if (WriteEvent(i % kEvents, Pattern(i, 10), data) != 0) event_cache_remove_oldest();
        }
      });
      ASSERT_TRUE(writer.WaitForLine("up")) << writer.output();
      usleep(static_cast<useconds_t>(random() % 1000));
      writer.Signal(SIGKILL);
      ASSERT_EQ(writer.Wait(), 128 + SIGKILL) << writer.output();
      bsp::EventCache next;  // refused when killed between the words that a free list changes by
      ASSERT_TRUE(open(&next, false) || open(&next, true));
      const std::string full = Pattern(0, kData - 4);
      for (unsigned long key = 100; key < 100 + kEvents; ++key) {
        ASSERT_EQ(next.Write(key, full.data(), kInfo - 4, full.data(), kData - 4), nullptr);
      }
      while (next.RemoveOldest() == nullptr) continue;
    }
    *is_over = true;
    EXPECT_EQ(reader_a.Wait() + reader_b.Wait(), 0) << reader_a.output() << reader_b.output();
  });
}

}  // namespace
