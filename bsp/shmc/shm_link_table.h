// Byte strings of varying length in one shared segment, as chains of fixed-size nodes.
//
// Segment: a head of 120 bytes, then `node_num` nodes of `node_size` bytes. Node 0 is never used:
// index 0 stands for no node. A free node carries the tag 0 and hangs in the free list. A stored
// string, a link buffer, is a chain of nodes that all carry its tag; in the first one bit 31 of the
// tag is set, the length of the string stands at offset 8 and its bytes begin at offset 12; in the
// others they go on at offset 8.
//
// One process writes, any number read, without a lock. What makes that sound:
//
// - A string is filled before its link_buf_t is published and never changed afterwards.
// - A link_buf_t is published, replaced and withdrawn by one 64-bit store of its owner (the cell of
//   a ShmHashMap). Tags never repeat within 2^31 strings, so that equal link_buf_t mean the same
//   string.
// - The writer withdraws first, then passes a release fence (Free), and only then touches the nodes
//   again. A reader loads the link_buf_t (acquire), copies, passes an acquire fence, and loads the
//   link_buf_t again. If one copied byte came from a later string, the fences pair and the second
//   load sees that the link_buf_t has changed. So Read alone proves nothing: its caller must
//   confirm.
//
// The segment may be damaged or hostile. The geometry is taken from the head once, at Init, checked
// against the size of the segment and kept in the object; every index is checked before use, and
// every walk ends after as many nodes as there are. A writer that dies leaves a free list that
// either matches its count or is refused by the next InitForWrite; set_rebuild mends it instead.
#ifndef BSP_SHMC_SHM_LINK_TABLE_H_
#define BSP_SHMC_SHM_LINK_TABLE_H_

#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <ctime>
#include <limits>
#include <string>
#include <vector>

#include "bsp/shmc/link_buf.h"
#include "bsp/shmc/shm_access.h"
#include "bsp/shmc/shm_alloc.h"
#include "bsp/shmc/shm_handle.h"
#include "bsp/shmc/utils.h"

namespace shmc {

// Threads: one writer; readers on any thread and in any process. Calls on a table that is not
// attached, and a writer's calls on one that is attached for reading, fail in order.
template <typename Alloc>
class BSP_EXPORT ShmLinkTable {
 public:
  struct ShmHead {
    uint64_t magic;          // 0: "LinkTab" and a zero byte
    uint32_t ver;            // 8: MakeVer(1, 0)
    uint32_t head_size;      // 12: 120
    uint32_t node_size;      // 16: user node size + 8
    uint32_t node_num;       // 20: user node count + 1
    uint32_t free_list;      // 24: first free node, 0: none
    uint32_t tag_seq;        // 28: counter of the tags given
    uint32_t free_node_num;  // 32: nodes in the free list
    uint32_t link_buf_num;   // 36: strings alive
    uint64_t data_size;      // 40: sum of their lengths
    int64_t create_time;     // 48: seconds since 1970
    char reserved[64];       // 56: zero
  };
  static_assert(sizeof(ShmHead) == 120, "format of the segment");

  // The start of every node. Only offsets come from here: a node may lie at any address.
  struct NodeHead {
    uint32_t next;  // 0: next node of the chain or of the free list; 0 at its end
    uint32_t tag;   // 4
  };
  static_assert(sizeof(NodeHead) == 8, "format of the segment");

  // Which nodes are in use, as the owner of the strings finds by Claim.
  struct Census {
    std::vector<bool> used;
    std::vector<bool> broken;  // met in a chain that is not whole; never walked again
    size_t nodes = 0;
    size_t link_bufs = 0;
    uint64_t bytes = 0;
  };

  // What InitForWrite does with a segment that a writer left inconsistent when it died. Off: it is
  // refused, and has to be removed from outside (ipcrm -M KEY), unless nothing is written in its
  // head yet. On: an unfinished head is laid out anew, and a broken free list is built again around
  // all strings that are whole. A segment of another shape or version is refused all the same.
  // Before InitForWrite.
  void set_rebuild(bool on) { rebuild_ = on; }

  // Attaches, and lays out a new segment or checks an old one, whose strings stay. A string of L
  // bytes takes the least n nodes with n * user_node_size >= L + 4. user_node_size: at least 4.
  // False is logged with its reason; the object then stays unusable.
  bool InitForWrite(const std::string& name, size_t user_node_size, size_t user_node_num);
  bool InitForRead(const std::string& name);

  // Stores a copy. (0, 0) when the nodes do not suffice, `len` is 0 or above 32 bits; nothing has
  // changed then.
  link_buf_t New(const void* data, size_t len);

  // Announces a Free or a Read of `buf`.
  void Prefetch(link_buf_t buf) const {
    if (IsNode(buf.head())) __builtin_prefetch(GetNode(buf.head()));
  }

  // Whether the whole chain was freed; false and nothing done for a string that is gone already.
  // The owner must have withdrawn `buf` before.
  bool Free(link_buf_t buf);

  // Copies at most *len bytes to `data`, and sets *len to the length of the string, which may be
  // more. Null `data`: just the length. False, with *len untouched, when the string is gone or
  // broken. The bytes are whole only if `buf` is still published after an AcquireFence.
  bool Read(link_buf_t buf, void* data, size_t* len) const;
  bool Read(link_buf_t buf, std::string* data) const;

  // Counts; 0 when not attached.
  size_t link_bufs() const { return node_num_ == 0 ? 0 : impl::Load(&shm_->link_buf_num); }
  size_t total_nodes() const { return node_num_ == 0 ? 0 : node_num_ - 1; }
  size_t free_nodes() const { return node_num_ == 0 ? 0 : impl::Load(&shm_->free_node_num); }

  // Attached by a successful InitForWrite.
  bool is_writable() const { return node_num_ != 0 && shm_.is_writable(); }

  // InitForWrite laid out the head: no string is older than this object.
  bool is_fresh() const { return is_fresh_; }

  // Recovery of nodes that a writer took and did not live to publish or to free. The owner starts a
  // census, claims every string it holds (false: that one is not whole, or claimed twice), and
  // hands the result to TakeBack, which frees all other nodes and gives their gain. A writer's
  // call.
  Census StartCensus() const {
    return {std::vector<bool>(node_num_), std::vector<bool>(node_num_), 0, 0, 0};
  }
  bool Claim(link_buf_t buf, Census* census) const;
  size_t TakeBack(const Census& census);

 private:
  using Log = impl::Utils<void>;

  static constexpr uint64_t kMagic = Log::GenMagic("LinkTab");
  static constexpr uint32_t kVer = Log::MakeVer(1, 0);
  static constexpr uint32_t kHeadSize = sizeof(ShmHead);
  static constexpr uint32_t kNodeHeadSize = sizeof(NodeHead);
  static constexpr uint32_t kFirstData = kNodeHeadSize + 4;  // behind the length of the string
  static constexpr uint32_t kFirstTagBit = 0x80000000u;

  bool HasWriter(const char* operation) const;
  bool CheckForWrite(size_t node_size, size_t node_num);
  bool IsUnfinished(size_t node_size, size_t node_num) const;
  void LayOut(size_t node_size, size_t node_num);
  void Adopt(size_t node_size, size_t node_num);
  bool HasNodes() const;
  bool FreeListMatches(const Census* census) const;
  void RelayFreeList(const Census& census);
  void RebuildFreeList();

  bool IsNode(size_t index) const { return index > 0 && index < node_num_; }
  char* GetNode(size_t index) { return nodes_ + index * node_size_; }
  const char* GetNode(size_t index) const { return nodes_ + index * node_size_; }
  static uint32_t Next(const char* node) { return impl::LoadWord(node); }
  static uint32_t Tag(const char* node) { return impl::LoadWord(node + 4); }
  static uint32_t Length(const char* node) { return impl::LoadWord(node + kNodeHeadSize); }
  static void SetNext(char* node, uint32_t next) { impl::StoreWord(node, next); }
  static void SetTag(char* node, uint32_t tag) { impl::StoreWord(node + 4, tag); }

  void LoadOwn();
  void SetFreeList(uint32_t first, uint32_t count);
  void SetCounts(uint32_t link_bufs, uint64_t bytes);
  uint32_t AllocNode();
  void FreeNode(uint32_t n);
  void FreeTaken(uint32_t first);
  uint32_t tag_seq();

  // Nodes that a string of `len` bytes takes; the division is spared where one suffices.
  size_t buf_nodes(size_t len) const {
    if (kFirstData + len <= node_size_) return 1;
    return (node_size_ + len - 5) / (node_size_ - kNodeHeadSize);
  }

  bool ReadLength(link_buf_t buf, size_t* len) const;
  template <typename Visit>
  bool WalkChain(link_buf_t buf, size_t len, Visit visit) const;

  ShmHandle<ShmHead, Alloc> shm_;

  // What the writer, the only one who changes these fields of the head, knows of them.
  struct Own {
    uint32_t free_list;
    uint32_t tag_seq;
    uint32_t free_node_num;
    uint32_t link_buf_num;
    uint64_t data_size;
  };
  Own own_ = {};

  // Constant after Init. node_num_ is 0 until Init has succeeded.
  char* nodes_ = nullptr;  // node 0; read-only memory unless shm_ is writable
  size_t node_size_ = 0;
  size_t node_num_ = 0;
  size_t max_len_ = 0;  // longest string that all nodes together carry
  bool is_fresh_ = false;
  bool rebuild_ = false;
};

// ---- Life

template <typename Alloc>
bool ShmLinkTable<Alloc>::InitForWrite(const std::string& name, size_t user_node_size,
                                       size_t user_node_num) {
  if (shm_.is_initialized()) {
    Log::Log(kLogError, "ShmLinkTable::InitForWrite: already initialized\n");
    return false;
  }
  // Both land in 32-bit fields; the whole has to fit into the addresses that there are.
  constexpr size_t kMost = std::numeric_limits<uint32_t>::max() - kNodeHeadSize;
  constexpr size_t kMostBytes = std::numeric_limits<size_t>::max() - kHeadSize;
  if (user_node_size < 4 || user_node_num == 0 || user_node_size > kMost || user_node_num > kMost ||
      user_node_num + 1 > kMostBytes / (user_node_size + kNodeHeadSize)) {
    Log::Log(kLogError, "ShmLinkTable::InitForWrite: invalid user_node parma\n");
    return false;
  }
  const size_t node_size = user_node_size + kNodeHeadSize;
  const size_t node_num = user_node_num + 1;
  const size_t size = kHeadSize + node_size * node_num;
  if (!shm_.InitForWrite(name, size, Log::DefaultCreateFlags())) {
    Log::Log(kLogError, "ShmLinkTable::InitForWrite: shm init(%s, %zu) fail\n", name.c_str(), size);
    return false;
  }
  if (shm_.is_newly_created() || IsUnfinished(node_size, node_num)) {
    LayOut(node_size, node_num);
    return true;
  }
  return CheckForWrite(node_size, node_num);
}

template <typename Alloc>
bool ShmLinkTable<Alloc>::InitForRead(const std::string& name) {
  if (shm_.is_initialized()) {
    Log::Log(kLogError, "ShmLinkTable::InitForRead: already initialized\n");
    return false;
  }
  if (!shm_.InitForRead(name, kHeadSize)) {
    Log::Log(kLogError, "ShmLinkTable::InitForRead: shm init(%s, %zu) fail\n", name.c_str(),
             static_cast<size_t>(kHeadSize));
    return false;
  }
  const uint64_t magic = impl::Load(&shm_->magic);
  const uint32_t ver = impl::Load(&shm_->ver);
  const uint32_t head_size = impl::Load(&shm_->head_size);
  const uint32_t node_size = impl::Load(&shm_->node_size);
  const uint32_t node_num = impl::Load(&shm_->node_num);
  const uint64_t size = uint64_t{node_size} * node_num + kHeadSize;
  const bool is_sound =
      Log::Check(magic == kMagic, "ShmLinkTable::InitForRead: bad magic(0x%" PRIx64 ")\n", magic) &&
      Log::Check(Log::MajorVer(ver) == 1, "ShmLinkTable::InitForRead: bad ver(0x%x)\n", ver) &&
      Log::Check(head_size == kHeadSize, "ShmLinkTable::InitForRead: bad head_size(%u)\n",
                 head_size) &&
      Log::Check(node_size >= kFirstData, "ShmLinkTable::InitForRead: bad node_size(%u)\n",
                 node_size) &&
      Log::Check(node_num > 1, "ShmLinkTable::InitForRead: bad node_num(%u)\n", node_num) &&
      Log::Check(shm_.CheckSize(size), "ShmLinkTable::InitForRead: bad shm size(%u)\n",
                 static_cast<uint32_t>(shm_.size()));
  if (is_sound) Adopt(node_size, node_num);
  return is_sound;
}

template <typename Alloc>
bool ShmLinkTable<Alloc>::CheckForWrite(size_t node_size, size_t node_num) {
  const uint64_t magic = impl::Load(&shm_->magic);
  const uint32_t ver = impl::Load(&shm_->ver);
  const uint32_t head_size = impl::Load(&shm_->head_size);
  const uint32_t found_size = impl::Load(&shm_->node_size);
  const uint32_t found_num = impl::Load(&shm_->node_num);
  const bool is_ours =
      Log::Check(magic == kMagic, "ShmLinkTable::InitForWrite: bad magic(0x%" PRIx64 ")\n",
                 magic) &&
      Log::Check(Log::MajorVer(ver) == 1, "ShmLinkTable::InitForWrite: bad ver(0x%x)\n", ver) &&
      Log::Check(head_size == kHeadSize, "ShmLinkTable::InitForWrite: bad head_size(%u)\n",
                 head_size) &&
      Log::Check(found_size == node_size, "ShmLinkTable::InitForWrite: bad node_size(%u)\n",
                 found_size) &&
      Log::Check(found_num == node_num, "ShmLinkTable::InitForWrite: bad node_num(%u)\n",
                 found_num);
  if (!is_ours) return false;
  Adopt(node_size, node_num);
  LoadOwn();
  if (HasNodes() && FreeListMatches(nullptr)) return true;
  if (rebuild_) {
    RebuildFreeList();
    return true;
  }
  Log::Log(kLogError, "ShmLinkTable::InitForWrite: bad free_node_num(%u)\n",
           impl::Load(&shm_->free_node_num));
  Adopt(0, 0);
  return false;
}

// A writer died before LayOut and nothing is written, or, for who may rebuild, within it before the
// nodes and each field is right or still zero.
template <typename Alloc>
bool ShmLinkTable<Alloc>::IsUnfinished(size_t node_size, size_t node_num) const {
  if (!shm_.CheckSize(kHeadSize + uint64_t{node_size} * node_num)) return false;
  if (!rebuild_) return impl::IsZero(shm_.ptr(), kHeadSize);
  const auto fits = [](uint64_t found, uint64_t right) { return found == right || found == 0; };
  return impl::Load(&shm_->node_num) == 0 && fits(impl::Load(&shm_->magic), kMagic) &&
         fits(impl::Load(&shm_->ver), kVer) && fits(impl::Load(&shm_->head_size), kHeadSize) &&
         fits(impl::Load(&shm_->node_size), node_size);
}

template <typename Alloc>
void ShmLinkTable<Alloc>::LayOut(size_t node_size, size_t node_num) {
  ShmHead* head = shm_.ptr();
  impl::Store(&head->magic, kMagic);
  impl::Store(&head->ver, kVer);
  impl::Store(&head->head_size, kHeadSize);
  impl::Store(&head->node_size, node_size);
  impl::Store(&head->node_num, node_num);
  impl::Store(&head->tag_seq, 1);
  impl::Store(&head->create_time, time(nullptr));
  Adopt(node_size, node_num);
  RelayFreeList(StartCensus());
  is_fresh_ = true;
}

template <typename Alloc>
void ShmLinkTable<Alloc>::Adopt(size_t node_size, size_t node_num) {
  nodes_ = reinterpret_cast<char*>(shm_.ptr()) + kHeadSize;
  node_size_ = node_size;
  node_num_ = node_num;
  max_len_ = node_num == 0 ? 0 : (node_num - 1) * (node_size - kNodeHeadSize) - 4;
}

template <typename Alloc>
bool ShmLinkTable<Alloc>::HasWriter(const char* operation) const {
  if (is_writable()) return true;
  Log::Log(kLogError, "ShmLinkTable::%s: not attached for writing\n", operation);
  return false;
}

// ---- Strings

template <typename Alloc>
inline link_buf_t ShmLinkTable<Alloc>::New(const void* data, size_t len) {
  if (!HasWriter("New") || data == nullptr) return {};
  if (len == 0 || len > std::numeric_limits<uint32_t>::max()) return {};
  if (buf_nodes(len) > own_.free_node_num) return {};
  // The tags that Free cleared must be seen as cleared before the new lengths; pairs with the
  // acquire fence in ReadLength.
  impl::ReleaseFence();
  const uint32_t tag = tag_seq();
  const char* from = static_cast<const char*>(data);
  uint32_t first = 0;
  char* previous = nullptr;
  for (size_t left = len; left > 0;) {
    const uint32_t index = AllocNode();
    if (index == 0) {  // the free list is shorter than its count: a damaged segment
      FreeTaken(first);
      return {};
    }
    char* node = GetNode(index);
    SetNext(node, 0);
    size_t at = kNodeHeadSize;
    if (previous == nullptr) {
      SetTag(node, tag | kFirstTagBit);
      impl::StoreWord(node + at, static_cast<uint32_t>(len));
      at = kFirstData;
    } else {
      SetTag(node, tag);
    }
    const size_t part = std::min(left, node_size_ - at);
    impl::CopyIn(node + at, from, part);
    from += part;
    left -= part;
    if (previous == nullptr) {
      first = index;
    } else {
      SetNext(previous, index);
    }
    previous = node;
  }
  SetCounts(own_.link_buf_num + 1, own_.data_size + len);
  return {first, tag};
}

template <typename Alloc>
inline bool ShmLinkTable<Alloc>::Free(link_buf_t buf) {
  if (!HasWriter("Free") || !IsNode(buf.head())) return false;
  char* node = GetNode(buf.head());
  if (Tag(node) != (buf.tag() | kFirstTagBit)) return false;
  // The owner's withdrawal of `buf` must be seen before any change of its nodes; pairs with the
  // acquire fence that readers pass before they look whether `buf` is still published.
  impl::ReleaseFence();
  const uint32_t len = Length(node);
  uint32_t next = Next(node);
  FreeNode(buf.head());
  bool is_whole = true;
  for (size_t left = node_num_; next != 0; --left) {
    const uint32_t index = next;
    is_whole = left > 0 && IsNode(index) && Tag(GetNode(index)) == buf.tag();
    if (!is_whole) break;
    next = Next(GetNode(index));
    FreeNode(index);
  }
  SetCounts(own_.link_buf_num - 1, own_.data_size - len);
  return is_whole;
}

template <typename Alloc>
inline bool ShmLinkTable<Alloc>::Read(link_buf_t buf, void* data, size_t* len) const {
  size_t length = 0;
  if (len == nullptr || !ReadLength(buf, &length)) return false;
  auto* to = static_cast<char*>(data);
  size_t left = data == nullptr ? 0 : std::min(*len, length);
  const char* node = GetNode(buf.head());
  size_t at = kFirstData;
  // Ends: ReadLength has seen that `length` fits in the nodes there are, and each carries a part.
  for (;;) {
    const size_t part = std::min(left, node_size_ - at);
    impl::CopyOut(to, node + at, part);
    left -= part;
    if (left == 0) break;
    to += part;
    const uint32_t next = Next(node);
    if (!IsNode(next)) return false;
    node = GetNode(next);
    if (Tag(node) != buf.tag()) return false;
    at = kNodeHeadSize;
  }
  *len = length;
  return true;
}

template <typename Alloc>
bool ShmLinkTable<Alloc>::Read(link_buf_t buf, std::string* data) const {
  size_t length = 0;
  // Only what the chain really carries is allocated.
  if (!ReadLength(buf, &length) || !WalkChain(buf, length, [](size_t) { return true; })) {
    return false;
  }
  data->resize(length);
  size_t found = length;
  return Read(buf, &(*data)[0], &found) && found == length;
}

// The length of a string that is still there, and that the table could hold.
template <typename Alloc>
inline bool ShmLinkTable<Alloc>::ReadLength(link_buf_t buf, size_t* len) const {
  if (!IsNode(buf.head())) return false;
  const char* node = GetNode(buf.head());
  const uint32_t tag = buf.tag() | kFirstTagBit;
  if (Tag(node) != tag) return false;
  *len = Length(node);
  // The length may be that of a later string in this node, if its tag has changed by now; pairs
  // with the release fence in New.
  impl::AcquireFence();
  return Tag(node) == tag && *len > 0 && *len <= max_len_;
}

// Visits the indices of all nodes that a string of `len` bytes takes; false as soon as one is
// missing, carries another tag, or `visit` gives false.
template <typename Alloc>
template <typename Visit>
bool ShmLinkTable<Alloc>::WalkChain(link_buf_t buf, size_t len, Visit visit) const {
  size_t index = buf.head();
  if (!visit(index)) return false;
  for (size_t count = buf_nodes(len); count > 1; --count) {
    index = Next(GetNode(index));
    if (!IsNode(index) || Tag(GetNode(index)) != buf.tag() || !visit(index)) return false;
  }
  return true;
}

template <typename Alloc>
inline uint32_t ShmLinkTable<Alloc>::tag_seq() {
  if (++own_.tag_seq == 0) own_.tag_seq = 1;
  impl::Store(&shm_->tag_seq, own_.tag_seq);
  return own_.tag_seq & ~kFirstTagBit;
}

template <typename Alloc>
inline uint32_t ShmLinkTable<Alloc>::AllocNode() {
  const uint32_t index = own_.free_list;
  if (!IsNode(index)) return 0;
  SetFreeList(Next(GetNode(index)), own_.free_node_num - 1);
  return index;
}

template <typename Alloc>
inline void ShmLinkTable<Alloc>::FreeNode(uint32_t n) {
  SetTag(GetNode(n), 0);
  SetNext(GetNode(n), own_.free_list);
  SetFreeList(n, own_.free_node_num + 1);
}

// The two agree but for a death between the two stores.
template <typename Alloc>
inline void ShmLinkTable<Alloc>::SetFreeList(uint32_t first, uint32_t count) {
  own_.free_list = first;
  own_.free_node_num = count;
  impl::Store(&shm_->free_list, first);
  impl::Store(&shm_->free_node_num, count);
}

template <typename Alloc>
inline void ShmLinkTable<Alloc>::SetCounts(uint32_t link_bufs, uint64_t bytes) {
  own_.link_buf_num = link_bufs;
  own_.data_size = bytes;
  impl::Store(&shm_->link_buf_num, link_bufs);
  impl::Store(&shm_->data_size, bytes);
}

template <typename Alloc>
void ShmLinkTable<Alloc>::LoadOwn() {
  own_ = {impl::Load(&shm_->free_list), impl::Load(&shm_->tag_seq),
          impl::Load(&shm_->free_node_num), impl::Load(&shm_->link_buf_num),
          impl::Load(&shm_->data_size)};
}

// Gives back the nodes of a string that New could not complete.
template <typename Alloc>
void ShmLinkTable<Alloc>::FreeTaken(uint32_t first) {
  for (size_t left = node_num_; IsNode(first) && left > 0; --left) {
    const uint32_t next = Next(GetNode(first));
    FreeNode(first);
    first = next;
  }
}

// ---- Recovery

// False when a writer died in LayOut between the head and the free list: no string was ever stored,
// and yet no node is free.
template <typename Alloc>
bool ShmLinkTable<Alloc>::HasNodes() const {
  return free_nodes() > 0 || link_bufs() > 0 || impl::Load(&shm_->tag_seq) > 1;
}

// The free list ends after exactly free_node_num nodes. With a census, it also holds every node
// that is not in use and no other, and the counts are right.
template <typename Alloc>
inline bool ShmLinkTable<Alloc>::FreeListMatches(const Census* census) const {
  const size_t expected = impl::Load(&shm_->free_node_num);
  if (expected > total_nodes()) return false;  // else a list in a circle is walked 2^32 times
  size_t count = 0;
  for (size_t index = impl::Load(&shm_->free_list); index != 0; ++count) {
    if (!IsNode(index) || count == expected) return false;
    if (census != nullptr && census->used[index]) return false;
    index = Next(GetNode(index));
  }
  if (count != expected) return false;
  return census == nullptr ||
         (count + census->nodes == total_nodes() && census->link_bufs == link_bufs() &&
          census->bytes == impl::Load(&shm_->data_size));
}

template <typename Alloc>
bool ShmLinkTable<Alloc>::Claim(link_buf_t buf, Census* census) const {
  size_t length = 0;
  std::vector<size_t> chain;
  if (census->used.size() != node_num_ || !ReadLength(buf, &length)) return false;
  const bool is_whole = WalkChain(buf, length, [&](size_t index) {
    if (census->used[index] || census->broken[index]) return false;
    census->used[index] = true;  // also ends a chain that runs in a circle
    chain.push_back(index);
    return true;
  });
  if (!is_whole) {
    // Else all first nodes of a damaged segment might share one long chain, each walking it anew.
    for (const size_t index : chain) {
      census->used[index] = false;
      census->broken[index] = true;
    }
    return false;
  }
  census->nodes += chain.size();
  census->link_bufs += 1;
  census->bytes += length;
  return true;
}

template <typename Alloc>
size_t ShmLinkTable<Alloc>::TakeBack(const Census& census) {
  if (!HasWriter("TakeBack") || census.used.size() != node_num_) return 0;
  if (FreeListMatches(&census)) return 0;
  const size_t before = std::min(free_nodes(), total_nodes() - census.nodes);
  RelayFreeList(census);
  return free_nodes() - before;
}

// Hangs all nodes that are not in use into the free list, in rising order. The list is empty while
// its count is not, until the last store: a writer that dies in between is found out.
template <typename Alloc>
void ShmLinkTable<Alloc>::RelayFreeList(const Census& census) {
  impl::ReleaseFence();  // as in Free: withdrawals first
  ShmHead* head = shm_.ptr();
  impl::Store(&head->free_list, 0);
  impl::Store(&head->free_node_num, total_nodes() - census.nodes);
  impl::Store(&head->link_buf_num, census.link_bufs);
  impl::Store(&head->data_size, census.bytes);
  uint32_t first = 0;
  for (size_t index = node_num_ - 1; index > 0; --index) {
    if (census.used[index]) continue;
    SetTag(GetNode(index), 0);
    SetNext(GetNode(index), first);
    first = static_cast<uint32_t>(index);
  }
  impl::Store(&head->free_list, first);
  LoadOwn();
}

// Without an owner to ask, every string that is whole stays.
template <typename Alloc>
void ShmLinkTable<Alloc>::RebuildFreeList() {
  Census census = StartCensus();
  for (size_t index = 1; index < node_num_; ++index) {
    const uint32_t tag = Tag(GetNode(index));
    if ((tag & kFirstTagBit) == 0) continue;
    Claim(link_buf_t(static_cast<uint32_t>(index), tag & ~kFirstTagBit), &census);  // or it is lost
  }
  RelayFreeList(census);
  Log::Log(kLogWarning, "ShmLinkTable::InitForWrite: rebuilt %s, %zu of %zu nodes free\n",
           shm_.name().c_str(), free_nodes(), total_nodes());
}

extern template class ShmLinkTable<impl::SVIPCShmAlloc<false>>;

}  // namespace shmc

#endif  // BSP_SHMC_SHM_LINK_TABLE_H_
