// What an emission costs beside a direct loop over as many std::function calls. Both hand over two
// shared pointers by value; the process has a second thread, so that their counts are atomic.
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "bench/support/pair.h"
#include "bsp/sigslot/sigslot.h"

namespace {

using Pointer = std::shared_ptr<int>;

class Receiver : public sigslot::has_slots<> {
 public:
  void OnSignal(Pointer first, Pointer second) {
    benchmark::DoNotOptimize(sum_ += *first + *second);
  }

 private:
  int sum_ = 0;
};

void Signal(benchmark::State& state, size_t slots) {
  sigslot::signal2<Pointer, Pointer> signal;
  std::vector<Receiver> receivers(slots);
  for (Receiver& receiver : receivers) signal.connect(&receiver, &Receiver::OnSignal);
  const auto first = std::make_shared<int>(1);
  const auto second = std::make_shared<int>(2);
  for (auto _ : state) signal(first, second);
}

void DirectLoop(benchmark::State& state, size_t slots) {
  int sum = 0;
  const auto slot = [&sum](Pointer first, Pointer second) {
    benchmark::DoNotOptimize(sum += *first + *second);
  };
  const std::vector<std::function<void(Pointer, Pointer)>> functions(slots, slot);
  const auto first = std::make_shared<int>(1);
  const auto second = std::make_shared<int>(2);
  for (auto _ : state) {
    for (const auto& function : functions) function(first, second);
  }
}

}  // namespace

void RegisterBenchmarks() {
  std::thread([] {}).join();
  for (const size_t slots : {1, 3}) {
    using std::placeholders::_1;
    bench::Pair("sigslot: emission to " + std::to_string(slots) + (slots > 1 ? " slots" : " slot"),
                std::bind(Signal, _1, slots), std::bind(DirectLoop, _1, slots),
                bench::Target::RatioAtMost(1.1));
  }
}
