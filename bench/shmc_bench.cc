// What the shared hash map costs beside tables in private memory, what a writer at full speed costs
// its readers, and whether a reader ever sees a torn value.
//
// Keys are random, as many as the map is made for, and read in random order; everything is warm.
// The limit is what one process alone would do: std::unordered_map with the value in its node, and
// memcpy. The table with a sequence number a slot is the usual other way to share without a lock.
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "bench/support/pair.h"
#include "bsp/shmc/shm_hash_map.h"

namespace {

using Map = shmc::UlongShmHashMap;
using Clock = std::chrono::steady_clock;
using bench::Target;

constexpr size_t kKeys = 10000;
constexpr size_t kTurns = 1 << 16;  // length of the sequence of keys, a power of two

// The name of two segments that no other program uses; removes them at the end.
class SegmentName {
 public:
  SegmentName() {
    static uint32_t count = 0;
    char text[32];
    snprintf(text, sizeof text, "0x7%06x",
             (static_cast<uint32_t>(getpid()) * 16 + count++) % 0x1000000);
    name_ = text;
  }
  ~SegmentName() {
    if (getpid() != maker_) return;
    shmc::impl::SVIPCShmAlloc<false>().Unlink(name_ + "0");
    shmc::impl::SVIPCShmAlloc<false>().Unlink(name_ + "1");
  }
  SegmentName(const SegmentName&) = delete;
  SegmentName& operator=(const SegmentName&) = delete;
  const std::string& text() const { return name_; }

 private:
  std::string name_;
  pid_t maker_ = getpid();
};

std::vector<unsigned long> RandomKeys(size_t count) {
  std::mt19937_64 random(20260101);
  std::vector<unsigned long> keys(count);
  for (unsigned long& key : keys) key = random();
  return keys;
}

std::vector<unsigned long> RandomTurns(const std::vector<unsigned long>& keys) {
  std::mt19937_64 random(7);
  std::vector<unsigned long> turns(kTurns);
  for (unsigned long& turn : turns) turn = keys[random() % keys.size()];
  return turns;
}

template <size_t kSize>
struct Value {
  size_t length = kSize;  // not known to the compiler: values differ in length
  char bytes[kSize];
};

template <size_t kSize>
Value<kSize> ValueOf(unsigned long key) {
  Value<kSize> value;
  for (size_t i = 0; i < kSize; i += sizeof key) memcpy(value.bytes + i, &key, sizeof key);
  return value;
}

// The shared map, filled. One for each size of value and count of keys, made on first use.
template <size_t kSize>
struct SharedMap {
  explicit SharedMap(size_t count) {
    // One node holds a whole value; one spare for the new value of a replacement.
    if (!map.InitForWrite(name.text(), count, kSize + 4, count + 1)) return;
    for (const unsigned long key : RandomKeys(count)) {
      if (map.Replace(key, ValueOf<kSize>(key).bytes, kSize)) keys.push_back(key);
    }
    if (keys.size() < count) {
      fprintf(stderr, "%zu of %zu keys found no cell\n", count - keys.size(), count);
    }
    turns = RandomTurns(keys);
  }

  static SharedMap& Of(size_t count) {
    static std::unordered_map<size_t, std::unique_ptr<SharedMap>> made;
    auto& entry = made[count];
    if (!entry) entry = std::make_unique<SharedMap>(count);
    return *entry;
  }

  SegmentName name;
  Map map;
  std::vector<unsigned long> keys;
  std::vector<unsigned long> turns;
};

template <size_t kSize>
void FindShared(benchmark::State& state, size_t count) {
  auto& shared = SharedMap<kSize>::Of(count);
  Value<kSize> out;
  size_t turn = 0;
  for (auto _ : state) {
    size_t length = kSize;
    benchmark::DoNotOptimize(shared.map.FindC(shared.turns[turn++ % kTurns], out.bytes, &length));
    benchmark::DoNotOptimize(out);
  }
}

template <size_t kSize>
void ReplaceShared(benchmark::State& state, size_t count) {
  auto& shared = SharedMap<kSize>::Of(count);
  const auto value = ValueOf<kSize>(1);
  size_t turn = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(shared.map.Replace(shared.turns[turn++ % kTurns], value.bytes, kSize));
  }
}

template <size_t kSize>
struct PrivateMap {
  PrivateMap() : turns(RandomTurns(RandomKeys(kKeys))) {
    for (const unsigned long key : RandomKeys(kKeys)) map[key] = ValueOf<kSize>(key);
  }
  static PrivateMap& Of() {
    static PrivateMap made;
    return made;
  }
  std::unordered_map<unsigned long, Value<kSize>> map;
  std::vector<unsigned long> turns;
};

template <size_t kSize>
void FindPrivate(benchmark::State& state) {
  auto& own = PrivateMap<kSize>::Of();
  Value<kSize> out;
  size_t turn = 0;
  for (auto _ : state) {
    const auto found = own.map.find(own.turns[turn++ % kTurns]);
    if (found != own.map.end()) memcpy(out.bytes, found->second.bytes, found->second.length);
    benchmark::DoNotOptimize(out);
  }
}

template <size_t kSize>
void ReplacePrivate(benchmark::State& state) {
  auto& own = PrivateMap<kSize>::Of();
  auto value = ValueOf<kSize>(1);
  size_t turn = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(value);
    memcpy(own.map[own.turns[turn++ % kTurns]].bytes, value.bytes, value.length);
    benchmark::ClobberMemory();
  }
}

// Open addressing, half full; a slot's number is odd while it is written.
template <size_t kSize>
class SeqlockTable {
 public:
  static SeqlockTable& Of() {
    static SeqlockTable made;
    return made;
  }

  SeqlockTable() : turns(RandomTurns(RandomKeys(kKeys))), slots_(1 << 15) {
    for (const unsigned long key : RandomKeys(kKeys)) {
      size_t at = key % slots_.size();
      while (slots_[at].key != 0) at = (at + 1) % slots_.size();
      slots_[at].key = key;
      Replace(key, ValueOf<kSize>(key));
    }
  }

  bool Find(unsigned long key, Value<kSize>* out) {
    Slot& slot = SlotOf(key);
    for (;;) {
      const uint32_t before = slot.sequence.load(std::memory_order_acquire);
      shmc::impl::CopyOut(out->bytes, slot.value.bytes, slot.value.length);
      shmc::impl::AcquireFence();
      if (slot.sequence.load(std::memory_order_relaxed) == before && before % 2 == 0) return true;
    }
  }

  void Replace(unsigned long key, const Value<kSize>& value) {
    Slot& slot = SlotOf(key);
    const uint32_t before = slot.sequence.load(std::memory_order_relaxed);
    slot.sequence.store(before + 1, std::memory_order_relaxed);
    shmc::impl::ReleaseFence();
    shmc::impl::CopyIn(slot.value.bytes, value.bytes, value.length);
    slot.sequence.store(before + 2, std::memory_order_release);
  }

  std::vector<unsigned long> turns;

 private:
  struct Slot {
    unsigned long key = 0;
    std::atomic<uint32_t> sequence{0};
    Value<kSize> value;
  };

  Slot& SlotOf(unsigned long key) {
    size_t at = key % slots_.size();
    while (slots_[at].key != key) at = (at + 1) % slots_.size();
    return slots_[at];
  }

  std::vector<Slot> slots_;
};

template <size_t kSize>
void FindSeqlock(benchmark::State& state) {
  auto& table = SeqlockTable<kSize>::Of();
  Value<kSize> out;
  size_t turn = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(table.Find(table.turns[turn++ % kTurns], &out));
    benchmark::DoNotOptimize(out);
  }
}

template <size_t kSize>
void ReplaceSeqlock(benchmark::State& state) {
  auto& table = SeqlockTable<kSize>::Of();
  const auto value = ValueOf<kSize>(1);
  size_t turn = 0;
  for (auto _ : state) {
    table.Replace(table.turns[turn++ % kTurns], value);
    benchmark::ClobberMemory();
  }
}

template <size_t kSize>
void RegisterSize(const char* label, double find_rate, double replace_rate) {
  const auto find = [](benchmark::State& state) { FindShared<kSize>(state, kKeys); };
  const auto replace = [](benchmark::State& state) { ReplaceShared<kSize>(state, kKeys); };
  const std::string size = label;
  bench::Pair("FindC " + size + " / unordered_map", find, FindPrivate<kSize>,
              Target::RatioAtMost(1 / find_rate));
  bench::Pair("FindC " + size + " / seqlock table", find, FindSeqlock<kSize>);
  bench::Pair("Replace " + size + " / unordered_map", replace, ReplacePrivate<kSize>,
              Target::RatioAtMost(1 / replace_rate));
  bench::Pair("Replace " + size + " / seqlock table", replace, ReplaceSeqlock<kSize>);
}

// ---- Several processes

// Runs `body` until it is destroyed; the process dies with this one.
class Beside {
 public:
  explicit Beside(const std::function<void()>& body) : pid_(fork()) {
    if (pid_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    body();
    _exit(0);
  }
  ~Beside() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  Beside(const Beside&) = delete;
  Beside& operator=(const Beside&) = delete;

 private:
  pid_t pid_;
};

// Memory that parent and children share.
template <typename T>
class Shared {
 public:
  Shared()
      : memory_(
            mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {
    new (memory_) T();
  }
  ~Shared() { munmap(memory_, sizeof(T)); }
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;
  T* operator->() { return static_cast<T*>(memory_); }

 private:
  void* memory_;
};

struct Reads {
  uint64_t done = 0;
  uint64_t failed = 0;
  double seconds = 0;

  double MillionsPerSecond() const { return static_cast<double>(done) / seconds / 1e6; }
  double FailedPerMillion() const {
    return static_cast<double>(failed) * 1e6 / static_cast<double>(done);
  }
};

template <size_t kSize>
Reads ReadFor(double seconds, const std::string& name, const std::vector<unsigned long>& turns) {
  Map map;
  Reads reads;
  if (!map.InitForRead(name)) return reads;
  Value<kSize> out;
  const auto begin = Clock::now();
  while (reads.seconds < seconds) {
    for (const unsigned long key : turns) {
      size_t length = kSize;
      reads.failed += map.FindC(key, out.bytes, &length) ? 0 : 1;
      benchmark::DoNotOptimize(out);
    }
    reads.done += turns.size();
    reads.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  }
  return reads;
}

template <size_t kSize>
void ReplaceForEver(SharedMap<kSize>* shared, const std::vector<unsigned long>& turns) {
  const auto value = ValueOf<kSize>(1);
  for (;;) {
    for (const unsigned long key : turns) shared->map.Replace(key, value.bytes, kSize);
  }
}

// Alone and beside the writer in turn, so that a slow moment falls on both alike.
template <size_t kSize>
void MeasureBesideWriter(const std::string& size) {
  auto& shared = SharedMap<kSize>::Of(kKeys);
  std::vector<double> alone;
  std::vector<double> beside;
  Reads all;
  for (int round = 0; round < 5; ++round) {
    alone.push_back(ReadFor<kSize>(0.3, shared.name.text(), shared.turns).MillionsPerSecond());
    Beside writer([&] { ReplaceForEver(&shared, shared.turns); });
    const Reads reads = ReadFor<kSize>(0.3, shared.name.text(), shared.turns);
    beside.push_back(reads.MillionsPerSecond());
    all.done += reads.done;
    all.failed += reads.failed;
  }
  bench::AddRow("FindC " + size + " beside a writer / alone", bench::Median(beside),
                bench::Median(alone), "M/s", Target::RatioAtLeast(0.5));
  bench::AddRow("failed reads of replaced keys, " + size, all.FailedPerMillion(), 0, "ppm");

  std::vector<unsigned long> hot;
  std::vector<unsigned long> cold;
  for (const unsigned long key : shared.turns) (key / 2 % 2 == 0 ? hot : cold).push_back(key);
  Beside writer([&] { ReplaceForEver(&shared, hot); });
  const Reads reads = ReadFor<kSize>(2, shared.name.text(), cold);
  bench::AddRow("failed reads of other keys, " + size, reads.FailedPerMillion(), 0, "ppm",
                Target::AtMost(1));
}

// As many readers as cores, at the same time, each on its own.
template <size_t kSize>
void MeasureScaling(const std::string& size) {
  const auto& shared = SharedMap<kSize>::Of(kKeys);
  const long cores = sysconf(_SC_NPROCESSORS_ONLN);
  std::vector<double> one;
  std::vector<double> many;
  for (int round = 0; round < 5; ++round) {
    one.push_back(ReadFor<kSize>(0.3, shared.name.text(), shared.turns).MillionsPerSecond());
    Shared<std::atomic<double>> sum;
    std::vector<pid_t> readers;
    for (long i = 0; i < cores; ++i) {
      const pid_t pid = fork();
      if (pid == 0) {
        const Reads reads = ReadFor<kSize>(0.3, shared.name.text(), shared.turns);
        double before = sum->load();
        while (!sum->compare_exchange_weak(before, before + reads.MillionsPerSecond())) {
        }
        _exit(0);
      }
      readers.push_back(pid);
    }
    for (const pid_t pid : readers) waitpid(pid, nullptr, 0);
    many.push_back(sum->load());
  }
  bench::AddRow("FindC " + size + ", " + std::to_string(cores) + " readers / 1",
                bench::Median(many), bench::Median(one), "M/s",
                Target::RatioAtLeast(0.8 * static_cast<double>(cores)));
}

// A value says which store made it: its length and every word follow from key and store.
struct Pattern {
  static constexpr size_t kMost = 128;  // words

  static uint64_t Word(unsigned long key, uint64_t store, size_t i) {
    return (store * 0x9e3779b97f4a7c15u) ^ (key + i);
  }
  static size_t Fill(unsigned long key, uint64_t store, uint64_t* words) {
    const size_t count = 2 + store % (kMost - 1);
    words[0] = store;
    for (size_t i = 1; i < count; ++i) words[i] = Word(key, store, i);
    return count * sizeof *words;
  }
  static bool Holds(unsigned long key, const uint64_t* words, size_t length) {
    const size_t count = 2 + words[0] % (kMost - 1);
    if (length != count * sizeof *words) return false;
    for (size_t i = 1; i < count; ++i) {
      if (words[i] != Word(key, words[0], i)) return false;
    }
    return true;
  }
};

// Ten seconds of one writer and three readers on few keys, in chains of nodes at odd addresses.
void Soak() {
  constexpr size_t kHotKeys = 16;
  constexpr int kReaders = 3;
  struct Counts {
    std::atomic<uint64_t> stores{0};
    std::atomic<uint64_t> reads{0};
    std::atomic<uint64_t> failed{0};
    std::atomic<uint64_t> mixed{0};
  };
  const SegmentName name;
  Map map;
  if (!map.InitForWrite(name.text(), kHotKeys, 99, 1000)) return;
  Shared<Counts> counts;
  {
    const Beside writer([&] {
      uint64_t words[Pattern::kMost];
      std::mt19937_64 random(1);
      for (uint64_t store = 1;; ++store) {
        const unsigned long key = random() % kHotKeys;
        if (map.Replace(key, words, Pattern::Fill(key, store, words))) ++counts->stores;
      }
    });
    const auto read = [&] {
      Map reader;
      if (!reader.InitForRead(name.text())) return;
      uint64_t words[Pattern::kMost];
      for (unsigned long key = 0;; key = (key + 1) % kHotKeys) {
        size_t length = sizeof words;
        if (!reader.FindC(key, words, &length)) {
          ++counts->failed;
        } else if (!Pattern::Holds(key, words, length)) {
          ++counts->mixed;
        }
        ++counts->reads;
      }
    };
    std::vector<std::unique_ptr<Beside>> readers;
    for (int i = 0; i < kReaders; ++i) readers.push_back(std::make_unique<Beside>(read));
    sleep(10);
  }
  const auto millions = [](uint64_t count) { return static_cast<double>(count) / 1e6; };
  bench::AddRow("soak of 10 s: stores", millions(counts->stores), 0, "M", Target::AtLeast(0.1));
  bench::AddRow("soak: reads", millions(counts->reads), 0, "M", Target::AtLeast(0.1));
  bench::AddRow("soak: failed reads of keys under replacement",
                millions(counts->failed) / millions(counts->reads) * 1e6, 0, "ppm");
  bench::AddRow("soak: mixed values", static_cast<double>(counts->mixed), 0, "", Target::AtMost(0));
}

void MeasureInit() {
  std::vector<double> fresh;
  std::vector<double> again;
  for (int round = 0; round < 5; ++round) {
    const SegmentName name;
    for (std::vector<double>* times : {&fresh, &again}) {
      Map map;
      const auto begin = Clock::now();
      if (!map.InitForWrite(name.text(), 1000000, 68, 1000000)) return;
      times->push_back(std::chrono::duration<double, std::milli>(Clock::now() - begin).count());
    }
  }
  bench::AddRow("InitForWrite, 1 million entries, new", bench::Median(fresh), 0, "ms",
                Target::AtMost(1000));
  bench::AddRow("InitForWrite, 1 million entries, found", bench::Median(again), 0, "ms",
                Target::AtMost(1000));
}

}  // namespace

void RegisterBenchmarks() {
  RegisterSize<64>("64 B", 0.7, 0.66);
  RegisterSize<1024>("1 KiB", 0.9, 0.9);
  for (const size_t count : {100, 10000, 1000000}) {
    bench::Single("FindC 64 B among " + std::to_string(count),
                  [count](benchmark::State& state) { FindShared<64>(state, count); });
    bench::Single("Replace 64 B among " + std::to_string(count),
                  [count](benchmark::State& state) { ReplaceShared<64>(state, count); });
  }
  bench::Custom([] { MeasureBesideWriter<64>("64 B"); });
  bench::Custom([] { MeasureBesideWriter<1024>("1 KiB"); });
  bench::Custom([] { MeasureScaling<64>("64 B"); });
  bench::Custom([] { MeasureScaling<1024>("1 KiB"); });
  bench::Custom(MeasureInit);
  bench::Custom(Soak);
}
