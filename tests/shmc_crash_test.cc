// The shared map when things go wrong: a writer at full speed beside its readers, writers that die
// at any instruction, and segments with arbitrary bytes.
#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bsp/shmc/shm_hash_map.h"
#include "tests/support/child.h"
#include "tests/support/shmc_support.h"

namespace {

using test::Child;
using test::IsValueOf;
using test::Map;
using test::RawSegment;
using test::ReadValue;
using test::RemoveSegments;
using test::Reports;
using test::ValueOf;
using ShmcCrash = test::SegmentTest;
using Clock = std::chrono::steady_clock;

template <typename AnyMap>
bool Store(AnyMap* map, unsigned long key, uint64_t store) {
  const std::string value = ValueOf(key, store);
  return map->Replace(key, value.data(), value.size());
}

// Opens the map, with nodes at odd addresses, and stores the first `keys` keys.
bool OpenWriter(Map* map, bool rebuild = false, unsigned long keys = 0) {
  map->set_rebuild(rebuild);
  bool is_good = map->InitForWrite(test::kMapName, 50, 61, 300);
  for (unsigned long key = 0; key < keys; ++key) is_good = is_good && Store(map, key, key);
  return is_good;
}

bool CanOpen() { return OpenWriter(std::make_unique<Map>().get()); }

// ---- A writer beside readers

// Readers at full speed, one on the writer's own pages, where ThreadSanitizer watches, never see a
// mixture of two values, and never miss a key that stays: those below 20 are stored once, ten
// behind them are replaced and erased all the time.
TEST_F(ShmcCrash, ReadersSeeWholeValues) {
  Map writer;
  Map reader;
  ASSERT_TRUE(OpenWriter(&writer, false, 20) && reader.InitForRead(test::kMapName));
  std::atomic<uint64_t> whole{0};
  std::atomic<uint64_t> bad{0};
  std::atomic<bool> is_over{false};
  const auto read = [&](const Map& map) {
    for (unsigned long key = 0; !is_over; key = (key + 1) % 30) {
      const std::string value = ReadValue(map, key);
      const bool is_whole = !value.empty() && IsValueOf(key, value);
      whole += is_whole ? 1 : 0;
      bad += is_whole || (value.empty() && key >= 20) ? 0 : 1;
    }
  };
  std::thread threads[] = {std::thread([&] { read(writer); }), std::thread([&] { read(reader); })};
  std::mt19937 random(1);
  const auto end = Clock::now() + std::chrono::seconds(1);
  for (uint64_t store = 1; store < 20000 || whole < 20000 || Clock::now() < end; ++store) {
    const unsigned long key = 20 + random() % 10;
    random() % 16 == 0 ? writer.Erase(key) : Store(&writer, key, store);
  }
  is_over = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(bad, 0u);
}

// Two keys that take turns in one cell are never taken for each other, however the reader is held
// up between finding the cell and reading it. Goes on until that has happened often enough.
TEST_F(ShmcCrash, ReadersNeverGetAnotherKeysValue) {
  constexpr unsigned long kKeys[] = {1, 38};  // the first row has 37 cells
  static std::atomic<int> refused{0};
  Map writer;
  Map reader;
  ASSERT_TRUE(OpenWriter(&writer) && reader.InitForRead(test::kMapName));
  const Reports restores_the_hook;
  shmc::impl::Utils<void>::log_func = [](shmc::LogLevel, const char* text) {
    refused += strstr(text, "key has changed") != nullptr ? 1 : 0;
  };
  std::atomic<int> bad{0};
  std::atomic<bool> is_over{false};
  std::thread reading([&] {
    for (size_t i = 0; !is_over; ++i) {
      const std::string value = ReadValue(reader, kKeys[i % 2]);
      bad += value.empty() || IsValueOf(kKeys[i % 2], value) ? 0 : 1;
    }
  });
  const auto end = Clock::now() + std::chrono::seconds(60);
  for (uint64_t store = 0; refused + bad < 5 && Clock::now() < end; ++store) {
    EXPECT_TRUE(Store(&writer, kKeys[store % 2], store) && writer.Erase(kKeys[store % 2]));
  }
  is_over = true;
  reading.join();
  EXPECT_EQ(bad, 0);
  EXPECT_GT(refused, 0);
}

// ---- Death of a writer

// What must hold of the segments, however the last writer died while it changed `key`: a reader
// sees whole values or none; a new writer accepts them or says why not; one that may rebuild gets
// all whole values and all nodes back.
void ExpectMendable(const std::map<unsigned long, std::string>& sound, unsigned long key,
                    int* refused) {
  auto reader = std::make_unique<Map>();
  ASSERT_TRUE(reader->InitForRead(test::kMapName));
  const std::string left = ReadValue(*reader, key);
  reader.reset();
  ASSERT_TRUE(left.empty() || IsValueOf(key, left));
  Reports reports;
  if (!CanOpen()) {
    ++*refused;
    ASSERT_NE(reports.Take().find("bad free_node_num("), std::string::npos);
  }
  Map mended;
  ASSERT_TRUE(OpenWriter(&mended, true));
  std::map<unsigned long, std::string> expected = sound;
  expected[key] = left;
  if (left.empty()) expected.erase(key);
  size_t nodes = 0;
  std::map<unsigned long, std::string> found;
  mended.Travel([&](unsigned long each, const std::string& value) {
    found[each] = value;
    nodes += (value.size() + 4 + 60) / 61;
  });
  ASSERT_EQ(found, expected);
  ASSERT_EQ(mended.size(), expected.size());
  ASSERT_EQ(mended.link_table_free_percentage(), (300 - nodes) * 100 / 300) << "nodes leaked";
  ASSERT_EQ(mended.RecoverNodes(), 0u);
}

// All states that the segments pass through while another process runs `body`, looked at after each
// machine instruction: what it would leave if it were killed there. Empty where tracing is not
// allowed.
std::vector<std::string> StatesDuring(const std::function<void()>& body, RawSegment* hash,
                                      RawSegment* link) {
  Child child = Child::Fork([&] {
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) return 77;
    raise(SIGSTOP);
    body();
    return raise(SIGSTOP);
  });
  std::vector<std::string> states;
  int status = 0;
  waitpid(child.pid(), &status, 0);
  for (bool runs = WIFSTOPPED(status); runs;) {
    std::string now = std::string(hash->bytes(), hash->size());
    now.append(link->bytes(), link->size());
    if (states.empty() || states.back() != now) states.push_back(std::move(now));
    ptrace(PTRACE_SINGLESTEP, child.pid(), nullptr, nullptr);
    waitpid(child.pid(), &status, 0);
    runs = WIFSTOPPED(status) && WSTOPSIG(status) == SIGTRAP;
  }
  return states;
}

// Wherever within Replace and Erase a writer is killed, instruction by instruction.
TEST_F(ShmcCrash, WriterDiesAtEveryInstruction) {
  std::map<unsigned long, std::string> sound;
  Map map;
  ASSERT_TRUE(OpenWriter(&map, false, 30));
  for (unsigned long key = 0; key < 30; ++key) sound[key] = ValueOf(key, key);
  RawSegment hash(test::kHashName);
  RawSegment link(test::kLinkName);
  const std::pair<unsigned long, std::function<void()>> deaths[] = {
      {3, [&] { Store(&map, 3, 100); }},    // replaces
      {40, [&] { Store(&map, 40, 101); }},  // adds
      {3, [&] { map.Erase(3); }},
  };
  for (const auto& [key, body] : deaths) {
    const std::vector<std::string> states = StatesDuring(body, &hash, &link);
    if (states.empty()) GTEST_SKIP() << "tracing is not allowed here";
    EXPECT_GT(states.size(), 10u);
    int refused = 0;
    const auto restore = [&](const std::string& state) {
      memcpy(hash.bytes(), state.data(), hash.size());
      memcpy(link.bytes(), state.data() + hash.size(), link.size());
    };
    for (size_t i = 0; i < states.size(); ++i) {
      SCOPED_TRACE(testing::Message() << "key " << key << ", state " << i);
      restore(states[i]);
      ASSERT_NO_FATAL_FAILURE(ExpectMendable(sound, key, &refused));
    }
    EXPECT_GT(refused, 0);
    restore(states.front());
  }
}

// A writer that dies while it lays out a segment leaves a head that ends early: refused, or with
// the option completed; one in which nothing is written is completed in any case, also when
// somebody has wiped it, and cells that are left under it are lost. Of two segments one is removed
// from outside: the map starts empty, so that cells that are left never name strings of other keys,
// nor nodes that are left are lost.
TEST_F(ShmcCrash, HalfAMapStartsEmpty) {
  for (const char* name : {test::kHashName, test::kLinkName}) {
    for (const size_t end : {0, 8, 12, 16, 20, 24, 28, 99999}) {
      SCOPED_TRACE(testing::Message() << name << " written up to " << end);
      const bool is_removed = end == 99999;
      RemoveSegments();
      ASSERT_TRUE(OpenWriter(std::make_unique<Map>().get(), false, is_removed ? 40 : 0));
      if (is_removed) {
        test::ShmAlloc().Unlink(name);
      } else {
        RawSegment raw(name);
        memset(raw.bytes() + end, 0, raw.size() - end);
        EXPECT_EQ(CanOpen(), end == 0);  // nothing written yet: as good as new
      }
      Map map;
      ASSERT_TRUE(OpenWriter(&map, !is_removed));
      EXPECT_EQ(map.free_percentage(), 100u);
      for (unsigned long key = 100; key < 120; ++key) ASSERT_TRUE(Store(&map, key, key));
      for (unsigned long key = 0; key < 40; ++key) EXPECT_EQ(ReadValue(map, key), "");
      EXPECT_EQ(ReadValue(map, 107), ValueOf(107, 107));
    }
  }
}

TEST_F(ShmcCrash, WipedHeadsStartEmpty) {
  ASSERT_TRUE(OpenWriter(std::make_unique<Map>().get(), false, 40));
  memset(RawSegment(test::kHashName).bytes(), 0, 112);
  memset(RawSegment(test::kLinkName).bytes(), 0, 120);
  Map map;
  ASSERT_TRUE(OpenWriter(&map));
  for (unsigned long key = 100; key < 140; ++key) ASSERT_TRUE(Store(&map, key, key));
  for (unsigned long key = 0; key < 40; ++key) EXPECT_EQ(ReadValue(map, key), "");
}

// ---- Damage

// Each field of a head that is wrong is refused by its name, by writers and by readers, and before
// a damaged geometry costs time or memory. Readers do not look at the free list.
TEST_F(ShmcCrash, DamagedHeadsAreRefusedByName) {
  const struct {
    const char* segment;
    size_t offset;
    uint32_t value;
    const char* refusal;
  } cases[] = {
      {test::kHashName, 4, 0, "bad magic(0x68736148)"},
      {test::kHashName, 8, 0x20000, "bad ver(0x20000)"},
      {test::kHashName, 12, 113, "bad head_size(113)"},
      {test::kHashName, 16, 24, "bad node_size(24)"},
      {test::kHashName, 20, 0xffffffff, "bad node_num(4294967295)"},
      {test::kHashName, 24, 0xffffffff, "bad first_row_size(4294967295)"},
      {test::kHashName, 28, 0, "bad row_size_ratio(0)"},
      {test::kHashName, 32, 5, "bad row_num(5)"},
      {test::kHashName, 32, 101, "bad row_num(101)"},
      {test::kLinkName, 0, 1, "bad magic(0x62615400000001)"},
      {test::kLinkName, 8, 0, "bad ver(0x0)"},
      {test::kLinkName, 12, 112, "bad head_size(112)"},
      {test::kLinkName, 16, 0xffffffff, "bad node_size(4294967295)"},
      {test::kLinkName, 20, 1, "bad node_num(1)"},
      {test::kLinkName, 24, 301, "bad free_node_num(300)"},
      {test::kLinkName, 32, 0xffffffff, "bad free_node_num(4294967295)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.refusal);
    RemoveSegments();
    ASSERT_TRUE(CanOpen());
    RawSegment(c.segment).Set(c.offset, c.value);
    Reports reports;
    EXPECT_FALSE(CanOpen());
    EXPECT_NE(reports.Take().find(c.refusal), std::string::npos);
    EXPECT_EQ(Map().InitForRead(test::kMapName), c.segment == test::kLinkName && c.offset >= 24);
  }
}

// Damage costs no time: a free list in a circle under a huge count, and a rebuild of half a table
// of first nodes that all lead into the other half, one long chain that is not whole.
TEST_F(ShmcCrash, WalksAreBounded) {
  constexpr uint32_t kNodes = 1 << 19;
  const auto open = [](bool rebuild) {
    test::LinkTable table;
    table.set_rebuild(rebuild);
    return table.InitForWrite(test::kLinkName, 8, kNodes);
  };
  ASSERT_TRUE(open(false));
  RawSegment raw(test::kLinkName);
  const clock_t begin = clock();
  raw.Set(120 + 16, 1);
  raw.Set(32, 0xffffffff);
  EXPECT_FALSE(open(false));
  for (uint32_t i = 1; i <= kNodes; ++i) {
    const bool is_first = i <= kNodes / 2;
    const uint32_t node[] = {is_first ? kNodes / 2 + 1 : (i + 1) % (kNodes + 1),
                             is_first ? 0x80000005u : 5u, (kNodes / 2 + 2) * 8 - 4};
    memcpy(raw.bytes() + 120 + 16 * i, node, sizeof node);
  }
  EXPECT_TRUE(open(true));
  EXPECT_LT((clock() - begin) / CLOCKS_PER_SEC, 5) << "of processor time; some 0.1 are usual";
}

// Real segments between pages that fault. Their sizes are chosen such that they end with a page:
// one byte too far, before or behind, is a fault.
class GuardedAlloc : public test::ShmAlloc {
 public:
  void* Attach(const std::string& name, size_t size, int flags, size_t* real_size) override {
    void* const found = test::ShmAlloc::Attach(name, size, flags, real_size);
    if (found == nullptr) return nullptr;
    char* const space = static_cast<char*>(
        mmap(nullptr, *real_size + 2 * kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    return mremap(found, *real_size, *real_size, MREMAP_MAYMOVE | MREMAP_FIXED, space + kPage);
  }
  // In one call, which detaches too: between two of them another thread might get the gap.
  bool Detach(void* addr, size_t size) override {
    return munmap(static_cast<char*>(addr) - kPage, size + 2 * kPage) == 0;
  }

 private:
  static constexpr size_t kPage = 4096;
};

using GuardedMap = shmc::ShmHashMap<unsigned long, GuardedAlloc>;
constexpr unsigned long kFuzzKeys = 30;

// 112 + 1273 * 16 bytes of cells, 120 + 3976 bytes of nodes.
bool OpenGuarded(GuardedMap* map, size_t node_size, bool rebuild) {
  map->set_rebuild(rebuild);
  return map->InitForWrite(test::kMapName, 648, node_size - 8, 3976 / node_size - 1);
}

// Overwrites some words and bytes of heads, cells and nodes, with a liking for numbers that matter.
void Damage(std::mt19937* source, size_t node_size) {
  RawSegment hash(test::kHashName);
  RawSegment link(test::kLinkName);
  const auto random = [&] { return static_cast<uint32_t>((*source)()); };
  for (size_t count = 1 + random() % 24; count > 0; --count) {
    RawSegment* const segment = random() % 2 == 0 ? &hash : &link;
    const size_t head = segment == &hash ? 112 : 120;
    const size_t unit = segment == &hash ? 16 : node_size;
    size_t at = random() % (random() % 2 == 0 ? 600 : segment->size());  // most keys lie in front
    if (random() % 8 == 0) at = random() % 12 * 4;                       // a field of the head
    if (random() % 2 == 0 && at > head) at = at - (at - head) % unit + random() % 3 * 4;
    const uint32_t numbers[] = {
        0, 1, 60, 0xffffffffu, random(), random() % 64, 0x80000000u | random() % 256};
    const uint32_t number = numbers[random() % 7];
    const size_t size = std::min<size_t>(random() % 4 == 0 ? 1 : 4, segment->size() - at);
    for (size_t i = 0; i < size; ++i) {  // atomically: another thread may be reading
      shmc::impl::Store(segment->bytes() + at + i, static_cast<char>(number >> (8 * i)));
    }
  }
}

// Every operation; gives how many keys could be read.
size_t UseAll(GuardedMap* map, bool writes) {
  size_t hits = 0;
  for (unsigned long key = 0; key < kFuzzKeys; ++key) {
    hits += ReadValue(*map, key).empty() ? 0 : 1;
  }
  GuardedMap::TravelPos pos{2, 1000000};
  map->Travel(&pos, 7, [](unsigned long, const std::string&) {});
  map->Travel([](unsigned long, const std::string&) {});
  EXPECT_LE(map->free_percentage(), 100u);
  for (unsigned long key = 0; writes && key < kFuzzKeys; key += 2) {
    Store(map, key, key);
    map->Erase(key + 1);
  }
  return hits;
}

// Whatever the bytes, no operation faults, hangs or reads behind the segment, be the damage done
// before a process attaches or after; and what a rebuild accepts works as a sound map does.
TEST_F(ShmcCrash, ArbitraryBytesDoNoHarm) {
  std::mt19937 random(20260131);
  size_t hits = 0;
  size_t rebuilt = 0;
  constexpr size_t kRounds = 4000;
  for (size_t round = 0; round < kRounds; ++round) {
    SCOPED_TRACE(round);
    const size_t node_size = std::vector<size_t>{14, 28, 56, 71}[round % 4];
    RemoveSegments();
    GuardedMap writer;
    GuardedMap reader;
    ASSERT_TRUE(OpenGuarded(&writer, node_size, false) && reader.InitForRead(test::kMapName));
    UseAll(&writer, true);
    Damage(&random, node_size);
    hits += UseAll(&reader, false);
    GuardedMap late_reader;
    if (late_reader.InitForRead(test::kMapName)) UseAll(&late_reader, false);
    if (round % 2 == 0) UseAll(&writer, true);
    if (round % 8 == 0) writer.RecoverNodes();
    GuardedMap late_writer;
    if (OpenGuarded(&late_writer, node_size, false)) UseAll(&late_writer, true);
    GuardedMap mended;
    if (!OpenGuarded(&mended, node_size, true)) continue;
    ++rebuilt;
    ASSERT_EQ(mended.RecoverNodes(), 0u) << "found something left to mend";
    for (unsigned long key = 0; key < kFuzzKeys; ++key) {
      if (!Store(&mended, key, round)) continue;
      ASSERT_EQ(ReadValue(mended, key), ValueOf(key, round));
    }
    mended.Travel([&](unsigned long key, const std::string&) { mended.Erase(key); });
    ASSERT_EQ(mended.free_percentage(), 100u);
  }
  EXPECT_GT(hits, kRounds);
  EXPECT_GT(rebuilt, kRounds / 4);
}

// A hostile process that changes bytes at any moment, also between a check and the use of what was
// checked, gets no other process to fault.
TEST_F(ShmcCrash, BytesThatChangeWhileReadDoNoHarm) {
  GuardedMap writer;
  GuardedMap reader;
  ASSERT_TRUE(OpenGuarded(&writer, 71, false) && reader.InitForRead(test::kMapName));
  std::atomic<bool> is_over{false};
  std::atomic<uint64_t> damages{0};
  std::thread hostile([&] {
    std::mt19937 random(9);
    for (; !is_over; ++damages) Damage(&random, 71);
  });
  const auto end = Clock::now() + std::chrono::seconds(1);
  for (uint64_t turn = 0; turn < 20 || damages < 1000 || Clock::now() < end; ++turn) {
    UseAll(&reader, false);
    UseAll(&writer, true);
    writer.RecoverNodes();
    GuardedMap late;
    OpenGuarded(&late, 71, turn % 2 == 0);
    UseAll(&late, true);
  }
  is_over = true;
  hostile.join();
}

}  // namespace
