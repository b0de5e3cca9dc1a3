#include "bsp/util/block_stash.h"

#include <iterator>
#include <utility>

namespace bsp {

// Neither has a destructor: both outlive the stash, so that a late caller can ask.
__thread BlockStash* BlockStash::t_mine_ = nullptr;
__thread bool BlockStash::t_is_gone_ = false;

BlockStash::BlockStash() { t_mine_ = this; }

// The warm block goes to the pool with its pointer, after this.
BlockStash::~BlockStash() {
  t_mine_ = nullptr;
  t_is_gone_ = true;
}

BlockStash* BlockStash::MakeMine() {
  if (t_is_gone_) return nullptr;
  thread_local BlockStash stash;
  return &stash;
}

void BlockStash::Append(Chain* chain, std::shared_ptr<Block> block) {
  if (nodes_.empty()) {
    chain->push_back(std::move(block));
    return;
  }
  nodes_.front() = std::move(block);
  chain->splice(chain->end(), nodes_, nodes_.begin());
}

BlockStash::Chain::iterator BlockStash::Drop(Chain* chain, Chain::iterator block) {
  const Chain::iterator next = std::next(block);
  // Out of the chain first: the release below may come back here through the pool.
  Chain node;
  node.splice(node.end(), *chain, block);
  node.front().reset();
  if (nodes_.size() < kBlockCacheLimit) nodes_.splice(nodes_.end(), node);
  return next;
}

}  // namespace bsp
