// The pool keeps up to eight freed blocks and as many pieces of memory for the control blocks of
// their shared pointers, so that a block in circulation costs two or three short locks and no
// allocation. The control block cannot lie beside its block: it lives on for a moment after the
// deleter that hands the block to its next user.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <utility>

#include "bsp/base/asan.h"
#include "bsp/log/log.h"
#include "bsp/util/block_stash.h"
#include "bsp/util/memory_buffer.h"

namespace bsp {
namespace {

// 64: one cache line; libstdc++ needs 40, and the allocator below checks it.
constexpr size_t kControlBytes = 64;

struct ControlDeleter {
  void operator()(void* memory) const { operator delete(memory); }
};
using ControlMemory = std::unique_ptr<void, ControlDeleter>;

}  // namespace

// ---- Block

// The payload is not zeroed: 4608 stores for bytes that nobody may read.
Block::Block() : size(0), encode(false) { data[0] = 0; }

size_t Block::RemainSize() const { return kBlockCapacity - HeldBytes(*this); }

size_t Block::WriteBytes(const char* src, size_t len) {
  const size_t count = std::min(RemainSize(), len);
  if (count == 0 || src == nullptr) return 0;
  CopyPayload(data + size, src, count);
  size += count;
  return count;
}

size_t Block::ReadBytes(char* dst, size_t len) {
  if (size > kBlockCapacity) {
    if (len > 0) printf("ReadBytes buffer_size is large default %zu.\n", size);
    return 0;
  }
  const size_t count = std::min(size, len);
  if (count == 0) return 0;
  if (dst != nullptr) CopyPayload(dst, data, count);
  DropFront(count);
  return count;
}

size_t Block::ReadString(std::string* dst, size_t len) {
  const size_t count = CopyString(0, dst, len);
  if (count > 0) DropFront(count);
  return count;
}

size_t Block::CopyBytes(size_t offset, char* dst, size_t len) const {
  const size_t count = Readable(offset, len);
  if (count == 0 || dst == nullptr) return 0;
  CopyPayload(dst, data + offset, count);
  return count;
}

size_t Block::CopyString(size_t offset, std::string* dst, size_t len) const {
  const size_t count = Readable(offset, len);
  if (count == 0 || dst == nullptr) return 0;
  dst->append(data + offset, count);
  return count;
}

std::shared_ptr<Block> Block::TakeBlock() { return BlockManager::Instance()->TakeBlock(); }

void Block::DumpBlocksInfo() {
  printf("FlowCtrl>> Block cache total size:%d, current use count:%d\n",
         static_cast<int>(kBlockCacheLimit),
         static_cast<int>(BlockManager::Instance()->CacheSize()));
}

size_t Block::Readable(size_t offset, size_t len) const {
  const size_t held = HeldBytes(*this);
  return offset >= held ? 0 : std::min(held - offset, len);
}

void Block::DropFront(size_t count) {
  size = HeldBytes(*this) - count;
  memmove(data, data + count, size);
}

// ---- BlockManager

// Hands out one piece of memory that TakeBlock has at hand already, so that a shared pointer cannot
// fail to be made.
template <typename T>
class BlockManager::ControlAllocator {
 public:
  using value_type = T;

  explicit ControlAllocator(void* memory) : memory_(memory) {}
  template <typename Other>
  ControlAllocator(const ControlAllocator<Other>& other) : memory_(other.memory()) {}  // NOLINT

  void* memory() const { return memory_; }

  T* allocate(size_t count) {
    static_assert(sizeof(T) <= kControlBytes, "control block");
    static_assert(alignof(T) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__, "control block");
    static_cast<void>(count);  // always 1
    return static_cast<T*>(memory_);
  }
  void deallocate(T* memory, size_t) { Instance()->ReleaseControl(memory); }

 private:
  void* memory_;
};

BlockManager* BlockManager::Instance() {
  static BlockManager* const pool = new BlockManager();
  return pool;
}

std::shared_ptr<Block> BlockManager::TakeBlock() {
  BlockStash::Flush();
  std::unique_ptr<Block> block;
  ControlMemory control;
  {
    const std::lock_guard<PiMutex> lock(mutex_);
    const size_t count = cache_size_.load(std::memory_order_relaxed);
    if (count > 0) {
      block.reset(cache_[oldest_]);
      Unpoison(block.get(), sizeof(Block));
      oldest_ = (oldest_ + 1) % kBlockCacheLimit;
      cache_size_.store(count - 1, std::memory_order_relaxed);
    }
    if (control_count_ > 0) control.reset(controls_[--control_count_]);
  }
  if (block == nullptr) block = std::make_unique<Block>();
  if (control == nullptr) control.reset(operator new(kControlBytes));
  const ControlAllocator<Block> allocator(control.release());
  return std::shared_ptr<Block>(block.release(), RecyleBlock, allocator);
}

void BlockManager::RecyleBlock(void* block) {
  if (block == nullptr) {
    BSP_LOG_ERROR(MOD_EB, "Block is null");
    return;
  }
  Instance()->InternalRecyleBlock(static_cast<Block*>(block));
}

void BlockManager::InternalRecyleBlock(Block* block) {
  if (block == nullptr) return;
  BlockStash::Flush();
  block->data[0] = 0;
  block->size = 0;
  block->encode = false;
  {
    const std::lock_guard<PiMutex> lock(mutex_);
    const size_t count = cache_size_.load(std::memory_order_relaxed);
    if (count < kBlockCacheLimit) {
      Poison(block, sizeof(Block));  // until it is taken, whoever still knows it is in the wrong
      cache_[(oldest_ + count) % kBlockCacheLimit] = block;
      cache_size_.store(count + 1, std::memory_order_relaxed);
      return;
    }
  }
  delete block;
}

size_t BlockManager::CacheSize() {
  BlockStash::Flush();
  return cache_size_.load(std::memory_order_relaxed);
}

void BlockManager::ReleaseControl(void* memory) {
  ControlMemory control(memory);
  if (kAsan) return;
  const std::lock_guard<PiMutex> lock(mutex_);
  if (control_count_ < kBlockCacheLimit) controls_[control_count_++] = control.release();
}

}  // namespace bsp
