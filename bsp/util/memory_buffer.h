// Pooled blocks and the byte queue on a chain of them. Every TCP byte of the library passes here.
#ifndef BSP_UTIL_MEMORY_BUFFER_H_
#define BSP_UTIL_MEMORY_BUFFER_H_

#include <sys/uio.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <list>
#include <memory>
#include <string>

#include "bsp/base/macros.h"
#include "bsp/base/pi_mutex.h"

namespace bsp {

// Payload bytes of one block: 4 KiB and room for a frame head and its like behind it.
constexpr size_t kBlockCapacity = 4608;

// Most blocks that lie in the pool; what comes back beyond them goes to the heap.
constexpr size_t kBlockCacheLimit = 8;

// A piece of memory of fixed size, filled from the front. There is no read offset: valid bytes are
// always data[0] to data[size - 1], and reading moves the rest down.
//
// The fields are open to the user. A `size` above kBlockCapacity cannot arise here; every operation
// bears it and stays inside `data`.
//
// Threads: one at a time.
class BSP_EXPORT Block {
 public:
  // Empty, without `encode`, data[0] zero; the rest of the payload is left as it is.
  Block();
  ~Block() = default;

  // Free bytes.
  size_t RemainSize() const;

  // Appends what fits; returns the bytes taken. Takes nothing from a null pointer.
  size_t WriteBytes(const char* src, size_t len);

  // Removes at most `len` bytes from the front and copies them to `dst`, unless that is null;
  // returns the bytes removed.
  size_t ReadBytes(char* dst, size_t len);

  // The same, appending to *dst. Nothing happens with a null `dst`.
  size_t ReadString(std::string* dst, size_t len);

  // Copies at most `len` bytes from `offset` on, removing nothing; returns the bytes copied.
  size_t CopyBytes(size_t offset, char* dst, size_t len) const;
  size_t CopyString(size_t offset, std::string* dst, size_t len) const;

  // BlockManager::Instance()->TakeBlock().
  static std::shared_ptr<Block> TakeBlock();

  // Prints the cache limit and the number of blocks in the cache on standard output.
  static void DumpBlocksInfo();

  // 64: a cache line. What is written by whole registers is then read back so without waiting.
  alignas(64) char data[kBlockCapacity];
  size_t size;  // valid bytes
  bool encode;  // a mark of MemoryBuffer::SetEncode; the library does not read it

 private:
  // Bytes that a copy of `len` from `offset` yields.
  size_t Readable(size_t offset, size_t len) const;
  // Moves the bytes behind the first `count` down.
  void DropFront(size_t count);
};

// The pool of the process: freed blocks, first in, first out, at most kBlockCacheLimit of them.
// There is no limit on blocks in use. The object is built on first use and never destroyed, so that
// a block may come back from the destructor of any static.
//
// Threads: any.
class BSP_EXPORT BlockManager {
 public:
  static BlockManager* Instance();

  // A block from the cache, else a new one; never null, std::bad_alloc when memory is out. The last
  // holder's release brings it back, on whatever thread.
  std::shared_ptr<Block> TakeBlock();

  // The deleter of every block. A null block is only logged.
  static void RecyleBlock(void* block);

  // Empties the block, which must come from `new`, and puts it into the cache, or deletes it when
  // the cache is full. A null block is left alone.
  void InternalRecyleBlock(Block* block);

  // Blocks in the cache, read without the lock: what stood there at some moment of the call. A
  // block that another thread keeps warm (MemoryBuffer) is not among them.
  size_t CacheSize();

 protected:
  BlockManager() = default;
  virtual ~BlockManager() = default;

 private:
  // Memory of shared pointers' control blocks, so that taking a block from the cache allocates
  // nothing.
  template <typename T>
  class ControlAllocator;
  void ReleaseControl(void* memory);

  PiMutex mutex_;  // guards the fields below

  // Blocks in order of their return, from number `oldest_` on, around the end. An array, since a
  // list would allocate in a deleter.
  std::array<Block*, kBlockCacheLimit> cache_ = {};
  size_t oldest_ = 0;
  std::atomic<size_t> cache_size_ = 0;  // atomic for CacheSize alone

  std::array<void*, kBlockCacheLimit> controls_ = {};
  size_t control_count_ = 0;
};

// The byte queue: a chain of pooled blocks, written at the back, consumed at the front, readable at
// any offset. Only the last block is written to; any block may be partly filled or empty; a block
// leaves the chain as soon as reading empties it. The block that a thread's buffers emptied last
// stays with the thread for the next write; it counts as returned to the pool.
//
// Whole blocks move and are shared by reference. A block that stands in two buffers changes for
// both: after AppendBuffer(other) use `other` no more, after ReplaceString2Buffer not the
// replacement.
//
// A null pointer argument leaves everything as it was: the call answers 0, false or the end, and an
// operation without a result logs it at level 3.
//
// Threads: one at a time. Blocks go back to the pool from any thread.
class BSP_EXPORT MemoryBuffer {
 public:
  using Chain = std::list<std::shared_ptr<Block>>;

  static std::shared_ptr<MemoryBuffer> Create();

  MemoryBuffer();
  virtual ~MemoryBuffer();
  MemoryBuffer(const MemoryBuffer&) = delete;
  MemoryBuffer& operator=(const MemoryBuffer&) = delete;

  // Bytes in the buffer.
  size_t Length() const { return size_; }
  size_t size() const { return size_; }

  // The same by a walk over the chain.
  size_t SizeByEncode() const;

  // The chain itself, to look at or to change. A buffer whose blocks can be seen from outside
  // (after blocks, GetPostion, AppendBlock, AppendBuffer and ReplaceString2Buffer) moves bytes at
  // each read; all others put that off.
  Chain& blocks();

  // ---- Writing at the back

  // Appends a copy; with `len` 0 on a buffer without blocks one empty block.
  void WriteBytes(const char* data, size_t len);
  void WriteString(const std::string& text);

  // The same, starting in a new block; with `len` 0 that block stays empty.
  void WriteBytes2NewBlock(const char* data, size_t len);

  // Puts the block at the end as it is. A block with a size above its capacity is refused.
  void AppendBlock(std::shared_ptr<Block> block);

  // Puts the blocks of `other` at the end, shared, not copied; `other` keeps its count. Appended to
  // itself, a buffer gets a copy of its bytes in blocks of its own, since a block that stands twice
  // in a chain would be read once.
  void AppendBuffer(std::shared_ptr<MemoryBuffer> other);

  // ---- Reading and consuming at the front

  // Takes at most `len` bytes; a null `dst` skips them. Returns the bytes taken.
  size_t ReadBytes(char* dst, size_t len);

  // The same, appending to *dst. False only for an empty buffer, or a null `dst`.
  bool ReadString(std::string* dst, size_t len);

  // Moves at most `len` bytes to the end of *dst, whole blocks without a copy. Returns the bytes
  // moved. `dst` may be this buffer, which turns its content.
  size_t ReadBuffer(std::shared_ptr<MemoryBuffer> dst, size_t len);

  // Takes all bytes; a null `dst` discards them. -1, with nothing taken, when they do not fit into
  // `capacity`.
  long ReadAllBytes(char* dst, size_t capacity);

  void Clear();

  // ---- Looking without consuming

  // Copies from `offset`, cut at the end; returns the bytes copied.
  size_t CopyBytes(char* dst, size_t offset, size_t len) const;

  // Copies exactly `len` bytes from `offset`; false, with nothing copied, when fewer are there.
  bool CopyBytes(size_t offset, char* dst, size_t len) const;
  bool CopyString(size_t offset, std::string* dst, size_t len) const;  // appends

  // Writes a copy of the first `len` bytes to *dst; false when fewer are there.
  bool CopyBuffer(std::shared_ptr<MemoryBuffer> dst, size_t len);

  std::string ToString() const;

  // The block that holds byte number `pos`, and in *offset its place in the block. The end, with
  // *offset untouched, when `pos` is at or behind the end of the buffer.
  Chain::iterator GetPostion(size_t pos, size_t* offset);

  // The first bytes where they lie, for a call that gathers: fills at most `count` pieces with at
  // most `len` bytes together and returns how many pieces it took. Valid until the next change.
  size_t Pieces(iovec* pieces, size_t count, size_t len) const;

  // Walks the chain, without visible effect.
  void DumpData() const;

  // ---- Others

  // Stores the mark in each block of the chain; false when there is none.
  bool SetEncode(bool encode);

  // Replaces the first match of `pattern` by the blocks of `replacement`, shared, not copied; a
  // buffer may replace by itself, then by a copy. Without a match, and with an empty pattern, the
  // buffer stays as it was.
  //
  // The search never goes back: the byte that breaks a partial match is not tested again as the
  // first of the pattern, so that "ab" is not found in "aab".
  void ReplaceString2Buffer(const std::string& pattern, std::shared_ptr<MemoryBuffer> replacement);

 private:
  // A match of a pattern: the block and offset of its first byte, and those behind its last.
  struct Match {
    Chain::iterator start;
    size_t head_length;
    Chain::iterator end;
    size_t tail_offset;
  };

  void WriteMore(const char* data, size_t len);
  size_t ReadMore(char* dst, size_t len);
  void CopyTo(MemoryBuffer* dst, size_t len);
  bool FindForward(const std::string& pattern, Match* match);

  // Makes the chain fit to be seen from outside, for good.
  void Open();
  void SettleFront();
  // Appends an empty block; null when there is none to be had.
  Block* AddBlock();
  Block* AddPoolBlock();
  // Takes a block that ran empty out of the chain; gives the next one.
  Chain::iterator DropBlock(Chain::iterator block);
  // The same for the first block of a chain that nobody can see.
  void DropFrontBlock();
  size_t ReadOpenChain(char* dst, size_t len);
  // Moves the whole first block to the end of *dst.
  void MoveFrontBlock(MemoryBuffer* dst);

  size_t size_ = 0;               // bytes not consumed
  std::unique_ptr<Chain> chain_;  // the blocks in stream order; never null
  size_t front_read_ = 0;         // consumed bytes that still lie at the front of the first block
  bool is_open_ = false;          // a block may be seen from outside; front_read_ is then 0
};

}  // namespace bsp

#endif  // BSP_UTIL_MEMORY_BUFFER_H_
