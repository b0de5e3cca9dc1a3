#include "bench/support/bus.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <thread>

#include "bench/support/pair.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

Role g_role = kCaller;  // of this process

void BecomeChild(pid_t parent, bool is_pinned) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(1);
  const int null = open("/dev/null", O_WRONLY);
  dup2(null, STDOUT_FILENO);
  if (!is_pinned) return;
  cpu_set_t first;
  CPU_ZERO(&first);
  CPU_SET(0, &first);
  sched_setaffinity(0, sizeof first, &first);
}

struct sockaddr_in Loopback(int port) {
  struct sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

void SendAtOnce(int fd) {
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

int ListenOn(int port) {
  const struct sockaddr_in address = Loopback(port);
  const int on = 1;
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (bind(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof address) != 0) abort();
  if (listen(fd, 512) != 0) abort();
  return fd;
}

void SendAll(int fd, const char* data, size_t length) {
  while (length > 0) {
    const ssize_t sent = send(fd, data, length, MSG_NOSIGNAL);
    if (sent > 0) {
      data += sent;
      length -= static_cast<size_t>(sent);
      continue;
    }
    struct pollfd ready = {fd, POLLOUT, 0};
    if (errno != EAGAIN || poll(&ready, 1, 1000) < 0) return;
  }
}

// Whole frames of one connection, as many as have come.
struct FrameReader {
  int fd = -1;
  int to = -1;  // where they go
  size_t held = 0;
  std::unique_ptr<char[]> memory;
  char* data = nullptr;
  size_t capacity = 0;

  void Prepare(int from, int target, size_t frame) {
    fd = from;
    to = target;
    capacity = std::max(frame * 2, size_t{65536});
    memory.reset(new char[capacity + 4096]);
    const auto address = reinterpret_cast<uintptr_t>(memory.get());
    data = memory.get() + (4096 - address % 4096);
  }
  bool PassOn(size_t frame) {
    const ssize_t got = recv(fd, data + held, capacity - held, 0);
    if (got <= 0) return got < 0 && errno == EAGAIN;
    held += static_cast<size_t>(got);
    const size_t whole = held / frame * frame;
    if (whole == 0) return true;
    SendAll(to, data, whole);
    memmove(data, data + whole, held - whole);
    held -= whole;
    return true;
  }
};

void PassOnForEver(std::vector<FrameReader>* readers, size_t frame) {
  const int set = epoll_create1(0);
  for (size_t i = 0; i < readers->size(); ++i) {
    struct epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = i;
    epoll_ctl(set, EPOLL_CTL_ADD, (*readers)[i].fd, &event);
  }
  struct epoll_event events[256];
  while (true) {
    const int count = epoll_wait(set, events, 256, -1);
    for (int i = 0; i < count; ++i) {
      FrameReader& reader = (*readers)[events[i].data.u64];
      if (!reader.PassOn(frame)) epoll_ctl(set, EPOLL_CTL_DEL, reader.fd, nullptr);
    }
  }
}

int AcceptNonBlocking(int listener) {
  const int fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK);
  SendAtOnce(fd);
  return fd;
}

}  // namespace

Role CurrentRole() { return g_role; }

Board& TheBoard() {
  static Board* const board = [] {
    void* memory =
        mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) abort();
    return static_cast<Board*>(memory);  // zero pages are the initial value of every field
  }();
  return *board;
}

Process::Process(Role role, bool is_pinned, const std::function<void()>& body) {
  TheBoard();
  fflush(nullptr);
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ != 0) return;
  BecomeChild(parent, is_pinned);
  g_role = role;
  body();
  _exit(0);
}

Process::Process(bool is_pinned, const std::vector<std::string>& argv) {
  std::vector<char*> words;
  for (const std::string& word : argv) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  fflush(nullptr);
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ != 0) return;
  BecomeChild(parent, is_pinned);
  dup2(STDOUT_FILENO, STDERR_FILENO);
  execv(words[0], words.data());
  _exit(127);
}

Process::~Process() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

void Process::Wait() {
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

long Process::RssKb() const {
  std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
  std::string word;
  long kb = 0;
  while (status >> word) {
    if (word == "VmRSS:") status >> kb;
  }
  return kb;
}

int NewPort() {
  static int port = 20000 + getpid() % 5000;
  return port += 2;
}

int ConnectTo(int port) {
  const struct sockaddr_in address = Loopback(port);
  for (int attempt = 0; attempt < 1000; ++attempt) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (connect(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof address) == 0) {
      SendAtOnce(fd);
      return fd;
    }
    close(fd);
    usleep(10000);
  }
  abort();
}

void AwaitPort(int port) { close(ConnectTo(port)); }

void RunCallers(const Load& load, const std::function<bool(int)>& call) {
  Board& board = TheBoard();
  board.calls = 0;
  board.sample_count = 0;
  std::atomic<bool> is_over{false};
  std::atomic<int> waiting{0};
  std::atomic<bool> is_go{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < load.threads; ++i) {
    threads.emplace_back([&, i] {
      for (int warm = 0; warm < 20; ++warm) call(i);
      ++waiting;
      while (!is_go) usleep(100);
      uint64_t calls = 0;
      while (!is_over) {
        const auto begin = Clock::now();
        if (!call(i)) continue;
        const std::chrono::duration<float, std::micro> took = Clock::now() - begin;
        const size_t at = board.sample_count++;
        if (at < board.samples_us.size()) board.samples_us[at] = took.count();
        ++calls;
      }
      board.calls += calls;
    });
  }
  while (waiting < load.threads) usleep(1000);
  const auto begin = Clock::now();
  is_go = true;
  usleep(static_cast<useconds_t>(load.duration_ms) * 1000);
  is_over = true;
  for (std::thread& thread : threads) thread.join();
  board.elapsed_ns = static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - begin).count());
}

Result TakeResult() {
  Board& board = TheBoard();
  const size_t count = std::min(board.sample_count.load(), board.samples_us.size());
  const std::vector<double> samples(board.samples_us.begin(),
                                    board.samples_us.begin() + static_cast<long>(count));
  Result result;
  result.p50_us = Percentile(samples, 0.5);
  result.p99_us = Percentile(samples, 0.99);
  result.calls_per_s =
      static_cast<double>(board.calls) * 1e9 / static_cast<double>(board.elapsed_ns);
  return result;
}

void RunRelay(int port, int connections, size_t frame) {
  const int callers = ListenOn(port);
  const int listeners = ListenOn(port + 1);
  std::vector<FrameReader> readers(static_cast<size_t>(connections) * 2);
  for (size_t i = 0; i < readers.size(); i += 2) {
    const int listener = AcceptNonBlocking(listeners);
    const int caller = AcceptNonBlocking(callers);
    readers[i].Prepare(listener, caller, frame);
    readers[i + 1].Prepare(caller, listener, frame);
  }
  PassOnForEver(&readers, frame);
}

void RunRelayListener(int port, int connections, size_t frame) {
  std::vector<FrameReader> readers(static_cast<size_t>(connections));
  for (FrameReader& reader : readers) {
    const int fd = ConnectTo(port + 1);
    fcntl(fd, F_SETFL, O_NONBLOCK);
    reader.Prepare(fd, fd, frame);
  }
  PassOnForEver(&readers, frame);
}

void RunRelayCallers(int port, const Load& load) {
  const size_t frame = 104 + load.payload;
  std::vector<int> fds;
  std::vector<std::unique_ptr<char[]>> memory;
  for (int i = 0; i < load.threads; ++i) {
    fds.push_back(ConnectTo(port));
    memory.emplace_back(new char[frame + 4096]());
  }
  RunCallers(load, [&](int thread) {
    const auto i = static_cast<size_t>(thread);
    char* data = memory[i].get();
    data += 4096 - reinterpret_cast<uintptr_t>(data) % 4096;
    SendAll(fds[i], data, frame);
    size_t got = 0;
    while (got < frame) {
      const ssize_t count = recv(fds[i], data + got, frame - got, 0);
      if (count <= 0) return false;
      got += static_cast<size_t>(count);
    }
    return true;
  });
}

}  // namespace bench
