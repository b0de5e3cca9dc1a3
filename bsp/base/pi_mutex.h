// A mutex that lends its holder the priority of whoever waits for it.
#ifndef BSP_BASE_PI_MUTEX_H_
#define BSP_BASE_PI_MUTEX_H_

#include <pthread.h>

namespace bsp {

// For data that a SCHED_FIFO thread of ours shares with ordinary ones: with a plain mutex, a third
// thread of middle priority keeps the holder off the processor, and the real-time thread with it,
// for as long as it likes. Used with std::lock_guard and its kin.
//
// Where the system has no priority inheritance it is a plain mutex.
//
// Threads: any. Not across processes.
class PiMutex {
 public:
  PiMutex() : PiMutex(PTHREAD_MUTEX_DEFAULT) {}
  PiMutex(const PiMutex&) = delete;
  PiMutex& operator=(const PiMutex&) = delete;
  ~PiMutex() { pthread_mutex_destroy(&mutex_); }

  // They fail for wrong use only, which is ours.
  void lock() { pthread_mutex_lock(&mutex_); }
  void unlock() { pthread_mutex_unlock(&mutex_); }
  bool try_lock() { return pthread_mutex_trylock(&mutex_) == 0; }

  // For a pthread_cond_t.
  pthread_mutex_t* native_handle() { return &mutex_; }

 protected:
  explicit PiMutex(int type) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, type);
    pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
    if (pthread_mutex_init(&mutex_, &attributes) != 0) {
      pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_NONE);
      pthread_mutex_init(&mutex_, &attributes);
    }
    pthread_mutexattr_destroy(&attributes);
  }

 private:
  pthread_mutex_t mutex_;
};

// The same; its holder may take it again.
class PiRecursiveMutex : public PiMutex {
 public:
  PiRecursiveMutex() : PiMutex(PTHREAD_MUTEX_RECURSIVE) {}
};

}  // namespace bsp

#endif  // BSP_BASE_PI_MUTEX_H_
