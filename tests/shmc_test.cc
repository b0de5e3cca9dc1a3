// Segments, link table, hash table and hash map as one writer and its readers see them.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "bsp/shmc/shm_hash_map.h"
#include "tests/support/child.h"
#include "tests/support/shmc_support.h"
#include "tests/support/test_env.h"

namespace {

using shmc::link_buf_t;
using shmc::impl::ShmAllocErrno;
using test::HashTable;
using test::LinkTable;
using test::Map;
using test::RawSegment;
using test::RemoveSegments;
using test::Reports;
using test::ShmAlloc;
using Utils = shmc::impl::Utils<void>;
using Handle = shmc::ShmHandle<char, ShmAlloc>;

class Shmc : public testing::Test {
 protected:
  void SetUp() override {
    NEED_PRIVATE_WORLD();
    RemoveSegments();
  }
  void TearDown() override { RemoveSegments(); }
};

// ---- Segments

// Each way to attach does at each kind of segment what its callers count on, and says why not.
TEST_F(Shmc, AttachByModeAndState) {
  const char* name = test::kHashName;
  const auto attach = [&](size_t size, int create_flags, ShmAllocErrno expected, bool creates) {
    ShmAlloc alloc;
    size_t real_size = 0;
    bool created = !creates;
    void* addr = alloc.Attach_AutoCreate(name, size, create_flags, &real_size, &created);
    EXPECT_EQ(alloc.last_errno(), expected);
    EXPECT_EQ(created, creates);
    if (addr == nullptr) return size_t{0};
    EXPECT_TRUE(alloc.Detach(addr, size));
    return real_size;
  };
  using namespace shmc::impl;
  EXPECT_EQ(attach(100, 0, kShmAllocNotExist, false), 0u);
  EXPECT_EQ(attach(100, 1, kShmAllocNotExist, true), 100u);  // the first step found none
  EXPECT_EQ(attach(60, 1, kShmAllocOk, false), 100u);
  EXPECT_EQ(attach(101, 1, kShmAllocSizeMismatch, false), 0u);
  EXPECT_EQ(attach(101, 3, kShmAllocExist, true), 101u);  // removed and made anew
  ShmAlloc alloc;
  EXPECT_EQ(alloc.Attach_ExclCreate(name, 8, nullptr), nullptr);
  EXPECT_EQ(alloc.last_errno(), kShmAllocExist);
  EXPECT_FALSE(alloc.Unlink("99999999999999999999"));
  EXPECT_EQ(alloc.last_errno(), kShmAllocBadName);
  EXPECT_EQ(alloc.Attach_ReadOnly("0x1ffffffffffffffff", 8, nullptr), nullptr);
  EXPECT_EQ(alloc.last_errno(), kShmAllocBadName);
  int key = 0;
  EXPECT_TRUE(ShmAlloc::str2key("0x76a000000zz", &key));  // cut to 32 bits, the rest not looked at
  EXPECT_EQ(key, 0x6a000000);
}

// A handle keeps its one attachment, sees what another wrote, and leaves the segment behind.
TEST_F(Shmc, HandleLifeAndSize) {
  Reports reports;
  Handle handle;
  EXPECT_FALSE(handle.InitForRead(test::kHashName, 10));
  EXPECT_EQ(reports.Take(), "1 ShmHandler::InitForRead: No such file or directory\n");
  ASSERT_TRUE(handle.InitForWrite(test::kHashName, 100, 1));
  EXPECT_TRUE(handle.is_newly_created());
  handle.ptr()[99] = 'x';
  EXPECT_FALSE(handle.InitForWrite(test::kHashName, 100, 1));
  EXPECT_FALSE(handle.InitForRead(test::kHashName, 100));
  EXPECT_EQ(handle.size(), 100u);
  handle.Reset();
  EXPECT_FALSE(handle.is_initialized());
  EXPECT_FALSE(handle.InitForWrite(test::kHashName, 101, 1));
  EXPECT_EQ(reports.Take(), "1 ShmHandler::InitForWrite: Invalid argument\n");
  ASSERT_TRUE(handle.InitForRead(test::kHashName, 50));
  EXPECT_EQ(handle.ptr()[99], 'x');
  EXPECT_FALSE(handle.is_newly_created());
  EXPECT_TRUE(handle.CheckSize(100));
  EXPECT_FALSE(handle.CheckSize(50));
}

// A user who is kept out learns whose segment it is, though he may not even look at it.
TEST_F(Shmc, DeniedSegmentNamesItsOwner) {
  Handle handle;
  ASSERT_TRUE(handle.InitForWrite(test::kHashName, 100, 1));
  test::Child child = test::Child::Fork([] {
    if (setgid(65534) != 0 || setuid(65534) != 0) return 77;
    Reports reports;
    Handle other;
    const bool denied = !other.InitForWrite(test::kHashName, 100, 1);
    printf("%s", reports.Take().c_str());
    fflush(stdout);
    return denied ? 0 : 1;
  });
  const int code = child.Wait();
  if (code == 77) GTEST_SKIP() << "no second user here";
  EXPECT_EQ(code, 0);
  const std::string owner = "segment 0x6a000000 of 100 bytes belongs to uid " +
                            std::to_string(geteuid()) + ", mode 640, made by pid " +
                            std::to_string(getpid());
  EXPECT_EQ(child.output(), "1 ShmAlloc::Attach: 0x6a000000: denied, " + owner +
                                "\n1 ShmHandler::InitForWrite: Permission denied\n");
}

// The prime search gives what trial division gives, also at the end of 32 bits; texts are cut and
// filtered, not lost or overrun.
TEST(ShmcUtils, PrimesAndReports) {
  const auto is_prime = [](size_t number) {
    for (size_t divisor = 2; divisor <= number / 2; ++divisor) {
      if (number % divisor == 0) return false;
    }
    return true;
  };
  std::vector<size_t> expected;
  for (size_t number = 3000; number > 0; --number) {
    if (is_prime(number)) expected.push_back(number);
  }
  std::vector<size_t> primes(expected.size());
  EXPECT_TRUE(Utils::GetPrimeArray(3000, primes.size(), primes.data()));
  EXPECT_EQ(primes, expected);
  primes.resize(primes.size() + 1);
  EXPECT_FALSE(Utils::GetPrimeArray(3000, primes.size(), primes.data()));
  EXPECT_TRUE(Utils::GetPrimeArray(0xffffffff, 1, primes.data()));
  EXPECT_EQ(primes[0], 4294967291u);
  EXPECT_EQ(Utils::GenMagic("HashTab2more"), 0x3262615468736148u);
  EXPECT_EQ(Utils::MajorVer(Utils::MakeVer(3, 0x10007)), 3u);

  Reports reports;
  Utils::Log(shmc::kLogDebug, "%s", std::string(10000, 'x').c_str());
  EXPECT_EQ(reports.Take(), "4 " + std::string(4095, 'x'));
  Utils::log_level = shmc::kLogWarning;
  Utils::Log(shmc::kLogInfo, "filtered");
  EXPECT_EQ(reports.Take(), "");
}

// ---- Link table

// The segment has the bytes that every release of the library reads and writes.
TEST_F(Shmc, LinkTableBytes) {
  LinkTable table;
  ASSERT_TRUE(table.InitForWrite(test::kLinkName, 10, 3));
  const link_buf_t buf = table.New("abcdefg", 7);
  EXPECT_EQ(buf, link_buf_t(1, 2));
  const RawSegment raw(test::kLinkName);
  ASSERT_EQ(raw.size(), 120u + 18 * 4);
  const uint32_t head[] = {0x6e694c, 0, 0x10000, 120, 18, 4, 3, 2, 1, 1, 7, 0};
  EXPECT_EQ(raw.Get<uint64_t>(0), 0x6261546b6e694cu);
  for (size_t i = 2; i < 12; ++i) EXPECT_EQ(raw.Get<uint32_t>(i * 4), head[i]) << i;
  EXPECT_GT(raw.Get<int64_t>(48), 1600000000);
  EXPECT_EQ(raw.Get<uint32_t>(138), 2u);           // node 1: next
  EXPECT_EQ(raw.Get<uint32_t>(142), 0x80000002u);  // tag of a first node
  EXPECT_EQ(raw.Get<uint32_t>(146), 7u);           // length
  EXPECT_EQ(std::string(raw.Get<std::array<char, 6>>(150).data(), 6), "abcdef");
  EXPECT_EQ(raw.Get<uint32_t>(160), 2u);  // node 2: tag
  EXPECT_EQ(raw.Get<char>(164), 'g');
}

// A table beside a model, for node sizes that leave heads at every alignment: strings stay whole,
// no node is lost, a full table refuses without a change, a name that is gone stays gone.
TEST_F(Shmc, LinkTableAgreesWithAModel) {
  for (const size_t user_size : {4, 5, 10, 11, 64}) {
    SCOPED_TRACE(user_size);
    RemoveSegments();
    LinkTable writer;
    LinkTable reader;
    ASSERT_TRUE(writer.InitForWrite(test::kLinkName, user_size, 100));
    ASSERT_TRUE(reader.InitForRead(test::kLinkName));
    const auto nodes_of = [&](size_t length) { return (length + 4 + user_size - 1) / user_size; };
    std::map<uint32_t, std::pair<link_buf_t, std::string>> alive;  // by head
    std::vector<link_buf_t> gone;
    size_t free_nodes = 100;
    size_t refused = 0;
    std::mt19937 random(7);
    for (uint64_t step = 0; step < 3000; ++step) {
      if (random() % 5 < 3) {
        const std::string text = test::Pattern(1, step).substr(0, 1 + random() % (user_size * 6));
        const link_buf_t buf = writer.New(text.data(), text.size());
        ASSERT_EQ(static_cast<bool>(buf), nodes_of(text.size()) <= free_nodes);
        refused += buf ? 0 : 1;
        if (!buf) continue;
        free_nodes -= nodes_of(text.size());
        ASSERT_TRUE(alive.emplace(buf.head(), std::make_pair(buf, text)).second);
      } else if (!alive.empty()) {
        const auto victim = std::next(alive.begin(), static_cast<long>(random() % alive.size()));
        ASSERT_TRUE(writer.Free(victim->second.first));
        ASSERT_FALSE(writer.Free(victim->second.first));
        free_nodes += nodes_of(victim->second.second.size());
        gone.push_back(victim->second.first);
        alive.erase(victim);
      }
      ASSERT_EQ(reader.free_nodes(), free_nodes);
      ASSERT_EQ(reader.link_bufs(), alive.size());
    }
    std::string text;
    for (const auto& entry : alive) {
      ASSERT_TRUE(reader.Read(entry.second.first, &text));
      ASSERT_EQ(text, entry.second.second);
      for (size_t room = 0; room <= text.size(); ++room) {  // cut anywhere, the length is told
        std::vector<char> part(room + 1, '#');
        size_t length = room;
        ASSERT_TRUE(reader.Read(entry.second.first, part.data(), &length));
        ASSERT_EQ(length, text.size());
        ASSERT_EQ(std::string(part.data(), room + 1), text.substr(0, room) + "#");
      }
    }
    for (const link_buf_t& buf : gone) ASSERT_FALSE(reader.Read(buf, &text));
    EXPECT_GT(refused, 50u);
    EXPECT_GT(gone.size(), 500u);

    // A writer that comes back finds all of it.
    LinkTable again;
    ASSERT_TRUE(again.InitForWrite(test::kLinkName, user_size, 100));
    for (const auto& entry : alive) EXPECT_TRUE(again.Free(entry.second.first));
    EXPECT_EQ(again.free_nodes(), 100u);
  }
}

// Sizes that no segment can have are refused before anything is attached or multiplied.
TEST_F(Shmc, LinkTableRefusesImpossibleSizes) {
  const size_t most = std::numeric_limits<size_t>::max();
  for (const auto& [size, count] : std::vector<std::pair<size_t, size_t>>{
           {3, 10}, {4, 0}, {0xffffffff, 1}, {4, 0xffffffff}, {most - 3, 2}, {8, most}}) {
    Reports reports;
    LinkTable table;
    EXPECT_FALSE(table.InitForWrite(test::kLinkName, size, count));
    EXPECT_EQ(reports.Take(), "1 ShmLinkTable::InitForWrite: invalid user_node parma\n");
  }
  EXPECT_EQ(ShmAlloc().Attach_ReadOnly(test::kLinkName, 1, nullptr), nullptr);
  LinkTable table;
  ASSERT_TRUE(table.InitForWrite(test::kLinkName, 8, 4));
  EXPECT_FALSE(table.New("x", 0));
  EXPECT_FALSE(table.New("x", size_t{0x100000001}));
  EXPECT_FALSE(table.New(nullptr, 1));
  EXPECT_EQ(RawSegment(test::kLinkName).Get<uint32_t>(28), 1u) << "a refused New takes no tag";
}

// ---- Hash table

// Geometry decides where keys lie: it must be the same in every process and release.
TEST_F(Shmc, HashTableGeometry) {
  struct Case {
    size_t capacity, nodes, rows, usable, expected;
  };
  for (const Case& c : std::vector<Case>{{1, 92, 6, 85, 72},
                                         {50, 92, 6, 85, 72},
                                         {100, 189, 7, 177, 150},
                                         {1000, 1480, 9, 1455, 1236},
                                         {10000, 12448, 11, 12413, 10551}}) {
    SCOPED_TRACE(c.capacity);
    RemoveSegments();
    Map writer;
    ASSERT_TRUE(writer.InitForWrite(test::kMapName, c.capacity, 8, 8));
    HashTable reader;
    ASSERT_TRUE(reader.InitForRead(test::kHashName));
    EXPECT_EQ(reader.ideal_capacity(), c.usable);
    EXPECT_EQ(reader.expected_capacity(), c.expected);
    const RawSegment raw(test::kHashName);
    EXPECT_EQ(raw.size(), 112 + 16 * c.nodes);
    const uint64_t head[] = {0x3262615468736148u, 112ul << 32 | 0x10000, c.nodes << 32 | 16};
    for (size_t i = 0; i < 3; ++i) EXPECT_EQ(raw.Get<uint64_t>(i * 8), head[i]) << i;
    EXPECT_EQ(raw.Get<uint32_t>(28), 60u);
    EXPECT_EQ(raw.Get<uint32_t>(32), c.rows);
  }
  for (const size_t capacity : {size_t{0}, size_t{0xcccccccd}}) {
    Reports reports;
    HashTable table;
    EXPECT_FALSE(table.InitForWrite("0x6a00000f", capacity));
    EXPECT_EQ(reports.Take(), "1 ShmHashTable::InitForWrite: bad capacity\n");
  }
}

// Keys of one column go to the first free row; the multiplication finds the cell that the remainder
// names, for any key; an erased cell neither hides a key behind it nor stays lost.
TEST_F(Shmc, HashTableCells) {
  Map map;
  ASSERT_TRUE(map.InitForWrite(test::kMapName, 1000, 8, 2000));
  const RawSegment raw(test::kHashName);
  const size_t mods[] = {599, 359, 211, 127, 73, 43, 23, 13, 7};
  const size_t sizes[] = {600, 360, 216, 129, 77, 46, 27, 16, 9};
  const auto is_in_row = [&](unsigned long key, size_t row) {
    size_t offset = 0;
    for (size_t r = 0; r < row; ++r) offset += sizes[r];
    const size_t at = 112 + 16 * (offset + key % mods[row]);
    return raw.Get<uint64_t>(at) == key && raw.Get<uint64_t>(at + 8) != 0;
  };
  std::mt19937_64 random(3);
  std::vector<unsigned long> keys = {0, 599, ~0ul, ~0ul - 1, 1ul << 63};
  for (int i = 0; i < 500; ++i) keys.push_back(random() >> random() % 64);
  for (const unsigned long key : keys) {
    ASSERT_TRUE(map.Replace(key, "v", 1));
    size_t row = 0;
    while (row < 9 && !is_in_row(key, row)) ++row;
    EXPECT_LT(row, 9u) << key;
    EXPECT_TRUE(map.Erase(key));
    EXPECT_FALSE(map.Erase(key));
  }
  const unsigned long product = 599ul * 359 * 211 * 127 * 73 * 43 * 23;  // same cell in 7 rows
  for (unsigned long i = 0; i < 7; ++i) {
    ASSERT_TRUE(map.Replace(i * product * 91, "v", 1));  // and, with 13 * 7, in all nine
    EXPECT_TRUE(is_in_row(i * product * 91, i));
  }
  EXPECT_EQ(raw.Get<uint32_t>(36), 6u) << "max_row";
  EXPECT_TRUE(map.Erase(0));
  EXPECT_TRUE(is_in_row(product * 91, 1) && test::ReadValue(map, product * 91) == "v");
  EXPECT_TRUE(map.Replace(product * 91, "w", 1));
  EXPECT_TRUE(is_in_row(product * 91, 1)) << "a key that is there stays where it is";
  EXPECT_TRUE(map.Erase(product * 91) && map.Replace(product * 91, "x", 1));
  EXPECT_TRUE(is_in_row(product * 91, 0));
}

// ---- Hash map

// A map beside a model, seen through a reader: every road of a key, cut values, slices, fill marks.
TEST_F(Shmc, HashMapAgreesWithAModel) {
  Map writer;
  Map reader;
  ASSERT_TRUE(writer.InitForWrite(test::kMapName, 50, 60, 200));
  ASSERT_TRUE(reader.InitForRead(test::kMapName));
  EXPECT_EQ(reader.free_percentage(), 100u);
  std::map<unsigned long, std::string> model;
  std::mt19937 random(11);
  size_t refused = 0;
  for (uint64_t step = 0; step < 20000; ++step) {
    const unsigned long key = random() % 120;
    if (random() % 4 == 0) {
      ASSERT_EQ(writer.Erase(key), model.erase(key) == 1);
    } else {
      const std::string value = test::Pattern(key, step);
      if (writer.Replace(key, value.data(), value.size())) {
        model[key] = value;
      } else {
        ++refused;  // the old value stands
      }
    }
    ASSERT_EQ(test::ReadValue(reader, key), model.count(key) ? model[key] : "");
  }
  EXPECT_GT(refused, 100u);
  ASSERT_EQ(reader.size(), model.size());
  const size_t percent = model.size() > 72 ? 0 : (72 - model.size()) * 100 / 72;
  EXPECT_EQ(reader.hash_table_free_percentage(), percent);
  EXPECT_EQ(reader.free_percentage(), std::min(percent, reader.link_table_free_percentage()));

  std::map<unsigned long, std::string> seen;
  Map::TravelPos pos;
  std::vector<std::pair<uint32_t, uint32_t>> stops;  // row 0 has 37 usable cells, row 1 has 23
  do {
    reader.Travel(&pos, 10, [&](unsigned long key, const std::string& value) {
      EXPECT_TRUE(seen.emplace(key, value).second);
    });
    stops.emplace_back(pos.row, pos.col);
  } while (stops.back() != std::make_pair(0u, 0u));
  EXPECT_EQ(stops,
            (decltype(stops){
                {0, 10}, {0, 20}, {0, 30}, {1, 3}, {1, 13}, {2, 0}, {2, 10}, {4, 0}, {0, 0}}));
  EXPECT_EQ(seen, model);

  const auto& [key, value] = *model.begin();
  size_t length = 0;
  EXPECT_TRUE(reader.FindC(key, nullptr, &length));
  EXPECT_EQ(length, value.size());
  length = 5;
  std::string part(6, '#');
  EXPECT_TRUE(reader.FindC(key, &part[0], &length));
  EXPECT_EQ(part, value.substr(0, 5) + "#");
  EXPECT_EQ(length, value.size());
  length = 99;
  EXPECT_FALSE(reader.FindC(1000, &part[0], &length));
  EXPECT_EQ(length, 99u);
  EXPECT_FALSE(reader.FindC(key, &part[0], nullptr));
  EXPECT_FALSE(writer.Replace(key, "x", 0));

  writer.Travel([&](unsigned long erased, const std::string&) { writer.Erase(erased); });
  EXPECT_EQ(reader.size(), 0u);
  EXPECT_EQ(reader.free_percentage(), 100u);
  EXPECT_EQ(writer.RecoverNodes(), 0u);
}

// Calls out of turn end in a refusal and a word, not in a fault: before any init, after a failed
// one, a second init, and a writer's calls in a reader, whose memory is read-only.
TEST_F(Shmc, CallsOutOfTurnFailInOrder) {
  Reports reports;
  const auto refuses_all = [&](Map* map) {
    size_t length = 0;
    EXPECT_FALSE(map->Replace(1, "x", 1));
    EXPECT_FALSE(map->Erase(1));
    EXPECT_FALSE(map->FindC(1, nullptr, &length));
    EXPECT_EQ(map->RecoverNodes() + map->size() + map->free_percentage(), 0u);
    EXPECT_EQ(reports.Take(),
              "1 ShmHashMap::Replace: not attached for writing\n"
              "1 ShmHashMap::Erase: not attached for writing\n4 ShmHashMap::Find: key not found\n"
              "1 ShmHashMap::RecoverNodes: not attached for writing\n");
  };
  Map fresh;
  refuses_all(&fresh);
  EXPECT_FALSE(fresh.Travel([](unsigned long, const std::string&) {}));
  EXPECT_FALSE(fresh.InitForRead(test::kMapName));
  reports.Take();
  Map writer;
  ASSERT_TRUE(writer.InitForWrite(test::kMapName, 100, 8, 8));
  ASSERT_TRUE(writer.Replace(1, "keep", 4));
  reports.Take();
  Map other;
  EXPECT_FALSE(other.InitForWrite(test::kMapName, 100, 8, 9));  // one more node: a larger segment
  EXPECT_EQ(reports.Take(),
            "3 ShmHashTable::InitForWrite: rows=7 nodes=189 cap=177\n"
            "1 ShmHandler::InitForWrite: Invalid argument\n"
            "1 ShmLinkTable::InitForWrite: shm init(0x6a000001, 280) fail\n"
            "1 ShmHashMap::InitForWrite: link_table init fail\n");
  EXPECT_FALSE(other.InitForWrite(test::kMapName, 100, 8, 8));
  EXPECT_EQ(reports.Take(),
            "1 ShmHashTable::InitForWrite: already initialized\n"
            "1 ShmHashMap::InitForWrite: hash_table init fail\n");
  EXPECT_FALSE(other.Erase(1) || other.Replace(1, "x", 1));  // half attached
  Map reader;
  ASSERT_TRUE(reader.InitForRead(test::kMapName));
  reports.Take();
  EXPECT_FALSE(reader.Replace(1, "x", 1) || reader.Erase(1) || reader.RecoverNodes() > 0);
  HashTable cells;
  LinkTable nodes;
  ASSERT_TRUE(cells.InitForRead(test::kHashName) && nodes.InitForRead(test::kLinkName));
  EXPECT_EQ(cells.FindOrAlloc(2, nullptr), nullptr);
  EXPECT_FALSE(nodes.New("x", 1) || nodes.Free(link_buf_t(1, 2)));
  EXPECT_EQ(test::ReadValue(reader, 1), "keep");
}

}  // namespace
