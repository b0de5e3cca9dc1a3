// Makes chosen calls of a program fail, to be preloaded: what a full memory, a full table of
// descriptors or a signal does to it, at the very call that a test names.
//
//   BSP_FAULTS        rules, separated by commas: call:error:first-last. The calls are those of
//                     kCalls; the error is a name of kErrors, or SHORT for half the bytes of a
//                     send, recv or write. The calls of a name are counted from 1 in each process;
//                     "first-" has no end.
//   BSP_FAULTS_GATE   path: counting begins when this file exists, else at the start.
//   BSP_FAULTS_COUNT  path: a file of FaultCount records (fault_count.h), one a call, kept up to
//   date
//                     while the program runs and after its end, however that comes.
//
// A name stands for its family: send also for sendmsg, malloc for whatever takes memory from the
// heap, operator new included. The wrappers allocate nothing. A rule that cannot be read ends the
// program at its start with 127: a fault that never happens would let a test pass.
#include "tests/support/faults/fault_count.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

extern "C" {
// The C library's own, which need no look-up: the look-up itself allocates.
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
}

namespace {

using test::FaultCount;

constexpr std::string_view kCalls[] = {
    "socket",     "bind",    "listen",         "accept4", "epoll_create1", "epoll_ctl",
    "epoll_wait", "eventfd", "timerfd_create", "send",    "recv",          "malloc",
    "open",       "write",   "fsync",          "semop",   "mmap",          "pthread_create"};
constexpr size_t kCallCount = sizeof kCalls / sizeof kCalls[0];

constexpr int kShort = -1;
constexpr struct {
  std::string_view name;
  int number;
} kErrors[] = {{"EACCES", EACCES}, {"EAGAIN", EAGAIN},   {"ECONNABORTED", ECONNABORTED},
               {"EINTR", EINTR},   {"EIO", EIO},         {"EMFILE", EMFILE},
               {"ENFILE", ENFILE}, {"ENOBUFS", ENOBUFS}, {"ENOMEM", ENOMEM},
               {"ENOSPC", ENOSPC}, {"EPERM", EPERM},     {"SHORT", kShort}};

struct Rule {
  size_t call;
  int error;
  uint64_t first;
  uint64_t last;
};

constexpr size_t kMostRules = 16;
Rule g_rules[kMostRules];
size_t g_rule_count = 0;
std::atomic<uint64_t> g_numbers[kCallCount];  // calls so far in this process
const char* g_gate = nullptr;
std::atomic<bool> g_is_open{false};  // not before the rules are read
FaultCount* g_counts = nullptr;      // of all processes together

constexpr size_t CallOf(std::string_view name) {
  size_t call = 0;
  while (call < kCallCount && kCalls[call] != name) ++call;
  return call;
}

[[noreturn]] void Refuse(const char* what) {
  dprintf(STDERR_FILENO, "faults: cannot use %s\n", what);
  _exit(127);
}

// Takes the text up to `end` off the front of *rest.
std::string_view Cut(std::string_view* rest, char end) {
  const size_t length = std::min(rest->find(end), rest->size());
  const std::string_view word = rest->substr(0, length);
  rest->remove_prefix(std::min(length + 1, rest->size()));
  return word;
}

uint64_t NumberOf(std::string_view digits, const char* rules) {
  uint64_t number = 0;
  for (const char digit : digits) {
    if (digit < '0' || digit > '9') Refuse(rules);
    number = number * 10 + static_cast<uint64_t>(digit - '0');
  }
  return number;
}

void AddRule(std::string_view text, const char* rules) {
  Rule rule = {CallOf(Cut(&text, ':')), 0, 0, UINT64_MAX};
  const std::string_view name = Cut(&text, ':');
  for (const auto& error : kErrors) {
    if (error.name == name) rule.error = error.number;
  }
  rule.first = NumberOf(Cut(&text, '-'), rules);
  if (!text.empty()) rule.last = NumberOf(text, rules);
  if (rule.call == kCallCount || rule.error == 0 || rule.first == 0 || rule.last < rule.first ||
      g_rule_count == kMostRules) {
    Refuse(rules);
  }
  g_rules[g_rule_count++] = rule;
}

__attribute__((constructor)) void ReadRules() {
  if (const char* path = getenv("BSP_FAULTS_COUNT")) {
    const int fd = static_cast<int>(
        syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (fd == -1 || ftruncate(fd, sizeof(FaultCount[kCallCount])) != 0) Refuse(path);
    void* const mapped =
        mmap(nullptr, sizeof(FaultCount[kCallCount]), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (mapped == MAP_FAILED) Refuse(path);
    close(fd);
    auto* const counts = static_cast<FaultCount*>(mapped);
    for (size_t call = 0; call < kCallCount; ++call) {
      kCalls[call].copy(counts[call].name, sizeof counts[call].name - 1);
    }
    g_counts = counts;
  }
  g_gate = getenv("BSP_FAULTS_GATE");
  const char* const rules = getenv("BSP_FAULTS");
  for (std::string_view rest = rules != nullptr ? rules : ""; !rest.empty();) {
    AddRule(Cut(&rest, ','), rules);
  }
  g_is_open = g_gate == nullptr;
}

bool IsGateOpen() {
  if (g_is_open || g_gate == nullptr) return g_is_open;
  const int saved = errno;
  if (syscall(SYS_faccessat, AT_FDCWD, g_gate, F_OK) == 0) g_is_open = true;
  errno = saved;
  return g_is_open;
}

// What befalls this call: 0, an error, or kShort.
int FaultOf(size_t call) {
  if (!IsGateOpen()) return 0;
  const uint64_t number = ++g_numbers[call];
  int error = 0;
  for (size_t i = 0; i < g_rule_count; ++i) {
    const Rule& rule = g_rules[i];
    if (rule.call == call && number >= rule.first && number <= rule.last) error = rule.error;
  }
  if (g_counts != nullptr) {
    __atomic_fetch_add(&g_counts[call].seen, 1, __ATOMIC_RELAXED);
    if (error != 0) __atomic_fetch_add(&g_counts[call].failed, 1, __ATOMIC_RELAXED);
  }
  return error;
}

bool Fails(size_t call) {
  const int error = FaultOf(call);
  if (error > 0) errno = error;
  return error > 0;
}

// The same for a call that moves bytes: a short one gets half of them.
bool Fails(size_t call, size_t* length) {
  const int error = FaultOf(call);
  if (error > 0) errno = error;
  if (error == kShort && *length > 1) *length /= 2;
  return error > 0;
}

}  // namespace

#define NEXT(name) \
  static const auto next = reinterpret_cast<decltype(&name)>(dlsym(RTLD_NEXT, #name))

// A call without anything special: FAULTY(result, failure, name, (parameters) and what they throw,
// (arguments)).
#define FAULTY(type, failure, name, parameters, arguments) \
  extern "C" type name parameters {                        \
    constexpr size_t kCall = CallOf(#name);                \
    static_assert(kCall < kCallCount, "not in the table"); \
    NEXT(name);                                            \
    return Fails(kCall) ? failure : next arguments;        \
  }

FAULTY(int, -1, socket, (int domain, int type, int protocol) noexcept, (domain, type, protocol))
FAULTY(int, -1, bind, (int fd, const sockaddr* address, socklen_t size) noexcept,
       (fd, address, size))
FAULTY(int, -1, listen, (int fd, int backlog) noexcept, (fd, backlog))
FAULTY(int, -1, accept4, (int fd, sockaddr* address, socklen_t* size, int flags),
       (fd, address, size, flags))
FAULTY(int, -1, epoll_create1, (int flags) noexcept, (flags))
FAULTY(int, -1, epoll_ctl, (int set, int operation, int fd, epoll_event* event) noexcept,
       (set, operation, fd, event))
FAULTY(int, -1, epoll_wait, (int set, epoll_event* events, int most, int timeout_ms),
       (set, events, most, timeout_ms))
FAULTY(int, -1, eventfd, (unsigned int value, int flags) noexcept, (value, flags))
FAULTY(int, -1, timerfd_create, (int clock, int flags) noexcept, (clock, flags))
FAULTY(int, -1, fsync, (int fd), (fd))
FAULTY(int, -1, semop, (int set, sembuf* operations, size_t count) noexcept,
       (set, operations, count))
FAULTY(void*, MAP_FAILED, mmap,
       (void* at, size_t size, int protection, int flags, int fd, off_t offset) noexcept,
       (at, size, protection, flags, fd, offset))
FAULTY(int, errno, pthread_create,
       (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*),
        void* argument) noexcept,
       (thread, attributes, body, argument))

extern "C" {

ssize_t send(int fd, const void* data, size_t length, int flags) {
  NEXT(send);
  return Fails(CallOf("send"), &length) ? -1 : next(fd, data, length, flags);
}

ssize_t sendmsg(int fd, const msghdr* message, int flags) {
  NEXT(sendmsg);
  if (message->msg_iovlen == 0) return next(fd, message, flags);
  const size_t whole = message->msg_iov[0].iov_len;
  iovec first = message->msg_iov[0];
  if (Fails(CallOf("send"), &first.iov_len)) return -1;
  if (first.iov_len == whole) return next(fd, message, flags);
  msghdr shortened = *message;
  shortened.msg_iov = &first;
  shortened.msg_iovlen = 1;
  return next(fd, &shortened, flags);
}

ssize_t recv(int fd, void* data, size_t length, int flags) {
  NEXT(recv);
  return Fails(CallOf("recv"), &length) ? -1 : next(fd, data, length, flags);
}

ssize_t write(int fd, const void* data, size_t length) {
  NEXT(write);
  return Fails(CallOf("write"), &length) ? -1 : next(fd, data, length);
}

int open(const char* path, int flags, ...) {
  NEXT(open);
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  return Fails(CallOf("open")) ? -1 : next(path, flags, mode);
}

void* malloc(size_t size) noexcept {
  return Fails(CallOf("malloc")) ? nullptr : __libc_malloc(size);
}

void* calloc(size_t count, size_t size) noexcept {
  return Fails(CallOf("malloc")) ? nullptr : __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size) noexcept {
  return Fails(CallOf("malloc")) ? nullptr : __libc_realloc(memory, size);
}

void* aligned_alloc(size_t alignment, size_t size) noexcept {
  return Fails(CallOf("malloc")) ? nullptr : __libc_memalign(alignment, size);
}

int posix_memalign(void** memory, size_t alignment, size_t size) noexcept {
  if (Fails(CallOf("malloc"))) return ENOMEM;
  *memory = __libc_memalign(alignment, size);
  return *memory != nullptr ? 0 : ENOMEM;
}

}  // extern "C"
