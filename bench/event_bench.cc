// Event service and semaphores beside what bare threads, mutexes and condition variables do.
#include <pthread.h>
#include <sched.h>

#include <ctime>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench/support/pair.h"
#include "bsp/event/eventservice.h"
#include "bsp/log/log.h"
#include "bsp/util/semaphore.h"

namespace {

using bsp::EventService;
using bsp::Message;
using bsp::Semaphore;
using Clock = std::chrono::steady_clock;

constexpr int kForeverMs = 60000;
constexpr int kRealTime = 50;  // SCHED_FIFO, where the system grants it
constexpr int kOrdinary = 0;   // refused as a priority, so that the thread stays as it was created
constexpr int kRounds = 5;

// Where the threads of a figure run. Left to the scheduler, two figures of one run differ by three.
enum class Cores { kTwo, kOne };

// Confines the calling thread, and with it the threads that it starts, to one of the first two
// processors that the program may use; as before at the end.
class OnCore {
 public:
  explicit OnCore(int number) {
    sched_getaffinity(0, sizeof before_, &before_);
    cpu_set_t only;
    CPU_ZERO(&only);
    for (int cpu = 0, found = 0; cpu < CPU_SETSIZE; ++cpu) {
      if (CPU_ISSET(cpu, &before_) && found++ == number) CPU_SET(cpu, &only);
    }
    sched_setaffinity(0, sizeof only, &only);  // refused where there is no second one
  }
  ~OnCore() { sched_setaffinity(0, sizeof before_, &before_); }

 private:
  cpu_set_t before_;
};

double NanosSince(Clock::time_point begin) {
  return std::chrono::duration<double, std::nano>(Clock::now() - begin).count();
}

// The least that hands a count to another thread: mutex, condition variable, integer.
class BareCount {
 public:
  void Wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    above_zero_.wait(lock, [this] { return count_ > 0; });
    --count_;
  }
  void Signal() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++count_;
    above_zero_.notify_one();
  }

 private:
  std::mutex mutex_;
  std::condition_variable above_zero_;
  int count_ = 0;
};

struct BoundedCount : Semaphore {
  void Wait() { Semaphore::Wait(kForeverMs); }
};

// There and back between two threads; one item is one hand-over.
template <class Count>
void HandOver(benchmark::State& state) {
  Count there;
  Count back;
  std::atomic<bool> is_over{false};
  std::thread partner([&] {
    for (there.Wait(); !is_over; there.Wait()) back.Signal();
  });
  for (auto _ : state) {
    there.Signal();
    back.Wait();
  }
  state.SetItemsProcessed(2 * state.iterations());
  is_over = true;
  there.Signal();
  partner.join();
}

// The least that runs functions on another thread: mutex, condition variable, queue.
class BareQueue {
 public:
  explicit BareQueue(int priority) : thread_([this] { Run(); }) {
    struct sched_param scheduling = {};
    scheduling.sched_priority = priority;
    // As the service does it, refusal included.
    pthread_setschedparam(thread_.native_handle(), SCHED_FIFO, &scheduling);
  }
  ~BareQueue() {
    Post(nullptr);
    thread_.join();
  }

  void Post(std::function<void(Message*)> func) {
    const std::lock_guard<std::mutex> lock(mutex_);
    queue_.push_back(std::move(func));
    is_filled_.notify_one();
  }

 private:
  void Run() {
    for (;;) {
      std::unique_lock<std::mutex> lock(mutex_);
      is_filled_.wait(lock, [this] { return !queue_.empty(); });
      const std::function<void(Message*)> func = std::move(queue_.front());
      queue_.pop_front();
      lock.unlock();
      if (!func) return;
      func(nullptr);
    }
  }

  std::mutex mutex_;
  std::condition_variable is_filled_;
  std::deque<std::function<void(Message*)>> queue_;
  std::thread thread_;
};

class Service {
 public:
  explicit Service(int priority) : service_(EventService::Create("bench", priority)) {
    service_->Start();
  }
  void Post(std::function<void(Message*)> func) { service_->Post(1, std::move(func)); }

 private:
  std::shared_ptr<EventService> service_;
};

// Median nanoseconds from a post to its run while the queue's thread sleeps.
template <class Queue>
double Latency(int priority) {
  Queue queue(priority);
  std::vector<double> samples;
  for (int i = 0; i < 200; ++i) {
    std::this_thread::sleep_for(std::chrono::microseconds(100));  // until it sleeps again
    std::atomic<bool> has_run{false};
    const auto begin = Clock::now();
    queue.Post([&](Message*) {
      samples.push_back(NanosSince(begin));
      has_run = true;
    });
    while (!has_run) std::this_thread::yield();
  }
  return bench::Median(samples);
}

// Messages a second, sustained: posters wait while more than kWindow messages of theirs are under
// way, so that the figure is of passing messages on and not of growing a heap. The posters share
// one core; the queue's thread has the other one, or the same.
template <class Queue>
double Throughput(int posters, int priority, Cores cores) {
  const int messages = cores == Cores::kTwo ? 400000 : 20000;
  constexpr int kWindow = 8192;
  auto queue = [&] {
    const OnCore there(cores == Cores::kTwo ? 1 : 0);
    return std::make_unique<Queue>(priority);
  }();
  const OnCore here(0);
  BareCount done;
  struct alignas(64) Counter {  // on a cache line of its own
    std::atomic<int> count{0};
  };
  Counter posted;
  Counter run;
  const std::function<void(Message*)> func = [&](Message*) {
    const int now = run.count.load(std::memory_order_relaxed) + 1;  // one thread runs all
    run.count.store(now, std::memory_order_relaxed);
    if (now == messages) done.Signal();
  };
  const auto begin = Clock::now();
  std::vector<std::thread> threads;
  for (int i = 0; i < posters; ++i) {
    threads.emplace_back([&] {
      constexpr int kStride = 100;
      for (int k = 0; k < messages / posters; k += kStride) {
        while (posted.count.load() - run.count.load() > kWindow) std::this_thread::yield();
        for (int j = 0; j < kStride; ++j) queue->Post(func);
        posted.count += kStride;
      }
    });
  }
  done.Wait();
  const double elapsed_ns = NanosSince(begin);
  for (std::thread& thread : threads) thread.join();
  return messages * 1e9 / elapsed_ns;
}

// Median of `rounds` figures each of ours and of the limit, taken in turn.
void Compare(const std::string& topic, const std::function<double()>& ours,
             const std::function<double()>& limit, const std::string& unit, bench::Target target) {
  std::vector<double> ours_samples;
  std::vector<double> limit_samples;
  for (int i = 0; i < kRounds; ++i) {
    ours_samples.push_back(ours());
    limit_samples.push_back(limit());
  }
  bench::AddRow(topic, bench::Median(ours_samples), bench::Median(limit_samples), unit, target);
}

// Nanoseconds of one message among `waiting` others: posted with a random time and cancelled by its
// id, or posted and run.
double CostAmong(size_t waiting, bool is_cancelled) {
  constexpr int kId = 1 << 30;
  constexpr int kOperations = 10000;
  const auto service = EventService::Create("bench", kOrdinary);
  std::mt19937 random(1);
  // Due long ago when they are to run, never when they are to wait.
  const auto delay = [&] {
    const long span = static_cast<long>(random() % 1000000);
    return is_cancelled ? 1000000 + span : span - 2000000;
  };
  for (size_t i = 0; i < waiting; ++i) {
    service->PostDelay(static_cast<int>(i) + 1, delay(), [](Message*) {});
  }
  service->Clear(kId);  // sorts in what was posted, which the first operation would do else
  const auto begin = Clock::now();
  for (int i = 0; i < kOperations; ++i) {
    service->PostDelay(kId, delay(), [](Message*) {});
    if (is_cancelled) {
      service->Clear(kId);
    } else {
      service->Dispatch(false);
    }
  }
  return NanosSince(begin) / kOperations;
}

void QueueCost(bool is_cancelled) {
  const std::string what = is_cancelled ? "PostDelay and Clear(id)" : "PostDelay and run";
  const double base = CostAmong(1000, is_cancelled);
  for (const size_t waiting : {1000, 32000, 1000000}) {
    std::vector<double> samples;
    for (int i = 0; i < 3; ++i) samples.push_back(CostAmong(waiting, is_cancelled));
    bench::AddRow("event: " + what + " among " + std::to_string(waiting) + " (limit: among 1000)",
                  bench::Median(samples), base, "ns");
  }
}

double ThreadCpuNanos() {
  struct timespec used = {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
  return static_cast<double>(used.tv_sec) * 1e9 + static_cast<double>(used.tv_nsec);
}

constexpr int kTicks = 200;

// Nanoseconds of processor time for one tick of a message that posts itself for the next
// millisecond.
double TickOfService() {
  const auto service = EventService::Create("bench", kOrdinary);
  BareCount done;
  double begin = 0;
  double end = 0;
  int ticks = 0;
  std::function<void(Message*)> tick = [&](Message*) {
    if (ticks == 0) begin = ThreadCpuNanos();
    if (ticks++ < kTicks) {
      service->PostDelay(1, 0, tick);
    } else {
      end = ThreadCpuNanos();
      done.Signal();
    }
  };
  service->Post(1, tick);
  service->Start();
  done.Wait();
  service->Stop();
  return (end - begin) / kTicks;
}

// The same for a thread that sleeps from millisecond to millisecond and does nothing else.
double TickOfThread() {
  double used = 0;
  std::thread([&used] {
    struct timespec next = {};
    clock_gettime(CLOCK_MONOTONIC, &next);
    const double begin = ThreadCpuNanos();
    for (int i = 0; i < kTicks; ++i) {
      next.tv_nsec += 1000000;
      if (next.tv_nsec >= 1000000000) {
        next.tv_nsec -= 1000000000;
        ++next.tv_sec;
      }
      clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
    }
    used = (ThreadCpuNanos() - begin) / kTicks;
  }).join();
  return used;
}

}  // namespace

void RegisterBenchmarks() {
  using bench::Target;
  bench::Pair("semaphore: hand-over to another thread", HandOver<BoundedCount>, HandOver<BareCount>,
              Target::RatioAtMost(1.15));
  bench::Custom([] {
    g_log_level = BSP_LEVEL_CRIT;  // a refused priority is meant here
    for (const int priority : {kOrdinary, kRealTime}) {
      const std::string thread = priority == kRealTime ? "FIFO thread, " : "";
      Compare(
          "event: " + thread + "latency from post to run, median",
          [=] { return Latency<Service>(priority); }, [=] { return Latency<BareQueue>(priority); },
          "ns", Target::RatioAtMost(1.3));
      for (const Cores cores : {Cores::kTwo, Cores::kOne}) {
        const bool is_alone = cores == Cores::kOne;
        for (const int posters : {1, 4}) {
          Compare(
              "event: " + thread + (is_alone ? "one core" : "a core each") +
                  ", posters: " + std::to_string(posters),
              [=] { return Throughput<Service>(posters, priority, cores); },
              [=] { return Throughput<BareQueue>(posters, priority, cores); }, "msg/s",
              Target::AtLeast(is_alone ? 2e5 : 8e6));
        }
      }
    }
    QueueCost(false);
    QueueCost(true);
    Compare("event: processor time of a 1 kHz message, per tick", TickOfService, TickOfThread, "ns",
            Target::AtMost(50000));
  });
}
