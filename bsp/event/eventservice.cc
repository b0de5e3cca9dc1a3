// The event service: one thread, one queue, one semaphore to sleep on.
//
// The thread makes pass after pass. A pass looks at the first message under the queue mutex. A due
// one is taken out and run with the mutex released, so that handlers may post, clear and stop.
// Otherwise the pass sleeps on the semaphore until the first message falls due, and never longer
// than 100 ms.
//
// What must always hold: no thread sleeps past a message that could run. A pass that finds nothing
// to do announces in asleep_until_ the due time that it is going to sleep towards, in the same hold
// of the mutex in which it looked, and then looks whether something was posted meanwhile. A post
// leaves its message first and then compares its own due time with asleep_until_. So whichever
// comes second sees the other, and a signal that comes before the sleep leaves a count that ends it
// at once. What the queue holds by then does not matter: whoever moved the new message on inside
// it, another post or a Clear, did not move the time at which the thread gets up.
//
// A message that is due after that time wakes nobody and costs no lock. A signal takes the
// announcement back, so that a burst of posts costs one signal rather than one each.
//
// Behind the last message the thread looks out for the next one for 2 microseconds, the cost of one
// sleep and wake, before it sleeps. Else a thread of real-time priority, which is switched in for
// each signal at once, sleeps and wakes for every single message of a burst. Not on the core of the
// thread that woke it last: whoever is to post needs it.
//
// Due times are whole milliseconds and a message runs once the clock has passed its own: the thread
// sleeps, in nanoseconds, to the beginning of the next millisecond. Looking at the clock again and
// again instead would burn up to a millisecond of processor time for each delayed message.
//
// Stop clears running_ before it signals; Start sets it before the thread exists, and the thread
// itself never sets it. Start, and Stop on any thread but the service's own, do so under
// control_mutex_, so that a Stop never joins a thread that was started after it had cleared
// running_. So no order of the two can lose a Stop or wait for a thread that nobody stops.
#include "bsp/event/eventservice.h"

#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <limits>
#include <new>
#include <system_error>
#include <utility>

#include "bsp/base/process.h"
#include "bsp/event/message_queue.h"
#include "bsp/log/log.h"
#include "bsp/util/time_util.h"

namespace bsp {
namespace {

const std::shared_ptr<MSError> kOk;

constexpr int64_t kNanosPerMilli = 1000000;
constexpr int64_t kNanosPerSecond = 1000000000;
constexpr int64_t kLongestWaitNanos = 100 * kNanosPerMilli;
constexpr int64_t kLingerNanos = 2000;
constexpr size_t kThreadNameLength = 15;  // kernel limit without the terminator

// The clock of TimeUtil::ClockMillis, in nanoseconds.
int64_t ClockNanos() {
  struct timespec now = {};
  clock_gettime(CLOCK_MONOTONIC_RAW, &now);
  return static_cast<int64_t>(now.tv_sec) * kNanosPerSecond + now.tv_nsec;
}

// What a thread sleeps towards when nothing is queued: every post is due before it.
constexpr int64_t kNoDueTime = std::numeric_limits<int64_t>::max();

// At least 1, whatever the delay: 0 marks the immediate messages, which come before all others.
int64_t DueTime(long delay_ms) {
  const int64_t now = TimeUtil::ClockMillis();
  if (delay_ms <= -now) return 1;
  constexpr int64_t kLatest = std::numeric_limits<int64_t>::max();
  return delay_ms > kLatest - now ? kLatest : now + delay_ms;
}

// Nanoseconds until a message of this due time may run, 0 when it may now, at most
// kLongestWaitNanos.
int64_t TimeToRun(int64_t when) {
  if (when == 0) return 0;  // an immediate message; saves the look at the clock
  const int64_t now_ns = ClockNanos();
  const int64_t now = now_ns / kNanosPerMilli;
  if (when < now) return 0;
  if (when - now >= kLongestWaitNanos / kNanosPerMilli) return kLongestWaitNanos;
  return (when + 1) * kNanosPerMilli - now_ns;
}

}  // namespace

// A thread's stay in the dispatch of a service; the stays of one thread form a chain.
struct EventService::Loop {
  Loop(EventService* dispatched, bool own_thread)
      : service(dispatched), is_own_thread(own_thread), outer(innermost) {
    innermost = this;
  }
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;
  ~Loop() { innermost = outer; }

  EventService* service;  // null when a handler of this very loop has destroyed it
  const bool is_own_thread;
  bool has_run = false;  // a message, since it last looked out for more
  Loop* const outer;

  static thread_local Loop* innermost;
};

thread_local EventService::Loop* EventService::Loop::innermost = nullptr;

std::shared_ptr<EventService> EventService::Create(const std::string& name, int priority) {
  auto service = std::make_shared<EventService>();
  service->name_ = name;
  service->priority_ = priority;
  service->Init();  // Start tries again and tells
  return service;
}

EventService::EventService() : queue_(std::make_unique<MessageQueue>()) {}

EventService::~EventService() {
  if (IsForeign()) {
    // The thread, which is not here, may have been at work on the queue; and its object would ask
    // to be joined.
    static_cast<void>(queue_.release());
    static_cast<void>(new (std::nothrow) std::thread(std::move(thread_)));
    return;
  }
  Stop();
  for (Loop* loop = Loop::innermost; loop != nullptr; loop = loop->outer) {
    if (loop->service == this) loop->service = nullptr;
  }
  if (thread_.joinable()) {
    BSP_LOG_ERROR(MOD_BSP, "service %s destroyed on its own thread", name_.c_str());
    thread_.detach();  // nobody is left who could join it
  }
  Clear(0);  // while all stands: what the messages hold may use the service as it goes
}

std::shared_ptr<MSError> EventService::Init() {
  const std::lock_guard<PiMutex> lock(queue_mutex_);
  if (semaphore_) return kOk;
  try {
    semaphore_ = std::make_shared<Semaphore>(0);
  } catch (const std::bad_alloc&) {
    BSP_LOG_ERROR(MOD_BSP, "make_shared<Semaphore>(0) failed");
    return BSP_NEW_ERROR(-1, "make_shared<Semaphore>(0) failed");
  }
  return kOk;
}

bool EventService::IsForeign() const {
  const pid_t process = started_in_.load(std::memory_order_relaxed);
  return process != 0 && process != ProcessId();
}

bool EventService::Refuses(const char* operation) const {
  if (!IsForeign()) return false;
  BSP_LOG_ERROR(MOD_BSP, "%s: service %s runs in process %d, from which this one was forked",
                operation, name_.c_str(), started_in_.load());
  return true;
}

std::shared_ptr<MSError> EventService::Start() {
  if (Refuses("Start")) {
    return BSP_NEW_ERROR(-1, "service %s runs in another process", name_.c_str());
  }
  if (IsOwnThread()) {
    BSP_LOG_ERROR(MOD_BSP, "service %s cannot start from its own thread", name_.c_str());
    return BSP_NEW_ERROR(-1, "service %s cannot start from its own thread", name_.c_str());
  }
  if (auto error = Init(); error != kOk) return error;
  const std::lock_guard<std::mutex> lock(control_mutex_);
  if (thread_.joinable()) {
    if (running_) {
      BSP_LOG_ERROR(MOD_BSP, "service %s is running already", name_.c_str());
      return BSP_NEW_ERROR(-1, "service %s is running already", name_.c_str());
    }
    thread_.join();  // stopped on its own thread
  }
  running_ = true;
  started_in_ = ProcessId();
  try {
    thread_ = std::thread([this] {
      Loop loop(this, true);
      if (running_) RunLoop(&loop);
    });
  } catch (const std::system_error& refused) {
    running_ = false;
    started_in_ = 0;
    BSP_LOG_ERROR(MOD_BSP, "service %s gets no thread: %s", name_.c_str(), refused.what());
    return BSP_NEW_ERROR(-1, "service %s gets no thread: %s", name_.c_str(), refused.what());
  }
  SetUpThread();
  return kOk;
}

void EventService::SetUpThread() {
  const std::string thread_name = name_.substr(0, kThreadNameLength);
  int refused = pthread_setname_np(thread_.native_handle(), thread_name.c_str());
  if (refused != 0) {
    BSP_LOG_ERROR(MOD_BSP, "set thread name failed: %s, error: %s", thread_name.c_str(),
                  strerror(refused));
  }
  struct sched_param scheduling = {};
  scheduling.sched_priority = priority_;
  refused = pthread_setschedparam(thread_.native_handle(), SCHED_FIFO, &scheduling);
  if (refused != 0) {
    BSP_LOG_ERROR(MOD_BSP, "set thread priority failed: %s, error: %s", thread_name.c_str(),
                  strerror(refused));
  }
}

void EventService::Stop() {
  if (Refuses("Stop")) return;
  if (IsOwnThread()) return EndLoops();  // a join would wait for itself
  const std::lock_guard<std::mutex> lock(control_mutex_);
  EndLoops();
  if (thread_.joinable()) thread_.join();
  started_in_ = 0;
}

void EventService::EndLoops() {
  running_ = false;
  std::shared_ptr<Semaphore> semaphore;
  {
    const std::lock_guard<PiMutex> lock(queue_mutex_);
    semaphore = semaphore_;
  }
  if (semaphore) semaphore->Signal();
}

bool EventService::IsOwnThread() const {
  for (const Loop* loop = Loop::innermost; loop != nullptr; loop = loop->outer) {
    if (loop->service == this && loop->is_own_thread) return true;
  }
  return false;
}

void EventService::Post(MessageHandler* handler, int id,
                        std::shared_ptr<MessageUserdata> userdata) {
  Enqueue(handler, id, 0, std::move(userdata), nullptr);
}

void EventService::PostDelay(MessageHandler* handler, int id, long delay_ms,
                             std::shared_ptr<MessageUserdata> userdata) {
  Enqueue(handler, id, DueTime(delay_ms), std::move(userdata), nullptr);
}

void EventService::Post(int id, std::function<void(Message*)> func) {
  Enqueue(nullptr, id, 0, nullptr, std::move(func));
}

void EventService::PostDelay(int id, long delay_ms, std::function<void(Message*)> func) {
  Enqueue(nullptr, id, DueTime(delay_ms), nullptr, std::move(func));
}

void EventService::Enqueue(MessageHandler* handler, int id, int64_t when,
                           std::shared_ptr<MessageUserdata> userdata,
                           std::function<void(Message*)> func) try {
  if (Refuses("Post")) return;
  auto message = std::make_unique<QueuedMessage>();
  message->id = id;
  message->when = when;
  message->handler = handler;
  message->userdata = std::move(userdata);
  message->func = std::move(func);

  queue_->Post(std::move(message));
  // Pairs with the store in EnterSleep.
  if (when < asleep_until_.load(std::memory_order_seq_cst)) WakeSleepers(when);
} catch (const std::bad_alloc&) {
  BSP_LOG_ERROR(MOD_BSP, "make_shared<Message>() failed");
}

void EventService::WakeSleepers(int64_t when) {
  std::shared_ptr<Semaphore> semaphore;
  int sleepers = 0;
  {
    const std::lock_guard<PiMutex> lock(queue_mutex_);
    if (when >= asleep_until_) return;  // another post was faster
    asleep_until_ = kNobodySleeps;
    woken_from_ = sched_getcpu();
    sleepers = sleepers_;
    semaphore = semaphore_;
  }
  // Behind the lock, which the woken thread takes at once. The service itself may be gone by now,
  // if the message was the last that its owner waited for.
  for (; sleepers > 0; --sleepers) semaphore->Signal();
}

void EventService::Clear(int id) {
  if (id < 0 || Refuses("Clear")) return;
  MessageQueue removed;  // destroyed after the lock: what messages hold may post in turn
  const std::lock_guard<PiMutex> lock(queue_mutex_);
  if (id == 0) {
    queue_->RemoveAll(&removed);
  } else {
    queue_->Remove(id, &removed);
  }
}

void EventService::Dispatch(bool run) {
  if (Refuses("Dispatch")) return;
  if (Init() != kOk) return;  // nothing to sleep on; the log says so
  running_ = run;
  Loop loop(this, false);
  RunLoop(&loop);
}

void EventService::RunLoop(Loop* loop) {
  while (RunPass(loop) && running_) {
  }
}

// False when a handler destroyed the service: nothing of it may be touched then.
bool EventService::RunPass(Loop* loop) {
  int64_t wait_ns = 0;
  bool lingers = loop->has_run;
  std::unique_ptr<QueuedMessage> message = TakeDue(&wait_ns, &lingers);
  if (!message) {
    loop->has_run = false;
    lingers ? Linger(wait_ns) : Wait(wait_ns);
    return true;
  }
  loop->has_run = true;
  if (message->handler != nullptr) message->handler->OnMessage(message.get());
  if (message->func) message->func(message.get());
  message.reset();
  return loop->service != nullptr;
}

// The first message if it is due. Else null, with the time to sleep. The caller is then announced
// as a sleeper, unless it wants to look out first and nobody on this core is to post.
std::unique_ptr<QueuedMessage> EventService::TakeDue(int64_t* wait_ns, bool* lingers) {
  const std::lock_guard<PiMutex> lock(queue_mutex_);
  for (;;) {
    const Message* const first = queue_->First();
    *wait_ns = first != nullptr ? TimeToRun(first->when) : kLongestWaitNanos;
    if (*wait_ns == 0) return queue_->PopFirst();
    *lingers = *lingers && woken_from_ != sched_getcpu();
    if (*lingers) return nullptr;
    EnterSleep(first != nullptr ? first->when : kNoDueTime);
    // Told first, then looked: a post either sees the sleeper or is seen here.
    if (!queue_->HasPosted()) return nullptr;
    LeaveSleep();
  }
}

void EventService::EnterSleep(int64_t due_time) {
  ++sleepers_;
  asleep_until_.store(std::max(asleep_until_.load(), due_time), std::memory_order_seq_cst);
}

// Behind one of several sleepers it is not known any more which times the others sleep towards, nor
// which of them a signal has reached: then every post wakes them.
void EventService::LeaveSleep() {
  --sleepers_;
  asleep_until_ = sleepers_ > 0 ? kNoDueTime : kNobodySleeps;
}

void EventService::Linger(int64_t wait_ns) const {
  const int64_t end = ClockNanos() + std::min(wait_ns, kLingerNanos);
  while (!queue_->HasPosted() && ClockNanos() < end) {
  }
}

void EventService::Wait(int64_t wait_ns) {
  // The semaphore is never exchanged once it is set, and set before any thread comes here. What
  // ended the wait does not matter; a count too many ends a later wait early.
  semaphore_->WaitNanos(wait_ns);
  const std::lock_guard<PiMutex> lock(queue_mutex_);
  LeaveSleep();
}

}  // namespace bsp
