#include "bsp/net/rpc/budget.h"

#include <algorithm>
#include <cassert>

namespace bsp {

Budget::~Budget() { assert(used_bytes_ == 0 && shared_bytes_ == 0); }

bool Budget::HasPlace() const {
  return limit_bytes_ == 0 || accounts_ < places_ || FreeBytes(accounts_ + 1) > 0;
}

size_t Budget::FreeBytes(size_t accounts) const {
  const size_t taken = std::max(accounts, places_) * kAllowanceBytes + shared_bytes_;
  return limit_bytes_ - std::min(limit_bytes_, taken);
}

PeerAccount::PeerAccount(Budget* budget) : budget_(budget) { ++budget_->accounts_; }

PeerAccount::~PeerAccount() {
  assert(held_bytes_ == 0);
  for (int kind = 0; kind < kKinds; ++kind) Set(static_cast<Kind>(kind), 0);
  --budget_->accounts_;
}

size_t PeerAccount::SharedBytes(size_t held) const {
  return held - std::min(held, Budget::kAllowanceBytes);
}

bool PeerAccount::Admits(size_t bytes) const {
  if (budget_->limit_bytes_ == 0) return true;
  const size_t shared = SharedBytes(held_bytes_ + bytes);
  return shared == 0 || shared <= budget_->FreeBytes(budget_->accounts_);
}

void PeerAccount::Set(Kind kind, size_t bytes) {
  const size_t before = kinds_[kind];
  if (before == bytes) return;
  const size_t held = held_bytes_ - before + bytes;
  budget_->used_bytes_ = budget_->used_bytes_ - before + bytes;
  budget_->shared_bytes_ = budget_->shared_bytes_ - SharedBytes(held_bytes_) + SharedBytes(held);
  held_bytes_ = held;
  kinds_[kind] = bytes;
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
