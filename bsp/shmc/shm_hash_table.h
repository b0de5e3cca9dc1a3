// A fixed-size hash table in one shared segment: a stack of rows of falling length, each with its
// own prime modulus.
//
// A key has exactly one candidate cell in each row; a look-up probes the rows from the first to the
// last. So there are no chains and no rehashing, an erased cell needs no tombstone, and a reader
// beside the writer walks a fixed, short sequence of cells. A new key takes the first row in which
// its cell is free; when all its cells are taken the key cannot be stored, though others still may.
//
// Segment: a head of 112 bytes, then the cells of all rows one after the other. Row r has
// `first_row_size` * (ratio / 100)^r cells, cut to whole numbers at each step; its modulus is the
// largest prime not above that, so that the last cells of a row are never used. Geometry follows
// from three numbers of the head. Each process computes it once at Init, compares it with the size
// of the segment before it searches for primes, and never looks at the head again, which may be
// damaged later.
#ifndef BSP_SHMC_SHM_HASH_TABLE_H_
#define BSP_SHMC_SHM_HASH_TABLE_H_

#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <ctime>
#include <functional>
#include <limits>
#include <string>
#include <utility>

#include "bsp/shmc/shm_access.h"
#include "bsp/shmc/shm_alloc.h"
#include "bsp/shmc/shm_handle.h"
#include "bsp/shmc/utils.h"

namespace shmc {

// Node: the cell. It has an operation `std::pair<bool, Key> Key() const volatile` that tells
// whether it is occupied and by which key, and is not occupied when zero-filled. The table itself
// writes no cell: the owner does.
//
// Threads: one writer; readers on any thread and in any process. A table that is not attached has
// no cells.
template <typename Key, typename Node, typename Alloc>
class BSP_EXPORT ShmHashTable {
 public:
  struct ShmHead {
    uint64_t magic;           // 0: "HashTab2"
    uint32_t ver;             // 8: MakeVer(1, 0)
    uint32_t head_size;       // 12: 112
    uint32_t node_size;       // 16: bytes of a cell
    uint32_t node_num;        // 20: cells of all rows
    uint32_t first_row_size;  // 24: cells of row 0
    uint32_t row_size_ratio;  // 28: length of a row in percent of the row before: 60
    uint32_t row_num;         // 32: number of rows
    uint32_t max_row;         // 36: highest row in which a cell was offered for a new key
    int64_t create_time;      // 40: seconds since 1970
    char reserved[64];        // 48: zero
  };
  static_assert(sizeof(ShmHead) == 112, "format of the segment");

  // Where a walk in slices goes on; (0, 0): at the beginning, and again at its end.
  struct TravelPos {
    uint32_t row = 0;
    uint32_t col = 0;
  };

  // With it InitForWrite completes a head that a dead writer left half laid out, instead of
  // refusing it; one in which nothing is written yet is laid out in any case. Off by default;
  // before InitForWrite.
  void set_rebuild(bool on) { rebuild_ = on; }

  // Attaches a table for about `capacity` keys (1 to 0xcccccccc), lays out a new segment or checks
  // an old one, whose keys stay; it must have been made with a capacity of the same geometry. False
  // is logged with its reason; the object then stays unusable.
  bool InitForWrite(const std::string& name, size_t capacity);
  bool InitForRead(const std::string& name);

  // The cell of `key`, or null. It may change under a reader's eyes, who must look again.
  volatile Node* Find(const Key& key) { return FindCell(key); }
  const volatile Node* Find(const Key& key) const { return FindCell(key); }

  // The cell of `key`, else the first free cell of its column, else null. *is_found tells which;
  // may be null. A writer's call: null when not attached for writing.
  volatile Node* FindOrAlloc(const Key& key, bool* is_found);

  // Calls `func`, which may change the table, for each occupied cell from *pos on. With
  // max_travel_nodes, returns after so many cells, occupied or not, with the next one in *pos.
  // False when not attached.
  bool Travel(TravelPos* pos, size_t max_travel_nodes, std::function<void(volatile Node*)> func);

  // Usable cells; 0 when not attached.
  size_t ideal_capacity() const { return geometry_.capacity; }

  // What counts as full: 85 percent of them.
  size_t expected_capacity() const { return geometry_.capacity * 85 / 100; }

  // Attached by a successful InitForWrite.
  bool is_writable() const { return cells_ != nullptr && shm_.is_writable(); }

  // InitForWrite laid out the head: no key is older than this object.
  bool is_fresh() const { return is_fresh_; }

 private:
  using Log = impl::Utils<void>;

  static constexpr uint64_t kMagic = Log::GenMagic("HashTab2");
  static constexpr uint32_t kVer = Log::MakeVer(1, 0);
  static constexpr uint32_t kHeadSize = sizeof(ShmHead);
  static constexpr uint32_t kNodeSize = sizeof(Node);
  static constexpr size_t kMaxRows = 100;
  static constexpr size_t kMaxCapacity = 0xcccccccc;  // so that all cells count in 32 bits
  static constexpr size_t kRatio = 60;
  static constexpr size_t kGroup = 4;  // rows that are looked at together; later ones hold few keys

  struct Row {
    size_t mod = 0;      // usable cells: the largest prime not above `size`
    size_t inverse = 0;  // (2^64 - 1) / mod, cut to a whole number
    size_t offset = 0;   // index of its first cell
    size_t size = 0;
  };

  // Follows from three numbers; the moduli, the costly part, come last.
  struct Geometry {
    Geometry() = default;
    Geometry(uint64_t first_row_size, uint64_t row_size_ratio, size_t row_limit);
    void FindModuli();

    Row rows[kMaxRows + kGroup];  // after the last one row 0 again, up to a whole group
    size_t row_num = 0;
    uint64_t node_count = 0;  // sum of all row sizes; 64 bits: a damaged head may ask for more
    size_t capacity = 0;      // sum of all moduli
  };

  static uint64_t CellsFor(uint64_t capacity);
  static size_t SquareRoot(size_t number);
  void LayOut(const Geometry& geometry);
  void WipeCells(const Geometry& geometry);
  bool IsUnfinished(const Geometry& geometry) const;
  bool CheckForWrite(const Geometry& geometry) const;
  void Adopt(const Geometry& geometry);

  volatile Node* Cell(size_t row, size_t col) const {
    return cells_ + geometry_.rows[row].offset + col;
  }

  // What the product of two sizes needs.
#if SIZE_MAX > UINT32_MAX
  __extension__ using Wide = unsigned __int128;
#else
  using Wide = uint64_t;
#endif

  // hash % mod by a multiplication, a third faster than the division: hash * inverse / 2^64 (2^32
  // where a size has 32 bits) is the quotient or one less.
  volatile Node* CellOf(const Row& row, size_t hash) const {
    const auto quotient =
        static_cast<size_t>((Wide{hash} * row.inverse) >> std::numeric_limits<size_t>::digits);
    size_t col = hash - quotient * row.mod;
    if (col >= row.mod) col -= row.mod;
    return cells_ + row.offset + col;
  }

  // The cells of a key in kGroup rows; bit i of a mask stands for cell i.
  struct Group {
    volatile Node* cells[kGroup];
    unsigned matches = 0;
    unsigned free = 0;
  };
  Group LookAt(size_t first_row, size_t hash, const Key& key) const;
  volatile Node* FindCell(const Key& key) const;

  ShmHandle<ShmHead, Alloc> shm_;

  // Constant after Init. No rows and no cells until Init has succeeded.
  Geometry geometry_;
  volatile Node* cells_ = nullptr;  // read-only memory unless shm_ is writable
  bool is_fresh_ = false;
  bool rebuild_ = false;
};

// ---- Geometry

template <typename Key, typename Node, typename Alloc>
uint64_t ShmHashTable<Key, Node, Alloc>::CellsFor(uint64_t capacity) {
  if (capacity < 50) return 100;
  if (capacity < 1000) return capacity * 2;
  if (capacity < 10000) return capacity * 3 / 2;
  return capacity * 5 / 4;
}

template <typename Key, typename Node, typename Alloc>
size_t ShmHashTable<Key, Node, Alloc>::SquareRoot(size_t number) {
  size_t root = 0;
  while ((root + 1) * (root + 1) <= number) ++root;
  return root;
}

// A ratio above 100 in a damaged head makes rows grow: they stop at 2^32, so that nothing overflows
// and the sum fits no head.
template <typename Key, typename Node, typename Alloc>
ShmHashTable<Key, Node, Alloc>::Geometry::Geometry(uint64_t first_row_size, uint64_t row_size_ratio,
                                                   size_t row_limit) {
  constexpr uint64_t kLongest = uint64_t{std::numeric_limits<uint32_t>::max()} + 1;
  uint64_t size = first_row_size;
  while (size >= 2 && row_num < row_limit) {
    rows[row_num++] = {0, 0, static_cast<size_t>(node_count), static_cast<size_t>(size)};
    node_count += size;
    size = std::min(size * row_size_ratio / 100, kLongest);
  }
}

template <typename Key, typename Node, typename Alloc>
void ShmHashTable<Key, Node, Alloc>::Geometry::FindModuli() {
  for (size_t row = 0; row < row_num; ++row) {
    impl::Utils<void>::GetPrimeArray(rows[row].size, 1, &rows[row].mod);  // never fails from 2 on
    rows[row].inverse = std::numeric_limits<size_t>::max() / rows[row].mod;
    capacity += rows[row].mod;
  }
  for (size_t i = 0; i < kGroup; ++i) rows[row_num + i] = rows[0];
}

// ---- Life

template <typename Key, typename Node, typename Alloc>
bool ShmHashTable<Key, Node, Alloc>::InitForWrite(const std::string& name, size_t capacity) {
  if (shm_.is_initialized()) {
    Log::Log(kLogError, "ShmHashTable::InitForWrite: already initialized\n");
    return false;
  }
  if (capacity < 1 || capacity > kMaxCapacity) {
    Log::Log(kLogError, "ShmHashTable::InitForWrite: bad capacity\n");
    return false;
  }
  const uint64_t first_row_size = CellsFor(capacity) * 40 / 100;
  Geometry geometry(first_row_size, kRatio, kMaxRows);
  // The ratio alone ends in rows of a few cells, each one more probe for every look-up.
  const size_t useful_rows = SquareRoot(geometry.row_num * 9);
  if (useful_rows < geometry.row_num) geometry = Geometry(first_row_size, kRatio, useful_rows);
  if (geometry.node_count > (std::numeric_limits<size_t>::max() - kHeadSize) / kNodeSize) {
    Log::Log(kLogError, "ShmHashTable::InitForWrite: bad capacity\n");
    return false;
  }
  geometry.FindModuli();
  Log::Log(kLogInfo, "ShmHashTable::InitForWrite: rows=%zu nodes=%zu cap=%zu\n", geometry.row_num,
           static_cast<size_t>(geometry.node_count), geometry.capacity);
  const auto size = static_cast<size_t>(geometry.node_count * kNodeSize + kHeadSize);
  if (!shm_.InitForWrite(name, size, Log::DefaultCreateFlags())) {
    Log::Log(kLogError, "ShmHashTable::InitForWrite: shm init(%s, %zu) fail\n", name.c_str(), size);
    return false;
  }
  is_fresh_ = shm_.is_newly_created() || IsUnfinished(geometry);
  if (is_fresh_) {
    LayOut(geometry);
  } else if (!CheckForWrite(geometry)) {
    return false;
  }
  Adopt(geometry);
  return true;
}

template <typename Key, typename Node, typename Alloc>
void ShmHashTable<Key, Node, Alloc>::LayOut(const Geometry& geometry) {
  ShmHead* head = shm_.ptr();
  // Cells under a head that somebody has wiped would name strings that are not theirs.
  if (!shm_.is_newly_created()) WipeCells(geometry);
  impl::Store(&head->magic, kMagic);
  impl::Store(&head->ver, kVer);
  impl::Store(&head->head_size, kHeadSize);
  impl::Store(&head->node_size, kNodeSize);
  impl::Store(&head->node_num, geometry.node_count);
  impl::Store(&head->first_row_size, geometry.rows[0].size);
  impl::Store(&head->row_size_ratio, kRatio);
  impl::Store(&head->row_num, geometry.row_num);
  impl::Store(&head->create_time, time(nullptr));
  impl::Store(&head->max_row, 0);
}

template <typename Key, typename Node, typename Alloc>
void ShmHashTable<Key, Node, Alloc>::WipeCells(const Geometry& geometry) {
  auto* const words = reinterpret_cast<uint64_t*>(reinterpret_cast<char*>(shm_.ptr()) + kHeadSize);
  for (size_t i = 0; i < geometry.node_count * kNodeSize / sizeof *words; ++i) {
    if (impl::Load(&words[i]) != 0) impl::Store(&words[i], 0);
  }
}

// A writer died before LayOut and nothing is written, or, for who may rebuild, within it and each
// field is right or still zero.
template <typename Key, typename Node, typename Alloc>
bool ShmHashTable<Key, Node, Alloc>::IsUnfinished(const Geometry& geometry) const {
  if (!shm_.CheckSize(geometry.node_count * kNodeSize + kHeadSize)) return false;
  if (!rebuild_) return impl::IsZero(shm_.ptr(), kHeadSize);
  const auto fits = [](uint64_t found, uint64_t right) { return found == right || found == 0; };
  return impl::Load(&shm_->row_num) == 0 && fits(impl::Load(&shm_->magic), kMagic) &&
         fits(impl::Load(&shm_->ver), kVer) && fits(impl::Load(&shm_->head_size), kHeadSize) &&
         fits(impl::Load(&shm_->node_size), kNodeSize) &&
         fits(impl::Load(&shm_->node_num), geometry.node_count) &&
         fits(impl::Load(&shm_->first_row_size), geometry.rows[0].size) &&
         fits(impl::Load(&shm_->row_size_ratio), kRatio);
}

template <typename Key, typename Node, typename Alloc>
bool ShmHashTable<Key, Node, Alloc>::CheckForWrite(const Geometry& geometry) const {
  const uint64_t magic = impl::Load(&shm_->magic);
  const uint32_t ver = impl::Load(&shm_->ver);
  const uint32_t head_size = impl::Load(&shm_->head_size);
  const uint32_t node_size = impl::Load(&shm_->node_size);
  const uint32_t node_num = impl::Load(&shm_->node_num);
  const uint32_t first_row_size = impl::Load(&shm_->first_row_size);
  const uint32_t ratio = impl::Load(&shm_->row_size_ratio);
  const uint32_t row_num = impl::Load(&shm_->row_num);
  return Log::Check(magic == kMagic, "ShmHashTable::InitForWrite: bad magic(0x%" PRIx64 ")\n",
                    magic) &&
         Log::Check(Log::MajorVer(ver) == 1, "ShmHashTable::InitForWrite: bad ver(0x%x)\n", ver) &&
         Log::Check(head_size == kHeadSize, "ShmHashTable::InitForWrite: bad head_size(%u)\n",
                    head_size) &&
         Log::Check(node_size == kNodeSize, "ShmHashTable::InitForWrite: bad node_size(%u)\n",
                    node_size) &&
         Log::Check(node_num == geometry.node_count,
                    "ShmHashTable::InitForWrite: bad node_num(%u)\n", node_num) &&
         Log::Check(first_row_size == geometry.rows[0].size,
                    "ShmHashTable::InitForWrite: bad first_row_size(%u)\n", first_row_size) &&
         Log::Check(ratio == kRatio, "ShmHashTable::InitForWrite: bad row_size_ratio(%u)\n",
                    ratio) &&
         Log::Check(row_num == geometry.row_num, "ShmHashTable::InitForWrite: bad row_num(%u)\n",
                    row_num);
}

template <typename Key, typename Node, typename Alloc>
bool ShmHashTable<Key, Node, Alloc>::InitForRead(const std::string& name) {
  if (shm_.is_initialized()) {
    Log::Log(kLogError, "ShmHashTable::InitForRead: already initialized\n");
    return false;
  }
  if (!shm_.InitForRead(name, kHeadSize)) {
    Log::Log(kLogError, "ShmHashTable::InitForRead: shm init(%s, %zu) fail\n", name.c_str(),
             static_cast<size_t>(kHeadSize));
    return false;
  }
  const uint64_t magic = impl::Load(&shm_->magic);
  const uint32_t ver = impl::Load(&shm_->ver);
  const uint32_t head_size = impl::Load(&shm_->head_size);
  const uint32_t node_size = impl::Load(&shm_->node_size);
  const uint32_t node_num = impl::Load(&shm_->node_num);
  const uint32_t row_num = impl::Load(&shm_->row_num);
  const uint64_t size = uint64_t{node_num} * kNodeSize + kHeadSize;
  const bool is_ours =
      Log::Check(magic == kMagic, "ShmHashTable::InitForRead: bad magic(0x%" PRIx64 ")\n", magic) &&
      Log::Check(Log::MajorVer(ver) == 1, "ShmHashTable::InitForRead: bad ver(0x%x)\n", ver) &&
      Log::Check(head_size == kHeadSize, "ShmHashTable::InitForRead: bad head_size(%u)\n",
                 head_size) &&
      Log::Check(node_size == kNodeSize, "ShmHashTable::InitForRead: bad node_size(%u)\n",
                 node_size) &&
      Log::Check(shm_.CheckSize(size), "ShmHashTable::InitForRead: bad shm size(%u)\n",
                 static_cast<uint32_t>(shm_.size())) &&
      Log::Check(row_num <= kMaxRows, "ShmHashTable::InitForRead: bad row_num(%u)\n", row_num);
  if (!is_ours) return false;
  Geometry geometry(impl::Load(&shm_->first_row_size), impl::Load(&shm_->row_size_ratio), row_num);
  const bool is_sound = Log::Check(geometry.row_num == row_num,
                                   "ShmHashTable::InitForRead: bad row_num(%u)\n", row_num) &&
                        Log::Check(geometry.node_count == node_num,
                                   "ShmHashTable::InitForRead: bad node_num(%u)\n", node_num);
  if (!is_sound) return false;
  geometry.FindModuli();  // only now: its cost is bounded by the size of the segment
  Adopt(geometry);
  return true;
}

template <typename Key, typename Node, typename Alloc>
void ShmHashTable<Key, Node, Alloc>::Adopt(const Geometry& geometry) {
  geometry_ = geometry;
  // The cast adds write access to what may be a read-only mapping: who writes asks is_writable.
  cells_ = reinterpret_cast<Node*>(reinterpret_cast<char*>(shm_.ptr()) + kHeadSize);
}

// ---- Cells

// Which row holds the key is a matter of chance, which no branch predictor knows. So a group is
// looked at without a branch, all its cells at once, and one branch follows. The rows after the
// last one are row 0 again, in which nothing can be found that was not found there before.
template <typename Key, typename Node, typename Alloc>
inline typename ShmHashTable<Key, Node, Alloc>::Group ShmHashTable<Key, Node, Alloc>::LookAt(
    size_t first_row, size_t hash, const Key& key) const {
  Group group;
#pragma GCC unroll 4
  for (size_t i = 0; i < kGroup; ++i) {
    group.cells[i] = CellOf(geometry_.rows[first_row + i], hash);
    const auto [is_occupied, found] = group.cells[i]->Key();
    group.matches |= static_cast<unsigned>(is_occupied & (found == key)) << i;
    group.free |= static_cast<unsigned>(!is_occupied) << i;
  }
  return group;
}

// A free cell does not end the search: it may have been erased in front of the key.
template <typename Key, typename Node, typename Alloc>
inline volatile Node* ShmHashTable<Key, Node, Alloc>::FindCell(const Key& key) const {
  const Key wanted = key;  // kept in a register
  const size_t hash = std::hash<Key>()(wanted);
  for (size_t row = 0; row < geometry_.row_num; row += kGroup) {
    const Group group = LookAt(row, hash, wanted);
    if (group.matches != 0) return group.cells[__builtin_ctz(group.matches)];
  }
  return nullptr;
}

template <typename Key, typename Node, typename Alloc>
inline volatile Node* ShmHashTable<Key, Node, Alloc>::FindOrAlloc(const Key& key, bool* is_found) {
  if (is_found != nullptr) *is_found = false;
  if (!is_writable()) {
    Log::Log(kLogError, "ShmHashTable::FindOrAlloc: not attached for writing\n");
    return nullptr;
  }
  const Key wanted = key;
  const size_t hash = std::hash<Key>()(wanted);
  volatile Node* candidate = nullptr;
  // The whole column is read, so that a key is never stored twice.
  for (size_t row = 0; row < geometry_.row_num; row += kGroup) {
    const Group group = LookAt(row, hash, wanted);
    const unsigned match = group.matches & (0 - group.matches);
    const unsigned passed = group.free & (match - 1);  // all of them without a match
    // No branch here either: whether a free cell lies in front of the key is chance as well.
    const size_t first = static_cast<size_t>(__builtin_ctz(passed | 1u << (kGroup - 1)));
    const bool offers = (candidate == nullptr) & (passed != 0);
    const size_t offered_row = offers ? row + first : 0;
    if (offered_row > impl::Load(&shm_->max_row)) impl::Store(&shm_->max_row, offered_row);
    candidate = offers ? group.cells[first] : candidate;
    if (match == 0) continue;
    if (is_found != nullptr) *is_found = true;
    return group.cells[__builtin_ctz(match)];
  }
  return candidate;
}

template <typename Key, typename Node, typename Alloc>
bool ShmHashTable<Key, Node, Alloc>::Travel(TravelPos* pos, size_t max_travel_nodes,
                                            std::function<void(volatile Node*)> func) {
  if (cells_ == nullptr || pos == nullptr) return false;
  size_t visited = 0;
  size_t col = pos->col;
  for (size_t row = pos->row; row < geometry_.row_num; ++row, col = 0) {
    for (; col < geometry_.rows[row].mod; ++col, ++visited) {
      if (max_travel_nodes != 0 && visited == max_travel_nodes) {
        *pos = {static_cast<uint32_t>(row), static_cast<uint32_t>(col)};
        return true;
      }
      volatile Node* cell = Cell(row, col);
      if (cell->Key().first) func(cell);
    }
  }
  *pos = {};
  return true;
}

}  // namespace shmc

#endif  // BSP_SHMC_SHM_HASH_TABLE_H_
