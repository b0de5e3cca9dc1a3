#include "bsp/net/rpc/frame_input.h"

#include <algorithm>
#include <cstring>
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

FrameInput::FrameInput(std::shared_ptr<FrameMemory> frame, size_t most_bytes)
    : frame_(std::move(frame)), most_bytes_(most_bytes) {}

FrameInput::~FrameInput() = default;

RpcFrameState FrameInput::Take(const std::shared_ptr<MemoryBuffer>& buffer, RpcHeader* head,
                               bool* is_taken) {
  *is_taken = true;
  is_apart_ = false;
  if (large_ != nullptr) {
    *head = large_head_;
    if (large_held_ < large_size_) return RpcFrameState::kIncomplete;
    *is_taken = TakeLarge();
    return RpcFrameState::kComplete;
  }
  const RpcFrameState state = LookAtRpcFrame(buffer, head);
  if (state != RpcFrameState::kComplete) return state;
  const auto size = static_cast<size_t>(head->size);
  *is_taken = frame_->Reserve(size + 1);
  if (!*is_taken) return state;
  buffer->ReadBytes(frame_->data(), size);
  frame_->data()[size] = '\0';
  return state;
}

// The frame changes hands with its memory.
bool FrameInput::TakeLarge() {
  is_apart_ = large_ != large_memory_.data();
  large_[large_size_] = '\0';
  large_ = nullptr;
  if (is_apart_) {
    if (!frame_->Reserve(sizeof large_head_)) return false;
    memcpy(frame_->data(), &large_head_, sizeof large_head_);
    return true;
  }
  frame_->Swap(&large_memory_);
  large_memory_.Release();
  return true;
}

char* FrameInput::Room(const std::shared_ptr<MemoryBuffer>& buffer, size_t* room) {
  *room = kSmallRead;
  if (large_ == nullptr) {
    const RpcFrameState state = LookAtRpcFrame(buffer, &large_head_);
    if (state != RpcFrameState::kIncomplete || !StartLarge(buffer)) return nullptr;
  }
  if (large_held_ == large_size_) return nullptr;  // a whole one that nobody has taken yet
  *room = large_size_ - large_held_;
  return large_ + large_held_;
}

bool FrameInput::StartLarge(const std::shared_ptr<MemoryBuffer>& buffer) {
  const auto size = static_cast<size_t>(large_head_.size);
  if (size < kLargeFrame || (most_bytes_ != 0 && size > most_bytes_)) return false;
  large_size_ = size;
  if (keeps_replies_apart_ && large_head_.type == RPC_TYPE_REPLAY && size <= kApartMost) {
    large_size_ -= sizeof large_head_;
    payload_.resize(large_size_ + 1);
    large_ = &payload_[0];
    buffer->ReadBytes(nullptr, sizeof large_head_);
  } else {
    large_memory_.Swap(frame_.get());
    if (!large_memory_.Reserve(size + 1)) return false;
    large_ = large_memory_.data();
  }
  large_held_ = buffer->ReadBytes(large_, buffer->size());
  return true;
}

bool FrameInput::Took(size_t count) {
  large_held_ += count;
  return large_held_ == large_size_;
}

}  // namespace bsp
