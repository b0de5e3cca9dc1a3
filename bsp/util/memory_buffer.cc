// A chain of pooled blocks that costs little more than the copies.
//
// Three things would cost more than the bytes of a small frame; each is put off as long as nobody
// can see the difference:
//
// - Reading from the front of a block moves all that remains down. Here the consumed bytes stay in
//   the first block, counted by front_read_, and the move is made when the room or the look of the
//   block is needed: a write that does not fit behind the last byte, a block that changes its
//   buffer, an operation that shows the chain.
// - A block that runs empty goes back to the pool, and the next write takes one. Here it stays with
//   the thread instead (block_stash.h). The chain hangs on a pointer, so that the only block of a
//   chain goes there and comes back with its list, by two stores.
// - Each block needs a node of the chain; the thread keeps those too.
//
// Seen from outside, valid bytes are always data[0] to data[size - 1], and the chain has the blocks
// that it would have without all this. A buffer that has once shown a block, or taken one in that
// others may hold (is_open_), works by the book from then on, since the caller may keep a reference
// to the chain or to the block. A write must ask for room as if the consumed bytes were gone, or
// the chains would differ.
//
// Rejected: a read offset in Block (its fields are open), and a warm block for each buffer (every
// idle connection would hold two).
#include "bsp/util/memory_buffer.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

#include "bsp/log/log.h"
#include "bsp/util/block_stash.h"

namespace bsp {
namespace {

void RefuseNull(size_t len) {
  if (len > 0) BSP_LOG_ERROR(MOD_EB, "data is null, %zu bytes not written", len);
}

}  // namespace

std::shared_ptr<MemoryBuffer> MemoryBuffer::Create() { return std::make_shared<MemoryBuffer>(); }

MemoryBuffer::MemoryBuffer() : chain_(std::make_unique<Chain>()) {}

MemoryBuffer::~MemoryBuffer() = default;

size_t MemoryBuffer::SizeByEncode() const {
  size_t sum = 0;
  for (const auto& block : *chain_) sum += block->size;
  return sum - front_read_;
}

MemoryBuffer::Chain& MemoryBuffer::blocks() {
  Open();
  return *chain_;
}

// Nobody outside may know the block: it stays with the thread.
inline void MemoryBuffer::DropFrontBlock() {
  BlockStash* const stash = BlockStash::AtHand();
  if (stash != nullptr) {
    stash->KeepWarm(&chain_);
  } else {
    DropBlock(chain_->begin());
  }
}

// The node stays with the thread.
MemoryBuffer::Chain::iterator MemoryBuffer::DropBlock(Chain::iterator block) {
  BlockStash* const stash = BlockStash::Mine();
  if (stash == nullptr) return chain_->erase(block);
  return stash->Drop(chain_.get(), block);
}

inline Block* MemoryBuffer::AddBlock() {
  BlockStash* const stash = BlockStash::AtHand();
  if (stash == nullptr || is_open_ || !stash->TakeWarm(&chain_)) return AddPoolBlock();
  return chain_->back().get();
}

Block* MemoryBuffer::AddPoolBlock() {
  std::shared_ptr<Block> block = Block::TakeBlock();
  Block* const added = block.get();
  BlockStash* const stash = BlockStash::Mine();
  if (added == nullptr) return nullptr;
  if (stash != nullptr) {
    stash->Append(chain_.get(), std::move(block));
  } else {
    chain_->push_back(std::move(block));
  }
  return added;
}

// The usual case alone: what else there is would cost it a frame.
void MemoryBuffer::WriteBytes(const char* data, size_t len) {
  if (chain_->empty() || data == nullptr) return WriteMore(data, len);
  Block& last = *chain_->back();
  if (len > kBlockCapacity || last.size > kBlockCapacity - len) return WriteMore(data, len);
  char* const end = last.data + last.size;
  last.size += len;
  size_ += len;
  CopyPayload(end, data, len);
}

// Nothing to write to, not enough room there, or nothing to write.
void MemoryBuffer::WriteMore(const char* data, size_t len) {
  if (chain_->empty()) return WriteBytes2NewBlock(data, len);
  if (data == nullptr) return RefuseNull(len);
  Block& last = *chain_->back();
  // The only block may hold consumed bytes, whose room counts as free.
  if (front_read_ > 0 && chain_->size() == 1) SettleFront();
  const size_t count = std::min(len, kBlockCapacity - HeldBytes(last));
  if (count > 0) CopyPayload(last.data + last.size, data, count);
  last.size += count;
  size_ += count;
  if (count < len) WriteBytes2NewBlock(data + count, len - count);
}

void MemoryBuffer::WriteString(const std::string& text) { WriteBytes(text.data(), text.size()); }

void MemoryBuffer::WriteBytes2NewBlock(const char* data, size_t len) {
  if (data == nullptr && len > 0) {
    RefuseNull(len);
    return;
  }
  for (;;) {
    Block* const block = AddBlock();
    if (block == nullptr) {
      BSP_LOG_ERROR(MOD_BSP, "Get Block Failed.");
      return;
    }
    const size_t count = std::min(len, kBlockCapacity);
    block->size = count;
    size_ += count;
    if (count > 0) CopyPayload(block->data, data, count);
    if (count == len) return;
    data += count;
    len -= count;
  }
}

void MemoryBuffer::AppendBlock(std::shared_ptr<Block> block) {
  if (block == nullptr || block->size > kBlockCapacity) {
    BSP_LOG_ERROR(MOD_EB, "block is null or its size is above %zu, not appended", kBlockCapacity);
    return;
  }
  Open();
  const size_t count = block->size;
  chain_->push_back(std::move(block));
  size_ += count;
}

void MemoryBuffer::AppendBuffer(std::shared_ptr<MemoryBuffer> other) {
  if (other == nullptr) {
    BSP_LOG_ERROR(MOD_EB, "buffer is null, not appended");
    return;
  }
  Open();
  other->Open();
  if (other.get() != this) {
    chain_->insert(chain_->end(), other->chain_->begin(), other->chain_->end());
    size_ += other->size();
    return;
  }
  // Packed: block by block, a chain of nearly empty blocks would double into gigabytes for some
  // bytes.
  MemoryBuffer copies;
  copies.Open();
  CopyTo(&copies, size_);
  chain_->splice(chain_->end(), *copies.chain_);
  size_ += copies.size_;
}

// As in WriteBytes: bytes of the first block, which keeps some.
size_t MemoryBuffer::ReadBytes(char* dst, size_t len) {
  if (is_open_ || dst == nullptr || len >= size_) return ReadMore(dst, len);
  const Block& block = *chain_->front();
  if (len >= block.size - front_read_) return ReadMore(dst, len);
  const char* const begin = block.data + front_read_;
  front_read_ += len;
  size_ -= len;
  CopyPayload(dst, begin, len);
  return len;
}

size_t MemoryBuffer::ReadMore(char* dst, size_t len) {
  len = std::min(len, size_);
  if (len == 0) return 0;
  size_ -= len;
  // `len`, unless the chain was changed from outside.
  if (is_open_) return ReadOpenChain(dst, len);

  size_t left = len;
  for (;;) {
    const Block& block = *chain_->front();
    const size_t count = std::min(left, block.size - front_read_);
    if (dst != nullptr && count > 0) {
      CopyPayload(dst, block.data + front_read_, count);
      dst += count;
    }
    left -= count;
    front_read_ += count;
    if (front_read_ < block.size) return len;
    front_read_ = 0;
    DropFrontBlock();
    if (left == 0) return len;
  }
}

bool MemoryBuffer::ReadString(std::string* dst, size_t len) {
  if (dst == nullptr || size_ == 0) return false;
  const size_t old_size = dst->size();
  dst->resize(old_size + std::min(len, size_));  // fails here, if at all, with nothing consumed
  dst->resize(old_size + ReadBytes(&(*dst)[old_size], len));
  return true;
}

size_t MemoryBuffer::ReadBuffer(std::shared_ptr<MemoryBuffer> dst, size_t len) {
  if (dst == nullptr) return 0;
  if (dst.get() == this) SettleFront();  // the write below must not move what it copies
  len = std::min(len, size_);
  size_t left = len;
  // At most once around the chain, should its blocks hold less than the count says.
  for (size_t blocks = chain_->size(); left > 0 && blocks > 0; --blocks) {
    const Block& block = *chain_->front();
    const size_t held = HeldBytes(block) - front_read_;
    if (left < held) {
      dst->WriteBytes(block.data + front_read_, left);
      ReadBytes(nullptr, left);
      return len;
    }
    MoveFrontBlock(dst.get());
    left -= held;
  }
  return len - left;
}

long MemoryBuffer::ReadAllBytes(char* dst, size_t capacity) {
  if (capacity < size_) return -1;
  return static_cast<long>(ReadBytes(dst, size_));
}

void MemoryBuffer::Clear() {
  chain_->clear();
  size_ = 0;
  front_read_ = 0;
}

size_t MemoryBuffer::CopyBytes(char* dst, size_t offset, size_t len) const {
  if (dst == nullptr || offset >= size_) return 0;
  len = std::min(len, size_ - offset);
  offset += front_read_;
  size_t done = 0;
  for (auto block = chain_->begin(); block != chain_->end() && done < len; ++block) {
    const size_t held = HeldBytes(**block);
    if (offset >= held) {
      offset -= held;
      continue;
    }
    done += (*block)->CopyBytes(offset, dst + done, len - done);
    offset = 0;
  }
  return done;
}

bool MemoryBuffer::CopyBytes(size_t offset, char* dst, size_t len) const {
  if (offset > size_ || len > size_ - offset) return false;
  if (len == 0) return true;
  return CopyBytes(dst, offset, len) == len;
}

bool MemoryBuffer::CopyString(size_t offset, std::string* dst, size_t len) const {
  if (dst == nullptr || offset > size_ || len > size_ - offset) return false;
  const size_t old_size = dst->size();
  dst->resize(old_size + len);
  dst->resize(old_size + CopyBytes(&(*dst)[old_size], offset, len));
  return true;
}

bool MemoryBuffer::CopyBuffer(std::shared_ptr<MemoryBuffer> dst, size_t len) {
  if (dst == nullptr || len > size_) return false;
  CopyTo(dst.get(), len);
  return true;
}

void MemoryBuffer::CopyTo(MemoryBuffer* dst, size_t len) {
  SettleFront();
  // Also right when dst is this buffer: the first `len` bytes stay where they are.
  for (auto block = chain_->begin(); block != chain_->end() && len > 0; ++block) {
    const size_t count = std::min(len, HeldBytes(**block));
    if (count > 0) dst->WriteBytes((*block)->data, count);
    len -= count;
  }
}

std::string MemoryBuffer::ToString() const {
  std::string text;
  CopyString(0, &text, size_);
  return text;
}

MemoryBuffer::Chain::iterator MemoryBuffer::GetPostion(size_t pos, size_t* offset) {
  Open();
  if (offset == nullptr || pos >= size_) return chain_->end();
  for (auto block = chain_->begin(); block != chain_->end(); ++block) {
    const size_t held = HeldBytes(**block);
    if (held > pos) {
      *offset = pos;
      return block;
    }
    pos -= held;
  }
  return chain_->end();
}

size_t MemoryBuffer::Pieces(iovec* pieces, size_t count, size_t len) const {
  size_t used = 0;
  size_t skip = front_read_;
  for (auto block = chain_->begin(); block != chain_->end() && used < count && len > 0; ++block) {
    const size_t length = std::min(HeldBytes(**block) - skip, len);
    if (length > 0) pieces[used++] = {(*block)->data + skip, length};
    len -= length;
    skip = 0;
  }
  return used;
}

void MemoryBuffer::DumpData() const {
  for (const auto& block : *chain_) static_cast<void>(block);
}

bool MemoryBuffer::SetEncode(bool encode) {
  for (const auto& block : *chain_) block->encode = encode;
  return !chain_->empty();
}

void MemoryBuffer::ReplaceString2Buffer(const std::string& pattern,
                                        std::shared_ptr<MemoryBuffer> replacement) {
  if (replacement == nullptr || pattern.empty()) {
    BSP_LOG_ERROR(MOD_EB, "pattern is empty or replacement is null, nothing replaced");
    return;
  }
  SettleFront();
  Match match = {};
  if (!FindForward(pattern, &match)) {
    BSP_LOG_DEBUG(MOD_EB, "Not find the string in the buffer");
    return;
  }
  Open();
  replacement->Open();
  const Block& end_block = **match.end;
  const std::shared_ptr<Block> head = Block::TakeBlock();
  (*match.start)->CopyBytes(0, head->data, match.head_length);
  head->size = match.head_length;
  const std::shared_ptr<Block> tail = Block::TakeBlock();
  tail->WriteBytes(end_block.data + match.tail_offset, HeldBytes(end_block) - match.tail_offset);

  MemoryBuffer result;
  for (auto block = chain_->begin(); block != match.start; ++block) result.AppendBlock(*block);
  result.AppendBlock(head);
  if (replacement.get() == this) {
    std::shared_ptr<MemoryBuffer> copy = Create();
    CopyBuffer(copy, size_);
    replacement = std::move(copy);
  }
  for (const auto& block : *replacement->chain_) result.AppendBlock(block);
  result.AppendBlock(tail);
  for (auto block = std::next(match.end); block != chain_->end(); ++block) {
    result.AppendBlock(*block);
  }
  chain_->swap(*result.chain_);
  size_ = result.size_;
}

bool MemoryBuffer::FindForward(const std::string& pattern, Match* match) {
  size_t matched = 0;
  match->start = chain_->begin();
  match->head_length = 0;
  for (auto block = chain_->begin(); block != chain_->end(); ++block) {
    const size_t held = HeldBytes(**block);
    for (size_t i = 0; i < held; ++i) {
      if ((*block)->data[i] != pattern[matched]) {
        matched = 0;
        match->start = block;
        match->head_length = i + 1;
      } else if (++matched == pattern.size()) {
        match->end = block;
        match->tail_offset = i + 1;
        return true;
      }
    }
  }
  return false;
}

void MemoryBuffer::Open() {
  SettleFront();
  is_open_ = true;
}

void MemoryBuffer::SettleFront() {
  if (front_read_ == 0) return;
  chain_->front()->ReadBytes(nullptr, front_read_);
  front_read_ = 0;
}

size_t MemoryBuffer::ReadOpenChain(char* dst, size_t len) {
  size_t done = 0;
  for (auto block = chain_->begin(); block != chain_->end() && done < len;) {
    done += (*block)->ReadBytes(dst == nullptr ? nullptr : dst + done, len - done);
    block = (*block)->size == 0 ? DropBlock(block) : std::next(block);
  }
  return done;
}

void MemoryBuffer::MoveFrontBlock(MemoryBuffer* dst) {
  SettleFront();
  const size_t held = HeldBytes(*chain_->front());
  if (is_open_) dst->Open();
  dst->chain_->splice(dst->chain_->end(), *chain_, chain_->begin());
  size_ -= std::min(held, size_);
  dst->size_ += held;
}

}  // namespace bsp
