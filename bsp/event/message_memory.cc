#include "bsp/event/message_memory.h"

#include <atomic>
#include <mutex>
#include <new>
#include <utility>

#include "bsp/base/asan.h"
#include "bsp/base/pi_mutex.h"

namespace bsp {
namespace {

constexpr size_t kBundleSize = 32;
constexpr size_t kDepotBundles = 16;  // about 80 KiB

struct FreeBlock {
  FreeBlock* next;
};

void FreeChain(FreeBlock* chain) {
  while (chain != nullptr) ::operator delete(std::exchange(chain, chain->next));
}

// Full bundles, each a chain of kBundleSize blocks.
class Depot {
 public:
  static Depot& Instance() {
    static auto* const depot = new Depot;
    return *depot;
  }

  // False when the depot is full.
  bool Put(FreeBlock* bundle) {
    const std::lock_guard<PiMutex> lock(mutex_);
    const size_t count = count_.load(std::memory_order_relaxed);
    if (count == kDepotBundles) return false;
    bundles_[count] = bundle;
    count_.store(count + 1, std::memory_order_relaxed);
    return true;
  }

  // Null when the depot is empty.
  FreeBlock* Get() {
    if (count_.load(std::memory_order_relaxed) == 0) return nullptr;  // asked again under the lock
    const std::lock_guard<PiMutex> lock(mutex_);
    const size_t count = count_.load(std::memory_order_relaxed);
    if (count == 0) return nullptr;
    count_.store(count - 1, std::memory_order_relaxed);
    return bundles_[count - 1];
  }

 private:
  PiMutex mutex_;  // guards bundles_ and the writes of count_
  FreeBlock* bundles_[kDepotBundles] = {};
  std::atomic<size_t> count_{0};
};

// The free blocks of one thread.
struct Cache {
  FreeBlock* chain;
  size_t count;
  bool is_closed;  // the thread is ending, nothing is kept any more
};
thread_local Cache t_cache;

struct CacheCloser {
  ~CacheCloser() {
    FreeChain(t_cache.chain);
    t_cache = {nullptr, 0, true};
  }
  void Touch() {}
};
thread_local CacheCloser t_cache_closer;  // registered by the first Give of the thread

// Takes the newest kBundleSize blocks out of a cache that holds more.
FreeBlock* SplitBundle(Cache* cache) {
  FreeBlock* const bundle = cache->chain;
  FreeBlock* last = bundle;
  for (size_t i = 1; i < kBundleSize; ++i) last = last->next;
  cache->chain = std::exchange(last->next, nullptr);
  cache->count -= kBundleSize;
  return bundle;
}

}  // namespace

void* MessageMemory::Take(size_t size) {
  Cache& cache = t_cache;
  if (cache.count == 0 || kAsan) {
    FreeBlock* const bundle = cache.is_closed || kAsan ? nullptr : Depot::Instance().Get();
    if (bundle == nullptr) return ::operator new(size);
    t_cache_closer.Touch();
    cache.chain = bundle;
    cache.count = kBundleSize;
  }
  --cache.count;
  return std::exchange(cache.chain, cache.chain->next);
}

void MessageMemory::Give(void* block) {
  Cache& cache = t_cache;
  if (cache.is_closed || kAsan) {
    ::operator delete(block);
    return;
  }
  if (cache.count == 0) t_cache_closer.Touch();
  cache.chain = new (block) FreeBlock{cache.chain};
  if (++cache.count < 2 * kBundleSize) return;
  FreeBlock* const bundle = SplitBundle(&cache);
  if (!Depot::Instance().Put(bundle)) FreeChain(bundle);
}

}  // namespace bsp
