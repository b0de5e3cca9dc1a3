// Keys of fixed size to byte strings of varying length, in two shared segments: a hash table whose
// cells hold a key and a link_buf_t, and a link table that holds the strings.
//
// One process writes, any number read, without a lock, and never stop the writer. A reader gets the
// old value of a key, or the new one, whole, or a failure, never a mixture. How:
//
// - The writer completes the new string, then publishes it by one 64-bit store into the cell (for a
//   new key the key is written before), and then frees the old string.
// - A reader loads link_buf of the cell, copies the string, checks that the cell still belongs to
//   its key, and loads link_buf again. Equal, all 64 bits: no string comes twice under the same
//   name, so that the copy is whole (shm_link_table.h tells which fences pair), and the key that
//   was seen is that of the string: the writer stores a key into a free cell only, and so after the
//   withdrawal of what stood there and the fence after that. Else it tries again, at most 64
//   times: each failure means that the writer replaced this very value once more.
//
// Rejected: a sequence number a cell, which makes readers wait for a writer that died between its
// two increments; and a lock, which makes the writer wait for readers.
//
// Segment names: the map's name and one more digit, "0" for the hash table, "1" for the link table.
#ifndef BSP_SHMC_SHM_HASH_MAP_H_
#define BSP_SHMC_SHM_HASH_MAP_H_

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "bsp/shmc/shm_access.h"
#include "bsp/shmc/shm_hash_table.h"
#include "bsp/shmc/shm_link_table.h"

namespace shmc {

// Threads: one writer, which is the process that called InitForWrite; it and readers on any thread
// and in any process. Calls on a map that is not attached, and a writer's calls in a reader, fail
// in order.
template <typename KeyType, typename Alloc>
class BSP_EXPORT ShmHashMap {
 public:
  // The cell. Occupied exactly when link_buf is not zero; an erased cell keeps its key.
  struct HTNode {
    KeyType key;          // 0
    link_buf_t link_buf;  // 8

    // (occupied, key), the key read first.
    std::pair<bool, KeyType> Key() const volatile {
      const KeyType found = impl::Load(&key);
      return {static_cast<bool>(link_buf), found};
    }
  };
  static_assert(sizeof(HTNode) == 16 && alignof(HTNode) == 8, "format of the segment");

  using HashTable = ShmHashTable<KeyType, HTNode, Alloc>;
  using LinkTable = ShmLinkTable<Alloc>;

  // Where a walk in slices goes on.
  struct TravelPos : HashTable::TravelPos {};

  // What InitForWrite does with segments that a writer left inconsistent when it died. Off: they
  // are refused. On: they are mended, and every entry whose value is whole stays; nodes that leaked
  // are taken back as well. Before InitForWrite.
  void set_rebuild(bool on);

  // Attaches for `capacity` keys and `user_node_num` nodes of `user_node_size` bytes. Entries of an
  // earlier writer stay; it must have used the same arguments. False is logged with its reason.
  bool InitForWrite(const std::string& name, size_t capacity, size_t user_node_size,
                    size_t user_node_num);
  bool InitForRead(const std::string& name);

  // Stores the value of `key`, new or over the old one. False, with nothing changed, when all cells
  // of the key are taken, when the free nodes do not suffice (the old value holds its own until the
  // new one stands), or when `len` is 0.
  bool Replace(const KeyType& key, const void* data, size_t len);

  // Replace in two steps, for an owner that changes several maps or none: a value that is stored
  // but that no reader can find. Between the steps no other writer's call on this map.
  class Prepared {
   public:
    Prepared() = default;
    explicit operator bool() const { return node_ != nullptr; }

   private:
    friend class ShmHashMap;
    Prepared(volatile HTNode* node, bool is_found, const KeyType& key, link_buf_t buf)
        : node_(node), is_found_(is_found), key_(key), buf_(buf) {}

    volatile HTNode* node_ = nullptr;
    bool is_found_ = false;  // the cell holds an older value of the key
    KeyType key_ = {};
    link_buf_t buf_;
  };

  // Empty, with nothing changed, when Replace would fail.
  Prepared Prepare(const KeyType& key, const void* data, size_t len);

  // Ends it: makes the value that of the key, which cannot fail, or gives its nodes back.
  void Publish(const Prepared& prepared);
  void Drop(const Prepared& prepared);

  // Copies at most *len bytes of the value and sets *len to its length, which may be more; null
  // `data`: just the length. False, with *len untouched, when the key is not there or its value was
  // replaced during each of 64 attempts; `data` may then hold bytes without meaning.
  bool FindC(const KeyType& key, void* data, size_t* len) const;

  // Whether the key was there.
  bool Erase(const KeyType& key);

  // Calls `func` for each entry that can be read; it may erase. In slices: of max_travel_nodes
  // cells from *pos on, until *pos is (0, 0) again. False when not attached.
  bool Travel(std::function<void(const KeyType&, const std::string&)> func);
  bool Travel(TravelPos* pos, size_t max_travel_nodes,
              std::function<void(const KeyType&, const std::string&)> func);

  // Empties the map, whatever stands in it: also what no look-up and no walk reaches, and nodes
  // that no entry holds. Readers are not disturbed. A writer's call.
  void Clear();

  // Takes back what writers left behind when they died: nodes that no entry holds, and cells whose
  // value is not whole or that no look-up of their key reaches. Entries and readers are not
  // disturbed. Gives the nodes gained. A writer's call; costs a walk over all cells and values.
  size_t RecoverNodes();

  size_t size() const { return link_table_.link_bufs(); }

  // 0 to 100; 0 when not attached. The hash table counts as full at 85 percent of its usable cells,
  // although single inserts may still succeed then.
  size_t hash_table_free_percentage() const;
  size_t link_table_free_percentage() const;
  size_t free_percentage() const {
    return std::min(hash_table_free_percentage(), link_table_free_percentage());
  }

  // Attached by a successful InitForWrite.
  bool is_writable() const { return hash_table_.is_writable() && link_table_.is_writable(); }

 private:
  using Log = impl::Utils<void>;
  static constexpr size_t kMaxAttempts = 64;

  bool HasWriter(const char* operation) const;
  bool DoRead(const KeyType& key, const volatile HTNode* node, void* data, size_t* len) const;
  bool DoRead(const KeyType& key, const volatile HTNode* node, std::string* data) const;
  template <typename ReadOnce>
  bool ReadStable(const KeyType& key, const volatile HTNode* node, ReadOnce read) const;

  HashTable hash_table_;
  LinkTable link_table_;
  bool rebuild_ = false;
};

// ---- Life

template <typename KeyType, typename Alloc>
void ShmHashMap<KeyType, Alloc>::set_rebuild(bool on) {
  rebuild_ = on;
  hash_table_.set_rebuild(on);
  link_table_.set_rebuild(on);
}

template <typename KeyType, typename Alloc>
bool ShmHashMap<KeyType, Alloc>::InitForWrite(const std::string& name, size_t capacity,
                                              size_t user_node_size, size_t user_node_num) {
  if (!hash_table_.InitForWrite(name + "0", capacity)) {
    Log::Log(kLogError, "ShmHashMap::InitForWrite: hash_table init fail\n");
    return false;
  }
  if (!link_table_.InitForWrite(name + "1", user_node_size, user_node_num)) {
    Log::Log(kLogError, "ShmHashMap::InitForWrite: link_table init fail\n");
    return false;
  }
  // Only one of the two is new, since the other was removed from outside: what the old one holds
  // belongs to nothing, and its cells would sooner or later name strings of other keys.
  if (rebuild_ || hash_table_.is_fresh() != link_table_.is_fresh()) RecoverNodes();
  return true;
}

template <typename KeyType, typename Alloc>
bool ShmHashMap<KeyType, Alloc>::InitForRead(const std::string& name) {
  if (!hash_table_.InitForRead(name + "0")) {
    Log::Log(kLogError, "ShmHashMap::InitForRead: hash_table init fail\n");
    return false;
  }
  if (!link_table_.InitForRead(name + "1")) {
    Log::Log(kLogError, "ShmHashMap::InitForRead: link_table init fail\n");
    return false;
  }
  return true;
}

template <typename KeyType, typename Alloc>
void ShmHashMap<KeyType, Alloc>::Clear() {
  if (!HasWriter("Clear")) return;
  typename HashTable::TravelPos pos;
  hash_table_.Travel(&pos, 0, [](volatile HTNode* node) { node->link_buf.clear(); });
  link_table_.TakeBack(link_table_.StartCensus());
}

template <typename KeyType, typename Alloc>
size_t ShmHashMap<KeyType, Alloc>::RecoverNodes() {
  if (!HasWriter("RecoverNodes")) return 0;
  typename LinkTable::Census census = link_table_.StartCensus();
  typename HashTable::TravelPos pos;
  size_t dropped = 0;
  hash_table_.Travel(&pos, 0, [&](volatile HTNode* node) {
    const bool is_reached = hash_table_.Find(impl::Load(&node->key)) == node;
    if (is_reached && link_table_.Claim(node->link_buf, &census)) return;
    node->link_buf.clear();
    ++dropped;
  });
  const size_t gained = link_table_.TakeBack(census);
  if (dropped + gained > 0) {
    Log::Log(kLogWarning,
             "ShmHashMap::RecoverNodes: %zu nodes gained, %zu broken entries dropped\n", gained,
             dropped);
  }
  return gained;
}

template <typename KeyType, typename Alloc>
bool ShmHashMap<KeyType, Alloc>::HasWriter(const char* operation) const {
  if (is_writable()) return true;
  Log::Log(kLogError, "ShmHashMap::%s: not attached for writing\n", operation);
  return false;
}

// ---- The writer's path

template <typename KeyType, typename Alloc>
bool ShmHashMap<KeyType, Alloc>::Replace(const KeyType& key, const void* data, size_t len) {
  const Prepared prepared = Prepare(key, data, len);
  if (!prepared) return false;
  Publish(prepared);
  return true;
}

template <typename KeyType, typename Alloc>
inline typename ShmHashMap<KeyType, Alloc>::Prepared ShmHashMap<KeyType, Alloc>::Prepare(
    const KeyType& key, const void* data, size_t len) {
  if (!HasWriter("Replace")) return {};
  bool is_found = false;
  volatile HTNode* node = hash_table_.FindOrAlloc(key, &is_found);
  if (node == nullptr) return {};
  if (is_found) link_table_.Prefetch(node->link_buf);  // Publish frees it
  const link_buf_t buf = link_table_.New(data, len);
  if (!buf) return {};
  return {node, is_found, key, buf};
}

template <typename KeyType, typename Alloc>
inline void ShmHashMap<KeyType, Alloc>::Publish(const Prepared& prepared) {
  volatile HTNode* node = prepared.node_;
  if (!prepared.is_found_) {
    impl::Store(&node->key, prepared.key_);  // before link_buf, whose store releases it
    node->link_buf = prepared.buf_;
    return;
  }
  const link_buf_t old = node->link_buf;
  node->link_buf = prepared.buf_;
  link_table_.Free(old);  // false only in a damaged segment; the cell is right already
}

template <typename KeyType, typename Alloc>
void ShmHashMap<KeyType, Alloc>::Drop(const Prepared& prepared) {
  link_table_.Free(prepared.buf_);
}

template <typename KeyType, typename Alloc>
bool ShmHashMap<KeyType, Alloc>::Erase(const KeyType& key) {
  if (!HasWriter("Erase")) return false;
  volatile HTNode* node = hash_table_.Find(key);
  if (node == nullptr) return false;
  const link_buf_t old = node->link_buf;
  node->link_buf.clear();
  link_table_.Free(old);  // as above
  return true;
}

// ---- The reader's path

template <typename KeyType, typename Alloc>
bool ShmHashMap<KeyType, Alloc>::FindC(const KeyType& key, void* data, size_t* len) const {
  const volatile HTNode* node = hash_table_.Find(key);
  if (node == nullptr) {
    Log::Log(kLogDebug, "ShmHashMap::Find: key not found\n");
    return false;
  }
  return DoRead(key, node, data, len);
}

template <typename KeyType, typename Alloc>
inline bool ShmHashMap<KeyType, Alloc>::DoRead(const KeyType& key, const volatile HTNode* node,
                                               void* data, size_t* len) const {
  if (len == nullptr) return false;
  size_t found = 0;
  const bool is_read = ReadStable(key, node, [&](link_buf_t buf) {
    found = *len;
    return link_table_.Read(buf, data, &found);
  });
  if (is_read) *len = found;
  return is_read;
}

template <typename KeyType, typename Alloc>
inline bool ShmHashMap<KeyType, Alloc>::DoRead(const KeyType& key, const volatile HTNode* node,
                                               std::string* data) const {
  return ReadStable(key, node, [&](link_buf_t buf) { return link_table_.Read(buf, data); });
}

template <typename KeyType, typename Alloc>
template <typename ReadOnce>
inline bool ShmHashMap<KeyType, Alloc>::ReadStable(const KeyType& key, const volatile HTNode* node,
                                                   ReadOnce read) const {
  for (size_t attempt = 0; attempt < kMaxAttempts; ++attempt) {
    const link_buf_t buf = node->link_buf;
    const bool is_read = read(buf);
    const KeyType found_key = impl::Load(&node->key);
    // What was copied, and the key, before link_buf: a key that was stored after a withdrawal must
    // not pass for that of the string before it. Pairs with the release fence in Free.
    impl::AcquireFence();
    if (is_read && found_key != key) {
      Log::Log(kLogInfo, "ShmHashMap::DoRead fail as key has changed\n");
      return false;
    }
    if (link_buf_t(node->link_buf) == buf) return is_read;
  }
  Log::Log(kLogWarning, "ShmHashMap::DoRead fail after trying %zu times\n", kMaxAttempts);
  return false;
}

template <typename KeyType, typename Alloc>
bool ShmHashMap<KeyType, Alloc>::Travel(
    std::function<void(const KeyType&, const std::string&)> func) {
  TravelPos pos;
  return Travel(&pos, 0, func);
}

template <typename KeyType, typename Alloc>
bool ShmHashMap<KeyType, Alloc>::Travel(
    TravelPos* pos, size_t max_travel_nodes,
    std::function<void(const KeyType&, const std::string&)> func) {
  std::string value;
  return hash_table_.Travel(pos, max_travel_nodes, [&](volatile HTNode* node) {
    const KeyType key = impl::Load(&node->key);
    if (DoRead(key, node, &value)) func(key, value);
  });
}

// ---- Room

template <typename KeyType, typename Alloc>
size_t ShmHashMap<KeyType, Alloc>::hash_table_free_percentage() const {
  const size_t expected = hash_table_.expected_capacity();
  const size_t used = link_table_.link_bufs();
  return expected == 0 || used > expected ? 0 : (expected - used) * 100 / expected;
}

template <typename KeyType, typename Alloc>
size_t ShmHashMap<KeyType, Alloc>::link_table_free_percentage() const {
  const size_t total = link_table_.total_nodes();
  // A damaged count may exceed the nodes there are.
  const size_t free = std::min(link_table_.free_nodes(), total);
  return total == 0 ? 0 : free * 100 / total;
}

// The only map of the system; its code lies in the library.
using UlongShmHashMap = ShmHashMap<unsigned long, impl::SVIPCShmAlloc<false>>;
extern template class ShmHashTable<unsigned long, UlongShmHashMap::HTNode,
                                   impl::SVIPCShmAlloc<false>>;
extern template class ShmHashMap<unsigned long, impl::SVIPCShmAlloc<false>>;

}  // namespace shmc

#endif  // BSP_SHMC_SHM_HASH_MAP_H_
