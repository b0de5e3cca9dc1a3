#include "bsp/net/rpc/budget.h"

#include <cassert>

namespace bsp {

Budget::~Budget() { assert(used_bytes_ == 0); }

PeerAccount::~PeerAccount() {
  assert(held_bytes_ == 0);
  budget_->used_bytes_ -= held_bytes_;
}

bool PeerAccount::Admits(size_t bytes) const {
  const size_t limit = budget_->limit_bytes_;
  if (limit == 0) return true;
  if (budget_->used_bytes_ >= limit) return false;
  const size_t free = limit - budget_->used_bytes_;
  return bytes <= free && held_bytes_ <= free - bytes;
}

void PeerAccount::Set(Kind kind, size_t bytes) {
  const size_t before = kinds_[kind];
  if (before == bytes) return;
  kinds_[kind] = bytes;
  held_bytes_ = held_bytes_ - before + bytes;
  budget_->used_bytes_ = budget_->used_bytes_ - before + bytes;
}

bool PeerAccount::Grow(Kind kind, size_t bytes) {
  if (!Admits(bytes)) return false;
  Set(kind, kinds_[kind] + bytes);
  return true;
}

void PeerAccount::Close() {
  for (const Kind kind : {kPlace, kInput, kLarge, kBacklog}) Set(kind, 0);
}

}  // namespace bsp
