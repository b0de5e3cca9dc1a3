// What one thread keeps at hand between buffers, below MemoryBuffer and above the pool. Internal.
#ifndef BSP_UTIL_BLOCK_STASH_H_
#define BSP_UTIL_BLOCK_STASH_H_

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "bsp/base/asan.h"
#include "bsp/util/memory_buffer.h"

namespace bsp {

// Valid bytes of a block, whatever its open field `size` says.
inline size_t HeldBytes(const Block& block) { return std::min(block.size, kBlockCapacity); }

// memcpy, always by the function of that name. Where the compiler knows that a count is at most a
// block it puts a string instruction there instead, which takes several times as long for a small
// frame; so the count is hidden from it.
inline void CopyPayload(char* dst, const char* src, size_t count) {
  asm("" : "+r"(count));
  memcpy(dst, src, count);
}

// A frame that is written and read at once takes a block and gives it back: two locks, a control
// block and a list node for 104 bytes. So the block that a buffer emptied last stays with the
// thread, warm, in its node and under its shared pointer, and the next write of any buffer on this
// thread takes it without a lock. Nodes of blocks that went back to the pool stay here as well.
//
// What must hold: to its own thread the warm block looks as if it lay at the back of the pool.
// Every operation of BlockManager therefore sends it there first (Flush). Only a block that nobody
// outside its buffer has seen may become warm. A thread keeps one such block, an idle buffer none.
//
// Threads: each has its own.
class BlockStash {
 public:
  using Chain = MemoryBuffer::Chain;

  // The stash of the calling thread; null when the thread is past its end and its thread-local
  // objects are gone, as in destructors of statics, and always under AddressSanitizer.
  static BlockStash* Mine() { return t_mine_ != nullptr || kAsan ? t_mine_ : MakeMine(); }

  // The same without making it: null as well when this thread has had no need of one so far.
  static BlockStash* AtHand() { return t_mine_; }

  // Sends the warm block of the calling thread to the pool.
  static void Flush() {
    if (t_mine_ != nullptr) t_mine_->SendToPool();
  }

  // Moves the warm block, empty, to the end of *chain. False when there is none.
  bool TakeWarm(std::unique_ptr<Chain>* chain) {
    if (warm_->empty()) return false;
    if ((*chain)->empty()) {
      chain->swap(warm_);
    } else {
      (*chain)->splice((*chain)->end(), *warm_, warm_->begin());
    }
    return true;
  }

  // Makes the first block of *chain the warm one; the former goes to the pool.
  void KeepWarm(std::unique_ptr<Chain>* chain) {
    SendToPool();
    Block& block = *(*chain)->front();
    block.data[0] = 0;
    block.size = 0;
    block.encode = false;
    if ((*chain)->size() == 1) {
      chain->swap(warm_);
    } else {
      warm_->splice(warm_->end(), **chain, (*chain)->begin());
    }
  }

  // Appends the block to *chain, in a node at hand if there is one.
  void Append(Chain* chain, std::shared_ptr<Block> block);

  // Drops one block of *chain and keeps its node; gives the next one.
  Chain::iterator Drop(Chain* chain, Chain::iterator block);

 private:
  BlockStash();
  ~BlockStash();

  static BlockStash* MakeMine();
  void SendToPool() {
    if (!warm_->empty()) Drop(warm_.get(), warm_->begin());
  }

  // Not with the model `initial-exec`, which spares a call at each access: one variable of that
  // kind takes all thread-local bytes of the library out of the few that libraries loaded late may
  // have.
  // `__thread` instead of `thread_local`, which would ask for a constructor at each access.
  static __thread BlockStash* t_mine_;
  static __thread bool t_is_gone_;

  std::unique_ptr<Chain> warm_ = std::make_unique<Chain>();  // at most one block
  Chain nodes_;  // empty pointers, at most kBlockCacheLimit
};

}  // namespace bsp

#endif  // BSP_UTIL_BLOCK_STASH_H_
