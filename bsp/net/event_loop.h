// The reactor: turns readiness of sockets into calls of their handlers.
#ifndef BSP_NET_EVENT_LOOP_H_
#define BSP_NET_EVENT_LOOP_H_

#include <sys/epoll.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "bsp/base/macros.h"
#include "bsp/base/socket.h"

namespace bsp {

// What a registered socket is watched for.
enum EventMask : unsigned int {
  EVENT_READ = 1,   // data, a connection or the peer's close has arrived
  EVENT_WRITE = 2,  // the socket can take bytes again
  EVENT_ERROR = 4   // error or hang-up; reported whether asked for or not
};

// Called by the loop, on its thread. Registrations are edge-triggered: a handler goes on until its
// socket would block, else it hears nothing more of what it left.
class BSP_EXPORT EventHandler {
 public:
  virtual ~EventHandler();
  virtual void OnRead() = 0;
  virtual void OnWrite() = 0;
  virtual void OnError() = 0;
};

// One epoll set, a table from descriptor to handler, and the loop over both. It has no thread of
// its own: whoever owns it calls Loop on one.
//
// Threads: AddEvent, UpdateEvent, RemoveEvent, Stop and Wakeup from any thread and from handlers;
// Loop on one thread at a time; Defer and ShortReadEmpties as told there. No lock is held while a
// handler runs.
class BSP_EXPORT EventLoop {
 public:
  EventLoop();
  // The thread that ran Loop has ended by now.
  virtual ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // False when the system had no descriptor left for the set: nothing can be registered then, and
  // Loop must not be called.
  bool IsValid() const { return epoll_fd_ != -1; }

  // Registers `socket` with `handler`. False, after a log line, for an invalid descriptor or one
  // that is registered already, whose first handler then stays; false without one for a null
  // argument. The loop owns neither: the handler is removed before it dies.
  bool AddEvent(const std::shared_ptr<Socket>& socket, unsigned int mask, EventHandler* handler);

  // The same for a handler that may die on another thread than the loop's: the loop holds `owner`
  // while it calls the handler, and drops the events of one whose owner is gone.
  bool AddEvent(const std::shared_ptr<Socket>& socket, unsigned int mask, EventHandler* handler,
                const std::weak_ptr<void>& owner);

  // Changes the mask and arms the socket anew: what is ready now is reported once more, whether the
  // mask changed or not. False, after a log line, when the socket is not registered.
  bool UpdateEvent(const std::shared_ptr<Socket>& socket, unsigned int mask);

  // Events of the socket that are already fetched are dropped. True also for a socket that is not
  // registered; false, after a log line, for null or an invalid descriptor.
  bool RemoveEvent(const std::shared_ptr<Socket>& socket);

  // Calls handlers until Stop. May be called again after it has returned. Without an event it
  // wakes once a second.
  void Loop();

  // Makes Loop return, at the latest when the wait in hand ends (one second) and its events are
  // handled; with Wakeup behind it, at once. A Stop while no Loop runs makes the next Loop return
  // at once.
  void Stop();

  // Ends the wait in hand, or the next one, at once. Safe in a signal handler.
  void Wakeup();

  // From a handler, on the loop's thread: calls handler->OnWrite() once the events at hand are
  // done (at the latest after 64 of them), and holds the handler until then. So that what many
  // events have queued for one connection leaves in one system call. False, with nothing noted, for
  // null, on any other thread and while no Loop runs.
  bool Defer(std::shared_ptr<EventHandler> handler);

  // From OnRead: true when a read that comes back short has emptied the socket for sure, so that
  // nobody needs to read on until it would block. What arrives behind it, the close included, is an
  // event of its own. False in any other place.
  bool ShortReadEmpties() const;

 private:
  struct Entry {
    EventHandler* handler;
    unsigned int mask;    // as last given
    uint32_t generation;  // tells this registration from others of the same number
    bool has_owner;       // `owner` counts
    std::weak_ptr<void> owner;
  };

  bool Register(const std::shared_ptr<Socket>& socket, unsigned int mask, EventHandler* handler,
                bool has_owner, const std::weak_ptr<void>& owner);
  bool IsLoopThread() const;
  // The handler of a fetched event, with *pin holding its owner; null when the registration that
  // the event belongs to is gone.
  EventHandler* Find(uint64_t tag, std::shared_ptr<void>* pin);
  void Dispatch(const epoll_event& event);
  void RunDeferred();

  int epoll_fd_ = -1;
  int wakeup_fd_ = -1;
  std::unique_ptr<epoll_event[]> events_;  // of the loop thread

  std::atomic<bool> stop_{false};
  std::atomic<std::thread::id> loop_thread_{std::thread::id()};  // none while no Loop runs

  std::recursive_mutex mutex_;  // guards the fields below
  std::unordered_map<int, Entry> handlers_;
  uint32_t last_generation_ = 0;

  // Of the loop thread.
  std::vector<std::shared_ptr<EventHandler>> deferred_;
  std::vector<std::shared_ptr<EventHandler>> running_deferred_;  // kept for its memory
  uint32_t current_flags_ = kNoEvent;

  static constexpr uint32_t kNoEvent = 0xffffffff;
};

}  // namespace bsp

#endif  // BSP_NET_EVENT_LOOP_H_
