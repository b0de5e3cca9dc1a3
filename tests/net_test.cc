// Sockets, event loop and TCP client over real loopback connections.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <future>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bsp/base/socket.h"
#include "bsp/net/event_loop.h"
#include "bsp/net/tcp_client.h"
#include "bsp/net/tcp_server.h"
#include "tests/support/child.h"

namespace {

using bsp::EventLoop;
using bsp::MemoryBuffer;
using bsp::Socket;
using bsp::SocketAddress;
using bsp::TcpClient;
using bsp::TcpServer;
using SocketPtr = std::shared_ptr<Socket>;
using SocketPair = std::pair<SocketPtr, SocketPtr>;
using Calls = std::vector<std::string>;
using std::chrono::steady_clock;

constexpr unsigned kIdleMask = bsp::EVENT_READ | bsp::EVENT_ERROR;
constexpr unsigned kAllMask = kIdleMask | bsp::EVENT_WRITE;
constexpr size_t kChunk = 102400;
constexpr std::chrono::seconds kPatience{60};

SocketPair LocalPair(int type = SOCK_STREAM) {
  int fds[2] = {-1, -1};
  EXPECT_EQ(socketpair(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds), 0);
  return {std::make_shared<Socket>(fds[0]), std::make_shared<Socket>(fds[1])};
}

// A listener on a free port.
struct Listener : sigslot::has_slots<> {
  Listener() {
    EXPECT_TRUE(server->Listen("127.0.0.1", 0));
    server->SignalAccept.connect(this, &Listener::Keep);
  }
  void Keep(std::shared_ptr<TcpServer>, SocketPtr socket) { accepted = socket; }
  SocketPtr Accept() {
    server->OnRead();
    return accepted;
  }

  const std::shared_ptr<TcpServer> server =
      std::make_shared<TcpServer>(std::make_shared<EventLoop>());
  SocketPtr accepted;
};

SocketPair TcpPair() {
  Listener listener;
  const auto client = std::make_shared<Socket>();
  EXPECT_TRUE(client->Create(Socket::SOCKET_STREAM));
  EXPECT_TRUE(client->Connect(SocketAddress("127.0.0.1", listener.server->GetPort())));
  return {client, listener.Accept()};
}

std::string Pattern(size_t length, unsigned seed = 1) {
  std::string text(length, '\0');
  std::minstd_rand random(seed);
  for (char& c : text) c = static_cast<char>(random());
  return text;
}

// Everything that is there to read right now, or at least `length` bytes.
std::string Read(const SocketPtr& socket, size_t length = 0) {
  const int fd = socket->GetNativeSocket();
  socket->SetBlocking(0);
  const timeval patience = {kPatience.count(), 0};
  socket->SetOption(SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  std::string all;
  std::string area(1 << 20, '\0');
  for (;;) {
    const int flags = all.size() < length ? 0 : MSG_DONTWAIT;
    const ssize_t got = recv(fd, area.data(), area.size(), flags);
    if (got <= 0) return all;
    all.append(area, 0, static_cast<size_t>(got));
  }
}

// Runs a loop on a thread for the length of a scope.
struct LoopThread {
  ~LoopThread() {
    loop->Stop();
    loop->Wakeup();
    thread.join();
  }
  std::shared_ptr<EventLoop> loop;
  std::thread thread{[this] { loop->Loop(); }};
};

// Notes its calls in a common log: r, w or e, and a number of its own.
struct Probe : bsp::EventHandler {
  Probe(Calls* all_calls, int own_number) : calls(all_calls), number(own_number) {}
  void OnRead() override { Note("r", on_read); }
  void OnWrite() override { Note("w", on_write); }
  void OnError() override { Note("e", on_error); }
  void Note(const char* what, const std::function<void()>& then) {
    calls->push_back(what + std::to_string(number));
    if (then) then();
  }

  std::function<void()> on_read, on_write, on_error;
  Calls* const calls;
  const int number;
};

// A loop with three probes, which its first batch calls in order.
struct Batch {
  Batch() {
    for (int i = 0; i < 3; ++i) {
      pairs.push_back(LocalPair());
      probes.push_back(std::make_shared<Probe>(&calls, i));
      const auto& probe = probes.back();
      EXPECT_TRUE(loop->AddEvent(pairs.back().first, kIdleMask, probe.get(), probe));
    }
    for (const SocketPair& pair : pairs) pair.second->Send("x", 1);
  }

  const std::shared_ptr<EventLoop> loop = std::make_shared<EventLoop>();
  Calls calls;
  std::vector<SocketPair> pairs;
  std::vector<std::shared_ptr<Probe>> probes;
};

// Without a descriptor errno must not read as "later"; a second Create would leak; a descriptor
// closed twice is somebody else's by then; one that an exec leaves open holds a port.
TEST(Socket, RefusesWhatItCannotDo) {
  Socket socket;
  char byte = 0;
  errno = EAGAIN;
  EXPECT_EQ(socket.Send(&byte, 1) + socket.Recv(&byte, 1), -2);
  EXPECT_EQ(Socket::ErrorNo(), EBADF);
  EXPECT_FALSE(socket.Listen(1) || socket.Accept() != nullptr || socket.SetBlocking(1));
  ASSERT_TRUE(socket.Create(Socket::SOCKET_DGRAM));
  EXPECT_FALSE(socket.Create(Socket::SOCKET_STREAM));
  socket.Close();
  const Socket owner(dup(STDOUT_FILENO));  // has the number by now
  socket.Close();
  EXPECT_NE(fcntl(owner.GetNativeSocket(), F_GETFD), -1);
  const SocketPair pair = TcpPair();
  for (const SocketPtr& end : {pair.first, pair.second}) {
    EXPECT_EQ(fcntl(end->GetNativeSocket(), F_GETFD), FD_CLOEXEC);
  }
}

// What one batch has fetched reaches nobody whose registration has gone meanwhile: neither the old
// handler, nor the new one under the same descriptor, nor one whose owner has died.
TEST(EventLoop, StaleEventsAreDropped) {
  Batch batch;
  Probe heir(&batch.calls, 7);
  SocketPair fresh;
  batch.probes[0]->on_read = [&] {
    const SocketPtr old = batch.pairs[1].first;
    const int old_fd = old->GetNativeSocket();
    EXPECT_TRUE(batch.loop->RemoveEvent(old));
    old->Close();
    fresh = LocalPair();
    ASSERT_EQ(fresh.first->GetNativeSocket(), old_fd);
    EXPECT_TRUE(batch.loop->AddEvent(fresh.first, kIdleMask, &heir));
    batch.probes[2].reset();
    batch.loop->Stop();
  };
  batch.loop->Loop();
  EXPECT_EQ(batch.calls, Calls{"r0"});

  heir.on_read = [&] { batch.loop->Stop(); };
  fresh.second->Send("x", 1);
  batch.loop->Loop();
  EXPECT_EQ(batch.calls, (Calls{"r0", "r7"}));
}

// A write behind the removal of its handler; an error beside its read; readiness that a mask given
// anew does not tell again; a second handler that replaces the first.
TEST(EventLoop, RegistrationAndOrder) {
  EventLoop loop;
  Calls calls;
  Probe probe(&calls, 1);
  const SocketPair pair = LocalPair();
  EXPECT_FALSE(loop.UpdateEvent(pair.first, kIdleMask) || loop.RemoveEvent(nullptr));
  pair.second->Send("x", 1);
  ASSERT_TRUE(loop.AddEvent(pair.first, kAllMask, &probe));
  EXPECT_FALSE(loop.AddEvent(pair.first, kIdleMask, &probe));
  probe.on_write = probe.on_error = [&] { loop.Stop(); };
  loop.Loop();
  EXPECT_TRUE(loop.UpdateEvent(pair.first, kAllMask));
  probe.on_read = [&] {
    EXPECT_TRUE(loop.RemoveEvent(pair.first));
    loop.Stop();
  };
  loop.Loop();
  pair.second->Close();
  ASSERT_TRUE(loop.AddEvent(pair.first, kAllMask, &probe));
  loop.Loop();
  EXPECT_EQ(calls, (Calls{"r1", "w1", "r1", "e1"}));
}

// Calls that are lost, come before their time or for a handler that has died, and a cancelled one
// that comes; from the loop's thread and from others.
TEST(EventLoop, CallsAgainAndAtATime) {
  const auto loop = std::make_shared<EventLoop>();
  Calls calls;
  const auto probe = std::make_shared<Probe>(&calls, 1);
  auto dying = std::make_shared<Probe>(&calls, 2);
  const int64_t begin_ms = EventLoop::NowMs();
  EXPECT_TRUE(loop->CallAgain(probe, bsp::EVENT_READ));
  EXPECT_TRUE(loop->CallAgain(dying, bsp::EVENT_READ));
  EXPECT_FALSE(loop->CallAgain(std::weak_ptr<Probe>(), bsp::EVENT_READ));
  dying.reset();
  probe->on_read = [&] { loop->CallAgain(probe, bsp::EVENT_WRITE); };
  loop->CallAt(begin_ms + 60, [&] {
    calls.push_back("late");
    EXPECT_GE(EventLoop::NowMs(), begin_ms + 60);
  });
  loop->CallAt(begin_ms + 30, [&] { calls.push_back("early"); });
  const uint64_t never = loop->CallAt(begin_ms + 40, [&] { calls.push_back("never"); });
  EXPECT_TRUE(loop->CancelCall(never));
  EXPECT_FALSE(loop->CancelCall(never));
  {
    const LoopThread thread{loop};
    std::promise<void> done;
    loop->CallAt(begin_ms + 80, [&] { done.set_value(); });
    EXPECT_EQ(done.get_future().wait_for(kPatience), std::future_status::ready);
    std::promise<void> again;
    probe->on_error = [&] { again.set_value(); };
    loop->CallAgain(probe, bsp::EVENT_ERROR);
    EXPECT_EQ(again.get_future().wait_for(kPatience), std::future_status::ready);
  }
  EXPECT_EQ(calls, (Calls{"r1", "w1", "early", "late", "e1"}));
}

// A handler that throws ends the process, takes others with it, or keeps its socket; failures
// without end that are never told.
TEST(EventLoop, ContainsFailures) {
  Batch batch;
  batch.loop->SetContainFailures(true);
  batch.probes[0]->on_read = [] { throw std::bad_alloc(); };
  batch.probes[0]->on_error = [&] { batch.loop->RemoveEvent(batch.pairs[0].first); };
  batch.probes[1]->on_read = [] { throw 7; };
  batch.probes[2]->on_read = [&] { batch.loop->Stop(); };
  batch.loop->CallAt(0, [] { throw std::bad_alloc(); });
  batch.loop->Loop();
  EXPECT_EQ(batch.calls, (Calls{"r0", "e0", "r1", "e1", "r2"}));
  EXPECT_EQ(batch.loop->FailureText(), "");

  batch.probes[1]->on_error = [] { throw std::bad_alloc(); };  // closing fails, too
  batch.pairs[1].second->Send("x", 1);
  batch.loop->Loop();
  EXPECT_EQ(batch.loop->FailureText(), "an exception of");
}

// A client with its slots: keeps the bytes and the texts of errors, in order.
struct Station : sigslot::has_slots<> {
  Station(const std::shared_ptr<EventLoop>& loop, const SocketPtr& socket) {
    client = std::make_shared<TcpClient>(loop);
    client->SignalRead.connect(this, &Station::HandleRead);
    client->SignalError.connect(this, &Station::HandleError);
    EXPECT_TRUE(client->UpdateSocket(socket));
  }
  void HandleRead(std::shared_ptr<TcpClient>, std::shared_ptr<MemoryBuffer> buffer) {
    events.push_back("read " + std::to_string(buffer->size()));
    buffer->ReadString(&bytes, buffer->size());
    if (on_read) on_read();
  }
  void HandleError(std::shared_ptr<TcpClient>, std::shared_ptr<MSError> error) {
    events.push_back(error->Message().substr(0, error->Message().find('\n')));
    if (on_error) on_error();
  }

  std::shared_ptr<TcpClient> client;
  std::function<void()> on_read, on_error;
  std::string bytes;
  Calls events;
};

// A child that leaves what it inherited, in whichever way, must not make its parent deaf; what it
// does with it itself is refused.
TEST(EventLoop, ForkedChildTouchesNothing) {
  const auto loop = std::make_shared<EventLoop>();
  const SocketPair pair = TcpPair();
  auto station = std::make_unique<Station>(loop, pair.first);
  std::promise<void> read;
  station->on_read = [&] { read.set_value(); };
  const LoopThread thread{loop};
  for (int way = 0; way < 2; ++way) {
    test::Child child = test::Child::Fork([&] {
      const bool is_refused =
          !station->client->Send("x", 1) && !station->client->IsConnected() &&
          !loop->RemoveEvent(pair.first) && !loop->UpdateEvent(pair.first, kIdleMask) &&
          !loop->CallAgain(station->client, bsp::EVENT_READ) && loop->CallAt(0, [] {}) == 0;
      loop->Loop();
      if (way == 0) station->client->Disconnect();
      if (way == 1) station.reset();
      return is_refused ? 0 : 1;
    });
    EXPECT_EQ(child.Wait(), 0) << child.output();
  }
  EXPECT_EQ(pair.second->Send("ping", 4), 4);
  EXPECT_EQ(read.get_future().wait_for(kPatience), std::future_status::ready);
  EXPECT_TRUE(station->client->Send("pong", 4));
  EXPECT_EQ(Read(pair.second, 4), "pong");
}

// A large Send that takes more than one chunk a turn keeps the loop to itself.
TEST(TcpClient, ChunksOfALargeSend) {
  const SocketPair pair = LocalPair();
  const int size = 1 << 20;
  ASSERT_TRUE(pair.first->SetOption(SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)));
  const auto client = std::make_shared<TcpClient>(std::make_shared<EventLoop>());
  EXPECT_FALSE(client->Send("x", 1) || client->UpdateSocket(nullptr));
  const std::string data = Pattern(300000);
  ASSERT_TRUE(client->UpdateSocket(pair.first) && client->Send(data.data(), data.size()));
  for (size_t at = 0; at < data.size(); at += kChunk) {
    EXPECT_EQ(Read(pair.second), data.substr(at, kChunk));
    client->OnWrite();
  }
}

// A slow reader gets every byte in order, whatever the sizes of the pieces, from both ways to send
// and with both ways to write.
TEST(TcpClient, FullSocketKeepsTheStream) {
  for (const bool whole : {false, true}) {
    SCOPED_TRACE(whole);
    const auto loop = std::make_shared<EventLoop>();
    const SocketPair pair = TcpPair();
    const int size = 100000;
    pair.first->SetOption(SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
    const auto client = std::make_shared<TcpClient>(loop);
    client->SetSendWhole(whole);
    ASSERT_TRUE(client->UpdateSocket(pair.first));
    const LoopThread thread{loop};
    const std::string data = Pattern(6000000, 7);
    std::minstd_rand random(11);
    for (size_t at = 0; at < data.size();) {
      const size_t length = std::min<size_t>(random() % 250000, data.size() - at);
      const size_t head = random() % 2 == 0 ? length : length / 3;
      ASSERT_TRUE(client->Send(&data[at], head, &data[at] + head, length - head));
      at += length;
    }
    const auto end = steady_clock::now() + kPatience;
    while (client->SendBacklog() == 0 && steady_clock::now() < end) std::this_thread::yield();
    EXPECT_GT(client->SendBacklog(), 0u);
    EXPECT_TRUE(Read(pair.second, data.size()) == data);
    EXPECT_EQ(client->SendBacklog(), 0u);
  }
}

// A read cut short by urgent data is not the end of what waits in the kernel, which no further edge
// would tell of.
TEST(TcpClient, OneDeliveryForAllThatWaits) {
  const SocketPair pair = TcpPair();
  const int fd = pair.second->GetNativeSocket();
  const std::string data = Pattern(250000);
  const int size = 1 << 20;
  ASSERT_TRUE(pair.first->SetOption(SOL_SOCKET, SO_RCVBUF, &size, sizeof(size)));
  ASSERT_TRUE(send(fd, "abc", 3, 0) == 3 && send(fd, "!", 1, MSG_OOB) == 1);
  ASSERT_EQ(pair.second->Send(data.data(), 250000), 250000);
  for (int on_their_way = 1; on_their_way > 0; std::this_thread::yield()) {
    ASSERT_EQ(ioctl(fd, SIOCOUTQ, &on_their_way), 0);
  }
  const auto loop = std::make_shared<EventLoop>();
  Station station(loop, pair.first);
  station.on_read = [&] { loop->Stop(); };
  loop->Loop();
  EXPECT_EQ(station.events, Calls{"read 250003"});
  EXPECT_TRUE(station.bytes == "abc" + data);
}

// A sender that never pauses keeps the loop's thread to itself.
TEST(TcpClient, FloodLeavesTurnsForOthers) {
  const auto loop = std::make_shared<EventLoop>();
  const SocketPair flood = TcpPair();
  const SocketPair quiet = TcpPair();
  Station flooder(loop, flood.first);
  Station other(loop, quiet.first);
  flooder.on_read = [&] {
    if (flooder.events.size() == 3) quiet.second->Send("hello", 5);
    EXPECT_LE(flooder.bytes.size(), 16 * kChunk);
    flooder.bytes.clear();
  };
  other.on_read = [&] { loop->Stop(); };
  std::atomic<bool> over{false};
  std::thread sender([&] {
    const std::string data(1 << 20, 'f');
    const auto end = steady_clock::now() + kPatience;
    while (!over && steady_clock::now() < end) flood.second->Send(data.data(), 1 << 20);
    quiet.second->Send(" too late", 9);
  });
  loop->Loop();
  EXPECT_EQ(other.bytes, "hello");
  over = true;
  flooder.client->Disconnect();
  sender.join();
}

// The last bytes before a close or a reset: in the buffer without a word by default, delivered
// first on request. The slot that hears of the end may drop the last reference or connect anew.
TEST(TcpClient, EndOfAConnection) {
  for (const int mode : {0, 1, 2, 3}) {
    SCOPED_TRACE(mode);
    const bool deliver = (mode & 1) != 0;
    const bool reset = (mode & 2) != 0;
    const auto loop = std::make_shared<EventLoop>();
    SocketPair pairs[] = {TcpPair(), TcpPair(), TcpPair()};
    Station dropped(loop, pairs[0].first);
    Station renewed(loop, pairs[1].first);
    renewed.client->SetDeliverLastBytes(deliver);
    // A close with unread input is a reset.
    ASSERT_TRUE(!reset || (dropped.client->Send("u", 1) && renewed.client->Send("u", 1)));
    ASSERT_EQ(pairs[1].second->Send("last", 4), 4);
    for (int i : {0, 1}) pairs[i].second.reset();
    dropped.on_error = [&] { dropped.client.reset(); };
    renewed.on_error = [&] {
      EXPECT_TRUE(renewed.client->IsConnected());  // until somebody disconnects
      renewed.client->Disconnect();
      EXPECT_FALSE(renewed.client->Send("x", 1));
      EXPECT_TRUE(renewed.client->UpdateSocket(pairs[2].first));
      pairs[2].second->Send("anew", 4);
      renewed.on_read = [&] { loop->Stop(); };
    };
    loop->Loop();
    const std::string error = reset ? "socket error." : "recv failed.";
    EXPECT_EQ(dropped.events, Calls{error});
    EXPECT_EQ(renewed.events,
              deliver ? (Calls{"read 4", error, "read 4"}) : (Calls{error, "read 4"}));
    EXPECT_EQ(renewed.bytes, deliver ? "lastanew" : "anew");
  }
}

// What one batch of events queues for a connection leaves in one system call, in the order of the
// calls, and a Disconnect in between takes nothing away.
TEST(TcpClient, GatheredSendsLeaveTogether) {
  Batch batch;
  const SocketPair out = LocalPair(SOCK_SEQPACKET);  // keeps the bounds of each system call
  const SocketPair last = LocalPair(SOCK_SEQPACKET);
  const auto sink = std::make_shared<TcpClient>(batch.loop);
  const auto leaver = std::make_shared<TcpClient>(batch.loop);
  sink->SetGatherSends(true);
  leaver->SetGatherSends(true);
  ASSERT_TRUE(sink->UpdateSocket(out.first) && leaver->UpdateSocket(last.first));
  const auto packet = [](const SocketPair& pair) {
    std::string text(1 << 18, '\0');
    return text.substr(0, static_cast<size_t>(std::max(pair.second->Recv(&text[0], 1 << 18), 0)));
  };
  ASSERT_TRUE(sink->Send("off", 3));  // no loop runs: at once
  EXPECT_EQ(packet(out), "off");
  const std::string large = Pattern(50000);
  batch.probes[0]->on_read = [&] {
    EXPECT_TRUE(sink->Send("a", 1) && sink->Send("b", 1) && leaver->Send("bye", 3));
  };
  batch.probes[1]->on_read = [&] {
    EXPECT_TRUE(sink->Send("c", 1) && sink->Send(large.data(), large.size()));
    EXPECT_TRUE(sink->Send("d", 1));
    leaver->Disconnect();
  };
  batch.probes[2]->on_read = [&] {
    EXPECT_TRUE(sink->Send("e", 1));
    EXPECT_EQ(packet(last), "bye");
    batch.loop->Stop();
  };
  batch.loop->Loop();
  EXPECT_EQ(packet(out), "abc");  // what lies in front of a large piece goes with no copy of it
  EXPECT_TRUE(packet(out) == large);
  EXPECT_EQ(packet(out), "de");
  EXPECT_EQ(packet(out), "");
}

// Senders, a loop and a thread that disconnects and connects anew, at once: no byte ever reaches a
// descriptor that is not the connection's, each connection carries whole records in each sender's
// order, and nothing hangs.
TEST(TcpClient, SendersAgainstDisconnect) {
  constexpr uint32_t kSenders = 3;
  struct Record {
    uint32_t sender, number, check;
  };
  Listener listener;
  const auto loop = std::make_shared<EventLoop>();
  const auto client = std::make_shared<TcpClient>(loop);
  std::atomic<bool> over{false};
  std::vector<std::thread> senders;
  const LoopThread thread{loop};
  for (uint32_t s = 0; s < kSenders; ++s) {
    senders.emplace_back([&, s] {
      for (uint32_t n = 1; !over; ++n) {
        const Record record = {s, n, s ^ (n * 2654435761u)};
        if (client->IsConnected()) client->Send(reinterpret_cast<const char*>(&record), 12);
      }
    });
  }
  for (int round = 0; round < 150; ++round) {
    EXPECT_TRUE(client->Connect("127.0.0.1", listener.server->GetPort()));
    const SocketPtr peer = listener.Accept();
    EXPECT_EQ(peer->Send("ping", 4), 4);
    std::string stream = Read(peer, sizeof(Record) * 20);
    EXPECT_GE(stream.size(), sizeof(Record) * 20);
    const int fd = client->GetNativeSocket();
    client->Disconnect();
    const SocketPair decoy = LocalPair();  // has the number by now
    EXPECT_EQ(std::min(decoy.first->GetNativeSocket(), decoy.second->GetNativeSocket()), fd);
    stream += Read(peer);
    EXPECT_EQ(Read(decoy.first) + Read(decoy.second), "");
    uint32_t last[kSenders] = {};
    for (size_t at = 0; at + sizeof(Record) <= stream.size(); at += sizeof(Record)) {
      Record record;
      memcpy(&record, &stream[at], sizeof(record));
      EXPECT_EQ(record.check, record.sender ^ (record.number * 2654435761u));
      EXPECT_GT(record.number, last[record.sender % kSenders]);
      last[record.sender % kSenders] = record.number;
    }
  }
  over = true;
  for (std::thread& sender : senders) sender.join();
}

}  // namespace
