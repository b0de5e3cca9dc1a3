// Benchmarks in pairs: ours beside the physical limit of the same work, in one run, in turn, with
// the ratio of medians as the figure.
//
// Most benchmarks register Google Benchmark functions with Pair. One that measures whole processes
// takes its own figures and hands the medians to AddRow. The shared main prints all rows as one
// table at the end.
#ifndef BSP_BENCH_SUPPORT_PAIR_H_
#define BSP_BENCH_SUPPORT_PAIR_H_

#include <benchmark/benchmark.h>

#include <functional>
#include <string>
#include <vector>

namespace bench {

// What a row is held against. Times: less is better. Rates: more is better.
struct Target {
  enum Kind { kNone, kRatioAtMost, kRatioAtLeast, kMoreNsAtMost, kAtMost, kAtLeast };
  Kind kind = kNone;
  double value = 0;

  static Target None() { return {}; }
  static Target RatioAtMost(double ratio) { return {kRatioAtMost, ratio}; }
  static Target RatioAtLeast(double ratio) { return {kRatioAtLeast, ratio}; }
  // At most so many nanoseconds above the limit.
  static Target MoreNsAtMost(double ns) { return {kMoreNsAtMost, ns}; }
  // On our own figure, whatever the limit.
  static Target AtMost(double value) { return {kAtMost, value}; }
  static Target AtLeast(double value) { return {kAtLeast, value}; }
};

using Function = std::function<void(benchmark::State&)>;

// Registers `ours` and `limit` under one topic. Both must do the same work per iteration; the row
// shows the median time of one iteration, or of one item when the functions call
// SetItemsProcessed.
void Pair(const std::string& topic, Function ours, Function limit, Target target = Target::None());

// Registers a figure without a limit of its own, such as cost against size.
void Single(const std::string& topic, Function ours, Target target = Target::None());

// Registers a measurement that runs once, by itself, and calls AddRow.
void Custom(std::function<void()> measure);

// A row of the table from own figures. limit 0: none.
void AddRow(const std::string& topic, double ours, double limit, const std::string& unit,
            Target target = Target::None());

// The median of samples; 0 without any.
double Median(std::vector<double> samples);

// The sample below which the share `p` (0 to 1) of all lies; 0 without any.
double Percentile(std::vector<double> samples, double p);

}  // namespace bench

#endif  // BSP_BENCH_SUPPORT_PAIR_H_
