// The reactor: turns readiness of sockets into calls of their handlers.
#ifndef BSP_NET_EVENT_LOOP_H_
#define BSP_NET_EVENT_LOOP_H_

#include <sys/epoll.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "bsp/base/macros.h"
#include "bsp/base/pi_mutex.h"
#include "bsp/base/process.h"
#include "bsp/base/socket.h"

namespace bsp {

// What a registered socket is watched for.
enum EventMask : unsigned int {
  EVENT_READ = 1,   // data, a connection or the peer's close has arrived
  EVENT_WRITE = 2,  // the socket can take bytes again
  EVENT_ERROR = 4   // error or hang-up; reported whether asked for or not
};

// Called by the loop, on its thread. Registrations are edge-triggered: a handler goes on until its
// socket would block, or asks the loop to call it again, else it hears nothing more of what it
// left.
class BSP_EXPORT EventHandler {
 public:
  virtual ~EventHandler();
  virtual void OnRead() = 0;
  virtual void OnWrite() = 0;
  virtual void OnError() = 0;

  // Called before OnRead when more than bytes waits: the peer's close, or urgent data, which cuts a
  // read short. From then on only a read that would block shows that the socket is empty; until
  // then a short one does, since what arrives behind it is an event of its own.
  virtual void OnReadToEnd();
};

// One epoll set, a table from descriptor to handler, a list of who wants to be called again, and
// the loop over the three. It has no thread of its own: whoever owns it calls Loop on one.
//
// Threads: any, and from handlers; but Loop on one thread at a time, and SetContainFailures before
// it. No lock is held while a handler or a timed call runs.
//
// Forks: in a child of the process that made it the loop is dead. AddEvent, UpdateEvent,
// RemoveEvent, CallAgain, CallAt and Wakeup then touch nothing and answer false, Loop returns at
// once: the epoll set is still the parent's, and so may be the lock.
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

  // Calls OnRead, OnWrite or OnError of the handler, as `what` (EVENT_*) says, once the events at
  // hand are done (at the latest after 64 of them); nothing when it has died until then. How a
  // handler goes on later with what it left, and how what many events have queued for one
  // connection leaves in one system call. False for null and in a forked child.
  bool CallAgain(std::weak_ptr<EventHandler> handler, EventMask what);

  // Runs `call` once NowMs() has reached at_ms, between events. The id is for CancelCall and never
  // 0, which means that nothing was noted (a forked child).
  uint64_t CallAt(int64_t at_ms, std::function<void()> call);

  // False when there is no such call any more: it ran, or is about to on the loop's thread.
  bool CancelCall(uint64_t id);

  // Milliseconds of the monotonic clock, the time of CallAt.
  static int64_t NowMs();

  // True on the thread that runs Loop.
  bool IsLoopThread() const;

  // Off by default: an exception out of a handler ends the process, as any that nobody catches. On:
  // it costs that handler's socket (OnError is called, so that a connection closes) and a log line.
  // When memory has been lacking for 5 seconds, or closing fails too, Loop ends and FailureText()
  // tells why.
  void SetContainFailures(bool on) { contains_failures_ = on; }

  // Runs `call` as a handler is run, when one handler does many things that may fail by themselves.
  // Allocates nothing.
  template <typename Call>
  void RunContained(const Call& call) {
    RunContained([](const void* it) { (*static_cast<const Call*>(it))(); }, &call);
  }

  // Room for one receive, 102400 bytes on a page of its own; on the loop's thread.
  char* ReceiveArea();

  // Of the loop's owner, after Loop has returned: why it gave up; empty when it did not.
  const std::string& FailureText() const { return failure_text_; }

 private:
  struct Entry {
    EventHandler* handler;
    unsigned int mask;    // as last given
    uint32_t generation;  // tells this registration from others of the same number
    bool has_owner;       // `owner` counts
    std::weak_ptr<void> owner;
  };
  struct Again {
    std::weak_ptr<EventHandler> handler;
    EventMask what;
  };
  using TimedCalls = std::map<std::pair<int64_t, uint64_t>, std::function<void()>>;  // time, id

  bool Register(const std::shared_ptr<Socket>& socket, unsigned int mask, EventHandler* handler,
                bool has_owner, const std::weak_ptr<void>& owner);
  // The handler of a fetched event, with *pin holding its owner; null when the registration that
  // the event belongs to is gone.
  EventHandler* Find(uint64_t tag, std::shared_ptr<void>* pin);
  int WaitMs() const;
  void Dispatch(const epoll_event& event);
  void RunAgain();
  void RunTimedCalls();
  void FindNextCall();

  void RunContained(void (*run)(const void*), const void* call);
  template <typename Call>
  void Contained(EventHandler* handler, const Call& call);
  void HandleFailure(EventHandler* handler, const char* what);
  void LookForMemory();
  void GiveUp(const char* why);

  const ProcessMark process_;
  int epoll_fd_ = -1;
  int wakeup_fd_ = -1;
  std::unique_ptr<epoll_event[]> events_;  // of the loop thread
  bool contains_failures_ = false;

  std::atomic<bool> stop_{false};
  std::atomic<std::thread::id> loop_thread_{std::thread::id()};  // none while no Loop runs
  std::atomic<bool> has_incoming_{false};
  std::atomic<int64_t> next_call_ms_;  // of timed_calls_; far away without any

  PiRecursiveMutex mutex_;  // guards the fields below
  std::unordered_map<int, Entry> handlers_;
  uint32_t last_generation_ = 0;
  std::vector<Again> incoming_;  // from other threads
  TimedCalls timed_calls_;
  uint64_t last_call_id_ = 0;

  // Of the loop thread.
  std::vector<Again> again_;
  std::vector<Again> running_again_;  // kept for its memory
  struct FreeArea {
    void operator()(char* area) const;
  };
  std::unique_ptr<char, FreeArea> receive_area_;
  int64_t lacking_since_ms_ = 0;  // memory; 0: it is there
  std::string failure_text_;
};

}  // namespace bsp

#endif  // BSP_NET_EVENT_LOOP_H_
