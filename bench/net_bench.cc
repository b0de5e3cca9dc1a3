// What the TCP classes cost above the system calls that the same work cannot do without.
//
// The far end is the same in both halves of a pair: a plain blocking socket on the benchmark's
// thread. "Limit" is a bare epoll loop with one recv and one send an event, no table, no buffer, no
// lock. Round trips run with all threads on one core, since wake-ups across cores cost more than
// what is measured; streams run free.
#include <malloc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "bench/support/pair.h"
#include "bsp/base/socket.h"
#include "bsp/log/log.h"
#include "bsp/net/event_loop.h"
#include "bsp/net/tcp_client.h"

namespace {

using bsp::EventLoop;
using bsp::MemoryBuffer;
using bsp::Socket;
using bsp::SocketAddress;
using bsp::TcpClient;
using SocketPtr = std::shared_ptr<Socket>;
using Clock = std::chrono::steady_clock;

constexpr size_t kFrame = 136;  // a bus frame with 32 bytes of payload
constexpr size_t kChunk = 102400;
constexpr size_t kMessage = 1 << 20;

void Check(bool is_true, const char* what) {
  if (is_true) return;
  perror(what);
  abort();
}

// All threads begun in the scope run on the first core.
class OneCore {
 public:
  OneCore() {
    sched_getaffinity(0, sizeof(before_), &before_);
    cpu_set_t first;
    CPU_ZERO(&first);
    CPU_SET(0, &first);
    sched_setaffinity(0, sizeof(first), &first);
  }
  ~OneCore() { sched_setaffinity(0, sizeof(before_), &before_); }
  OneCore(const OneCore&) = delete;
  OneCore& operator=(const OneCore&) = delete;

 private:
  cpu_set_t before_;
};

void SetNoDelay(const SocketPtr& socket) {
  const int on = 1;
  socket->SetOption(IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

struct Connection {
  Connection() {
    Socket listener;
    SocketAddress address("127.0.0.1", 0);
    socklen_t length = SocketAddress::SizeOf();
    far = std::make_shared<Socket>();
    Check(listener.Create(Socket::SOCKET_STREAM) && listener.Bind(address) && listener.Listen(1),
          "listen");
    getsockname(listener.GetNativeSocket(), address.Native(), &length);
    Check(far->Create(Socket::SOCKET_STREAM) && far->Connect(address), "connect");
    near = listener.Accept();
    SetNoDelay(far);
    SetNoDelay(near);
  }
  SocketPtr far;   // the benchmark's, blocking
  SocketPtr near;  // the loop's
};

// ---- Two services with the same work: what arrives on a connection goes out on another.

class Service {
 public:
  virtual ~Service() = default;
};

// Has every message received in its place.
class MessageSink : public bsp::ByteSink {
 public:
  char* Room(const std::shared_ptr<MemoryBuffer>&, size_t* room) override {
    *room = kMessage - have_;
    return &message_[have_];
  }
  bool Took(size_t count) override {
    have_ = (have_ + count) % kMessage;
    return have_ == 0;
  }

 private:
  std::vector<char> message_ = std::vector<char>(kMessage);
  size_t have_ = 0;
};

// Ours: EventLoop and TcpClient.
class Ours : public Service, public sigslot::has_slots<> {
 public:
  enum class Way { kSend, kGather, kBuffer, kSink };

  Ours(const std::vector<SocketPtr>& sockets, const SocketPtr& to, Way way, bool whole)
      : loop_(std::make_shared<EventLoop>()), way_(way), area_(kChunk * 16) {
    for (const SocketPtr& socket : sockets) Add(socket, whole);
    to_ = to != nullptr ? Add(to, whole) : nullptr;
    thread_ = std::thread([this] { loop_->Loop(); });
  }
  ~Ours() override {
    loop_->Stop();
    loop_->Wakeup();
    thread_.join();
  }

 private:
  std::shared_ptr<TcpClient> Add(const SocketPtr& socket, bool whole) {
    auto client = std::make_shared<TcpClient>(loop_);
    client->SetSendWhole(whole);
    client->SetGatherSends(way_ == Way::kGather);
    if (way_ == Way::kSink) client->SetSink(std::make_shared<MessageSink>());
    client->SignalRead.connect(this, &Ours::HandleRead);
    client->UpdateSocket(socket);
    clients_.push_back(client);
    return client;
  }

  void HandleRead(std::shared_ptr<TcpClient> client, std::shared_ptr<MemoryBuffer> buffer) {
    if (way_ == Way::kBuffer) {
      while (buffer->size() >= kMessage) buffer->ReadBytes(area_.data(), kMessage);
      return;
    }
    if (way_ == Way::kSink) return;
    TcpClient* const to = to_ != nullptr ? to_.get() : client.get();
    while (buffer->size() > 0) {
      const size_t got = buffer->ReadBytes(area_.data(), area_.size());
      to->Send(area_.data(), got);
    }
  }

  std::shared_ptr<EventLoop> loop_;
  const Way way_;
  std::vector<char> area_;
  std::vector<std::shared_ptr<TcpClient>> clients_;
  std::shared_ptr<TcpClient> to_;
  std::thread thread_;
};

// The limit: epoll_wait, recv, send.
class Bare : public Service {
 public:
  Bare(const std::vector<SocketPtr>& sockets, SocketPtr to, bool drop)
      : sockets_(sockets), to_(std::move(to)), drop_(drop), message_(drop ? kMessage : 0) {
    epoll_fd_ = epoll_create1(EPOLL_CLOEXEC);
    stop_fd_ = eventfd(0, EFD_CLOEXEC);
    Add(stop_fd_);
    for (const SocketPtr& socket : sockets_) {
      socket->SetBlocking(1);
      Add(socket->GetNativeSocket());
    }
    thread_ = std::thread([this] { Run(); });
  }
  ~Bare() override {
    const uint64_t one = 1;
    Check(write(stop_fd_, &one, sizeof(one)) == sizeof(one), "write");
    thread_.join();
    close(stop_fd_);
    close(epoll_fd_);
  }

 private:
  void Add(int fd) {
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = fd;
    Check(epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &event) == 0, "epoll_ctl");
  }

  void Run() {
    alignas(4096) static thread_local char area[kChunk];
    epoll_event events[64];
    for (;;) {
      const int count = epoll_wait(epoll_fd_, events, 64, -1);
      for (int i = 0; i < count; ++i) {
        const int fd = events[i].data.fd;
        if (fd == stop_fd_) return;
        if (drop_) {
          ReadMessage(fd);
          continue;
        }
        const ssize_t got = recv(fd, area, sizeof(area), 0);
        if (got > 0) {
          SendAll(to_ != nullptr ? to_->GetNativeSocket() : fd, area, static_cast<size_t>(got));
        }
      }
    }
  }

  // A message is complete only once all of it stands in memory.
  void ReadMessage(int fd) {
    const ssize_t got = recv(fd, &message_[have_], kMessage - have_, 0);
    if (got > 0) have_ = (have_ + static_cast<size_t>(got)) % kMessage;
  }

  static void SendAll(int fd, const char* data, size_t length) {
    while (length > 0) {
      const ssize_t sent = send(fd, data, length, MSG_NOSIGNAL);
      if (sent <= 0) continue;  // full: the far end is about to read
      data += sent;
      length -= static_cast<size_t>(sent);
    }
  }

  std::vector<SocketPtr> sockets_;
  SocketPtr to_;
  const bool drop_;
  std::vector<char> message_;
  size_t have_ = 0;
  int epoll_fd_ = -1;
  int stop_fd_ = -1;
  std::thread thread_;
};

std::unique_ptr<Service> MakeService(bool ours, const std::vector<SocketPtr>& sockets,
                                     const SocketPtr& to = nullptr,
                                     Ours::Way way = Ours::Way::kSend) {
  if (ours) return std::make_unique<Ours>(sockets, to, way, true);
  return std::make_unique<Bare>(sockets, to, way == Ours::Way::kBuffer || way == Ours::Way::kSink);
}

// ---- Round trips

void RoundTrip(const Connection& connection, std::vector<char>* area) {
  const int fd = connection.far->GetNativeSocket();
  Check(send(fd, area->data(), area->size(), 0) == static_cast<ssize_t>(area->size()), "send");
  Check(recv(fd, area->data(), area->size(), MSG_WAITALL) == static_cast<ssize_t>(area->size()),
        "recv");
}

bench::Function Echo(bool ours, size_t length) {
  return [=](benchmark::State& state) {
    const OneCore one_core;
    const Connection connection;
    const auto service = MakeService(ours, {connection.near});
    std::vector<char> area(length, 'e');
    RoundTrip(connection, &area);
    for (auto _ : state) RoundTrip(connection, &area);
  };
}

// ---- Streams

bench::Function Receive(bool ours, Ours::Way way) {
  return [=](benchmark::State& state) {
    const Connection connection;
    const auto service = MakeService(ours, {connection.near}, nullptr, way);
    const std::vector<char> data(kMessage, 'r');
    const int fd = connection.far->GetNativeSocket();
    for (auto _ : state) {
      Check(send(fd, data.data(), data.size(), 0) == static_cast<ssize_t>(data.size()), "send");
    }
  };
}

// The far end reads all the time; Send is held back as the broker holds it back, by the backlog.
bench::Function Transmit(bool ours, bool whole, size_t length) {
  return [=](benchmark::State& state) {
    const Connection connection;
    const std::vector<char> data(length, 't');
    std::thread reader([&] {
      std::vector<char> area(1 << 20);
      while (connection.far->Recv(area.data(), 1 << 20) > 0) {
      }
    });
    if (ours) {
      const auto loop = std::make_shared<EventLoop>();
      const auto client = std::make_shared<TcpClient>(loop);
      client->SetSendWhole(whole);
      client->UpdateSocket(connection.near);
      std::thread runner([&] { loop->Loop(); });
      for (auto _ : state) {
        client->Send(data.data(), data.size());
        while (client->SendBacklog() > 0) std::this_thread::yield();
      }
      loop->Stop();
      loop->Wakeup();
      runner.join();
      client->Disconnect();
    } else {
      const int fd = connection.near->GetNativeSocket();
      for (auto _ : state) {
        Check(send(fd, data.data(), length, 0) == static_cast<ssize_t>(length), "send");
      }
      connection.near->Close();
    }
    reader.join();
  };
}

// ---- Many connections into one

constexpr size_t kSources = 64;

bench::Function Gather(bool ours) {
  return [=](benchmark::State& state) {
    const OneCore one_core;
    std::vector<Connection> sources(kSources);
    const Connection sink;
    std::vector<SocketPtr> sockets;
    for (const Connection& source : sources) sockets.push_back(source.near);
    const auto service = MakeService(ours, sockets, sink.near, Ours::Way::kGather);
    std::vector<char> frame(kFrame, 'g');
    std::vector<char> area(kFrame * kSources);
    for (auto _ : state) {
      for (const Connection& source : sources) source.far->Send(frame.data(), kFrame);
      Check(recv(sink.far->GetNativeSocket(), area.data(), area.size(), MSG_WAITALL) ==
                static_cast<ssize_t>(area.size()),
            "recv");
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kSources));
  };
}

// ---- Wake-up: from Stop and Wakeup to the return of Loop

void WakeLoop(benchmark::State& state) {
  EventLoop loop;
  std::atomic<int64_t> returned{0};
  std::atomic<bool> over{false};
  std::thread runner([&] {
    while (!over) {
      loop.Loop();
      ++returned;
    }
  });
  int64_t count = 0;
  for (auto _ : state) {
    loop.Stop();
    loop.Wakeup();
    ++count;
    while (returned < count) {
    }
  }
  over = true;
  loop.Stop();
  loop.Wakeup();
  runner.join();
}

void WakeBare(benchmark::State& state) {
  const int epoll_fd = epoll_create1(EPOLL_CLOEXEC);
  const int wake_fd = eventfd(0, EFD_CLOEXEC);
  epoll_event event = {};
  event.events = EPOLLIN | EPOLLET;
  Check(epoll_ctl(epoll_fd, EPOLL_CTL_ADD, wake_fd, &event) == 0, "epoll_ctl");
  std::atomic<int64_t> returned{0};
  std::atomic<bool> over{false};
  std::thread runner([&] {
    epoll_event got = {};
    while (!over) {
      epoll_wait(epoll_fd, &got, 1, 1000);
      ++returned;
    }
  });
  const uint64_t one = 1;
  int64_t count = 0;
  for (auto _ : state) {
    Check(write(wake_fd, &one, sizeof(one)) == sizeof(one), "write");
    ++count;
    while (returned < count) {
    }
  }
  over = true;
  Check(write(wake_fd, &one, sizeof(one)) == sizeof(one), "write");
  runner.join();
  close(wake_fd);
  close(epoll_fd);
}

// ---- Idle connections

size_t HeapBytes() {
  const struct mallinfo2 heap = mallinfo2();
  return heap.uordblks + heap.hblkhd;
}

// Median nanoseconds of a round trip beside `idle` connections that have moved bytes once.
double EchoBesideIdle(size_t idle, double* bytes_each) {
  const OneCore one_core;
  std::vector<Connection> connections(idle + 1);
  std::vector<SocketPtr> sockets;
  for (const Connection& connection : connections) sockets.push_back(connection.near);
  const size_t before = HeapBytes();
  const auto service = MakeService(true, sockets);
  std::vector<char> area(kFrame, 'i');
  for (const Connection& connection : connections) RoundTrip(connection, &area);
  *bytes_each = static_cast<double>(HeapBytes() - before) / static_cast<double>(idle + 1);
  std::vector<double> samples;
  for (int i = 0; i < 20000; ++i) {
    const auto start = Clock::now();
    RoundTrip(connections.back(), &area);
    samples.push_back(std::chrono::duration<double, std::nano>(Clock::now() - start).count());
  }
  return bench::Median(samples);
}

void MeasureIdle() {
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  double bytes = 0;
  const double alone = EchoBesideIdle(0, &bytes);
  for (const size_t idle : {100, 1000}) {
    const double beside = EchoBesideIdle(idle, &bytes);
    bench::AddRow("net: 136 B round trip beside " + std::to_string(idle) + " idle connections",
                  beside, alone, "ns", bench::Target::RatioAtMost(1.1));
  }
  bench::AddRow("net: heap bytes of one of 1000 idle connections", bytes, 0, "B",
                bench::Target::AtMost(4096));
}

}  // namespace

void RegisterBenchmarks() {
  g_log_level = BSP_LEVEL_CRIT;  // no "Loop exit." between the figures
  using bench::Pair;
  using bench::Target;
  Pair("net: 136 B round trip, one core", Echo(true, kFrame), Echo(false, kFrame),
       Target::RatioAtMost(1.2));
  Pair("net: 4 KiB round trip, one core", Echo(true, 4096), Echo(false, 4096),
       Target::RatioAtMost(1.2));
  Pair("net: receive, 1 MiB, through the buffer", Receive(true, Ours::Way::kBuffer),
       Receive(false, Ours::Way::kBuffer));
  Pair("net: receive, 1 MiB, into a sink", Receive(true, Ours::Way::kSink),
       Receive(false, Ours::Way::kSink), Target::RatioAtMost(1.1));
  Pair("net: send, 64 KiB", Transmit(true, false, 1 << 16), Transmit(false, false, 1 << 16),
       Target::RatioAtMost(1.1));
  Pair("net: send, 1 MiB, in chunks", Transmit(true, false, 1 << 20),
       Transmit(false, false, 1 << 20));
  Pair("net: send, 1 MiB, whole", Transmit(true, true, 1 << 20), Transmit(false, true, 1 << 20),
       Target::RatioAtMost(1.1));
  Pair("net: 64 connections into one, 136 B each", Gather(true), Gather(false),
       Target::RatioAtMost(1));
  Pair("net: Stop and Wakeup until Loop returns", WakeLoop, WakeBare, Target::RatioAtMost(1.2));
  bench::Custom(MeasureIdle);
}
