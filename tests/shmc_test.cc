// Segments, link table, hash table and hash map as one writer and its readers see them.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <array>
#include <fstream>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "bsp/shmc/shm_hash_map.h"
#include "tests/support/child.h"
#include "tests/support/shmc_support.h"

namespace {

using namespace shmc::impl;
using shmc::link_buf_t;
using test::HashTable;
using test::LinkTable;
using test::Map;
using test::RawSegment;
using test::RemoveSegments;
using test::Reports;
using Shmc = test::SegmentTest;

// Each way to attach does at each kind of segment what its callers count on, and says why not.
TEST_F(Shmc, AttachByModeAndState) {
  const char* name = test::kHashName;
  test::ShmAlloc alloc;
  const struct {
    size_t size;
    int create_flags;
    ShmAllocErrno error;
    size_t real_size;
    bool creates;
  } cases[] = {{100, 0, kShmAllocNotExist, 0, false},
               {100, 1, kShmAllocNotExist, 100, true},  // none at first
               {60, 1, kShmAllocNotExist, 100, false},
               {101, 1, kShmAllocSizeMismatch, 0, false},
               {101, 3, kShmAllocExist, 101, true}};
  for (const auto& c : cases) {
    size_t real_size = 0;
    bool created = !c.creates;
    void* addr = alloc.Attach_AutoCreate(name, c.size, c.create_flags, &real_size, &created);
    EXPECT_TRUE(alloc.last_errno() == c.error && created == c.creates) << c.size;
    EXPECT_EQ(real_size, c.real_size);
    EXPECT_EQ(addr != nullptr && alloc.Detach(addr, c.size), c.real_size > 0);
  }
  EXPECT_FALSE(alloc.Unlink("99999999999999999999"));
  EXPECT_EQ(alloc.last_errno(), kShmAllocBadName);
  int key = 0;
  EXPECT_TRUE(alloc.str2key("0x76a000000zz", &key));  // cut to 32 bits, the rest not looked at
  EXPECT_EQ(key, 0x6a000000);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// A segment that was made and could not be attached, here for want of address space, does not stay
// to stand in the way of the next one.
TEST_F(Shmc, FailedAttachLeavesNoSegment) {
  constexpr size_t kSize = 64 << 20;
  test::Child child = test::Child::Fork([] {
    struct rlimit limit = {};
    size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    getrlimit(RLIMIT_AS, &limit);
    limit.rlim_cur = pages * 4096 + kSize / 2;
    setrlimit(RLIMIT_AS, &limit);
    test::ShmAlloc alloc;
    return alloc.Attach_MayCreate(test::kHashName, kSize, nullptr, nullptr) == nullptr ? 0 : 1;
  });
  EXPECT_EQ(child.Wait(), 0);
  test::ShmAlloc alloc;
  EXPECT_EQ(alloc.Attach_ReadOnly(test::kHashName, 1, nullptr), nullptr);
  EXPECT_EQ(alloc.last_errno(), kShmAllocNotExist);
}
#endif

// The segment has the bytes that every release of the library reads and writes.
TEST_F(Shmc, LinkTableBytes) {
  LinkTable table;
  ASSERT_TRUE(table.InitForWrite(test::kLinkName, 10, 3));
  EXPECT_FALSE(table.New("x", 0) || table.New("x", size_t{0x100000001}) || table.New(nullptr, 1));
  const link_buf_t buf = table.New("abcdefg", 7);
  EXPECT_EQ(buf, link_buf_t(1, 2)) << "a refused New takes no tag";
  const RawSegment raw(test::kLinkName);
  ASSERT_EQ(raw.size(), 120u + 18 * 4);
  const uint32_t head[] = {0x6b6e694c, 0x626154, 0x10000, 120, 18, 4, 3, 2, 1, 1, 7};
  for (size_t i = 0; i < 11; ++i) EXPECT_EQ(raw.Get<uint32_t>(i * 4), head[i]) << i;
  EXPECT_GT(raw.Get<int64_t>(48), 1600000000);
  const uint32_t first_node[] = {2, 0x80000002u, 7};  // next, tag, length; then the string
  for (size_t i = 0; i < 3; ++i) EXPECT_EQ(raw.Get<uint32_t>(138 + i * 4), first_node[i]) << i;
  EXPECT_EQ(std::string(raw.Get<std::array<char, 6>>(150).data(), 6), "abcdef");
  EXPECT_EQ(raw.Get<uint32_t>(160), 2u);  // node 2: tag
  EXPECT_EQ(raw.Get<char>(164), 'g');
  EXPECT_TRUE(table.Free(buf));
  EXPECT_FALSE(table.Free(buf));
  EXPECT_EQ(table.free_nodes(), 3u);
}

// Geometry decides where keys lie: it must be the same in every process and release. It stands on
// the prime search, which is fast also at the end of 32 bits. Sizes that no segment can have are
// refused before anything is attached or multiplied.
TEST_F(Shmc, GeometryAndImpossibleSizes) {
  Reports reports;
  const std::pair<size_t, const char*> capacities[] = {{1, "rows=6 nodes=92 cap=85"},
                                                       {100, "rows=7 nodes=189 cap=177"},
                                                       {1000, "rows=9 nodes=1480 cap=1455"},
                                                       {10000, "rows=11 nodes=12448 cap=12413"}};
  for (const auto& [capacity, geometry] : capacities) {
    RemoveSegments();
    HashTable table;
    ASSERT_TRUE(table.InitForWrite(test::kHashName, capacity));
    EXPECT_EQ(reports.Take(), std::string("3 ShmHashTable::InitForWrite: ") + geometry + "\n");
    EXPECT_EQ(table.expected_capacity(), table.ideal_capacity() * 85 / 100);
  }
  const RawSegment raw(test::kHashName);
  ASSERT_EQ(raw.size(), 112u + 16 * 12448);
  const uint32_t head[] = {0x68736148, 0x32626154, 0x10000, 112, 16, 12448, 5000, 60, 11, 0};
  for (size_t i = 0; i < 10; ++i) EXPECT_EQ(raw.Get<uint32_t>(i * 4), head[i]) << i;
  size_t prime = 0;
  EXPECT_TRUE(Utils<void>::GetPrimeArray(0xffffffff, 1, &prime));
  EXPECT_EQ(prime, 4294967291u);
  EXPECT_FALSE(HashTable().InitForWrite("0x6a00000f", 0));
  EXPECT_FALSE(HashTable().InitForWrite("0x6a00000f", 0xcccccccd));
  const size_t most = std::numeric_limits<size_t>::max();
  for (const auto& [size, count] : std::vector<std::pair<size_t, size_t>>{
           {3, 10}, {4, 0}, {0xffffffff, 1}, {4, 0xffffffff}, {most - 3, 2}, {8, most}}) {
    EXPECT_FALSE(LinkTable().InitForWrite("0x6a00000f", size, count));
  }
  EXPECT_EQ(reports.Take().find("shm init"), std::string::npos);
}

// Keys of one column go to the first free row; the multiplication finds the cell that the remainder
// names, for any key; an erased cell neither hides a key behind it nor stays lost.
TEST_F(Shmc, HashTableCells) {
  Map map;
  ASSERT_TRUE(map.InitForWrite(test::kMapName, 1000, 8, 2000));
  const RawSegment raw(test::kHashName);
  const size_t mods[] = {599, 359, 211, 127, 73, 43, 23, 13, 7};
  const size_t sizes[] = {600, 360, 216, 129, 77, 46, 27, 16, 9};
  const auto row_of = [&](unsigned long key) {
    size_t offset = 112;
    for (size_t row = 0; row < 9; offset += 16 * sizes[row++]) {
      const size_t at = offset + 16 * (key % mods[row]);
      if (raw.Get<uint64_t>(at) == key && raw.Get<uint64_t>(at + 8) != 0) return row;
    }
    return size_t{9};
  };
  std::mt19937_64 random(3);
  std::vector<unsigned long> keys = {0, 599, ~0ul, ~0ul - 1, 1ul << 63};
  for (int i = 0; i < 500; ++i) keys.push_back(random() >> random() % 64);
  for (const unsigned long key : keys) {
    ASSERT_TRUE(map.Replace(key, "v", 1));
    EXPECT_EQ(row_of(key), 0u) << key;
    EXPECT_TRUE(map.Erase(key));
    EXPECT_FALSE(map.Erase(key));
  }
  const unsigned long column = 599ul * 359 * 211 * 127 * 73 * 43 * 23 * 91;  // one cell in all rows
  for (unsigned long i = 0; i < 9; ++i) {
    ASSERT_TRUE(map.Replace(i * column, "v", 1));
    EXPECT_EQ(row_of(i * column), i);
  }
  EXPECT_FALSE(map.Replace(9 * column, "v", 1)) << "all its cells are taken";
  EXPECT_EQ(raw.Get<uint32_t>(36), 8u) << "max_row";
  EXPECT_TRUE(map.Erase(0) && map.Replace(column, "w", 1));
  EXPECT_EQ(row_of(column), 1u) << "a key that is there stays where it is";
  EXPECT_TRUE(map.Erase(column) && map.Replace(column, "x", 1));
  EXPECT_EQ(row_of(column), 0u);
}

// A map beside a model, seen through a reader, for nodes at every alignment: every road of a key,
// full tables, cut values, slices, and no node lost.
TEST_F(Shmc, HashMapAgreesWithAModel) {
  for (const size_t node : {4, 5, 10, 11, 64}) {
    SCOPED_TRACE(node);
    RemoveSegments();
    Map writer;
    Map reader;
    ASSERT_TRUE(writer.InitForWrite(test::kMapName, 50, node, 100));
    ASSERT_TRUE(reader.InitForRead(test::kMapName));
    std::map<unsigned long, std::string> model;
    const auto nodes_of = [&](size_t length) { return (length + 4 + node - 1) / node; };
    size_t free_nodes = 100;  // of 100, so that it is also the percentage
    size_t refused = 0;
    std::mt19937 random(11);
    for (uint64_t step = 0; step < 5000; ++step) {
      const unsigned long key = random() % 90;
      const size_t old = model.count(key) > 0 ? nodes_of(model[key].size()) : 0;
      if (random() % 4 == 0) {
        ASSERT_EQ(writer.Erase(key), model.erase(key) == 1);
        free_nodes += old;
      } else {
        const std::string value = test::ValueOf(key, step).substr(0, 1 + random() % (node * 3));
        const bool fits = nodes_of(value.size()) <= free_nodes;  // the old one still has its own
        const bool is_stored = writer.Replace(key, value.data(), value.size());
        ASSERT_FALSE(is_stored && !fits);
        refused += is_stored ? 0 : 1;
        if (is_stored) free_nodes += old - nodes_of(value.size());
        if (is_stored) model[key] = value;
      }
      ASSERT_EQ(test::ReadValue(reader, key), model.count(key) > 0 ? model[key] : "");
      ASSERT_EQ(reader.link_table_free_percentage(), free_nodes);
      ASSERT_EQ(reader.size(), model.size());
    }
    EXPECT_GT(refused, 100u);
    const size_t percent = model.size() > 72 ? 0 : (72 - model.size()) * 100 / 72;
    EXPECT_EQ(reader.hash_table_free_percentage(), percent);
    EXPECT_EQ(reader.free_percentage(), std::min(percent, free_nodes));

    std::map<unsigned long, std::string> seen;
    Map::TravelPos pos;
    std::vector<std::pair<uint32_t, uint32_t>> stops;  // row 0 has 37 usable cells, row 1 has 23
    do {
      reader.Travel(&pos, 20, [&](unsigned long key, const std::string& value) {
        EXPECT_TRUE(seen.emplace(key, value).second);
      });
      stops.emplace_back(pos.row, pos.col);
    } while (stops.back() != std::make_pair(0u, 0u));
    EXPECT_EQ(stops, (decltype(stops){{0, 20}, {1, 3}, {2, 0}, {4, 0}, {0, 0}}));
    EXPECT_EQ(seen, model);

    for (const auto& [key, value] : model) {
      for (size_t room = 0; room <= value.size(); ++room) {  // cut anywhere, the length is told
        std::string part(room + 1, '#');
        size_t length = room;
        ASSERT_TRUE(reader.FindC(key, &part[0], &length));
        ASSERT_EQ(length, value.size());
        ASSERT_EQ(part, value.substr(0, room) + "#");
      }
    }
    Map again;  // a writer that comes back finds all of it
    ASSERT_TRUE(again.InitForWrite(test::kMapName, 50, node, 100));
    again.Travel([&](unsigned long key, const std::string&) { again.Erase(key); });
    EXPECT_TRUE(reader.size() == 0 && reader.free_percentage() == 100);
    EXPECT_EQ(again.RecoverNodes(), 0u);
  }
}

// Calls out of turn end in a refusal and a word, not in a fault: before any init, after a failed
// one, and a writer's calls in a reader, whose memory is read-only.
TEST_F(Shmc, CallsOutOfTurnFailInOrder) {
  Reports reports;
  Map writer;
  Map half;
  Map fresh;
  Map reader;
  ASSERT_TRUE(writer.InitForWrite(test::kMapName, 100, 8, 8) && writer.Replace(1, "keep", 4));
  EXPECT_FALSE(half.InitForWrite(test::kMapName, 100, 8, 9));  // one more node: a larger segment
  EXPECT_NE(reports.Take().find("shm init(0x6a000001, 280) fail\n"), std::string::npos);
  EXPECT_FALSE(half.InitForWrite(test::kMapName, 100, 8, 8));
  EXPECT_NE(reports.Take().find("already initialized\n"), std::string::npos);
  ASSERT_TRUE(reader.InitForRead(test::kMapName));
  for (Map* map : {&half, &fresh, &reader}) {
    EXPECT_FALSE(map->Replace(1, "x", 1) || map->Erase(1) || map->RecoverNodes() > 0);
    EXPECT_NE(reports.Take().find("not attached for writing\n"), std::string::npos);
  }
  EXPECT_FALSE(fresh.Travel([](unsigned long, const std::string&) {}));
  EXPECT_EQ(test::ReadValue(fresh, 1) + test::ReadValue(reader, 1), "keep");
  EXPECT_EQ(fresh.size() + fresh.free_percentage(), 0u);
  EXPECT_FALSE(reader.FindC(1, nullptr, nullptr));
}

}  // namespace
