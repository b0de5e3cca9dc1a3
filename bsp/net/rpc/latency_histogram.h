// Times in a fixed number of buckets, for percentiles in constant memory.
#ifndef BSP_NET_RPC_LATENCY_HISTOGRAM_H_
#define BSP_NET_RPC_LATENCY_HISTOGRAM_H_

#include <array>
#include <cstddef>
#include <cstdint>

namespace bsp {

// Four buckets an octave, from 1 microsecond to 67 seconds: a percentile is at most a quarter above
// the true one.
//
// Threads: one.
class LatencyHistogram {
 public:
  void Add(int64_t time_us) { ++buckets_[BucketOf(time_us)]; }

  // The time in microseconds that the share `part` (0 to 1) of all stayed at or below, rounded up
  // to its bucket; 0 without any.
  int64_t Percentile(double part) const {
    uint64_t all = 0;
    for (const uint32_t count : buckets_) all += count;
    if (all == 0) return 0;
    auto left = static_cast<uint64_t>(part * static_cast<double>(all - 1)) + 1;
    size_t bucket = 0;
    while (buckets_[bucket] < left) left -= buckets_[bucket++];
    return TopOf(bucket);
  }

 private:
  static constexpr size_t kPerOctave = 4;
  static constexpr size_t kBuckets = 26 * kPerOctave;

  // Below 4 us a bucket is one microsecond wide.
  static size_t BucketOf(int64_t time_us) {
    if (time_us < 4) return time_us < 0 ? 0 : static_cast<size_t>(time_us);
    const auto octave = static_cast<size_t>(63 - __builtin_clzll(static_cast<uint64_t>(time_us)));
    const size_t quarter = static_cast<uint64_t>(time_us) >> (octave - 2) & 3;
    const size_t bucket = (octave - 1) * kPerOctave + quarter;
    return bucket < kBuckets ? bucket : kBuckets - 1;
  }
  static int64_t TopOf(size_t bucket) {
    if (bucket < 4) return static_cast<int64_t>(bucket);
    const size_t octave = bucket / kPerOctave + 1;
    return (int64_t{5} + static_cast<int64_t>(bucket % kPerOctave)) * (int64_t{1} << (octave - 2)) -
           1;
  }

  std::array<uint32_t, kBuckets> buckets_ = {};
};

}  // namespace bsp

#endif  // BSP_NET_RPC_LATENCY_HISTOGRAM_H_
