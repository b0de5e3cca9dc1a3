// What a filtered log call costs.
#include "bench/support/pair.h"
#include "bsp/log/log.h"

namespace {

// The least that any filter costs: one relaxed load of a threshold that may change, one branch.
int32_t g_threshold = BSP_LEVEL_INFO;

void FilteredCall(benchmark::State& state) {
  int value = 0;
  for (auto _ : state) {
    BSP_LOG_DEBUG("MOD_BENCH", "value %d", value);
    benchmark::DoNotOptimize(++value);
  }
}

// Without the macro: what a caller of the function itself pays, and the macros of graver levels.
void FilteredDirectCall(benchmark::State& state) {
  int value = 0;
  for (auto _ : state) {
    _log_debug("MOD_BENCH", BSP_LEVEL_DEBUG, "f.cc", "f", 1, "value %d", value);
    benchmark::DoNotOptimize(++value);
  }
}

void LoadAndBranch(benchmark::State& state) {
  int value = 0;
  for (auto _ : state) {
    if (BSP_LEVEL_DEBUG <= __atomic_load_n(&g_threshold, __ATOMIC_RELAXED)) abort();
    benchmark::DoNotOptimize(++value);
  }
}

}  // namespace

void RegisterBenchmarks() {
  bench::Pair("log: filtered BSP_LOG_DEBUG without a client", FilteredCall, LoadAndBranch,
              bench::Target::MoreNsAtMost(3));
  bench::Pair("log: filtered _log_debug without a client", FilteredDirectCall, LoadAndBranch,
              bench::Target::MoreNsAtMost(3));
}
