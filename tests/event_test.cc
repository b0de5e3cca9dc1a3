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
#include "tests/support/virtual_slot.h"

namespace {

using bsp::EventService;
using bsp::Message;
using bsp::Semaphore;
using bsp::SemaphorePool;
using bsp::TimeUtil;

constexpr int kPatienceMs = 60000;

// Counts add up, an empty one never blocks without a time, and the time is kept. Threads that race
// on the pool's first use get one pool, which the last exit handler still finds alive; what is out
// on loan is never handed out again, and the one that lay longest goes first.
TEST(Semaphore, CountsTimesOutAndIsLent) {
  EXPECT_TRUE(test::RaceOnFirstUse([] { return SemaphorePool::Instance().get(); }));
  test::Child child = test::Child::Fork([]() -> int {
    static std::weak_ptr<SemaphorePool> seen;
    atexit([] { _exit(!seen.expired() && SemaphorePool::Instance()->Get() ? 0 : 3); });
    seen = SemaphorePool::Instance();
    exit(1);
  });
  EXPECT_EQ(child.Wait(), 0);
  const auto pool = SemaphorePool::Instance();
  const auto a = pool->Get();
  const auto b = pool->Get();
  ASSERT_TRUE(a && b && a != b);
  for (const auto& sem : {std::shared_ptr<Semaphore>(), a, b}) pool->Put(sem);
  EXPECT_EQ(pool->Get(), a);
  EXPECT_EQ(pool->Get(), b);
  EXPECT_NE(pool->Get(), a);

  EXPECT_FALSE(a->Wait(0) || a->Wait(std::numeric_limits<int>::min()));
  for (int i = 0; i < 3; ++i) a->Signal();
  EXPECT_TRUE(a->Wait(0) && a->Wait(-1) && a->Wait(kPatienceMs));
  const int64_t begin = TimeUtil::ClockMillis();
  EXPECT_FALSE(a->Wait(30));
  EXPECT_GE(TimeUtil::ClockMillis() - begin, 28);  // the raw clock may run a little slower
}

// Posts and cancels in any order and to any extent leave what a plain sorted model leaves, and run
// it in that order. The index and the heap are under attack: few ids and many, equal times.
TEST(EventService, RunsWhatAModelRuns) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  for (int round = 0; round < 30; ++round) {
    EventService service;
    std::map<std::pair<int64_t, size_t>, int> model;  // due time, order of posting -> id
    std::vector<size_t> ran;
    const auto run_first = [&] {
      ran.clear();
      service.Dispatch(false);
      ASSERT_EQ(ran, std::vector<size_t>{model.begin()->first.second});
      model.erase(model.begin());
    };
    const unsigned ids[] = {5, 60, 2000};
    const auto random_id = [&] { return static_cast<int>(random() % ids[round % 3]) - 1; };
    for (size_t serial = 0; serial < 1500; ++serial) {
      const int id = random_id();
      const auto func = [&ran, serial](Message*) { ran.push_back(serial); };
      const auto what = random() % 20;
      if (what < 8) {
        service.Post(id, func);
        model[{0, serial}] = id;
      } else if (what < 18) {
        // Far apart, so that the clock moving between two posts leaves their order alone; one that
        // reaches back behind 0, such as the shortest, is due at 1.
        const long delays[] = {-500, -1500, -2500, std::numeric_limits<long>::min() / 2};
        const long delay = delays[random() % 4];
        service.PostDelay(id, delay, func);
        model[{std::max<int64_t>(TimeUtil::ClockMillis() + delay, 1), serial}] = id;
      } else if (what == 18) {
        const int cleared = random() % 30 == 0 ? 0 : random_id();
        service.Clear(cleared);
        for (auto it = model.begin(); it != model.end();) {
          const bool is_gone = cleared == 0 || (cleared > 0 && it->second == cleared);
          it = is_gone ? model.erase(it) : std::next(it);
        }
      } else if (!model.empty()) {
        ASSERT_NO_FATAL_FAILURE(run_first());
      }
    }
    while (!model.empty()) ASSERT_NO_FATAL_FAILURE(run_first());
  }
}

// Tells when it goes.
struct Userdata : bsp::MessageUserdata {
  explicit Userdata(std::function<void()> at_end) : at_end_(std::move(at_end)) {}
  ~Userdata() override { at_end_(); }
  const std::function<void()> at_end_;
};

struct Recorder : bsp::MessageHandler {
  void OnMessage(Message* message) override { seen += message->userdata ? message->id : 1000; }
  int seen = 0;
};

// Both forms reach their receiver with what was posted, no message runs before the clock has passed
// its time, nor is watched for, and a user's data goes with its message, run or cleared. Where the
// system refuses the priority one line, with the thread's name, says so and messages run.
TEST(EventService, DeliversInDueTime) {
  constexpr int kTicks = 300;
  const auto service = EventService::Create("a name longer than 15", 1000);  // no such priority
  Recorder recorder;
  Semaphore done;
  std::string order;
  int gone = 0;
  int ticks = 0;
  const auto note = [&](const char* name) {
    return [&order, name](Message* message) {
      order += name;
      if (message->when >= TimeUtil::ClockMillis()) order += " too early ";
    };
  };
  service->PostDelay(1, 250, note("d"));  // however long a busy machine stops us in between
  service->PostDelay(1, 0, note("c"));
  service->Post(1, note("a"));
  service->Post(1, note("b"));
  service->PostDelay(1, std::numeric_limits<long>::max(), note("never"));
  for (int id : {4, 5}) service->Post(&recorder, id, std::make_shared<Userdata>([&] { ++gone; }));
  service->Clear(5);
  EXPECT_EQ(gone, 1);
  // A timer every millisecond must not be paid for by watching the clock through the last one.
  const std::function<void(Message*)> tick = [&](Message*) {
    if (++ticks < kTicks) return service->PostDelay(1, 0, tick);
    char name[32] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    EXPECT_STREQ(name, "a name longer t");
    done.Signal();
  };
  service->PostDelay(1, 0, tick);
  testing::internal::CaptureStdout();
  const std::clock_t used = std::clock();  // of the process, where nobody else runs
  EXPECT_EQ(service->Start(), nullptr);
  const std::string log = testing::internal::GetCapturedStdout();
  EXPECT_NE(log.find("priority failed: a name longer t, error: Invalid"), std::string::npos) << log;
  ASSERT_TRUE(done.Wait(kPatienceMs));
  // Spinning takes nearly all of the time, sleeping 2 percent.
  EXPECT_LT(std::clock() - used, kTicks * CLOCKS_PER_SEC / 3000);
  service->Stop();
  EXPECT_EQ(order, "abcd");
  EXPECT_EQ(recorder.seen, 4);
  EXPECT_EQ(gone, 2);
}

// How many of the rounds end late; with posts of a crowd before each, or Clears all the time.
constexpr int kRounds = 300;
int LateWakeUps(bool is_crowd) {
  const auto service = EventService::Create("wake", 50);
  service->Start();
  std::atomic<bool> is_over{false};
  std::thread clearer([&] {
    while (!is_over && !is_crowd) service->Clear(99);
  });
  Semaphore done;
  int late = 0;
  long delay = 1000000000;
  for (int i = 0; i < kRounds; ++i) {
    TimeUtil::SleepMs(1);
    // Each due before all others, so that it wakes.
    for (int k = 0; is_crowd && k < 300; ++k) service->PostDelay(1, --delay, [](Message*) {});
    const int64_t begin = TimeUtil::ClockMillis();
    service->PostDelay(2, i % 3 == 0 ? 1 : -1, [&](Message*) { done.Signal(); });
    EXPECT_TRUE(done.Wait(kPatienceMs));
    late += TimeUtil::ClockMillis() - begin > 60 ? 1 : 0;  // a sleep is 100 ms
  }
  is_over = true;
  clearer.join();
  return late;
}

// No message waits for the end of a sleep that it should have ended: due before the one that the
// service sleeps towards, moved on inside the queue by a Clear that comes between its post and the
// signal, or posted while the service sorts a crowd in, between its look and its sleep.
TEST(EventService, WakeUpsAreNeverLost) {
  constexpr int kFew = kRounds / 30;  // one in fifteen to two are late, were they lost
  for (const bool is_crowd : {false, true}) {
    int late = LateWakeUps(is_crowd);
    // So are some on a busy machine, but not in four passes out of four.
    for (int pass = 1; pass < 4 && late >= kFew; ++pass) late = LateWakeUps(is_crowd);
    EXPECT_LT(late, kFew);
  }
}

// Every post of every thread runs exactly once and in its thread's order, while others clear ids
// that are not theirs and the service is stopped and started under way.
TEST(EventService, LosesNothingUnderLoad) {
  constexpr int kPosters = 4;
  constexpr int kEach = 8000;
  const auto service = EventService::Create("load", 50);
  Semaphore done;
  int next[kPosters] = {};  // this and the next two are touched by the service's thread alone
  int run = 0;
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
        if (k % 64 != 0) continue;
        service->PostDelay(100 + poster, 3600000, [](Message*) {});
        service->Clear(100 + poster);
      }
    });
  }
  for (int i = 0; i < 200; ++i) {  // hangs where a Stop right behind Start is lost
    service->Start();
    if (i % 8 == 0) TimeUtil::SleepMs(1);
    service->Stop();
  }
  service->Start();
  EXPECT_TRUE(done.Wait(kPatienceMs));
  for (std::thread& thread : threads) thread.join();
  service->Stop();
  EXPECT_TRUE(is_ordered);
}

// A Stop waits for the handler that runs and leaves the messages behind it queued; a handler does
// to its own service what any thread may: post, clear, stop, start again.
TEST(EventService, HandlersAndStop) {
  EventService service;
  Semaphore done;
  std::string order;
  service.Stop();
  service.Post(7, [&](Message*) {
    service.Post(8, [&](Message*) { order += "cleared too late"; });
    service.PostDelay(9, 1, [&](Message*) {
      service.Clear(0);
      EXPECT_NE(service.Start(), nullptr);
      service.Stop();
      order += "b";
      done.Signal();
    });
    service.Clear(8);
    service.Clear(7);  // itself: it is not waiting any more
    order += "a";
  });
  EXPECT_EQ(service.Start(), nullptr);
  ASSERT_TRUE(done.Wait(kPatienceMs));
  service.Post(1, [&](Message*) {
    done.Signal();
    TimeUtil::SleepMs(30);
    order += "c";
  });
  EXPECT_EQ(service.Start(), nullptr);
  EXPECT_NE(service.Start(), nullptr);  // refused, the first one goes on
  ASSERT_TRUE(done.Wait(kPatienceMs));
  std::thread other([&] { service.Stop(); });
  service.Stop();
  EXPECT_EQ(order, "abc");
  other.join();
  service.Post(1, [&](Message*) { done.Signal(); });
  EXPECT_FALSE(done.Wait(0));
  service.Start();
  EXPECT_TRUE(done.Wait(kPatienceMs));
  service.Stop();
}

// A Stop beside another thread's Start comes before it or after it; it never waits for a thread
// that nobody stops.
TEST(EventService, StopBesideStartEnds) {
  for (int round = 0; round < 2000; ++round) {
    EventService service;
    std::atomic<int> waiting{2};
    const auto meet = [&waiting] {
      for (--waiting; waiting > 0;) std::this_thread::yield();
    };
    Semaphore ended;
    std::thread starter([&] {
      meet();
      service.Start();
    });
    std::thread stopper([&] {
      meet();
      service.Stop();
      ended.Signal();
    });
    const bool has_ended = ended.Wait(kPatienceMs);
    starter.join();
    service.Stop();  // also of a Start that came last
    stopper.join();
    ASSERT_TRUE(has_ended) << "round " << round;
  }
}

// What a message holds may use the service as it goes, cleared or at the service's own end; and the
// last reference may go on the service's own thread, from a handler or with its data.
TEST(EventService, LifeTimesMayCross) {
  auto service = std::make_unique<EventService>();
  EventService* const raw = service.get();
  int run = 0;
  const auto use_service = [&] {
    raw->Clear(1);
    raw->Post(4, [&](Message*) { ++run; });
  };
  service->Post(nullptr, 3, std::make_shared<Userdata>(use_service));
  service->Clear(3);
  service->Dispatch(false);
  EXPECT_EQ(run, 1);
  for (int i = 0; i < 20; ++i) {
    service->PostDelay(nullptr, 1 + i % 3, 1000 - i, std::make_shared<Userdata>(use_service));
  }
  service.reset();

  for (const bool is_in_handler : {true, false}) {
    Semaphore released;
    Semaphore gone;
    auto end = std::make_shared<Userdata>([&] { gone.Signal(); });
    auto hold = std::make_shared<std::shared_ptr<EventService>>(EventService::Create("last", 50));
    (*hold)->Start();
    (*hold)->Post(1, [is_in_handler, end, hold, &released](Message*) {
      EXPECT_TRUE(released.Wait(kPatienceMs));
      if (is_in_handler) hold->reset();
    });
    hold.reset();
    end.reset();
    released.Signal();
    EXPECT_TRUE(gone.Wait(kPatienceMs));
  }
}

// A child that is forked while a service runs is refused by it, in order, and may let go of it, at
// whatever point of its work the thread was.
TEST(EventService, ForkedChildIsRefused) {
  for (int round = 0; round < 20; ++round) {
    auto service = EventService::Create("parent", 50);
    service->Start();
    std::atomic<bool> is_over{false};
    std::thread poster([&] {
      for (int i = 0; !is_over; ++i) service->PostDelay(1 + i % 9, -1 - i % 7, [](Message*) {});
    });
    test::Child child = test::Child::Fork([&] {
      service->Post(1, [](Message*) {});
      service->Clear(0);
      service->Dispatch(false);
      const bool is_refused = service->Start() != nullptr;
      service->Stop();
      service.reset();
      return is_refused ? 0 : 1;
    });
    EXPECT_EQ(child.Wait(10000), 0) << child.output();
    is_over = true;
    poster.join();
  }
}

// Modules that were built against another release find the operation where it was.
TEST(EventService, HandlerBeginsWithOnMessage) {
  EXPECT_EQ(test::VirtualSlot(&bsp::MessageHandler::OnMessage), 0u);
}

}  // namespace
