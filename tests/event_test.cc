// Event service and semaphores.
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <ctime>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bsp/event/eventservice.h"
#include "bsp/util/semaphore.h"
#include "bsp/util/time_util.h"
#include "tests/support/child.h"

namespace {

using bsp::EventService;
using bsp::Message;
using bsp::Semaphore;
using bsp::SemaphorePool;
using bsp::TimeUtil;

constexpr int kPatienceMs = 20000;

// The first use of the pool, so this runs before anything else touches it: threads that race on it
// get one pool, and a static destructor that runs behind all others still finds it alive.
TEST(SemaphorePool, IsBuiltOnceAndOutlivesStatics) {
  for (int round = 0; round < 20; ++round) {
    test::Child child = test::Child::Fork([] {
      static std::weak_ptr<SemaphorePool> seen;
      atexit([] {
        if (seen.expired() || !SemaphorePool::Instance()->Get()) _exit(3);
      });
      std::atomic<int> ready{0};
      SemaphorePool* pools[4] = {};
      std::vector<std::thread> threads;
      for (SemaphorePool*& pool : pools) {
        threads.emplace_back([&] {
          ++ready;
          while (ready < 4) std::this_thread::yield();
          pool = SemaphorePool::Instance().get();
        });
      }
      for (std::thread& thread : threads) thread.join();
      for (SemaphorePool* pool : pools) {
        if (pool == nullptr || pool != pools[0]) return 2;
      }
      seen = SemaphorePool::Instance();
      exit(0);
    });
    ASSERT_EQ(child.Wait(), 0) << child.output();
  }
}

// First in, first out; null is no semaphore; what is out on loan is never handed out again.
TEST(SemaphorePool, LendsTheOneThatLayLongest) {
  const auto pool = SemaphorePool::Instance();
  const auto a = pool->Get();
  const auto b = pool->Get();
  ASSERT_TRUE(a && b);
  EXPECT_NE(a, b);
  EXPECT_FALSE(a->Wait(0));
  pool->Put(nullptr);
  pool->Put(a);
  pool->Put(b);
  EXPECT_EQ(pool->Get(), a);
  EXPECT_EQ(pool->Get(), b);
  EXPECT_NE(pool->Get(), a);
}

// Counts add up, an empty one never blocks without a time, and the time is kept.
TEST(Semaphore, CountsAndTimesOut) {
  Semaphore two(2);
  EXPECT_TRUE(two.Wait(0));
  EXPECT_TRUE(two.Wait(-1));
  EXPECT_FALSE(two.Wait(0));
  EXPECT_FALSE(two.Wait(std::numeric_limits<int>::min()));
  for (int i = 0; i < 3; ++i) two.Signal();
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(two.Wait(0));
  const int64_t begin = TimeUtil::ClockMillis();
  EXPECT_FALSE(two.Wait(30));
  EXPECT_GE(TimeUtil::ClockMillis() - begin, 28);  // the raw clock may run a little slower
}

// Every count is taken exactly once, however signals and waits of many threads meet.
TEST(Semaphore, LosesNoCount) {
  constexpr int kEach = 5000;
  Semaphore sem;
  std::atomic<int> taken{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      for (int k = 0; k < kEach; ++k) taken += sem.Wait(kPatienceMs) ? 1 : 0;
    });
    threads.emplace_back([&] {
      for (int k = 0; k < kEach; ++k) sem.Signal();
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(taken, 3 * kEach);
  EXPECT_FALSE(sem.Wait(0));
}

// Posts and cancels in any order and to any extent leave what a plain sorted model leaves, and run
// it in that order. The index and the heap are under attack: few ids and many, equal times.
TEST(EventService, RunsWhatAModelRuns) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  size_t total = 0;
  for (int round = 0; round < 30; ++round) {
    EventService service;
    // (0: immediate, 1: timed), time, order of posting -> id
    std::map<std::pair<int64_t, size_t>, int> model;
    std::vector<size_t> ran;
    const int ids = round % 2 == 0 ? 5 : 2000;
    const auto random_id = [&] { return static_cast<int>(random() % ids) - 1; };
    for (size_t serial = 0; serial < 1500; ++serial) {
      const int id = random_id();
      const auto func = [&ran, serial](Message*) { ran.push_back(serial); };
      const auto what = random() % 20;
      if (what < 8) {
        service.Post(id, func);
        model[{0, serial}] = id;
      } else if (what < 18) {
        // Far apart, so that the clock moving between two posts leaves their order alone; the
        // shortest of all delays is due at 1, like every one that reaches back behind 0.
        const bool is_shortest = random() % 8 == 0;
        const long delay = is_shortest ? std::numeric_limits<long>::min()
                                       : -static_cast<long>(random() % 3) * 1000 - 500;
        service.PostDelay(id, delay, func);
        model[{is_shortest ? 1 : TimeUtil::ClockMillis() + delay, serial}] = id;
      } else if (what == 18 && random() % 30 != 0) {
        const int cleared = random_id();
        service.Clear(cleared == 0 ? -7 : cleared);
        for (auto it = model.begin(); it != model.end();) {
          it = cleared > 0 && it->second == cleared ? model.erase(it) : std::next(it);
        }
      } else if (what == 18) {
        service.Clear(0);
        model.clear();
      } else if (!model.empty()) {
        service.Dispatch(false);
        ASSERT_EQ(ran.back(), model.begin()->first.second);
        model.erase(model.begin());
        ++total;
        ran.clear();
      }
    }
    ran.clear();
    const size_t left = model.size();
    for (size_t i = 0; i < left; ++i) service.Dispatch(false);
    std::vector<size_t> expected;
    for (const auto& entry : model) expected.push_back(entry.first.second);
    ASSERT_EQ(ran, expected);
    total += left;
  }
  EXPECT_GT(total, 3000u);
}

// Notes when it goes, and what its going does.
struct Userdata : bsp::MessageUserdata {
  explicit Userdata(std::function<void()> at_end) : at_end_(std::move(at_end)) {}
  ~Userdata() override { at_end_(); }
  const std::function<void()> at_end_;
};

struct Recorder : bsp::MessageHandler {
  void OnMessage(Message* message) override {
    ids.push_back(message->id);
    had_userdata = message->userdata != nullptr && !message->func;
  }
  std::vector<int> ids;
  bool had_userdata = false;
};

// Both forms reach their receiver with what was posted, no message runs before the clock has passed
// its time, and a user's data goes with its message, run or cleared.
TEST(EventService, DeliversInDueTime) {
  const auto service = EventService::Create("a name longer than 15", 50);
  Recorder recorder;
  Semaphore done;
  std::string order;
  int gone = 0;
  const auto note = [&](const char* name) {
    return [&order, name](Message* message) {
      order += name;
      if (message->when >= TimeUtil::ClockMillis()) order += " too early ";
    };
  };
  service->PostDelay(1, 90, note("e"));
  service->PostDelay(1, 30, note("d"));
  service->PostDelay(1, 0, note("c"));
  service->Post(1, note("a"));
  service->Post(1, note("b"));
  service->PostDelay(1, std::numeric_limits<long>::max(), note("never"));
  service->Post(&recorder, 4, std::make_shared<Userdata>([&] { ++gone; }));
  service->Post(&recorder, 5, std::make_shared<Userdata>([&] { ++gone; }));
  service->Clear(5);
  EXPECT_EQ(gone, 1);
  service->PostDelay(1, 120, [&](Message*) { done.Signal(); });
  ASSERT_EQ(service->Start(), nullptr);
  EXPECT_NE(service->Start(), nullptr);  // refused, the first one goes on
  service->Post(1, [](Message*) {
    char name[32] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    EXPECT_STREQ(name, "a name longer t");
  });
  ASSERT_TRUE(done.Wait(kPatienceMs));
  service->Stop();
  EXPECT_EQ(order, "abcde");
  EXPECT_EQ(recorder.ids, std::vector<int>{4});
  EXPECT_TRUE(recorder.had_userdata);
  EXPECT_EQ(gone, 2);
}

// No message waits for the end of a sleep that it should have ended: posted while the service goes
// to sleep, due before the one that it sleeps towards, or moved on inside the queue by a Clear that
// comes between its post and the signal.
TEST(EventService, WakeUpsAreNeverLost) {
  constexpr int kRounds = 600;
  const auto service = EventService::Create("wake", 50);
  service->PostDelay(1, 3600000, [](Message*) {});
  service->Start();
  std::atomic<bool> is_over{false};
  std::thread clearer([&] {
    while (!is_over) service->Clear(99);
  });
  Semaphore done;
  int late = 0;
  for (int i = 0; i < kRounds; ++i) {
    if (i % 2 == 0) TimeUtil::SleepMs(1);  // it sleeps, else it is about to
    const int64_t begin = TimeUtil::ClockMillis();
    service->PostDelay(2, i % 3 == 0 ? 1 : -1, [&](Message*) { done.Signal(); });
    ASSERT_TRUE(done.Wait(kPatienceMs));
    late += TimeUtil::ClockMillis() - begin > 60 ? 1 : 0;  // a sleep is 100 ms
  }
  is_over = true;
  clearer.join();
  EXPECT_LT(late, kRounds / 20);  // one in five or more, were they lost; a busy machine has some
}

// Every post of every thread runs exactly once and in its thread's order, while others clear ids
// that are not theirs and the service is stopped and started under way.
TEST(EventService, LosesNothingUnderLoad) {
  constexpr int kPosters = 4;
  constexpr int kEach = 8000;
  const auto service = EventService::Create("load", 50);
  Semaphore done;
  int next[kPosters] = {};  // touched by the service's thread alone
  std::atomic<int> run{0};
  bool is_ordered = true;
  std::vector<std::thread> threads;
  for (int poster = 0; poster < kPosters; ++poster) {
    threads.emplace_back([&, poster] {
      for (int k = 0; k < kEach; ++k) {
        service->Post(poster + 1, [&, poster, k](Message*) {
          is_ordered = is_ordered && next[poster] == k;
          next[poster] = k + 1;
          if (++run == kPosters * kEach) done.Signal();
        });
        if (k % 64 == 0) {
          service->PostDelay(100 + poster, 3600000, [](Message*) {});
          service->Clear(100 + poster);
        }
      }
    });
  }
  for (int i = 0; i < 20; ++i) {
    service->Start();
    TimeUtil::SleepMs(1);
    service->Stop();
  }
  service->Start();
  ASSERT_TRUE(done.Wait(kPatienceMs));
  for (std::thread& thread : threads) thread.join();
  service->Stop();
  EXPECT_TRUE(is_ordered);
  EXPECT_EQ(run, kPosters * kEach);
}

// No order of Start and Stop hangs or loses a message; a Stop waits for the handler that runs.
TEST(EventService, StopIsNeverLost) {
  EventService service;
  service.Stop();
  std::atomic<int> run{0};
  service.Post(1, [&](Message*) { ++run; });
  service.Stop();
  EXPECT_EQ(run, 0);
  const int64_t begin = TimeUtil::ClockMillis();
  for (int i = 0; i < 200; ++i) {
    service.Start();
    service.Stop();
  }
  service.Stop();
  EXPECT_LT(TimeUtil::ClockMillis() - begin, 10000);  // 100 ms each, were sleeps not ended

  Semaphore entered;
  std::atomic<bool> has_ended{false};
  service.Post(1, [&](Message*) {
    entered.Signal();
    TimeUtil::SleepMs(30);
    has_ended = true;
  });
  service.Post(1, [&](Message*) { ++run; });
  service.Start();
  ASSERT_TRUE(entered.Wait(kPatienceMs));
  std::thread other([&] { service.Stop(); });
  service.Stop();
  EXPECT_TRUE(has_ended);
  other.join();
  const int before = run;
  EXPECT_LE(before, 1);  // the message behind stays queued
  Semaphore done;
  service.Post(1, [&](Message*) { done.Signal(); });
  service.Start();
  ASSERT_TRUE(done.Wait(kPatienceMs));
  EXPECT_EQ(run, 2);
}

// A handler does to its own service what any thread may: post, clear, stop, start again.
TEST(EventService, HandlerMayUseItsOwnService) {
  const auto service = EventService::Create("own", 50);
  Semaphore done;
  std::string order;
  service->Post(7, [&](Message*) {
    service->Post(8, [&](Message*) { order += "cleared too late"; });
    service->PostDelay(9, 1, [&](Message*) {
      order += "b";
      service->Clear(0);
      EXPECT_NE(service->Start(), nullptr);
      service->Stop();
      done.Signal();
    });
    service->Clear(8);
    service->Clear(7);  // itself: it is not waiting any more
    order += "a";
  });
  service->Start();
  ASSERT_TRUE(done.Wait(kPatienceMs));
  service->Post(1, [&](Message*) { done.Signal(); });
  EXPECT_EQ(service->Start(), nullptr);
  ASSERT_TRUE(done.Wait(kPatienceMs));
  EXPECT_EQ(order, "ab");
}

// What a cleared message holds may use the service while it goes; dropping the last reference on
// the service's own thread, from a handler or with its data, ends the thread and nothing else.
TEST(EventService, LastReferenceMayGoAnywhere) {
  const auto cleared = EventService::Create("cleared", 50);
  bool has_run = false;
  cleared->Post(nullptr, 3, std::make_shared<Userdata>([&] {
                  cleared->Post(4, [&](Message*) { has_run = true; });
                }));
  cleared->Clear(3);
  cleared->Dispatch(false);
  EXPECT_TRUE(has_run);

  for (const bool is_in_handler : {true, false}) {
    Semaphore gone;
    auto service = EventService::Create("last", 50);
    const std::weak_ptr<EventService> alive = service;
    service->Start();
    auto hold = std::make_shared<std::shared_ptr<EventService>>(service);
    EventService* const raw = service.get();
    service.reset();
    auto end = std::make_shared<Userdata>([&] { gone.Signal(); });
    if (is_in_handler) {
      raw->Post(1, [hold, end](Message*) mutable {
        hold->reset();
        end.reset();
      });
    } else {
      raw->Post(1, [hold, end](Message*) {});
    }
    hold.reset();
    end.reset();
    ASSERT_TRUE(gone.Wait(kPatienceMs));
    for (int i = 0; i < 1000 && !alive.expired(); ++i) TimeUtil::SleepMs(5);
    EXPECT_TRUE(alive.expired());
  }
}

// A timer every millisecond must not be paid for by watching the clock through the last one.
TEST(EventService, WaitsWithoutSpinning) {
  const auto service = EventService::Create("timer", 50);
  constexpr int kTicks = 300;
  Semaphore done;
  int ticks = 0;
  double used_ms = 0;
  const auto cpu_ms = [] {
    struct timespec now = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
  };
  std::function<void(Message*)> tick = [&](Message*) {
    if (ticks == 0) used_ms = -cpu_ms();
    if (++ticks < kTicks) {
      service->PostDelay(1, 0, tick);
    } else {
      used_ms += cpu_ms();
      done.Signal();
    }
  };
  const int64_t begin = TimeUtil::ClockMillis();
  service->Post(1, tick);
  service->Start();
  ASSERT_TRUE(done.Wait(kPatienceMs));
  EXPECT_GE(TimeUtil::ClockMillis() - begin, kTicks - 2);
  EXPECT_LT(used_ms, kTicks / 3.0);  // spinning takes nearly all of the time, sleeping 2 percent
}

// Without the right to real-time scheduling one line of the log says so and messages run.
TEST(EventService, RunsWithoutRealTimeRight) {
  test::Child child = test::Child::Fork([] {
    const auto service = EventService::Create("refused", 1000);  // no such priority exists
    Semaphore done;
    service->Post(1, [&](Message*) { done.Signal(); });
    service->Start();
    const bool has_run = done.Wait(kPatienceMs);
    service->Stop();
    fflush(stdout);
    return has_run ? 0 : 1;
  });
  EXPECT_EQ(child.Wait(), 0);
  const std::string& out = child.output();
  const std::string line = "set thread priority failed: refused, error: Invalid argument";
  const size_t at = out.find(line);
  ASSERT_NE(at, std::string::npos) << out;
  EXPECT_EQ(out.find("failed", at + line.size()), std::string::npos) << out;
}

}  // namespace
