// The shared map when things go wrong: a writer at full speed beside its readers, writers that die
// at any instruction, and segments with arbitrary bytes.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "bsp/shmc/shm_hash_map.h"
#include "tests/support/child.h"
#include "tests/support/shmc_support.h"
#include "tests/support/test_env.h"

namespace {

using test::IsPattern;
using test::Map;
using test::Pattern;
using test::RawSegment;
using test::ReadValue;
using test::RemoveSegments;
using test::Reports;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kIsSlow = true;
#else
constexpr bool kIsSlow = false;
#endif

class ShmcCrash : public testing::Test {
 protected:
  void SetUp() override {
    NEED_PRIVATE_WORLD();
    RemoveSegments();
  }
  void TearDown() override { RemoveSegments(); }
};

bool OpenWriter(Map* map, bool rebuild = false) {
  map->set_rebuild(rebuild);
  return map->InitForWrite(test::kMapName, 50, 61, 300);  // nodes at odd addresses
}

bool Store(Map* map, unsigned long key, uint64_t store) {
  const std::string value = Pattern(key, store);
  return map->Replace(key, value.data(), value.size());
}

// ---- A writer beside readers

constexpr unsigned long kColdKeys = 20;  // stored once
constexpr unsigned long kHotKeys = 10;   // behind them, replaced and erased all the time

struct Counts {
  std::atomic<uint64_t> stores{0};
  std::atomic<uint64_t> reads{0};
  std::atomic<uint64_t> hits{0};
  std::atomic<uint64_t> mixed{0};
  std::atomic<uint64_t> cold_failures{0};
  std::atomic<bool> is_over{false};
};

void WriteUntilOver(Map* map, Counts* counts) {
  std::mt19937 random(1);
  for (uint64_t store = 1; !counts->is_over; ++store) {
    const unsigned long key = kColdKeys + random() % kHotKeys;
    const bool done = random() % 16 == 0 ? map->Erase(key) : Store(map, key, store);
    counts->stores += done ? 1 : 0;
  }
}

void ReadUntilOver(const Map& map, Counts* counts) {
  for (unsigned long key = 0; !counts->is_over; key = (key + 1) % (kColdKeys + kHotKeys)) {
    const std::string value = ReadValue(map, key);
    ++counts->reads;
    if (value.empty()) {
      counts->cold_failures += key < kColdKeys ? 1 : 0;
    } else {
      ++counts->hits;
      counts->mixed += IsPattern(key, value) ? 0 : 1;
    }
  }
}

void ExpectCleanRun(const Counts& counts) {
  EXPECT_EQ(counts.mixed, 0u);
  EXPECT_EQ(counts.cold_failures, 0u);
  EXPECT_GT(counts.stores, 10000u);
  EXPECT_GT(counts.reads, 10000u);
  EXPECT_GT(counts.hits, counts.reads / 2);
}

// Readers in other processes never see a mixture of two values, and never miss a key that stays.
TEST_F(ShmcCrash, ProcessesSeeWholeValues) {
  auto* counts =
      new (mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
          Counts();
  Map writer;
  ASSERT_TRUE(OpenWriter(&writer));
  for (unsigned long key = 0; key < kColdKeys; ++key) ASSERT_TRUE(Store(&writer, key, key));
  std::vector<test::Child> readers;
  for (int i = 0; i < 2; ++i) {
    readers.push_back(test::Child::Fork([&] {
      Map reader;
      if (!reader.InitForRead(test::kMapName)) return 1;
      ReadUntilOver(reader, counts);
      return 0;
    }));
  }
  std::thread clock([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    counts->is_over = true;
  });
  WriteUntilOver(&writer, counts);
  clock.join();
  for (test::Child& reader : readers) EXPECT_EQ(reader.Wait(), 0);
  ExpectCleanRun(*counts);
  munmap(counts, sizeof *counts);
}

// The same on threads over one attachment, where ThreadSanitizer watches every access.
TEST_F(ShmcCrash, ThreadsSeeWholeValues) {
  Counts counts;
  Map map;
  ASSERT_TRUE(OpenWriter(&map));
  for (unsigned long key = 0; key < kColdKeys; ++key) ASSERT_TRUE(Store(&map, key, key));
  std::thread writer([&] { WriteUntilOver(&map, &counts); });
  std::thread reader([&] { ReadUntilOver(map, &counts); });
  std::this_thread::sleep_for(std::chrono::milliseconds(kIsSlow ? 3000 : 500));
  counts.is_over = true;
  writer.join();
  reader.join();
  ExpectCleanRun(counts);
}

// ---- Death of a writer

// What must hold of the segments, however the last writer died: a reader sees whole values or none;
// a new writer accepts them or says why not; one that may rebuild gets all whole values and all
// nodes back. `sound`: the state before, whose keys other than `key` must still be there.
void ExpectMendable(std::map<unsigned long, std::string>* sound, unsigned long key, int* refused) {
  {
    Map reader;
    ASSERT_TRUE(reader.InitForRead(test::kMapName));
    for (const auto& entry : *sound) {
      const std::string found = ReadValue(reader, entry.first);
      ASSERT_TRUE(entry.first == key ? found.empty() || IsPattern(key, found)
                                     : found == entry.second);
    }
  }
  {
    Reports reports;
    Map plain;
    if (!OpenWriter(&plain)) {
      ++*refused;
      ASSERT_NE(reports.Take().find("1 ShmLinkTable::InitForWrite: bad free_node_num("),
                std::string::npos);
    }
  }
  Map mended;
  ASSERT_TRUE(OpenWriter(&mended, true));
  (*sound)[key] = ReadValue(mended, key);
  if (sound->at(key).empty()) sound->erase(key);
  size_t nodes = 0;
  std::map<unsigned long, std::string> found;
  mended.Travel([&](unsigned long each, const std::string& value) {
    found[each] = value;
    nodes += (value.size() + 4 + 60) / 61;
  });
  ASSERT_EQ(found, *sound);
  ASSERT_EQ(mended.size(), sound->size());
  ASSERT_EQ(mended.link_table_free_percentage(), (300 - nodes) * 100 / 300) << "nodes leaked";
  ASSERT_EQ(mended.RecoverNodes(), 0u);
}

// Runs `body` in a child, `steps` machine instructions of it and no more. Gives the instructions
// done, less than `steps` if it came to its end; -1 where tracing is not allowed.
long RunSteps(const std::function<void()>& prepare, const std::function<void()>& body, long steps) {
  const pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    prepare();
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(77);
    raise(SIGSTOP);
    body();
    raise(SIGSTOP);
    _exit(0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  if (!WIFSTOPPED(status)) return -1;
  long done = 0;
  for (; done < steps; ++done) {
    ptrace(PTRACE_SINGLESTEP, pid, nullptr, nullptr);
    waitpid(pid, &status, 0);
    if (!WIFSTOPPED(status) || WSTOPSIG(status) != SIGTRAP) break;
  }
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  return done;
}

// Wherever within Replace and Erase a writer is killed, instruction by instruction.
TEST_F(ShmcCrash, WriterDiesAtEveryInstruction) {
  std::map<unsigned long, std::string> sound;
  {
    Map map;
    ASSERT_TRUE(OpenWriter(&map));
    for (unsigned long key = 0; key < 30; ++key) {
      ASSERT_TRUE(Store(&map, key, key));
      sound[key] = Pattern(key, key);
    }
  }
  uint64_t store = 100;
  int refused = 0;
  int rounds = 0;
  for (const bool erases : {false, true}) {
    Map* map = nullptr;
    std::string value;
    const auto prepare = [&] {
      map = new Map();
      if (!OpenWriter(map)) _exit(1);
      map->Replace(40, "warm", 4);  // binds the calls, so that no step is the loader's
      map->Erase(40);
      map->Erase(3);
      map->Replace(3, Pattern(3, store - 1).data(), Pattern(3, store - 1).size());
      value = Pattern(3, store);
    };
    const auto body = [&] { erases ? map->Erase(3) : map->Replace(3, value.data(), value.size()); };
    ++store;
    const long whole = RunSteps(prepare, body, 1000000);
    if (whole < 0) GTEST_SKIP() << "tracing is not allowed here";
    ASSERT_GT(whole, 100);
    // All of them, or as many as time allows, spread evenly.
    const long stride = std::max(1L, whole / (kIsSlow ? 100 : 500));
    for (long steps = whole % stride; steps <= whole; steps += stride, ++rounds) {
      ++store;
      SCOPED_TRACE(testing::Message() << "erases " << erases << " after instruction " << steps);
      RunSteps(prepare, body, steps);
      ASSERT_NO_FATAL_FAILURE(ExpectMendable(&sound, 3, &refused));
    }
  }
  EXPECT_GT(rounds, 100);
  EXPECT_GT(refused, 0);
  EXPECT_LT(refused, rounds / 2);
}

// The same with SIGKILL at random moments of a writer at full speed, readers attached throughout.
TEST_F(ShmcCrash, WriterIsKilledAtRandom) {
  Map reader;
  {
    Map map;
    ASSERT_TRUE(OpenWriter(&map));
    ASSERT_TRUE(reader.InitForRead(test::kMapName));
  }
  std::mt19937 random(5);
  uint64_t found = 0;
  for (int round = 0; round < 300; ++round) {
    SCOPED_TRACE(round);
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t pid = fork();
    if (pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      Map map;
      if (!OpenWriter(&map, true) || write(ready[1], "r", 1) != 1) _exit(1);
      std::mt19937 choice(static_cast<unsigned>(round));
      for (uint64_t store = static_cast<uint64_t>(round) << 32;; ++store) {
        const unsigned long key = choice() % 40;
        choice() % 4 == 0 ? map.Erase(key) : Store(&map, key, store);
      }
    }
    char byte = 0;
    const bool is_ready = read(ready[0], &byte, 1) == 1;
    close(ready[0]);
    close(ready[1]);
    usleep(static_cast<useconds_t>(random() % 1500));
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    ASSERT_TRUE(is_ready) << "a new writer could not mend what the last one left";
    for (unsigned long key = 0; key < 40; ++key) {
      const std::string value = ReadValue(reader, key);
      found += value.empty() ? 0 : 1;
      ASSERT_TRUE(value.empty() || IsPattern(key, value)) << key;
    }
  }
  EXPECT_GT(found, 1000u);
}

// A writer that dies while it lays out a segment leaves a head that ends early: refused, or with
// the option completed.
TEST_F(ShmcCrash, UnfinishedLayoutIsRefusedOrCompleted) {
  for (const char* name : {test::kHashName, test::kLinkName}) {
    const bool is_hash = name == test::kHashName;
    for (const size_t end : is_hash ? std::vector<size_t>{0, 8, 12, 16, 20, 24, 28, 32}
                                    : std::vector<size_t>{0, 8, 12, 16, 20, 24, 28}) {
      SCOPED_TRACE(testing::Message() << name << " written up to " << end);
      RemoveSegments();
      { ASSERT_TRUE(OpenWriter(std::make_unique<Map>().get())); }
      RawSegment raw(name);
      memset(raw.bytes() + end, 0, raw.size() - end);
      Reports reports;
      EXPECT_FALSE(OpenWriter(std::make_unique<Map>().get()));
      EXPECT_NE(reports.Take().find(is_hash ? "InitForWrite: hash_table init fail\n"
                                            : "InitForWrite: link_table init fail\n"),
                std::string::npos);
      Map map;
      ASSERT_TRUE(OpenWriter(&map, true));
      EXPECT_EQ(map.free_percentage(), 100u);
      ASSERT_TRUE(Store(&map, 7, 7));
      Map reader;
      ASSERT_TRUE(reader.InitForRead(test::kMapName));
      EXPECT_EQ(ReadValue(reader, 7), Pattern(7, 7));
    }
  }
}

// Of two segments one is removed from outside: the cells that are left must not name strings of
// other keys later, nor the nodes that are left be lost.
TEST_F(ShmcCrash, HalfRemovedMapStartsEmpty) {
  for (const char* removed : {test::kHashName, test::kLinkName}) {
    RemoveSegments();
    {
      Map map;
      ASSERT_TRUE(OpenWriter(&map));
      for (unsigned long key = 0; key < 40; ++key) ASSERT_TRUE(Store(&map, key, key));
    }
    test::ShmAlloc().Unlink(removed);
    Map map;
    ASSERT_TRUE(OpenWriter(&map));
    EXPECT_EQ(map.size(), 0u);
    EXPECT_EQ(map.free_percentage(), 100u);
    for (unsigned long key = 100; key < 120; ++key) ASSERT_TRUE(Store(&map, key, key));
    for (unsigned long key = 0; key < 40; ++key) EXPECT_EQ(ReadValue(map, key), "");
  }
}

// ---- Damaged heads

// Each field of a head that is wrong is refused with its own message, by writers and by readers,
// and before a damaged geometry costs time or memory.
TEST_F(ShmcCrash, DamagedHeadsAreRefusedByName) {
  struct Case {
    const char* segment;
    size_t offset;
    uint32_t value;
    const char* writer;  // null: the writer does not look at it
    const char* reader;
  };
  const uint32_t huge = 0xffffffff;
  const std::vector<Case> cases = {
      {test::kHashName, 4, 0, "bad magic(0x68736148)", "bad magic(0x68736148)"},
      {test::kHashName, 8, 0x20000, "bad ver(0x20000)", "bad ver(0x20000)"},
      {test::kHashName, 12, 113, "bad head_size(113)", "bad head_size(113)"},
      {test::kHashName, 16, 24, "bad node_size(24)", "bad node_size(24)"},
      {test::kHashName, 20, 93, "bad node_num(93)", "bad shm size(1584)"},
      {test::kHashName, 20, huge, "bad node_num(4294967295)", "bad shm size(1584)"},
      {test::kHashName, 24, 41, "bad first_row_size(41)", "bad node_num(92)"},
      {test::kHashName, 24, huge, "bad first_row_size(4294967295)", "bad node_num(92)"},
      {test::kHashName, 28, 70, "bad row_size_ratio(70)", "bad node_num(92)"},
      {test::kHashName, 28, huge, "bad row_size_ratio(4294967295)", "bad node_num(92)"},
      {test::kHashName, 28, 0, "bad row_size_ratio(0)", "bad row_num(6)"},
      {test::kHashName, 32, 5, "bad row_num(5)", "bad node_num(92)"},
      {test::kHashName, 32, 101, "bad row_num(101)", "bad row_num(101)"},
      {test::kHashName, 32, huge, "bad row_num(4294967295)", "bad row_num(4294967295)"},
      {test::kLinkName, 0, 1, "bad magic(0x62615400000001)", "bad magic(0x62615400000001)"},
      {test::kLinkName, 8, 0, "bad ver(0x0)", "bad ver(0x0)"},
      {test::kLinkName, 12, 112, "bad head_size(112)", "bad head_size(112)"},
      {test::kLinkName, 16, 11, "bad node_size(11)", "bad node_size(11)"},
      {test::kLinkName, 16, huge, "bad node_size(4294967295)", "bad shm size(20889)"},
      {test::kLinkName, 20, 1, "bad node_num(1)", "bad node_num(1)"},
      {test::kLinkName, 20, 302, "bad node_num(302)", "bad shm size(20889)"},
      {test::kLinkName, 24, 301, "bad free_node_num(300)", nullptr},
      {test::kLinkName, 24, 7, "bad free_node_num(300)", nullptr},
      {test::kLinkName, 32, huge, "bad free_node_num(4294967295)", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.segment << " offset " << c.offset << " value " << c.value);
    RemoveSegments();
    ASSERT_TRUE(OpenWriter(std::make_unique<Map>().get()));
    RawSegment(c.segment).Set(c.offset, c.value);
    Reports reports;
    EXPECT_FALSE(OpenWriter(std::make_unique<Map>().get()));
    EXPECT_NE(reports.Take().find(std::string("::InitForWrite: ") + c.writer + "\n"),
              std::string::npos);
    EXPECT_EQ(Map().InitForRead(test::kMapName), c.reader == nullptr);
    if (c.reader == nullptr) continue;
    EXPECT_NE(reports.Take().find(std::string("::InitForRead: ") + c.reader + "\n"),
              std::string::npos);
  }
}

// ---- Damage anywhere

// Segments in memory that ends where they end: one byte too far, before or behind, is a fault. A
// reader's mapping is read-only, as that of a System V segment is.
class GuardedAlloc : public shmc::impl::ShmAlloc {
 public:
  void* Attach(const std::string& name, size_t size, int flags, size_t* real_size) override {
    using namespace shmc::impl;
    auto found = Files().find(name);
    if (found == Files().end()) {
      if ((flags & kAttachCreate) == 0) return Fail(kShmAllocNotExist);
      const int fd = memfd_create("segment", MFD_CLOEXEC);
      if (fd == -1 || ftruncate(fd, static_cast<off_t>(Pages(size))) != 0) return nullptr;
      found = Files().emplace(name, std::make_pair(fd, size)).first;
    }
    const auto& [fd, bytes] = found->second;
    if (size > bytes) return Fail(kShmAllocSizeMismatch);
    char* space = static_cast<char*>(
        mmap(nullptr, Pages(bytes) + 2 * kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    const int access = (flags & kAttachReadOnly) != 0 ? PROT_READ : PROT_READ | PROT_WRITE;
    mmap(space + kPage, Pages(bytes), access, MAP_SHARED | MAP_FIXED, fd, 0);
    *real_size = bytes;
    return space + kPage + Slack(bytes);
  }
  bool Detach(void* addr, size_t size) override {
    return munmap(static_cast<char*>(addr) - Slack(size) - kPage, Pages(size) + 2 * kPage) == 0;
  }
  bool Unlink(const std::string& name) override {
    const auto found = Files().find(name);
    if (found == Files().end()) return false;
    close(found->second.first);
    Files().erase(found);
    return true;
  }
  size_t AlignSize() override { return 1; }

 private:
  static constexpr size_t kPage = 4096;
  static size_t Pages(size_t size) { return (size + kPage - 1) / kPage * kPage; }
  // A segment begins at a multiple of 8, so that at most 7 bytes lie between its end and the fault.
  static size_t Slack(size_t size) { return Pages(size) - (size + 7) / 8 * 8; }
  static std::map<std::string, std::pair<int, size_t>>& Files() {
    static std::map<std::string, std::pair<int, size_t>> files;
    return files;
  }
  void* Fail(shmc::impl::ShmAllocErrno why) {
    set_last_errno(why);
    errno = ENOENT;
    return nullptr;
  }
};

using GuardedMap = shmc::ShmHashMap<unsigned long, GuardedAlloc>;
using GuardedBytes = shmc::ShmHandle<char, GuardedAlloc>;
constexpr unsigned long kFuzzKeys = 30;

// Overwrites some words and bytes of heads, cells and nodes, with a liking for numbers that matter.
void Damage(GuardedBytes* hash, GuardedBytes* link, std::mt19937* source, size_t node_size) {
  const auto random = [&] { return static_cast<uint32_t>((*source)()); };
  for (size_t count = 1 + random() % 24; count > 0; --count) {
    GuardedBytes* segment = random() % 2 == 0 ? hash : link;
    const size_t head = segment == hash ? 112 : 120;
    const size_t unit = segment == hash ? 16 : node_size;
    size_t at = random() % segment->size();
    if (random() % 8 == 0) at = random() % 12 * 4;  // a field of the head
    if (random() % 2 == 0 && at > head) at = at - (at - head) % unit + random() % 3 * 4;
    const uint32_t numbers[] = {0,
                                1,
                                2,
                                60,
                                61,
                                62,
                                0x80000000u,
                                0xffffffffu,
                                0xfffffff0,
                                random(),
                                random() % 64,
                                0x80000000u | random() % 256};
    const uint32_t number = numbers[random() % 12];
    const size_t size = std::min<size_t>(random() % 4 == 0 ? 1 : 4, segment->size() - at);
    for (size_t i = 0; i < size; ++i) {  // atomically: another thread may be reading
      shmc::impl::Store(segment->ptr() + at + i, static_cast<char>(number >> (8 * i)));
    }
  }
}

// Every operation; gives how many keys could be read.
size_t UseAll(GuardedMap* map, bool writes) {
  size_t hits = 0;
  for (unsigned long key = 0; key < kFuzzKeys; ++key) {
    hits += ReadValue(*map, key).empty() ? 0 : 1;
    size_t length = 0;
    map->FindC(key, nullptr, &length);
  }
  GuardedMap::TravelPos pos;
  pos.row = 2;
  pos.col = 1000000;
  map->Travel(&pos, 7, [](unsigned long, const std::string&) {});
  map->Travel([](unsigned long, const std::string&) {});
  EXPECT_LE(map->free_percentage(), 100u);
  if (!writes) return hits;
  for (unsigned long key = 0; key < kFuzzKeys; key += 2) {
    const std::string value = Pattern(key, key);
    map->Replace(key, value.data(), value.size());
    map->Erase(key + 1);
  }
  return hits;
}

// Whatever the bytes, no operation faults, hangs or reads behind the segment, be the damage done
// before a process attaches or after; and what a rebuild accepts works as a sound map does.
TEST_F(ShmcCrash, ArbitraryBytesDoNoHarm) {
  const unsigned seed = 20260131;
  std::mt19937 random(seed);
  size_t hits = 0;
  size_t accepted = 0;
  size_t rebuilt = 0;
  const size_t rounds = 4000;
  for (size_t round = 0; round < rounds; ++round) {
    SCOPED_TRACE(testing::Message() << "seed " << seed << " round " << round);
    const size_t user_size = std::vector<size_t>{4, 5, 30, 61}[round % 4];
    const auto open = [&](GuardedMap* map, bool rebuild) {
      map->set_rebuild(rebuild);
      return map->InitForWrite("1", 50, user_size, 60);
    };
    GuardedMap writer;
    GuardedMap reader;
    GuardedBytes hash;
    GuardedBytes link;
    ASSERT_TRUE(open(&writer, false) && reader.InitForRead("1"));
    ASSERT_TRUE(hash.InitForWrite("10", 1, 0) && link.InitForWrite("11", 1, 0));
    UseAll(&writer, true);
    Damage(&hash, &link, &random, user_size + 8);
    hits += UseAll(&reader, false);
    GuardedMap late_reader;
    if (late_reader.InitForRead("1")) UseAll(&late_reader, false);
    if (round % 2 == 0) UseAll(&writer, true);
    if (round % 8 == 0) writer.RecoverNodes();
    GuardedMap late_writer;
    if (open(&late_writer, false)) {
      ++accepted;
      UseAll(&late_writer, true);
    }
    GuardedMap mended;
    if (open(&mended, true)) {
      ++rebuilt;
      ASSERT_EQ(mended.RecoverNodes(), 0u) << "found something left to mend";
      for (unsigned long key = 0; key < kFuzzKeys; ++key) {
        const std::string value = Pattern(key, round).substr(0, 40);
        if (!mended.Replace(key, value.data(), value.size())) continue;
        ASSERT_EQ(ReadValue(mended, key), value);
      }
      size_t entries = 0;
      mended.Travel([&](unsigned long key, const std::string&) {
        ++entries;
        ASSERT_TRUE(mended.Erase(key));
      });
      ASSERT_GT(entries, 0u);
      ASSERT_EQ(mended.free_percentage(), 100u);
    }
    GuardedAlloc().Unlink("10");
    GuardedAlloc().Unlink("11");
  }
  EXPECT_GT(hits, rounds);
  EXPECT_GT(accepted, rounds / 20);
  EXPECT_LT(accepted, rounds * 19 / 20);
  EXPECT_GT(rebuilt, rounds / 4);
}

// A hostile process that changes bytes at any moment, also between a check and the use of what was
// checked, gets no other process to fault.
TEST_F(ShmcCrash, BytesThatChangeWhileReadDoNoHarm) {
  GuardedMap writer;
  GuardedMap reader;
  GuardedBytes hash;
  GuardedBytes link;
  ASSERT_TRUE(writer.InitForWrite("1", 50, 30, 60) && reader.InitForRead("1"));
  ASSERT_TRUE(hash.InitForWrite("10", 1, 0) && link.InitForWrite("11", 1, 0));
  std::atomic<bool> is_over{false};
  std::atomic<uint64_t> damages{0};
  std::thread hostile([&] {
    std::mt19937 random(9);
    while (!is_over) {
      Damage(&hash, &link, &random, 38);
      ++damages;
    }
  });
  uint64_t turns = 0;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  while (std::chrono::steady_clock::now() < end || damages < 1000) {
    UseAll(&reader, false);
    UseAll(&writer, true);
    writer.RecoverNodes();
    GuardedMap late;
    late.set_rebuild(++turns % 2 == 0);
    late.InitForWrite("1", 50, 30, 60);
    UseAll(&late, true);
  }
  is_over = true;
  hostile.join();
  EXPECT_GT(turns, 20u);
}

}  // namespace
