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
#include "bsp/net/event_loop.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>

#include "bsp/log/log.h"

namespace bsp {

namespace {

constexpr int kMaxEvents = 1024;               // fetched by one wait
constexpr int kWaitMs = 1000;                  // bounds the time to Stop without Wakeup
constexpr int kEventsPerFlush = 64;            // so that no queued frame waits for a batch of 1024
constexpr uint64_t kWakeupTag = ~uint64_t{0};  // no descriptor is 0xffffffff

// Behind the bytes that wait stands more: a close, or urgent data, which cuts a read short.
constexpr uint32_t kKeepReading = EPOLLRDHUP | EPOLLPRI;

uint32_t EpollFlags(unsigned int mask) {
  uint32_t flags = EPOLLET;
  // The last two bring no event of their own, as a close and urgent data are readable anyway; they
  // tell ShortReadEmpties.
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

EventLoop::EventLoop() : events_(new epoll_event[kMaxEvents]) {
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
  const std::lock_guard<std::recursive_mutex> lock(mutex_);
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
  const std::lock_guard<std::recursive_mutex> lock(mutex_);
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
  const std::lock_guard<std::recursive_mutex> lock(mutex_);
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
  loop_thread_ = std::this_thread::get_id();
  while (!stop_) {
    const int count =
        epoll_wait(epoll_fd_, events_.get(), kMaxEvents, deferred_.empty() ? kWaitMs : 0);
    if (count == -1 && errno != EINTR) {
      BSP_LOG_ERROR(MOD_BSP, "epoll wait failed %d, errno %d", count, errno);
    }
    for (int i = 0; i < count; ++i) {
      Dispatch(events_[static_cast<size_t>(i)]);
      if ((i + 1) % kEventsPerFlush == 0) RunDeferred();
    }
    RunDeferred();
  }
  loop_thread_ = std::thread::id();
  RunDeferred();  // what is still noted writes once more, and from here on Defer refuses
  stop_ = false;  // this Stop is served; the next Loop runs
  BSP_LOG_ERROR(MOD_BSP, "Loop exit.");
}

void EventLoop::Stop() { stop_ = true; }

void EventLoop::Wakeup() {
  const int saved = errno;
  const uint64_t one = 1;
  // Fails only when the counter is full, and then the event is there already.
  const ssize_t written = write(wakeup_fd_, &one, sizeof(one));
  static_cast<void>(written);
  errno = saved;
}

bool EventLoop::Defer(std::shared_ptr<EventHandler> handler) {
  if (handler == nullptr || !IsLoopThread()) return false;
  deferred_.push_back(std::move(handler));
  return true;
}

bool EventLoop::ShortReadEmpties() const {
  return IsLoopThread() && (current_flags_ & kKeepReading) == 0;
}

bool EventLoop::IsLoopThread() const { return loop_thread_ == std::this_thread::get_id(); }

EventHandler* EventLoop::Find(uint64_t tag, std::shared_ptr<void>* pin) {
  const std::lock_guard<std::recursive_mutex> lock(mutex_);
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
  if ((event.events & (EPOLLERR | EPOLLHUP)) != 0) {
    handler->OnError();
    return;
  }
  if ((event.events & EPOLLIN) != 0) {
    current_flags_ = event.events;
    handler->OnRead();
    current_flags_ = kNoEvent;
  }
  if ((event.events & EPOLLOUT) == 0) return;
  handler = Find(event.data.u64, &pin);  // OnRead may have removed it
  if (handler != nullptr) handler->OnWrite();
}

void EventLoop::RunDeferred() {
  running_deferred_.swap(deferred_);  // who is called may ask for the next turn
  for (const std::shared_ptr<EventHandler>& handler : running_deferred_) handler->OnWrite();
  running_deferred_.clear();
}

}  // namespace bsp
