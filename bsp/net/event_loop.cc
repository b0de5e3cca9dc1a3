// How the loop stays correct while handlers come and go
// -----------------------------------------------------
// One epoll_wait fetches up to 1024 events. While they are handled one after the other, any handler
// may remove any other, close its descriptor, and open a new one that gets the same number; other
// threads may do so too. Three rules keep a fetched event from reaching the wrong object:
//
//  - Each registration has a generation, a number of its own. It travels beside the descriptor in
//    the event's user data, and an event whose generation is not the one in the table is dropped.
//    Looking for the descriptor alone would hand the old event to the new owner of the number.
//  - The table is looked up again before each call, never remembered over one.
//  - A handler that may die on another thread registers with its owner, a weak pointer. The look-up
//    turns it into a strong one under the mutex, so that the handler lives through its call; when
//    that fails, its destructor is already on the way to RemoveEvent and the event is dropped. A
//    RemoveEvent that waits for a running callback would do as well, and would dead-lock whoever
//    calls it with a lock that the callback wants.
//
// Registrations are edge-triggered. That costs no system call for a socket that stays readable or
// writable, and it means that EPOLL_CTL_MOD is what reports a state that has not changed.
//
// The wake-up is an eventfd in the same set. As it is edge-triggered too, each write is an event
// and nobody ever has to read it; its counter would overflow after 2^64 - 2 wake-ups.
//
// A handler that stops before its socket would block (its turn is over, it waits for somebody, the
// system is short of memory) is not told again by an edge. It asks for its next call itself:
// CallAgain for the end of the batch, CallAt for a time. Arming the socket anew would do as well,
// and would cost two system calls and report what nobody asked for.
//
// After a fork the epoll set is shared with the child, and a change by one is felt by the other: a
// child that closes what it inherited would make its parent deaf. The lock may be held by a thread
// that the child does not have. So the mark of the process is looked at first.
#include "bsp/net/event_loop.h"

#include <cxxabi.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iterator>
#include <limits>
#include <new>

#include "bsp/log/log.h"

namespace bsp {

namespace {

constexpr int kMaxEvents = 1024;               // fetched by one wait
constexpr int kWaitMs = 1000;                  // bounds the time to Stop without Wakeup
constexpr int kEventsPerFlush = 64;            // so that no queued frame waits for a batch of 1024
constexpr uint64_t kWakeupTag = ~uint64_t{0};  // no descriptor is 0xffffffff
constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

constexpr int64_t kLackingMs = 5000;   // without memory for so long, it is not going to come
constexpr size_t kProbeBytes = 65536;  // more than any step of ours allocates but for large frames
constexpr size_t kAreaBytes = 102400;
constexpr std::align_val_t kPage{4096};

// Behind the bytes that wait stands more: a close, or urgent data, which cuts a read short.
constexpr uint32_t kKeepReading = EPOLLRDHUP | EPOLLPRI;

uint32_t EpollFlags(unsigned int mask) {
  uint32_t flags = EPOLLET;
  // The last two bring no event of their own, as a close and urgent data are readable anyway; they
  // tell OnReadToEnd.
  if ((mask & EVENT_READ) != 0) flags |= EPOLLIN | kKeepReading;
  if ((mask & EVENT_WRITE) != 0) flags |= EPOLLOUT;
  if ((mask & EVENT_ERROR) != 0) flags |= EPOLLERR | EPOLLHUP;
  return flags;
}

epoll_event MakeEvent(unsigned int mask, int fd, uint32_t generation) {
  epoll_event event = {};
  event.events = EpollFlags(mask);
  event.data.u64 = uint64_t{generation} << 32 | static_cast<uint32_t>(fd);
  return event;
}

int TagFd(uint64_t tag) { return static_cast<int>(static_cast<uint32_t>(tag)); }

uint32_t TagGeneration(uint64_t tag) { return static_cast<uint32_t>(tag >> 32); }

}  // namespace

EventHandler::~EventHandler() = default;

void EventHandler::OnReadToEnd() {}

EventLoop::EventLoop() : events_(new epoll_event[kMaxEvents]), next_call_ms_(kNever) {
  epoll_fd_ = epoll_create1(EPOLL_CLOEXEC);
  if (epoll_fd_ == -1) {
    BSP_LOG_ERROR(MOD_BSP, "epoll_create1 failed %d, errno %d", epoll_fd_, errno);
    return;
  }
  wakeup_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  epoll_event event = {};
  event.events = EPOLLIN | EPOLLET;
  event.data.u64 = kWakeupTag;
  if (wakeup_fd_ == -1 || epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, wakeup_fd_, &event) == -1) {
    // The loop works without; Stop then takes up to a second.
    BSP_LOG_ERROR(MOD_BSP, "eventfd failed %d, errno %d", wakeup_fd_, errno);
  }
}

EventLoop::~EventLoop() {
  Stop();
  Socket::Close(wakeup_fd_);
  Socket::Close(epoll_fd_);
}

bool EventLoop::AddEvent(const std::shared_ptr<Socket>& socket, unsigned int mask,
                         EventHandler* handler) {
  return Register(socket, mask, handler, false, {});
}

bool EventLoop::AddEvent(const std::shared_ptr<Socket>& socket, unsigned int mask,
                         EventHandler* handler, const std::weak_ptr<void>& owner) {
  return Register(socket, mask, handler, true, owner);
}

bool EventLoop::Register(const std::shared_ptr<Socket>& socket, unsigned int mask,
                         EventHandler* handler, bool has_owner, const std::weak_ptr<void>& owner) {
  if (socket == nullptr || handler == nullptr) return false;
  if (process_.IsForeign()) return false;  // not even logged: the log has locks of its own
  const std::lock_guard<PiRecursiveMutex> lock(mutex_);
  const int fd = socket->GetNativeSocket();
  if (fd == -1) {
    BSP_LOG_ERROR(MOD_BSP, "socket %d is invalid.", fd);
    return false;
  }
  const uint32_t generation = ++last_generation_;
  epoll_event event = MakeEvent(mask, fd, generation);
  if (epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &event) == -1) {
    BSP_LOG_ERROR(MOD_BSP, "epoll_ctl add failed %d, errno %d", fd, errno);
    return false;
  }
  handlers_[fd] = Entry{handler, mask, generation, has_owner, owner};
  return true;
}

bool EventLoop::UpdateEvent(const std::shared_ptr<Socket>& socket, unsigned int mask) {
  if (socket == nullptr) {
    BSP_LOG_ERROR(MOD_BSP, "socket is null.");
    return false;
  }
  if (process_.IsForeign()) return false;
  const std::lock_guard<PiRecursiveMutex> lock(mutex_);
  const int fd = socket->GetNativeSocket();
  const auto found = handlers_.find(fd);
  if (found == handlers_.end()) {
    BSP_LOG_ERROR(MOD_BSP, "socket %d not found in handlers.", fd);
    return false;
  }
  found->second.mask = mask;
  epoll_event event = MakeEvent(mask, fd, found->second.generation);
  if (epoll_ctl(epoll_fd_, EPOLL_CTL_MOD, fd, &event) == -1) {
    BSP_LOG_ERROR(MOD_BSP, "epoll_ctl mod failed %d, errno %d", fd, errno);
    return false;
  }
  return true;
}

bool EventLoop::RemoveEvent(const std::shared_ptr<Socket>& socket) {
  if (socket == nullptr) {
    BSP_LOG_ERROR(MOD_BSP, "socket is null.");
    return false;
  }
  if (process_.IsForeign()) return false;
  const std::lock_guard<PiRecursiveMutex> lock(mutex_);
  const int fd = socket->GetNativeSocket();
  if (fd == -1) {
    BSP_LOG_ERROR(MOD_BSP, "socket %d is invalid.", fd);
    return false;
  }
  epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, fd, nullptr);  // fails for one that is not registered
  handlers_.erase(fd);
  return true;
}

void EventLoop::Loop() {
  if (process_.IsForeign()) return;
  loop_thread_ = std::this_thread::get_id();
  // A handler may fork, and return in the child.
  while (!stop_ && !process_.IsForeign()) {
    const int count = epoll_wait(epoll_fd_, events_.get(), kMaxEvents, WaitMs());
    if (count == -1 && errno != EINTR) {
      BSP_LOG_ERROR(MOD_BSP, "epoll wait failed %d, errno %d", count, errno);
    }
    for (int i = 0; i < count; ++i) {
      Dispatch(events_[static_cast<size_t>(i)]);
      if ((i + 1) % kEventsPerFlush == 0) RunAgain();
    }
    RunAgain();
    if (next_call_ms_ != kNever) RunTimedCalls();
    if (lacking_since_ms_ != 0) LookForMemory();
  }
  loop_thread_ = std::thread::id();
  RunAgain();  // what was queued for sending goes out; nobody stays noted behind the end
  again_.clear();
  stop_ = false;  // this Stop is served; the next Loop runs
  BSP_LOG_ERROR(MOD_BSP, "Loop exit.");
}

int EventLoop::WaitMs() const {
  if (!again_.empty() || has_incoming_) return 0;
  const int64_t next_ms = next_call_ms_;
  if (next_ms == kNever) return kWaitMs;
  return static_cast<int>(std::clamp(next_ms - NowMs(), int64_t{0}, int64_t{kWaitMs}));
}

void EventLoop::Stop() { stop_ = true; }

void EventLoop::Wakeup() {
  if (process_.IsForeign()) return;
  const int saved = errno;
  const uint64_t one = 1;
  // Fails only when the counter is full, and then the event is there already.
  const ssize_t written = write(wakeup_fd_, &one, sizeof(one));
  static_cast<void>(written);
  errno = saved;
}

bool EventLoop::CallAgain(std::weak_ptr<EventHandler> handler, EventMask what) {
  if (handler.expired() || process_.IsForeign()) return false;
  if (IsLoopThread()) {
    again_.push_back({std::move(handler), what});
    return true;
  }
  {
    const std::lock_guard<PiRecursiveMutex> lock(mutex_);
    incoming_.push_back({std::move(handler), what});
    has_incoming_ = true;
  }
  Wakeup();
  return true;
}

uint64_t EventLoop::CallAt(int64_t at_ms, std::function<void()> call) {
  if (process_.IsForeign()) return 0;
  uint64_t id = 0;
  {
    const std::lock_guard<PiRecursiveMutex> lock(mutex_);
    id = ++last_call_id_;
    timed_calls_.emplace(std::make_pair(at_ms, id), std::move(call));
    FindNextCall();
  }
  if (!IsLoopThread()) Wakeup();
  return id;
}

bool EventLoop::CancelCall(uint64_t id) {
  if (process_.IsForeign()) return false;
  const std::lock_guard<PiRecursiveMutex> lock(mutex_);
  const auto found = std::find_if(timed_calls_.begin(), timed_calls_.end(),
                                  [id](const auto& call) { return call.first.second == id; });
  if (found == timed_calls_.end()) return false;
  timed_calls_.erase(found);
  FindNextCall();
  return true;
}

// With mutex_ held.
void EventLoop::FindNextCall() {
  next_call_ms_ = timed_calls_.empty() ? kNever : timed_calls_.begin()->first.first;
}

int64_t EventLoop::NowMs() {
  struct timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

bool EventLoop::IsLoopThread() const { return loop_thread_ == std::this_thread::get_id(); }

EventHandler* EventLoop::Find(uint64_t tag, std::shared_ptr<void>* pin) {
  const std::lock_guard<PiRecursiveMutex> lock(mutex_);
  const auto found = handlers_.find(TagFd(tag));
  if (found == handlers_.end() || found->second.generation != TagGeneration(tag)) return nullptr;
  if (found->second.has_owner) {
    *pin = found->second.owner.lock();
    if (*pin == nullptr) return nullptr;
  }
  return found->second.handler;
}

void EventLoop::Dispatch(const epoll_event& event) {
  if (event.data.u64 == kWakeupTag) return;
  std::shared_ptr<void> pin;  // released without the mutex: it may run the handler's destructor
  EventHandler* handler = Find(event.data.u64, &pin);
  if (handler == nullptr) return;
  Contained(handler, [&] {
    if ((event.events & (EPOLLERR | EPOLLHUP)) != 0) {
      handler->OnError();
      return;
    }
    if ((event.events & kKeepReading) != 0) handler->OnReadToEnd();
    if ((event.events & EPOLLIN) != 0) handler->OnRead();
  });
  if ((event.events & (EPOLLERR | EPOLLHUP)) != 0 || (event.events & EPOLLOUT) == 0) return;
  handler = Find(event.data.u64, &pin);  // OnRead may have removed it
  if (handler != nullptr) Contained(handler, [=] { handler->OnWrite(); });
}

void EventLoop::RunAgain() {
  if (has_incoming_) {
    const std::lock_guard<PiRecursiveMutex> lock(mutex_);
    std::move(incoming_.begin(), incoming_.end(), std::back_inserter(again_));
    incoming_.clear();
    has_incoming_ = false;
  }
  running_again_.swap(again_);  // who is called may ask for the next turn
  for (const Again& again : running_again_) {
    const std::shared_ptr<EventHandler> handler = again.handler.lock();
    if (handler == nullptr) continue;
    Contained(handler.get(), [&] {
      if (again.what == EVENT_READ) handler->OnRead();
      if (again.what == EVENT_WRITE) handler->OnWrite();
      if (again.what == EVENT_ERROR) handler->OnError();
    });
  }
  running_again_.clear();
}

// A call that notes itself again for now has its turn after the next wait.
void EventLoop::RunTimedCalls() {
  const int64_t now_ms = NowMs();
  if (next_call_ms_ > now_ms) return;
  TimedCalls due;
  {
    const std::lock_guard<PiRecursiveMutex> lock(mutex_);
    while (!timed_calls_.empty() && timed_calls_.begin()->first.first <= now_ms) {
      due.insert(timed_calls_.extract(timed_calls_.begin()));
    }
    FindNextCall();
  }
  for (const auto& entry : due) Contained(nullptr, [&] { entry.second(); });
}

template <typename Call>
void EventLoop::Contained(EventHandler* handler, const Call& call) {
  if (!contains_failures_) {
    call();
    return;
  }
  try {
    call();
  } catch (const abi::__forced_unwind&) {
    throw;  // the end of a thread that was cancelled
  } catch (const std::exception& failure) {
    HandleFailure(handler, failure.what());
  } catch (...) {
    HandleFailure(handler, "an exception of unknown type");
  }
}

void EventLoop::RunContained(void (*run)(const void*), const void* call) {
  Contained(nullptr, [=] { run(call); });
}

void EventLoop::HandleFailure(EventHandler* handler, const char* what) {
  BSP_LOG_ERROR(MOD_BSP, "handler failed: %s, what it served is closed", what);
  LookForMemory();
  if (handler == nullptr) return;
  try {
    handler->OnError();
  } catch (const abi::__forced_unwind&) {
    throw;
  } catch (...) {
    GiveUp(what);
  }
}

// After a failure, and then at each turn until memory is there again: a broker that nobody connects
// to any more fails no more either.
void EventLoop::LookForMemory() {
  void* const probe = malloc(kProbeBytes);
  const bool is_there = probe != nullptr;
  free(probe);
  const int64_t now_ms = NowMs();
  if (is_there) {
    lacking_since_ms_ = 0;
  } else if (lacking_since_ms_ == 0) {
    lacking_since_ms_ = now_ms;
  } else if (now_ms - lacking_since_ms_ >= kLackingMs) {
    GiveUp("no memory");
  }
}

char* EventLoop::ReceiveArea() {
  if (receive_area_ == nullptr) {
    receive_area_.reset(static_cast<char*>(::operator new(kAreaBytes, kPage)));
  }
  return receive_area_.get();
}

void EventLoop::FreeArea::operator()(char* area) const { ::operator delete(area, kPage); }

void EventLoop::GiveUp(const char* why) {
  if (!failure_text_.empty()) return;
  failure_text_.assign(why, std::min(strlen(why), size_t{15}));  // the text fits without memory
  stop_ = true;
}

}  // namespace bsp
