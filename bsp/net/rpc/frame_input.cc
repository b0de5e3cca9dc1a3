#include "bsp/net/rpc/frame_input.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "bsp/util/memory_buffer.h"

namespace bsp {
namespace {

constexpr size_t kPage = 4096;
constexpr size_t kLargeFrame = size_t{32} * 1024;

// A string writes its memory when it grows, on the word of a head alone: for larger replies a copy
// is the lesser evil.
constexpr size_t kApartMost = size_t{16} * 1024 * 1024;

// Read at a time while no large frame is under way: the first read shows that one is coming, and
// what it took of it has to be copied.
constexpr size_t kSmallRead = size_t{16} * 1024;

}  // namespace

// ---- FrameMemory

bool FrameMemory::Reserve(size_t size) {
  if (size <= capacity_) return true;
  const size_t rounded = (size + kPage - 1) / kPage * kPage;
  // On a page: a receive area that begins just behind one is filled several times slower.
  data_.reset(static_cast<char*>(aligned_alloc(kPage, rounded)));
  capacity_ = data_ != nullptr ? rounded : 0;
  return data_ != nullptr;
}

void FrameMemory::Swap(FrameMemory* other) {
  data_.swap(other->data_);
  std::swap(capacity_, other->capacity_);
}

void FrameMemory::Release() {
  data_.reset();
  capacity_ = 0;
}

// ---- FrameStore

FrameStore::FrameStore(std::shared_ptr<FrameMemory> shared) : shared_(std::move(shared)) {}

FrameStore::~FrameStore() { FrameStore::Recycle(); }  // what was borrowed goes back

char* FrameStore::Small(size_t size) {
  return shared_->Reserve(size + 1) ? shared_->data() : nullptr;
}

char* FrameStore::Begin(const RpcHeader& head, size_t* from, size_t* room) {
  *from = 0;
  *room = static_cast<size_t>(head.size);
  large_.Swap(shared_.get());
  return large_.Reserve(*room + 1) ? large_.data() : nullptr;
}

Frame FrameStore::End(const RpcHeader& head) {
  const auto size = static_cast<size_t>(head.size);
  char* const bytes = large_.data();
  bytes[size] = '\0';
  return {reinterpret_cast<RpcHeader*>(bytes), bytes + sizeof head, size};
}

// Of two that were in use at the same time the larger stays.
void FrameStore::Recycle() {
  if (large_.capacity() > shared_->capacity()) large_.Swap(shared_.get());
  large_.Release();
}

// ---- ReplyStore

char* ReplyStore::Begin(const RpcHeader& head, size_t* from, size_t* room) {
  const auto size = static_cast<size_t>(head.size);
  is_apart_ = head.type == RPC_TYPE_REPLAY && size <= kApartMost;
  if (!is_apart_) return FrameStore::Begin(head, from, room);
  *from = sizeof head;
  *room = size - sizeof head;
  payload_.resize(*room + 1);
  return &payload_[0];
}

Frame ReplyStore::End(const RpcHeader& head) {
  if (!is_apart_) return FrameStore::End(head);
  char* const place = Small(sizeof head);
  if (place == nullptr) return {};
  memcpy(place, &head, sizeof head);
  const auto size = static_cast<size_t>(head.size);
  payload_[size - sizeof head] = '\0';
  return {reinterpret_cast<RpcHeader*>(place), &payload_[0], size};
}

void ReplyStore::Recycle() {
  if (!is_apart_) FrameStore::Recycle();
  is_apart_ = false;
}

// ---- FrameInput

FrameInput::FrameInput(std::shared_ptr<FrameStore> store, Decide decide)
    : store_(std::move(store)), decide_(std::move(decide)) {}

FrameInput::~FrameInput() = default;

RpcFrameState FrameInput::Look(const std::shared_ptr<MemoryBuffer>& buffer, RpcHeader* head) {
  if (is_taken_) EndLarge();
  if (skip_ > 0) return RpcFrameState::kNoHead;
  if (large_ == nullptr) return LookAtRpcFrame(buffer, head);
  *head = large_head_;
  return IsUnderWay() ? RpcFrameState::kIncomplete : RpcFrameState::kComplete;
}

Frame FrameInput::Take(const std::shared_ptr<MemoryBuffer>& buffer, const RpcHeader& head) {
  if (large_ != nullptr) {
    is_taken_ = true;
    return store_->End(large_head_);
  }
  const auto size = static_cast<size_t>(head.size);
  char* const bytes = store_->Small(size);
  if (bytes == nullptr) return {};
  buffer->ReadBytes(bytes, size);
  bytes[size] = '\0';
  return {reinterpret_cast<RpcHeader*>(bytes), bytes + sizeof head, size};
}

void FrameInput::Discard(const std::shared_ptr<MemoryBuffer>& buffer, const RpcHeader& head) {
  if (large_ != nullptr) {
    EndLarge();
  } else {
    buffer->ReadBytes(nullptr, static_cast<size_t>(head.size));
  }
}

bool FrameInput::GiveUp(const std::shared_ptr<MemoryBuffer>& buffer, RpcHeader* head) {
  if (Look(buffer, head) != RpcFrameState::kIncomplete) return false;
  if (IsUnderWay()) {
    skip_ = large_size_ - large_held_;
    EndLarge();
  } else {
    Skip(buffer, static_cast<size_t>(head->size));
  }
  return true;
}

void FrameInput::EndLarge() {
  store_->Recycle();
  large_ = nullptr;
  is_taken_ = false;
}

char* FrameInput::Room(const std::shared_ptr<MemoryBuffer>& buffer, size_t* room) {
  *room = kSmallRead;
  if (is_taken_) EndLarge();
  if (skip_ == 0 && large_ == nullptr) {
    const RpcFrameState state = LookAtRpcFrame(buffer, &large_head_);
    if (state != RpcFrameState::kIncomplete) return nullptr;
    const auto size = static_cast<size_t>(large_head_.size);
    if (size < kLargeFrame) return nullptr;
    switch (decide_ ? decide_(large_head_) : Admission::kPass) {
      case Admission::kWait:
        *room = 0;
        return nullptr;
      case Admission::kRefuse:
        Skip(buffer, size);
        break;
      case Admission::kPass:
        if (!StartLarge(buffer)) return nullptr;
    }
  }
  if (skip_ > 0) {  // into the place of small frames, of which none is in hand
    char* const place = store_->Small(kSmallRead);
    if (place == nullptr) throw std::bad_alloc();
    *room = std::min(skip_, kSmallRead);
    return place;
  }
  *room = large_size_ - large_held_;  // 0: a whole one that nobody has taken yet
  return *room > 0 ? large_ + large_held_ : nullptr;
}

bool FrameInput::StartLarge(const std::shared_ptr<MemoryBuffer>& buffer) {
  size_t from = 0;
  large_ = store_->Begin(large_head_, &from, &large_size_);
  if (large_ == nullptr) return false;
  buffer->ReadBytes(nullptr, from);
  large_held_ = buffer->ReadBytes(large_, buffer->size());
  return true;
}

void FrameInput::Skip(const std::shared_ptr<MemoryBuffer>& buffer, size_t size) {
  skip_ = size - buffer->ReadBytes(nullptr, std::min(size, buffer->size()));
}

bool FrameInput::Took(size_t count) {
  if (skip_ > 0) {
    skip_ -= count;
    return false;
  }
  large_held_ += count;
  return large_held_ == large_size_;
}

}  // namespace bsp
