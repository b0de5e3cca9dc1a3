// Frames through a MemoryBuffer against the same bytes through flat memory by memcpy alone.
//
// One iteration writes one frame and consumes one, so that what is in flight stays the same. A
// second thread exists, as in every process that uses the bus: locks and reference counts pay what
// they pay there.
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

#include "bench/support/pair.h"
#include "bsp/util/memory_buffer.h"

namespace {

std::atomic<long> g_allocations{0};

void* Allocate(size_t bytes) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  void* memory = malloc(bytes);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

// Every allocation of the process by `new`, the library's included. Not inlined: gcc would see
// `free` meet a pointer from `new` and warn.
__attribute__((noinline)) void* operator new(size_t bytes) { return Allocate(bytes); }
__attribute__((noinline)) void operator delete(void* memory) noexcept { free(memory); }
__attribute__((noinline)) void operator delete(void* memory, size_t) noexcept { free(memory); }

namespace {

constexpr size_t kHeadFrame = 104;
constexpr size_t kPageFrame = 4096;
constexpr size_t kMebibyte = 1 << 20;

class IdleThread {
 public:
  IdleThread() : thread_([this] { Wait(); }) {}
  ~IdleThread() {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      is_over_ = true;
    }
    over_.notify_one();
    thread_.join();
  }

 private:
  void Wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    over_.wait(lock, [this] { return is_over_; });
  }

  std::mutex mutex_;
  std::condition_variable over_;
  bool is_over_ = false;
  std::thread thread_;
};

// Both sides copy from and to the same place, so that neither has the better alignment.
alignas(64) char g_source[kPageFrame];
alignas(64) char g_sink[kPageFrame];

void ThroughBuffer(benchmark::State& state, size_t frame, size_t in_flight) {
  const IdleThread idle;
  const std::shared_ptr<bsp::MemoryBuffer> buffer = bsp::MemoryBuffer::Create();
  while (buffer->size() + frame < in_flight) buffer->WriteBytes(g_source, frame);
  for (auto _ : state) {
    buffer->WriteBytes(g_source, frame);
    if (buffer->ReadBytes(g_sink, frame) != frame) abort();
    benchmark::ClobberMemory();
  }
}

// The least work: each frame is copied in and copied out, behind what is in flight.
void ThroughFlatMemory(benchmark::State& state, size_t frame, size_t in_flight) {
  const IdleThread idle;
  const size_t frames = std::max<size_t>(in_flight / frame, 1);
  char* const flat = static_cast<char*>(aligned_alloc(64, frames * frame / 64 * 64 + 64));
  if (flat == nullptr) abort();
  memset(flat, 'f', frames * frame);
  size_t at = 0;  // written here; what follows is the oldest
  benchmark::DoNotOptimize(frame);
  for (auto _ : state) {
    memcpy(&flat[at * frame], g_source, frame);
    at = at + 1 == frames ? 0 : at + 1;
    memcpy(g_sink, &flat[at * frame], frame);
    benchmark::ClobberMemory();
  }
  free(flat);
}

void FramePair(const std::string& topic, size_t frame, size_t in_flight, double ratio) {
  bench::Pair(
      topic, [=](benchmark::State& state) { ThroughBuffer(state, frame, in_flight); },
      [=](benchmark::State& state) { ThroughFlatMemory(state, frame, in_flight); },
      bench::Target::RatioAtMost(ratio));
}

// Eight blocks in flight and warm: the steady flow must not touch the heap.
void CountAllocations(size_t frame) {
  constexpr int kFrames = 100000;
  std::vector<char> bytes(frame, 's');
  const std::shared_ptr<bsp::MemoryBuffer> buffer = bsp::MemoryBuffer::Create();
  const auto pass = [&] {
    buffer->WriteBytes(bytes.data(), frame);
    buffer->ReadBytes(bytes.data(), frame);
  };
  while (buffer->size() + frame <= 6 * bsp::kBlockCapacity) {
    buffer->WriteBytes(bytes.data(), frame);
  }
  for (int i = 0; i < 1000; ++i) pass();
  const long before = g_allocations.load(std::memory_order_relaxed);
  for (int i = 0; i < kFrames; ++i) pass();
  const long count = g_allocations.load(std::memory_order_relaxed) - before;
  bench::AddRow("buffer: allocations in 100000 frames of " + std::to_string(frame) + " B, warm",
                static_cast<double>(count), 0, "", bench::Target::AtMost(0));
}

}  // namespace

void RegisterBenchmarks() {
  FramePair("buffer: 104 B frames, one in flight", kHeadFrame, kHeadFrame, 2.5);
  FramePair("buffer: 104 B frames, 1 MiB in flight", kHeadFrame, kMebibyte, 2.2);
  FramePair("buffer: 4 KiB frames, one in flight", kPageFrame, kPageFrame, 2);
  FramePair("buffer: 4 KiB frames, 1 MiB in flight", kPageFrame, kMebibyte, 2);
  bench::Custom([] { CountAllocations(kHeadFrame); });
  bench::Custom([] { CountAllocations(kPageFrame); });
}
