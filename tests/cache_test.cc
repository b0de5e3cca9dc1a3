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
#include "tests/support/test_env.h"

namespace {

using shmc::impl::SVIPCMutex;
using test::Child;
using test::IsWhole;
using test::Pattern;
using test::SeedOf;

constexpr key_t kPropertyKey = 0x66000000;
constexpr key_t kCacheKeys[] = {0x65000000, 0x65000001, 0x65000010, 0x65000011};

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

// Each text stands in `out` that often.
void ExpectTexts(const std::string& out, const std::vector<std::pair<const char*, size_t>>& texts) {
  for (const auto& [text, expected] : texts) {
    size_t count = 0;
    for (size_t at = out.find(text); at != std::string::npos; at = out.find(text, at + 1)) ++count;
    EXPECT_EQ(count, expected) << text << " in " << out;
  }
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
// slot that begins with it. Each bad call is refused with its text and changes nothing.
TEST(SystemProperty, KeepsBytesAndRefusesInOrder) {
  NEED_PRIVATE_WORLD();
  const std::string out = InOwnWorld([] {
    EXPECT_EQ(SetText("bytes", std::string("a\0c", 3)), 0);
    EXPECT_EQ(GetText("bytes", 5), std::string("a\0c\0\0", 5));
    EXPECT_EQ(SetText("old", "12345678"), 0);
    EXPECT_EQ(SetText("old", "abcd"), 0);
    EXPECT_EQ(GetText("old", 8), "abcd5678");
    EXPECT_EQ(SetText("abc", "1"), 0);
    EXPECT_EQ(SetText("ab", "2"), 0);
    EXPECT_EQ(GetText("abc", 1) + GetText("abcd", 1), "2[-2]");
    const std::string longest(31, 'm');
    EXPECT_EQ(SetText(longest, "31"), 0);
    EXPECT_EQ(SetText(std::string(32, 'l'), "32"), 0);  // stored cut, found by what is stored
    EXPECT_EQ(GetText(longest, 2) + GetText(std::string(31, 'l'), 2), "3132");
    EXPECT_EQ(GetText(std::string(32, 'l'), 2), "[-2]");
    EXPECT_EQ(SetText("", "remains"), 0);  // writes into the first free slot, which stays free
    EXPECT_EQ(GetText("", 1), "[-2]");
    EXPECT_EQ(SetText("new", "x"), 0);
    EXPECT_EQ(GetText("new", 3), "xem");

    char value[224] = "old";
    EXPECT_EQ(SetText("k", std::string(223, 'v')), 0);
    EXPECT_EQ(SetText("k", std::string(224, 'w')), -2);
    EXPECT_EQ(system_property_get("k", value, 224), -2);
    for (const int size : {0, -1, INT32_MIN}) {
      const char no_bytes = 'v';  // whatever is read behind it is read out of bounds
      EXPECT_EQ(system_property_set("k", &no_bytes, size), -2);
      EXPECT_EQ(system_property_get("k", value, size), -2);
    }
    EXPECT_EQ(system_property_set(nullptr, "val", 3), -2);
    EXPECT_EQ(system_property_set("k", nullptr, 3), -2);
    EXPECT_EQ(system_property_get(nullptr, value, 3), -2);
    EXPECT_EQ(system_property_get("k", nullptr, 3), -2);
    EXPECT_STREQ(value, "old");
    for (int i = 7; i < SystemProperty::kSlots; ++i) {
      EXPECT_EQ(SetText(std::to_string(1000 + i), std::to_string(i)), 0);
    }
    EXPECT_EQ(SetText("one more", "x"), -2);
    EXPECT_EQ(GetText("1127", 5), std::string("127\0\0", 5)) << "the last slot begins clean";
    EXPECT_EQ(SetText("1127", "128"), 0);
    EXPECT_EQ(GetText("1127", 3), "128");
    EXPECT_EQ(GetText("k", 223), std::string(223, 'v'));
    system_property_dump();
  });
  ExpectTexts(out, {{"MOD_BSP <info> system_property.cc:", 128},
                    {" Dump, SystemProperty Dump, key: bytes\n", 1},
                    {"system_property_set, Set failed, key: k, value_size: 224, err: Set failed, "
                     "key: k, value_size: 224, max_size: 224.",
                     1},
                    {"Set failed, key: (null), value: val, value_size: 3", 1},
                    {"Get failed, key: k, value: (null), value_size: 3", 1},
                    {"Set failed, key: one more, no empty slot", 1}});
}

// Under load from eight processes, one of them with two threads, every value read is one that was
// written whole. All go on until each has met the values of others often enough.
TEST(SystemProperty, EightProcessesNeverSeeATornValue) {
  NEED_PRIVATE_WORLD();
  InOwnWorld([] {
    constexpr uint64_t kWorkers = 9;
    test::Shared<std::atomic<uint64_t>> satisfied;
    const auto work = [&](uint64_t id) {
      int foreign = 0;
      for (uint64_t i = 0; *satisfied < kWorkers; ++i) {
        const std::string key = "key" + std::to_string(i % 3);
        const int result = SetText(key, Pattern(i * 16 + id, 223));
        const std::string found = GetText(key, 223);
        if (result != 0 || !IsWhole(found)) {
          *satisfied = kWorkers;  // the others need not go on
          return 1;
        }
        if (SeedOf(found) % 16 != id && ++foreign == 1000) ++*satisfied;
      }
      return 0;
    };
    std::vector<Child> children;
    for (uint64_t id = 1; id < kWorkers; ++id) {
      children.push_back(Child::Fork([&, id] {
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

// A process that is killed inside the lock keeps the others out until then and not a moment longer;
// who opens the lock meanwhile finds it held.
TEST(SystemProperty, KernelFreesTheLockOfAKilledHolder) {
  NEED_PRIVATE_WORLD();
  InOwnWorld([] {
    ASSERT_EQ(SetText("k", "before"), 0);
    Child holder = Child::Fork([] {
      SVIPCMutex mutex;
      if (!mutex.Open(SystemProperty::kSegment) || mutex.Lock() != 0) return 1;
      dprintf(STDOUT_FILENO, "locked\n");
      return pause();
    });
    ASSERT_TRUE(holder.WaitForLine("locked"));
    Child setter = Child::Fork([] {
      dprintf(STDOUT_FILENO, "waiting\n");
      const int result = SetText("k", "behind");
      dprintf(STDOUT_FILENO, "done\n");
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

// A Set that is killed at any point is done wholly or not at all: no half value, no half key. A
// mark that it left behind, or that somebody forged, is completed inside the table.
TEST(SystemProperty, KilledSetLeavesNoHalfValue) {
  NEED_PRIVATE_WORLD();
  InOwnWorld([] {
    std::mt19937 random(20261122);
    uint64_t last = 0;
    int changes = 0;
    for (uint64_t round = 0; round < 300; ++round) {
      Child setter = Child::Fork([round] {
        dprintf(STDOUT_FILENO, "up\n");
        for (uint64_t i = round << 32; SetText("some key", Pattern(i, 223)) == 0; ++i) continue;
        return 1;
      });
      ASSERT_TRUE(setter.WaitForLine("up"));
      usleep(static_cast<useconds_t>(random() % 500));
      setter.Signal(SIGKILL);
      ASSERT_EQ(setter.Wait(), 128 + SIGKILL) << setter.output();
      const std::string found = GetText("some key", 223);
      if (found == "[-2]") continue;  // killed before the first Set of all
      ASSERT_TRUE(IsWhole(found)) << "round " << round;
      if (SeedOf(found) != last) ++changes;
      last = SeedOf(found);
    }
    EXPECT_GT(changes, 100);

    ASSERT_EQ(SetText("k1", "old1"), 0);
    auto* const slots =
        static_cast<SystemProperty::KeyV*>(shmat(shmget(kPropertyKey, 0, 0), nullptr, 0));
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
TEST(SystemProperty, FailedInitIsTriedAgain) {
  NEED_PRIVATE_WORLD();
  for (int round = 0; round < 20; ++round) {
    InOwnWorld([] {
      test::Shared<std::atomic<int>> ready;
      std::vector<Child> children;
      for (const char* key : {"a", "b", "c", "d"}) {
        children.push_back(Child::Fork([&ready, key] {
          ++*ready;
          while (*ready < 4) sched_yield();
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
    system_property_dump();
    EXPECT_EQ(SystemProperty::Instance()->Init()->ErrorCode(), -1);
    EXPECT_EQ(shmctl(id, IPC_RMID, nullptr), 0);
    EXPECT_EQ(SetText("k", "v"), 0);
    EXPECT_NE(SystemProperty::Instance()->Init(), nullptr);  // attached already
    EXPECT_EQ(GetText("k", 1), "v");
  });
  ExpectTexts(out, {{"segment 0x66000000 of 100 bytes belongs to uid", 5},
                    {"err: Init failed, shm_name: 0x66000000.", 2}});
}

// Without a semaphore set the store still works, says so once, and touches no stranger's set, also
// not the one with the id of a fresh mutex.
TEST(SystemProperty, WorksUnlockedAndSaysSoOnce) {
  NEED_PRIVATE_WORLD();
  ExpectTexts(InOwnWorld([] {
                SVIPCMutex unopened;
                EXPECT_EQ(unopened.Lock(), -1);  // no set 0 yet
                { const shmc::impl::SVIPCGuard guard(&unopened); }
                const int stranger = semget(IPC_PRIVATE, 2, 0600);
                ASSERT_EQ(stranger, 0);
                ASSERT_EQ(semctl(stranger, 0, SETVAL, 1), 0);
                ASSERT_NE(semget(kPropertyKey, 1, IPC_CREAT | 0600), -1);  // too small for a lock
                EXPECT_EQ(SetText("k", "v"), 0);
                EXPECT_EQ(SetText("k", "w"), 0);
                EXPECT_EQ(GetText("k", 1), "w");
                EXPECT_FALSE(unopened.Open("no number"));
                EXPECT_EQ(unopened.Lock(), -1);
              }),
              {{"the store works unlocked", 1}});
}

// ---- Event cache

int WriteEvent(unsigned long key, const std::string& info, const std::string& data) {
  return event_cache_write(key, info.data(), static_cast<int>(info.size()), data.data(),
                           static_cast<int>(data.size()));
}

// A record that is read whole, or the result in brackets.
using ReadCall = int (*)(unsigned long key, char* buffer, int* size);
std::string ReadRecord(ReadCall read, unsigned long key) {
  char record[1000];
  int size = sizeof record;
  const int result = read(key, record, &size);
  return result < 0 ? "[" + std::to_string(result) + "]"
                    : std::string(record, static_cast<size_t>(size));
}
std::string ReadInfo(unsigned long key) { return ReadRecord(event_cache_read_info, key); }
std::string ReadData(unsigned long key) { return ReadRecord(event_cache_read_data, key); }

// What is written is read by key in any process, cut at the capacity; a full cache takes a new
// event exactly when an old one is removed; the list counts every write of a key.
TEST(EventCache, KeepsAndEvicts) {
  NEED_PRIVATE_WORLD();
  const std::string out = InOwnWorld([] {
    ASSERT_EQ(event_cache_init_write(10, 20, 400), 0);
    const std::string info(16, 'i');
    const std::string data(396, 'd');
    for (unsigned long key = 100; key < 110; ++key) ASSERT_EQ(WriteEvent(key, info, data), 0);
    EXPECT_EQ(WriteEvent(110, info, data), -2);
    event_cache_remove_oldest();
    EXPECT_EQ(ReadInfo(100) + ReadData(100), "[-3][-3]");
    EXPECT_EQ(WriteEvent(110, "new", "event"), 0);
    event_cache_remove(105);
    event_cache_remove(105);
    EXPECT_EQ(WriteEvent(111, info, data), 0);
    bsp::EventCache reader;
    EXPECT_EQ(reader.InitRead(), nullptr);
    char buffer[400];
    int size = 4;
    const auto cut = reader.ReadData(110, buffer, &size);
    EXPECT_EQ(cut->ErrorCode(), 5);
    EXPECT_EQ(std::string(buffer, 4) + std::to_string(size), "even5");
    EXPECT_EQ(cut->Message().rfind("Read success key 110, size 5.", 0), 0u) << cut->Message();
    EXPECT_EQ(reader.ReadInfo(105, buffer, &size)->ErrorCode(), -3);
    EXPECT_EQ(reader.ReadInfo(105, nullptr, &size)->ErrorCode(), -1);
    EXPECT_EQ(size, 5);
    const auto length = reader.ReadData(101, nullptr, &size);
    EXPECT_EQ(length->Message().rfind("find this key 101, return data size 396.", 0), 0u);
    EXPECT_EQ(length->ErrorCode() + size, 396);
    for (int i = 0; i < 10; ++i) event_cache_remove_oldest();
    for (int i = 1; i <= 11; ++i) EXPECT_EQ(WriteEvent(7, "i", std::to_string(i)), 0);
    EXPECT_EQ(WriteEvent(7, "i", "12"), -3);
    EXPECT_EQ(ReadData(7), "11");
    event_cache_remove_oldest();
    EXPECT_EQ(ReadData(7), "[-3]");
    EXPECT_EQ(WriteEvent(7, "i", "13"), 0);
    EXPECT_EQ(WriteEvent(8, "i", "14"), -3);
    event_cache_remove(7);
    EXPECT_EQ(bsp::EventCache::Instance()->RemoveOldest()->ErrorCode(), -1);
    g_log_level = BSP_LEVEL_DEBUG;
    EXPECT_EQ(WriteEvent(5, "info", "data"), 0);
    EXPECT_EQ(bsp::EventCache().InitWrite(10, 20, 400), nullptr);
  });
  ExpectTexts(out, {{" Write, free_percentage = 100%, 100%, free_info_size = 200, free_data_", 1},
                    {" Write, Write key = 5, info_val_size = 4, data_val_size = 4.\n", 1},
                    {" operator(), Erase Info key = 5.\n", 1}});
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
    EXPECT_EQ(ReadInfo(1) + ReadData(1) + ReadInfo(2), "old infoold data[-3]");
    event_cache_remove_oldest();
    EXPECT_EQ(bsp::EventCache::Instance()->RemoveOldest()->ErrorCode(), -1);
    // Each key of this distance meets all others in each of the six rows.
    constexpr unsigned long kSameColumn = 37UL * 23 * 13 * 7 * 3 * 2;
    for (unsigned long i = 0; i < 6; ++i) EXPECT_EQ(WriteEvent(i * kSameColumn, "i", "d"), 0);
    EXPECT_EQ(WriteEvent(6 * kSameColumn, "i", "d"), -2);
    EXPECT_EQ(WriteEvent(5 * kSameColumn, "j", "e"), 0);
    EXPECT_EQ(ReadInfo(5 * kSameColumn), "j");
  });
}

// Wrong numbers and wrong roles are refused with a line, touch no segment and leave the way open;
// so do segments of another shape, or damaged ones, until the writer is told to mend them.
TEST(EventCache, RefusesInOrder) {
  NEED_PRIVATE_WORLD();
  const std::string out = InOwnWorld([] {
    char buffer[8] = "old";
    int size = sizeof buffer;
    EXPECT_EQ(WriteEvent(1, "i", "d"), -1);
    EXPECT_EQ(event_cache_read_info(1, buffer, &size), -1);
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
    EXPECT_EQ(event_cache_write(1, "info", 4, nullptr, 4), -2);
    EXPECT_EQ(event_cache_read_info(1, buffer, nullptr), -1);
    size = -1;
    EXPECT_EQ(event_cache_read_info(1, buffer, &size), -3);
    EXPECT_EQ(size, -1);
    EXPECT_STREQ(buffer, "old");
    bsp::EventCache next;
    bsp::EventCache reader;
    ASSERT_EQ(reader.InitRead(), nullptr);
    EXPECT_EQ(reader.Write(2, "i", 1, "d", 1)->ErrorCode(), -1);
    EXPECT_EQ(reader.Remove(1)->ErrorCode(), -1);
    EXPECT_EQ(reader.RemoveOldest()->ErrorCode(), -1);
    EXPECT_EQ(reader.InitWrite(10, 100, 400)->ErrorCode(), -1);
    EXPECT_NE(next.InitWrite(200, 100, 400), nullptr);  // another shape of the info map
    EXPECT_NE(next.InitWrite(10, 100, 500), nullptr);   // another shape of the data map alone
    EXPECT_EQ(ReadData(1), "data");
    auto* const head = static_cast<char*>(shmat(shmget(kCacheKeys[3], 0, 0), nullptr, 0));
    --*reinterpret_cast<uint32_t*>(head + 32);  // free_node_num
    EXPECT_NE(next.InitWrite(10, 100, 400), nullptr);
    EXPECT_EQ(ReadData(1), "data");
    next.set_rebuild(true);
    EXPECT_EQ(next.InitWrite(10, 100, 400), nullptr);
    EXPECT_EQ(ReadData(1), "[-3]");
  });
  ExpectTexts(out, {{"no role yet, call InitWrite first", 3},
                    {"Write: key 1, info_size -1, data_size 4", 1},
                    {"size -1: negative capacity", 1},
                    {"segment 0x65000011 of ", 2}});
}

// Writers are killed at random points of their work while readers go on: no reader ever gets a
// record that was not written whole, each new writer starts, empty, and with the full capacity.
TEST(EventCache, KilledWritersCostNothing) {
  NEED_PRIVATE_WORLD();
  InOwnWorld([] {
    constexpr int kRounds = 300;
    constexpr int kEvents = 20;
    constexpr int kInfo = 40;
    constexpr int kData = 200;
    ASSERT_EQ(bsp::EventCache().InitWrite(kEvents, kInfo, kData), nullptr);
    test::Shared<std::atomic<bool>> is_over;
    const auto read_all = [&is_over] {
      if (event_cache_init_read() != 0) return 1;
      g_log_level = BSP_LEVEL_EMERG;  // a missing key is no news here
      long whole = 0;
      for (unsigned long key = 0; !*is_over; key = (key + 1) % kEvents) {
        for (const ReadCall read : {event_cache_read_info, event_cache_read_data}) {
          const std::string record = ReadRecord(read, key);
          if (record[0] == '[') continue;
          if (!IsWhole(record)) return 2;
          ++whole;
        }
      }
      return whole > kRounds ? 0 : 3;
    };
    Child reader_a = Child::Fork(read_all);
    Child reader_b = Child::Fork(read_all);
    std::mt19937 random(20261122);
    for (int round = 0; round < kRounds; ++round) {
      const uint64_t seed = uint64_t{random()} << 8;
      Child writer = Child::Fork([&] {
        event_cache_set_rebuild(1);
        if (event_cache_init_write(kEvents, kInfo, kData) != 0) return 1;
        g_log_level = BSP_LEVEL_EMERG;
        dprintf(STDOUT_FILENO, "up\n");
        for (uint64_t i = seed;; ++i) {
          const std::string record = Pattern(i, 10 + i % (kData - 30));
          if (WriteEvent(i % kEvents, Pattern(i, 10), record) != 0) event_cache_remove_oldest();
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
      const std::string whole = Pattern(0, kData - 4);
      unsigned long stored = 0;
      while (next.Write(1000 + stored, whole.data(), kInfo - 4, whole.data(), kData - 4) ==
             nullptr) {
        ++stored;
      }
      ASSERT_EQ(stored, static_cast<unsigned long>(kEvents));
      while (next.RemoveOldest() == nullptr) continue;
    }
    *is_over = true;
    EXPECT_EQ(reader_a.Wait(), 0) << reader_a.output();
    EXPECT_EQ(reader_b.Wait(), 0) << reader_b.output();
  });
}

}  // namespace
