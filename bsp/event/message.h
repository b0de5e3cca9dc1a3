// What is posted to an event service, and who receives it.
#ifndef BSP_EVENT_MESSAGE_H_
#define BSP_EVENT_MESSAGE_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include "bsp/base/macros.h"

namespace bsp {

struct Message;

// Receiver of messages; implemented by the module. It has to outlive every message posted for it:
// Clear takes back those that still wait.
class BSP_EXPORT MessageHandler {
 public:
  // Runs on the thread of the service. `message` is good for the length of the call. No exception
  // may escape. Before the destructor: the place in the table of operations is part of the binary
  // interface.
  virtual void OnMessage(Message* message) = 0;

  virtual ~MessageHandler() = default;
};

// Base of what a poster attaches to a message; goes away with the message, at the latest.
class BSP_EXPORT MessageUserdata {
 public:
  virtual ~MessageUserdata() = default;
};

struct BSP_EXPORT Message {
  Message() = default;
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;
  virtual ~Message() = default;

  // Serial number of the next message in the process, across all services; wraps.
  static std::atomic<int32_t> msg_num;

  int32_t num = msg_num.fetch_add(1, std::memory_order_relaxed);
  int64_t when = 0;                   // due time in ms of TimeUtil::ClockMillis; 0: at once
  int id = 0;                         // the poster's own number, by which Clear selects
  MessageHandler* handler = nullptr;  // not owned, may be null
  std::shared_ptr<MessageUserdata> userdata;
  std::function<void(Message*)> func;  // may be empty
};

}  // namespace bsp

#endif  // BSP_EVENT_MESSAGE_H_
