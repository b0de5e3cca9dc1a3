// A named thread that runs immediate and delayed messages from any thread.
#ifndef BSP_EVENT_EVENTSERVICE_H_
#define BSP_EVENT_EVENTSERVICE_H_

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "bsp/base/error.h"
#include "bsp/base/macros.h"
#include "bsp/base/pi_mutex.h"
#include "bsp/event/message.h"
#include "bsp/util/semaphore.h"

namespace bsp {

class MessageQueue;
struct QueuedMessage;

// Runs messages one at a time in the order of their due times; those of equal time, and so all
// immediate ones, in the order in which they were posted. Immediate messages come before all
// delayed ones. A delayed message runs at the earliest in the millisecond after its due time, on a
// clock that no setting of the wall clock moves.
//
//   auto service = bsp::EventService::Create("worker", 50);
//   service->Start();
//   service->PostDelay(7, 100, [](bsp::Message*) { puts("100 ms later"); });
//
// Life: Create, Start, Stop, and Start again if need be. Messages may be posted at any time; those
// that find no running thread wait in the queue for the next Start.
//
// Threads: any, also handlers on the service's own thread: a handler may post to its service, clear
// it and stop it, since no lock is held while it runs. Whoever posts keeps the service alive for
// the length of the call, also when its message ends somebody's wait for the end. The last
// reference to a service should not be dropped on its own thread; where it is, the thread ends by
// itself, with a line in the log.
//
// A child that is forked while the thread runs has the object, but not the thread: every call there
// is refused with a line in the log, and the destructor leaves all to the parent.
//
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): fields stand by who writes them
class BSP_EXPORT EventService {
 public:
  EventService();  // for Create; priority 50 and no name
  EventService(const EventService&) = delete;
  EventService& operator=(const EventService&) = delete;

  // Stop, then lets pending messages go unrun.
  ~EventService();

  // `priority`: SCHED_FIFO priority of the thread, 1 to 99.
  static std::shared_ptr<EventService> Create(const std::string& name, int priority);

  // Makes what the service needs to wait; Create and Start see to it. Code -1 when out of memory.
  std::shared_ptr<MSError> Init();

  // Starts the thread, named by the first 15 characters of the service's name. Where the system
  // refuses the name or the priority a line in the log says so and the thread runs without.
  // Code -1 when the service runs already or the system grants no thread; nothing is changed then.
  std::shared_ptr<MSError> Start();

  // Ends the thread after the message that it runs at the moment, and waits for that. Messages
  // that wait stay in the queue. On the service's own thread it does not wait: the thread ends when
  // the handler has returned. Without a running thread it does nothing.
  void Stop();

  // Runs handler->OnMessage with the message on the service's thread. The handler, which may be
  // null, is not owned.
  void Post(MessageHandler* handler, int id, std::shared_ptr<MessageUserdata> userdata = nullptr);

  // The same after delay_ms at the earliest; a negative delay counts as over. Delays without end
  // are in order.
  void PostDelay(MessageHandler* handler, int id, long delay_ms,
                 std::shared_ptr<MessageUserdata> userdata = nullptr);

  // Runs `func` with the message, likewise.
  void Post(int id, std::function<void(Message*)> func);
  void PostDelay(int id, long delay_ms, std::function<void(Message*)> func);

  // Takes back the waiting messages with this id, all of them when it is 0, none when it is below.
  // One that is running already is not waited for.
  void Clear(int id);

  // The body of the thread, for those who bring their own: passes until Stop, or a single pass when
  // `run` is false. A pass runs the first message if it is due, else it waits for one, at most
  // 100 ms.
  void Dispatch(bool run);

 private:
  struct Loop;

  // Every dispatch ends after the message that it runs.
  void EndLoops();
  void RunLoop(Loop* loop);
  bool RunPass(Loop* loop);
  std::unique_ptr<QueuedMessage> TakeDue(int64_t* wait_ns, bool* lingers);
  // Both with queue_mutex_ held.
  void EnterSleep(int64_t due_time);
  void LeaveSleep();
  // Behind a post that is due at `when`.
  void WakeSleepers(int64_t when);
  // Until something is posted, but not for long.
  void Linger(int64_t wait_ns) const;
  void Wait(int64_t wait_ns);
  void Enqueue(MessageHandler* handler, int id, int64_t when,
               std::shared_ptr<MessageUserdata> userdata, std::function<void(Message*)> func);
  bool IsOwnThread() const;
  // Whether the thread was started in another process; says so for a call that is to be refused.
  bool IsForeign() const;
  bool Refuses(const char* operation) const;
  void SetUpThread();

  // Guards thread_ and, but for the service's own thread, the writing of running_; held by Stop
  // across the join.
  std::mutex control_mutex_;
  std::thread thread_;
  std::string name_;
  int priority_ = 50;
  std::atomic<bool> running_{false};
  std::atomic<pid_t> started_in_{0};  // process of thread_; 0 while there is none

  // Due time that a waiting thread sleeps towards, the latest if there are several; kNobodySleeps
  // also when they have been signalled already. Written under queue_mutex_. Every post reads it, so
  // it stands with fields that hardly ever change.
  static constexpr int64_t kNobodySleeps = 0;  // no message is due before it
  std::atomic<int64_t> asleep_until_{kNobodySleeps};

  // 64: a cache line, which posters, who read the above, do not want to lose with each message.
  alignas(64) PiMutex queue_mutex_;       // guards the fields below, apart from posting
  int woken_from_ = -1;                   // the core of the thread that signalled last
  int sleepers_ = 0;                      // threads between a look in vain and the next
  std::shared_ptr<Semaphore> semaphore_;  // what dispatching threads wait on; set once
  std::unique_ptr<MessageQueue> queue_;
};

}  // namespace bsp

#endif  // BSP_EVENT_EVENTSERVICE_H_
