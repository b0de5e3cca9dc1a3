// Block pool and memory buffer.
#include "bsp/util/memory_buffer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <new>
#include <random>
#include <thread>
#include <vector>

#include "bsp/log/log.h"
#include "tests/support/child.h"

namespace {

std::atomic<long> g_allocations{0};

}  // namespace

// Counts every allocation by `new`, the library's included. Not inlined: gcc would see `free` meet
// a pointer from `new` and warn.
__attribute__((noinline)) void* operator new(size_t bytes) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  void* memory = malloc(bytes);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
__attribute__((noinline)) void operator delete(void* memory) noexcept { free(memory); }
__attribute__((noinline)) void operator delete(void* memory, size_t) noexcept { free(memory); }

namespace {

using bsp::Block;
using bsp::BlockManager;
using bsp::kBlockCacheLimit;
using bsp::kBlockCapacity;
using bsp::MemoryBuffer;
using Buffer = std::shared_ptr<MemoryBuffer>;

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
std::vector<size_t> Layout(const Buffer& buffer) {
  std::vector<size_t> sizes;
  for (const auto& block : buffer->blocks()) sizes.push_back(block->size);
  return sizes;
}

std::string ByBlocks(const Buffer& buffer) {
  std::string text;
  for (const auto& block : buffer->blocks()) text.append(block->data, block->size);
  return text;
}

// Uses buffers when the thread-local objects of the main thread are gone, as the destructor of any
// static may; a crash or a wrong byte ends the program with another code.
struct LateUser {
  Buffer kept = BufferOf("kept");
  ~LateUser() {
    char text[8] = {};
    for (int i = 0; i < 3; ++i) {
      kept->WriteString("x");
      kept->ReadBytes(text, 8);
    }
    const bool is_sound = text[0] == 'x' && kept->size() == 0 && kept->blocks().empty();
    if (!is_sound) _exit(77);
  }
} g_late_user;

// Threads that race on the first use of the pool must not get two of them. In fresh processes,
// since a process has one first use.
TEST(Pool, ThreadsRaceOnFirstUse) {
  for (int round = 0; round < 20; ++round) {
    test::Child child = test::Child::Fork([] {
      std::atomic<int> waiting{4};
      std::vector<BlockManager*> seen(4);
      std::vector<std::thread> threads;
      for (size_t i = 0; i < seen.size(); ++i) {
        threads.emplace_back([&, i] {
          --waiting;
          while (waiting > 0) std::this_thread::yield();
          seen[i] = BlockManager::Instance();
          Block::TakeBlock();
        });
      }
      for (std::thread& thread : threads) thread.join();
      for (const BlockManager* pool : seen) {
        if (pool == nullptr || pool != seen[0]) return 1;
      }
      return 0;
    });
    ASSERT_EQ(child.Wait(), 0) << child.output();
  }
}

// A block that keeps anything of its last user, a cache above its limit, or one that is not first
// in, first out.
TEST(Pool, CachesEightBlocksInOrder) {
  BlockManager* const pool = BlockManager::Instance();
  std::vector<std::shared_ptr<Block>> blocks;
  for (size_t i = 0; i <= kBlockCacheLimit; ++i) {
    blocks.push_back(pool->TakeBlock());
    blocks[i]->WriteBytes("dirt", 4);
    blocks[i]->encode = true;
  }
  ASSERT_EQ(pool->CacheSize(), 0u);
  std::vector<Block*> order;
  for (auto& block : blocks) {
    order.push_back(block.get());
    block.reset();
  }
  EXPECT_EQ(pool->CacheSize(), kBlockCacheLimit);
  testing::internal::CaptureStdout();
  Block::DumpBlocksInfo();
  BSP_LOG_DEBUG("MOD_T", "filtered");
  BlockManager::RecyleBlock(nullptr);
  pool->InternalRecyleBlock(nullptr);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out.find("FlowCtrl>> Block cache total size:8, current use count:8\n"), 0u) << out;
  EXPECT_NE(out.find("] MOD_EB <error> block_pool.cc:"), std::string::npos) << out;
  EXPECT_NE(out.find("RecyleBlock, Block is null\n"), std::string::npos) << out;
  for (size_t i = 0; i < kBlockCacheLimit; ++i) {
    blocks[i] = Block::TakeBlock();
    EXPECT_EQ(blocks[i].get(), order[i]);
    EXPECT_EQ(blocks[i]->size, 0u);
    EXPECT_EQ(blocks[i]->data[0], 0);
    EXPECT_FALSE(blocks[i]->encode);
  }
  EXPECT_EQ(pool->CacheSize(), 0u);
}

// The block that a thread keeps warm must count as returned: to its own thread at once, to others
// when the thread ends, and never above the limit.
TEST(Pool, DrainedBuffersGiveTheirBlocksBack) {
  BlockManager* const pool = BlockManager::Instance();
  const Buffer buffer = BufferOf(Bytes(3 * kBlockCapacity));
  const size_t before = pool->CacheSize();
  buffer->ReadBytes(nullptr, kBlockCapacity);
  EXPECT_EQ(pool->CacheSize(), std::min(before + 1, kBlockCacheLimit));
  buffer->ReadBytes(nullptr, buffer->size());
  EXPECT_EQ(pool->CacheSize(), std::min(before + 3, kBlockCacheLimit));

  std::vector<std::shared_ptr<Block>> taken;
  while (pool->CacheSize() > 0) taken.push_back(pool->TakeBlock());
  std::thread([] {
    const Buffer own = BufferOf("one");
    own->ReadBytes(nullptr, 3);
    own->WriteString("again, warm");
    own->ReadBytes(nullptr, 11);
  }).join();
  EXPECT_EQ(pool->CacheSize(), 1u);

  const Buffer big = BufferOf(Bytes(20 * kBlockCapacity));
  big->ReadBytes(nullptr, big->size());
  EXPECT_EQ(pool->CacheSize(), kBlockCacheLimit);
}

// Reads and writes outside the payload when a caller gives odd numbers, or writes one into the open
// field `size`.
TEST(Block, StaysInsideItsBytes) {
  const auto block = std::make_unique<Block>();
  const std::string text = Bytes(5000);
  std::string out = "-";
  char place[8] = "before";
  EXPECT_EQ(block->WriteBytes(text.data(), text.size()), kBlockCapacity);
  EXPECT_EQ(block->WriteBytes("x", 1), 0u);
  EXPECT_EQ(block->CopyBytes(kBlockCapacity, place, 1), 0u);
  EXPECT_EQ(block->CopyBytes(SIZE_MAX, place, SIZE_MAX), 0u);
  EXPECT_STREQ(place, "before");
  EXPECT_EQ(block->ReadBytes(nullptr, 100), 100u);
  EXPECT_EQ(block->CopyString(4500, &out, SIZE_MAX), 8u);
  EXPECT_EQ(block->ReadString(&out, SIZE_MAX), 4508u);
  EXPECT_EQ(out, "-" + text.substr(4600, 8) + text.substr(100, 4508));
  EXPECT_EQ(block->ReadString(nullptr, 1) + block->WriteBytes(nullptr, 3), 0u);

  block->size = kBlockCapacity + 1;
  testing::internal::CaptureStdout();
  EXPECT_EQ(block->ReadBytes(place, 4), 0u);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "ReadBytes buffer_size is large default 4609.\n");
  block->size = SIZE_MAX;
  EXPECT_EQ(block->RemainSize() + block->WriteBytes("x", 1), 0u);
  out.clear();
  EXPECT_EQ(block->CopyString(10, &out, SIZE_MAX), kBlockCapacity - 10);
  EXPECT_EQ(block->ReadString(&out, 8), 8u);
  EXPECT_EQ(block->size, kBlockCapacity - 8);
}

// One random operation on the buffers in `twins`, which must all behave as `model` does.
class Player {
 public:
  explicit Player(unsigned seed) : random_(seed) {}

  void Step(const std::vector<Buffer>& twins, std::string* model) {
    const size_t len = Length();
    const std::string text = Bytes(len, static_cast<unsigned>(random_()));
    const size_t all = model->size();
    const size_t cut = std::min(len, all);
    const size_t offset = random_() % (all + 3);
    const auto operation = random_() % 14;
    for (const Buffer& buffer : twins) {
      std::string out = "-";
      std::string raw(len + 1, '#');
      switch (operation) {
        case 0:
        case 1:
        case 2:
          buffer->WriteString(text);
          break;
        case 3:
          buffer->WriteBytes2NewBlock(text.data(), len);
          break;
        case 4:
        case 5:
        case 6:
          ASSERT_EQ(buffer->ReadBytes(&raw[0], len), cut);
          ASSERT_EQ(raw, model->substr(0, cut) + std::string(len + 1 - cut, '#'));
          break;
        case 7:
          ASSERT_EQ(buffer->ReadBytes(nullptr, len), cut);
          break;
        case 8:
          ASSERT_EQ(buffer->ReadString(&out, len), all > 0);
          ASSERT_EQ(out, "-" + model->substr(0, cut));
          break;
        case 9: {
          const bool fits = offset <= all && len <= all - offset;
          const std::string part = offset < all ? model->substr(offset, len) : "";
          ASSERT_EQ(buffer->CopyBytes(&raw[0], offset, len), part.size());
          ASSERT_EQ(raw.substr(0, part.size()), part);
          ASSERT_EQ(buffer->CopyBytes(offset, &raw[0], len), fits);
          ASSERT_EQ(buffer->CopyString(offset, &out, len), fits);
          ASSERT_EQ(out, fits ? "-" + part : "-");
          break;
        }
        case 10: {  // what is moved or copied away has the same bytes
          const Buffer other = BufferOf("x");
          ASSERT_EQ(buffer->CopyBuffer(other, len), len <= all);
          ASSERT_EQ(buffer->ReadBuffer(other, len), cut);
          const std::string copy = len <= all ? model->substr(0, len) : "";
          ASSERT_EQ(other->ToString(), "x" + copy + model->substr(0, cut));
          break;
        }
        case 11:  // turns the content
          ASSERT_EQ(buffer->ReadBuffer(buffer, len), cut);
          break;
        case 12: {
          ASSERT_EQ(buffer->ReadAllBytes(nullptr, all - (all > 0)), all > 0 ? -1 : 0);
          if (all > 100000) buffer->Clear();
          break;
        }
        default:
          ASSERT_EQ(buffer->CopyBuffer(buffer, len), len <= all);
          break;
      }
    }
    const std::string front = model->substr(0, cut);
    if (operation <= 3) *model += text;
    if (operation >= 4 && operation <= 11 && operation != 9) model->erase(0, cut);
    if (operation == 11) *model += front;
    if (operation == 12 && all > 100000) model->clear();
    if (operation == 13 && len <= all) *model += front;
    for (const Buffer& buffer : twins) {
      ASSERT_EQ(buffer->size(), model->size());
      ASSERT_EQ(buffer->SizeByEncode(), model->size());
    }
  }

  size_t Below(size_t limit) { return random_() % limit; }

 private:
  size_t Length() {
    const size_t lengths[] = {0, 1, 104, 104, 104, 1000, 4608, 4607, random_() % 5000, 9300};
    return lengths[random_() % 10];
  }

  std::mt19937 random_;
};

// Any sequence of operations gives the bytes that a string gives; and the moves that a buffer puts
// off as long as nobody looks can never be seen: its chain is that of a twin that is always open.
TEST(Buffer, BehavesAsAStringAndShowsNoShortcut) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Player player(seed);
  size_t bytes_seen = 0;
  for (int episode = 0; episode < 300; ++episode) {
    const Buffer closed = MemoryBuffer::Create();
    const Buffer open = MemoryBuffer::Create();
    open->blocks();
    std::string model;
    for (size_t steps = player.Below(120); steps > 0; --steps) {
      player.Step({closed, open}, &model);
      ASSERT_FALSE(HasFatalFailure());
    }
    ASSERT_EQ(closed->ToString(), model);
    ASSERT_EQ(Layout(closed), Layout(open));
    ASSERT_EQ(ByBlocks(closed), model);
    bytes_seen += model.size();

    // What is known of positions, sharing and appending holds in the state that has come about.
    for (const size_t pos : {size_t{0}, model.size() / 2, model.size()}) {
      size_t offset = 12345;
      const auto block = closed->GetPostion(pos, &offset);
      ASSERT_EQ(block == closed->blocks().end(), pos == model.size());
      ASSERT_EQ(pos == model.size() ? '-' : (*block)->data[offset],
                pos == model.size() ? '-' : model[pos]);
      ASSERT_EQ(offset == 12345u, pos == model.size());
    }
    closed->AppendBuffer(closed);
    closed->AppendBuffer(open);
    std::string thrice = model;
    thrice.append(model).append(model);
    ASSERT_EQ(closed->ToString(), thrice);
    std::string out;
    ASSERT_EQ(closed->ReadString(&out, SIZE_MAX), !model.empty());
    ASSERT_EQ(out, thrice);
  }
  EXPECT_GT(bytes_seen, 100000u);
}

// The search as it is told: forward only, over block borders, and the count stays right.
TEST(Buffer, ReplacesTheFirstMatch) {
  std::mt19937 random(7);
  int found = 0;
  for (int round = 0; round < 2000; ++round) {
    std::string text;
    const Buffer buffer = MemoryBuffer::Create();
    for (size_t blocks = random() % 5; blocks > 0; --blocks) {  // small and empty blocks
      std::string piece(random() % 4, 'a');
      for (char& letter : piece) letter = static_cast<char>('a' + random() % 2);
      buffer->WriteBytes2NewBlock(piece.data(), piece.size());
      text += piece;
    }
    const std::string pattern = std::string("ababb").substr(random() % 4, 1 + random() % 3);
    size_t matched = 0;
    size_t end = 0;
    while (end < text.size() && matched < pattern.size()) {
      matched = text[end++] == pattern[matched] ? matched + 1 : 0;
    }
    const Buffer replacement = round % 3 == 0 ? buffer : BufferOf("[" + Bytes(5000) + "]");
    std::string expected = text;
    if (matched == pattern.size()) {
      expected.replace(end - matched, matched, replacement->ToString());
      ++found;
    }
    const std::vector<size_t> layout = Layout(buffer);
    buffer->ReplaceString2Buffer(pattern, replacement);
    ASSERT_EQ(buffer->ToString(), expected) << text << " " << pattern;
    ASSERT_EQ(buffer->size(), buffer->SizeByEncode());
    ASSERT_TRUE(matched == pattern.size() || Layout(buffer) == layout);
    ASSERT_EQ(buffer->ReadBytes(nullptr, SIZE_MAX), expected.size());
  }
  EXPECT_GT(found, 500);
  // A match at either end leaves an empty block there.
  const Buffer whole = BufferOf("ab");
  whole->ReplaceString2Buffer("ab", BufferOf("xyz"));
  EXPECT_EQ(Layout(whole), (std::vector<size_t>{0, 3, 0}));
}

// Empty blocks, marks, capacities: both sides of each limit.
TEST(Buffer, Limits) {
  const Buffer buffer = MemoryBuffer::Create();
  EXPECT_FALSE(buffer->SetEncode(true));
  buffer->WriteBytes(nullptr, 0);
  EXPECT_EQ(Layout(buffer), std::vector<size_t>{0});
  EXPECT_TRUE(buffer->SetEncode(true));
  EXPECT_TRUE(buffer->blocks().front()->encode);
  buffer->Clear();
  const Buffer marked = BufferOf("marked");  // and emptied: the next user finds no trace
  marked->SetEncode(true);
  marked->ReadBytes(nullptr, 6);
  marked->WriteBytes2NewBlock(nullptr, 0);
  EXPECT_FALSE(marked->blocks().front()->encode);
  EXPECT_EQ(marked->blocks().front()->data[0], 0);

  const Buffer two = BufferOf(Bytes(kBlockCapacity + 1));
  char all[kBlockCapacity + 1];
  EXPECT_TRUE(two->CopyBytes(kBlockCapacity + 1, all, 0));
  EXPECT_FALSE(two->CopyBytes(kBlockCapacity + 2, all, 0));
  EXPECT_EQ(two->ReadAllBytes(all, kBlockCapacity), -1);
  EXPECT_EQ(two->ReadAllBytes(all, kBlockCapacity + 1), static_cast<long>(kBlockCapacity + 1));
  EXPECT_EQ(std::string(all, sizeof all), Bytes(kBlockCapacity + 1));
  EXPECT_TRUE(two->blocks().empty());
  EXPECT_EQ(two->ReadBytes(all, 1) + two->ReadBuffer(buffer, 1), 0u);
}

// No argument may crash, hang or change anything: null, self, blocks whose open fields lie.
TEST(Buffer, BearsHostileArguments) {
  testing::internal::CaptureStdout();  // the refusals
  const Buffer buffer = BufferOf("text");
  std::string out;
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
  EXPECT_EQ(buffer->ToString(), "text");

  const auto lying = Block::TakeBlock();
  lying->size = SIZE_MAX;
  buffer->AppendBlock(lying);
  EXPECT_EQ(buffer->size(), 4u);
  lying->size = 0;
  buffer->AppendBlock(lying);
  lying->size = kBlockCapacity + 9;  // now it stands in the chain
  const Buffer sink = MemoryBuffer::Create();
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

// A block, list node or control block from the heap for each frame.
TEST(Buffer, WarmFlowAllocatesNothing) {
  std::vector<char> frame(5 * kBlockCapacity, 'f');
  for (const bool is_open : {false, true}) {
    for (const size_t size : {size_t{1}, size_t{104}, size_t{4096}, frame.size()}) {
      for (const size_t in_flight : {size_t{0}, 2 * kBlockCapacity}) {
        const Buffer buffer = BufferOf(Bytes(in_flight));
        if (is_open) buffer->blocks();
        long before = 0;
        for (int i = 0; i < 3000; ++i) {
          if (i == 1000) before = g_allocations.load(std::memory_order_relaxed);
          buffer->WriteBytes(frame.data(), size);
          ASSERT_EQ(buffer->ReadBytes(frame.data(), size), size);
        }
        EXPECT_EQ(g_allocations.load(std::memory_order_relaxed), before)
            << is_open << " " << size << " " << in_flight;
      }
    }
  }
}

// Buffers that wander between threads: a block given to two, or bytes of another buffer.
TEST(Buffer, WandersBetweenThreads) {
  constexpr int kBuffers = 2000;
  std::mutex mutex;
  std::condition_variable changed;
  std::deque<Buffer> queue;
  std::atomic<int> sound{0};
  const auto produce = [&](unsigned seed) {
    std::mt19937 random(seed);
    for (int i = 0; i < kBuffers; ++i) {
      const auto number = static_cast<unsigned>(random());
      const Buffer buffer = BufferOf("gone");
      buffer->ReadBytes(nullptr, 4);
      buffer->WriteBytes(reinterpret_cast<const char*>(&number), sizeof number);
      buffer->WriteString(Bytes(number % 12000, number));
      {
        const std::lock_guard<std::mutex> lock(mutex);
        queue.push_back(buffer);
      }
      changed.notify_one();
    }
  };
  const auto consume = [&] {
    for (int i = 0; i < kBuffers; ++i) {
      std::unique_lock<std::mutex> lock(mutex);
      changed.wait(lock, [&] { return !queue.empty(); });
      const Buffer buffer = std::move(queue.front());
      queue.pop_front();
      lock.unlock();
      unsigned number = 0;
      buffer->ReadBytes(reinterpret_cast<char*>(&number), sizeof number);
      std::string text;
      buffer->ReadString(&text, 5000);
      text += buffer->ToString();
      sound += text == Bytes(number % 12000, number) ? 1 : 0;
      if (i % 2 == 0) buffer->ReadBytes(nullptr, SIZE_MAX);
    }
  };
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < 2; ++i) threads.emplace_back(produce, i);
  for (unsigned i = 0; i < 2; ++i) threads.emplace_back(consume);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(sound, 2 * kBuffers);
}

}  // namespace
