// Block pool and memory buffer.
#include "bsp/util/memory_buffer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "tests/support/child.h"

namespace {

using bsp::Block;
using bsp::BlockManager;
using bsp::kBlockCacheLimit;
using bsp::kBlockCapacity;
using bsp::MemoryBuffer;
using Buffer = std::shared_ptr<MemoryBuffer>;
using Sizes = std::vector<size_t>;

Buffer BufferOf(const std::string& text) {
  Buffer buffer = MemoryBuffer::Create();
  if (!text.empty()) buffer->WriteString(text);
  return buffer;
}

std::string Bytes(size_t count, unsigned seed = 1) {
  std::string text(count, '\0');
  for (size_t i = 0; i < count; ++i) text[i] = static_cast<char>('a' + (i * 7 + seed) % 26);
  return text;
}

// Sizes of the blocks; shows the chain, and so keeps the buffer open from then on.
Sizes Layout(const Buffer& buffer) {
  Sizes sizes;
  for (const auto& block : buffer->blocks()) sizes.push_back(block->size);
  return sizes;
}

// Uses a buffer when the thread-local objects of the main thread are gone, as the destructor of any
// static may; a crash or a wrong byte ends the program with another code.
struct LateUser {
  Buffer kept = BufferOf("kept");
  ~LateUser() {
    for (int i = 0; i < 3; ++i) {
      kept->ReadBytes(nullptr, 4);
      kept->WriteString("late");
    }
    if (kept->ToString() != "late") _exit(77);
  }
} g_late_user;

// Two pools, a block that keeps anything of its last user, a cache above its limit, or one that is
// not first in, first out. The block that a thread keeps warm counts as returned: to its own thread
// at once, to others when the thread ends.
TEST(Pool, CachesEightBlocksInOrder) {
  EXPECT_TRUE(test::RaceOnFirstUse([] { return BlockManager::Instance(); }));
  BlockManager* const pool = BlockManager::Instance();
  std::vector<std::shared_ptr<Block>> blocks;
  std::vector<Block*> order;
  for (size_t i = 0; i <= kBlockCacheLimit; ++i) {
    blocks.push_back(pool->TakeBlock());
    blocks[i]->WriteBytes("dirt", 4);
    blocks[i]->encode = true;
    order.push_back(blocks[i].get());
  }
  EXPECT_EQ(pool->CacheSize(), 0u);
  for (auto& block : blocks) block.reset();
  EXPECT_EQ(pool->CacheSize(), kBlockCacheLimit);
  for (size_t i = 0; i < kBlockCacheLimit; ++i) {
    blocks[i] = Block::TakeBlock();
    EXPECT_EQ(blocks[i].get(), order[i]);
    EXPECT_TRUE(blocks[i]->size == 0 && blocks[i]->data[0] == 0 && !blocks[i]->encode);
  }

  const auto drain = [pool] {
    const Buffer own = BufferOf("dirt");
    const size_t before = pool->CacheSize();
    own->SetEncode(true);
    own->ReadBytes(nullptr, 4);
    EXPECT_EQ(pool->CacheSize(), before + 1);
    own->WriteString("dirt");
    own->ReadBytes(nullptr, 4);
    own->WriteBytes(nullptr, 0);
    EXPECT_TRUE(own->blocks().front()->data[0] == 0 && !own->blocks().front()->encode);
  };
  drain();
  std::thread(drain).join();
  EXPECT_EQ(pool->CacheSize(), 1u);
}

// One random operation on the buffers in `twins`, which must all behave as `model` does.
void PlayStep(std::mt19937& random, const std::vector<Buffer>& twins, std::string* model) {
  const size_t lengths[] = {0, 1, 104, 104, 104, 1000, 4608, 4607, random() % 5000, 9300};
  const size_t len = lengths[random() % 10];
  const std::string text = Bytes(len, static_cast<unsigned>(random()));
  const size_t all = model->size();
  const size_t cut = std::min(len, all);
  const size_t offset = random() % (all + 3);
  const std::string front = model->substr(0, cut);
  const char operation = "WWWNRRRKSMTCP"[random() % 13];
  for (const Buffer& buffer : twins) {
    std::string out = "-";
    std::string raw(len + 1, '#');
    if (operation == 'W') {
      buffer->WriteString(text);
    } else if (operation == 'N') {
      buffer->WriteBytes2NewBlock(text.data(), len);
    } else if (operation == 'R' || operation == 'K') {  // reads or skips
      ASSERT_EQ(buffer->ReadBytes(operation == 'R' ? &raw[0] : nullptr, len), cut);
      ASSERT_TRUE(operation == 'K' || raw == front + std::string(len + 1 - cut, '#'));
    } else if (operation == 'S') {
      ASSERT_EQ(buffer->ReadString(&out, len), all > 0);
      ASSERT_EQ(out, "-" + front);
    } else if (operation == 'M') {  // what is moved or copied away has the same bytes
      const Buffer other = BufferOf("x");
      ASSERT_EQ(buffer->CopyBuffer(other, len), len <= all);
      ASSERT_EQ(buffer->ReadBuffer(other, len), cut);
      ASSERT_EQ(other->ToString(), "x" + (len <= all ? front : "") + front);
    } else if (operation == 'T') {  // turns the content
      ASSERT_EQ(buffer->ReadBuffer(buffer, len), cut);
    } else if (operation == 'C') {
      ASSERT_EQ(buffer->CopyBuffer(buffer, len), len <= all);
    } else {
      const bool fits = offset <= all && len <= all - offset;
      const std::string part = offset < all ? model->substr(offset, len) : "";
      ASSERT_EQ(buffer->CopyBytes(&raw[0], offset, len), part.size());
      ASSERT_EQ(raw.substr(0, part.size()), part);
      ASSERT_EQ(buffer->CopyBytes(offset, &raw[0], len), fits);
      ASSERT_EQ(buffer->CopyString(offset, &out, len), fits);
      ASSERT_EQ(out, fits ? "-" + part : "-");
    }
  }
  if (strchr("WN", operation) != nullptr) *model += text;
  if (strchr("RKSMT", operation) != nullptr) model->erase(0, cut);
  if (operation == 'T' || (operation == 'C' && len <= all)) *model += front;
  for (const Buffer& buffer : twins) {
    ASSERT_EQ(buffer->size(), model->size());
    ASSERT_EQ(buffer->SizeByEncode(), model->size());
  }
}

// Any sequence of operations gives the bytes that a string gives; and the moves that a buffer puts
// off as long as nobody looks can never be seen: its chain is that of a twin that is always open.
TEST(Buffer, BehavesAsAStringAndShowsNoShortcut) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  for (size_t episode = 0; episode < 300; ++episode) {
    const Buffer closed = MemoryBuffer::Create();
    const Buffer open = MemoryBuffer::Create();
    open->blocks();
    std::string model;
    for (size_t steps = episode * 7 % 120; steps > 0; --steps) {
      ASSERT_NO_FATAL_FAILURE(PlayStep(random, {closed, open}, &model));
    }
    ASSERT_EQ(closed->ToString(), model);
    ASSERT_EQ(Layout(closed), Layout(open));
    // What is known of positions, sharing and appending holds in the state that has come about.
    for (const size_t pos : {size_t{0}, model.size() / 2, model.size()}) {
      size_t offset = 12345;
      const auto block = closed->GetPostion(pos, &offset);
      ASSERT_EQ(block == closed->blocks().end(), pos == model.size());
      ASSERT_EQ(offset == 12345u, pos == model.size());
      ASSERT_TRUE(pos == model.size() || (*block)->data[offset] == model[pos]);
    }
    closed->AppendBuffer(closed);
    closed->AppendBuffer(open);
    std::string all;
    ASSERT_EQ(closed->ReadString(&all, SIZE_MAX), !model.empty());
    ASSERT_EQ(all, model + model + model);
  }
}

// The search as it is told: the first match, over any block borders, and never back; the count
// stays right, and without a match the blocks stay as they are.
TEST(Buffer, ReplacesTheFirstMatch) {
  const struct {
    std::vector<std::string> blocks;
    std::string pattern;
    std::string text;  // behind it
    Sizes layout;
  } courses[] = {
      {{"-ab-ab"}, "ab", "-xyz-ab", {1, 3, 3}},
      {{"-", "-a", "", "b-", "-"}, "ab", "--xyz--", {1, 1, 3, 1, 1}},
      {{"-a", "bc", "de"}, "abcde", "-xyz", {1, 3, 0}},
      {{"-", "", "ab", "-"}, "ab", "-xyz-", {1, 3, 0, 1}},
      {{"-", "aab", "-"}, "ab", "-aab-", {1, 3, 1}},
      {{"a", "ab"}, "ab", "aab", {1, 2}},
  };
  for (const auto& course : courses) {
    const Buffer buffer = MemoryBuffer::Create();
    for (const std::string& block : course.blocks) {
      buffer->WriteBytes2NewBlock(block.data(), block.size());
    }
    buffer->ReplaceString2Buffer(course.pattern, BufferOf("xyz"));
    EXPECT_EQ(buffer->ToString(), course.text);
    EXPECT_EQ(buffer->size(), course.text.size());
    EXPECT_EQ(Layout(buffer), course.layout) << course.text;
  }
  const Buffer self = BufferOf("-ab-");
  self->ReplaceString2Buffer("ab", self);
  EXPECT_EQ(self->ToString(), "--ab--");
}

// Both sides of each limit: full and empty blocks, capacities, offsets; and a block whose open
// field `size` says more than it holds is read and written inside its bytes.
TEST(Buffer, StaysInsideItsBytes) {
  const auto block = std::make_unique<Block>();
  const std::string text = Bytes(kBlockCapacity + 1);
  std::string out = "-";
  char all[kBlockCapacity + 1] = "#";
  EXPECT_EQ(block->WriteBytes(text.data(), text.size()), kBlockCapacity);
  EXPECT_EQ(block->WriteBytes("x", 1) + block->CopyBytes(kBlockCapacity, all, 1), 0u);
  EXPECT_EQ(block->CopyBytes(SIZE_MAX, all, SIZE_MAX), 0u);
  EXPECT_EQ(block->ReadBytes(nullptr, 100), 100u);
  EXPECT_EQ(block->CopyString(4500, &out, SIZE_MAX), 8u);
  EXPECT_EQ(block->ReadString(&out, SIZE_MAX), 4508u);
  EXPECT_EQ(out, "-" + text.substr(4600, 8) + text.substr(100, 4508));
  block->size = SIZE_MAX;
  EXPECT_EQ(block->RemainSize() + block->WriteBytes("x", 1), 0u);
  EXPECT_EQ(block->CopyString(10, &out, SIZE_MAX), kBlockCapacity - 10);
  EXPECT_EQ(block->ReadString(&out, 8), 8u);
  EXPECT_EQ(block->size, kBlockCapacity - 8);
  block->size = kBlockCapacity + 1;
  EXPECT_EQ(block->ReadBytes(all, 4), 0u);

  const Buffer buffer = MemoryBuffer::Create();
  EXPECT_FALSE(buffer->SetEncode(true));
  buffer->WriteBytes(nullptr, 0);
  EXPECT_TRUE(buffer->SetEncode(true));
  EXPECT_EQ(Layout(buffer), Sizes{0});
  buffer->WriteString(text);
  EXPECT_EQ(Layout(buffer), (Sizes{kBlockCapacity, 1}));
  EXPECT_TRUE(buffer->CopyBytes(text.size(), all, 0));
  EXPECT_FALSE(buffer->CopyBytes(text.size() + 1, all, 0));
  EXPECT_EQ(buffer->ReadAllBytes(all, kBlockCapacity), -1);
  EXPECT_EQ(buffer->ReadAllBytes(all, sizeof all), static_cast<long>(text.size()));
  EXPECT_TRUE(buffer->blocks().empty());

  // A block that somebody knows shows each read at once, wherever it has moved.
  const Buffer known = BufferOf("known");
  const Buffer taker = MemoryBuffer::Create();
  const auto seen = known->blocks().front();
  known->ReadBuffer(taker, 5);
  taker->ReadBytes(nullptr, 2);
  EXPECT_EQ(std::string(seen->data, seen->size), "own");
}

// Appended to itself, a chain of nearly empty blocks grows by its bytes, not by its blocks.
TEST(Buffer, AppendedToItselfIsPacked) {
  Buffer buffer = MemoryBuffer::Create();
  std::string model;
  for (int i = 0; i < 10; ++i, model += 'x') buffer->WriteBytes2NewBlock("x", 1);
  for (int i = 0; i < 12; ++i, model += model) buffer->AppendBuffer(buffer);
  EXPECT_EQ(buffer->ToString(), model);
  EXPECT_EQ(buffer->SizeByEncode(), model.size());
  EXPECT_LE(buffer->blocks().size(), 10 + 12 + model.size() / kBlockCapacity);
}

#ifdef __SANITIZE_ADDRESS__
// The pools do not hide a use after release from the sanitizer.
TEST(Pool, ReleasedBlocksAreOutOfBounds) {
  test::Child child = test::Child::Fork([] {
    auto block = Block::TakeBlock();
    const char* const data = block->data;
    block.reset();
    return *const_cast<const volatile char*>(data) == 'x' ? 2 : 0;
  });
  EXPECT_EQ(child.Wait(), 1);
  EXPECT_NE(child.output().find("use-after-poison"), std::string::npos) << child.output();
}
#endif

// No argument may crash, hang or change anything: null, self, blocks that lie or stand twice.
TEST(Buffer, BearsHostileArguments) {
  testing::internal::CaptureStdout();  // the refusals
  BlockManager::RecyleBlock(nullptr);
  BlockManager::Instance()->InternalRecyleBlock(nullptr);
  Block::DumpBlocksInfo();
  const Buffer buffer = BufferOf("text");
  char place[4];
  buffer->WriteBytes(nullptr, 5);
  buffer->WriteBytes2NewBlock(nullptr, SIZE_MAX);
  buffer->AppendBlock(nullptr);
  buffer->AppendBuffer(nullptr);
  buffer->ReplaceString2Buffer("t", nullptr);
  buffer->ReplaceString2Buffer("", BufferOf("x"));
  EXPECT_FALSE(buffer->ReadString(nullptr, 1) || buffer->CopyString(0, nullptr, 1) ||
               buffer->CopyBuffer(nullptr, 1) || buffer->CopyBytes(0, nullptr, 1));
  EXPECT_FALSE(buffer->CopyBytes(SIZE_MAX, place, 2) || buffer->CopyBytes(2, place, SIZE_MAX));
  EXPECT_EQ(buffer->ReadBuffer(nullptr, 1) + buffer->CopyBytes(nullptr, size_t{0}, 1), 0u);
  EXPECT_EQ(buffer->GetPostion(0, nullptr), buffer->blocks().end());
  const auto lying = Block::TakeBlock();
  EXPECT_EQ(lying->ReadString(nullptr, 1) + lying->WriteBytes(nullptr, 3), 0u);
  lying->size = SIZE_MAX;
  buffer->AppendBlock(lying);
  EXPECT_EQ(buffer->ToString(), "text");

  lying->size = 0;
  buffer->AppendBlock(lying);
  lying->size = kBlockCapacity + 9;  // now it stands in the chain
  const Buffer sink = MemoryBuffer::Create();
  std::string out;
  buffer->WriteString("more");
  buffer->CopyString(0, &out, buffer->size());
  buffer->ReplaceString2Buffer("zz", sink);
  buffer->ReadBuffer(buffer, SIZE_MAX);
  buffer->ReadBytes(place, 3);
  buffer->AppendBuffer(buffer);
  buffer->ReadBuffer(sink, SIZE_MAX);
  while (sink->size() > 0) sink->ReadBytes(place, 4);  // must end

  // Both share the block; what one reads is gone for the other, whose count is stale.
  const Buffer first = BufferOf("shared");
  const Buffer second = MemoryBuffer::Create();
  second->AppendBuffer(first);
  EXPECT_EQ(second->ReadBytes(nullptr, 6), 6u);
  EXPECT_EQ(first->ReadBytes(place, 4), 0u);
  EXPECT_EQ(first->ReadBuffer(first, 2) + first->ReadBuffer(second, 2), 0u);
  testing::internal::GetCapturedStdout();
}

// Buffers that wander between threads: a block given to two, or bytes of another buffer.
TEST(Buffer, WandersBetweenThreads) {
  std::mutex mutex;
  Buffer shelf[4];  // guarded by the mutex; each holds what Bytes made
  std::atomic<int> seen{0};
  std::atomic<int> sound{0};
  const auto work = [&](unsigned thread) {
    std::mt19937 random(thread);
    for (int i = 0; i < 1000; ++i) {
      Buffer buffer = BufferOf("gone");
      buffer->ReadBytes(nullptr, 4);
      buffer->WriteString(Bytes(1 + random() % 12000, static_cast<unsigned>(random() % 26)));
      {
        const std::lock_guard<std::mutex> lock(mutex);
        buffer.swap(shelf[random() % 4]);
      }
      if (buffer == nullptr) continue;
      std::string text;
      buffer->ReadString(&text, 5000);
      text += buffer->ToString();
      if (i % 2 == 0) buffer->ReadBytes(nullptr, SIZE_MAX);
      sound += text == Bytes(text.size(), static_cast<unsigned>(text[0] - 'a')) ? 1 : 0;
      ++seen;
    }
  };
  std::vector<std::thread> threads;
  for (unsigned thread = 0; thread < 4; ++thread) threads.emplace_back(work, thread);
  for (std::thread& thread : threads) thread.join();
  EXPECT_GT(seen, 3000);
  EXPECT_EQ(sound, seen);
}

}  // namespace
