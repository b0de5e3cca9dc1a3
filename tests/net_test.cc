// Sockets, event loop, TCP client and server over real loopback connections.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <deque>
#include <functional>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bsp/base/socket.h"
#include "bsp/net/event_loop.h"
#include "bsp/net/tcp_client.h"
#include "bsp/net/tcp_server.h"
#include "tests/support/child.h"
#include "tests/support/test_env.h"

namespace {

using bsp::EventLoop;
using bsp::MemoryBuffer;
using bsp::Socket;
using bsp::SocketAddress;
using bsp::TcpClient;
using bsp::TcpServer;
using SocketPtr = std::shared_ptr<Socket>;
using std::chrono::steady_clock;

constexpr unsigned kIdleMask = bsp::EVENT_READ | bsp::EVENT_ERROR;
constexpr unsigned kAllMask = kIdleMask | bsp::EVENT_WRITE;
constexpr size_t kChunk = 102400;

bool IsCloseOnExec(int fd) { return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0; }

// A listener on a free loopback port, and the address that the kernel gave it.
struct Listener {
  explicit Listener(int backlog = 128) {
    const SocketAddress any("127.0.0.1", 0);
    EXPECT_TRUE(socket.Create(Socket::SOCKET_STREAM) && socket.Bind(any) && socket.Listen(backlog));
    socklen_t length = SocketAddress::SizeOf();
    EXPECT_EQ(getsockname(socket.GetNativeSocket(), address.Native(), &length), 0);
  }

  Socket socket;
  SocketAddress address;
};

// Addresses keep the system's layout whatever the host is; a name nobody knows gives 0.0.0.0.
TEST(SocketAddress, SetTellsNamesFromAddresses) {
  NEED_PRIVATE_WORLD();  // else the look-up might ask a name server outside
  SocketAddress address("127.0.0.1", 12122);
  const auto* native = reinterpret_cast<const sockaddr_in*>(address.Native());
  EXPECT_EQ(native->sin_addr.s_addr, htonl(INADDR_LOOPBACK));
  EXPECT_EQ(native->sin_port, htons(12122));
  address.Set("no.such.host.invalid", 80);
  EXPECT_EQ(address.ToString(), "0.0.0.0:80");
  EXPECT_EQ(native->sin_family, AF_INET);
  address.Set("localhost", 81);
  EXPECT_EQ(address.ToString(), "127.0.0.1:81");
  EXPECT_FALSE(SocketAddress("255.255.255.255", 1).IsValid());
}

// Nothing moves without a descriptor, errno never reads as "later", a second Create leaks nothing,
// and a descriptor is closed once.
TEST(Socket, RefusesWhatItCannotDo) {
  Socket socket;
  SocketAddress address("127.0.0.1", 1);
  char byte = 0;
  const auto refused = [](int result) { return result == -1 && Socket::ErrorNo() == EBADF; };
  errno = EAGAIN;
  EXPECT_TRUE(refused(socket.Send(&byte, 1)) && refused(socket.Recv(&byte, 1)));
  EXPECT_TRUE(refused(socket.SendTo(&byte, 1, address)));
  EXPECT_TRUE(refused(socket.RecvFrom(&byte, 1, address)));
  EXPECT_FALSE(socket.Connect(address) || socket.Bind(address) || socket.Listen(1));
  EXPECT_EQ(socket.Accept(), nullptr);
  EXPECT_FALSE(socket.SetBlocking(1));

  ASSERT_TRUE(socket.Create(Socket::SOCKET_DGRAM));
  const int fd = socket.GetNativeSocket();
  EXPECT_TRUE(IsCloseOnExec(fd));
  EXPECT_FALSE(socket.Create(Socket::SOCKET_STREAM));
  EXPECT_EQ(socket.GetNativeSocket(), fd);
  EXPECT_EQ(socket.SendTo(&byte, -1, address), -1);
  socket.Close();
  EXPECT_FALSE(socket.IsValid());
  const Socket owner(dup(STDOUT_FILENO));  // has the number by now
  socket.Close();
  EXPECT_NE(fcntl(owner.GetNativeSocket(), F_GETFD), -1);
}

// A stream moves bytes both ways, tells a close, and survives a peer that is gone.
TEST(Socket, StreamEndToEnd) {
  NEED_PRIVATE_WORLD();
  Listener listener;
  ASSERT_TRUE(listener.socket.SetBlocking(1));
  EXPECT_EQ(listener.socket.Accept(), nullptr);
  EXPECT_EQ(Socket::ErrorNo(), EAGAIN);
  Socket client;
  ASSERT_TRUE(client.Create(Socket::SOCKET_STREAM) && client.Connect(listener.address));
  SocketPtr accepted = listener.socket.Accept();
  ASSERT_NE(accepted, nullptr);
  EXPECT_TRUE(IsCloseOnExec(accepted->GetNativeSocket()));
  EXPECT_EQ(fcntl(accepted->GetNativeSocket(), F_GETFL) & O_NONBLOCK, 0);

  char text[16] = {};
  EXPECT_EQ(accepted->Send("two", 3), 3);
  EXPECT_EQ(recv(client.GetNativeSocket(), text, 3, MSG_WAITALL), 3);
  EXPECT_STREQ(text, "two");
  ASSERT_TRUE(client.SetBlocking(1));
  EXPECT_EQ(client.Recv(text, sizeof(text)), -1);
  EXPECT_EQ(Socket::ErrorNo(), EAGAIN);
  ASSERT_TRUE(client.SetBlocking(0));
  accepted.reset();
  EXPECT_EQ(client.Recv(text, sizeof(text)), 0);
  while (client.Send("x", 1) == 1) {
  }
  EXPECT_EQ(Socket::ErrorNo(), EPIPE);  // and no signal ended the program

  Socket second;
  ASSERT_TRUE(second.Create(Socket::SOCKET_STREAM));
  EXPECT_FALSE(second.Bind(listener.address));
  EXPECT_EQ(Socket::ErrorNo(), EADDRINUSE);  // the log line before has not changed it
}

// ---- Helpers for the loop

std::pair<SocketPtr, SocketPtr> LocalPair(int type = SOCK_STREAM) {
  int fds[2] = {-1, -1};
  EXPECT_EQ(socketpair(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds), 0);
  return {std::make_shared<Socket>(fds[0]), std::make_shared<Socket>(fds[1])};
}

std::pair<SocketPtr, SocketPtr> TcpPair() {
  Listener listener;
  auto client = std::make_shared<Socket>();
  EXPECT_TRUE(client->Create(Socket::SOCKET_STREAM) && client->Connect(listener.address));
  return {client, listener.socket.Accept()};
}

// Runs a loop on a thread for the length of a scope.
class LoopThread {
 public:
  explicit LoopThread(std::shared_ptr<EventLoop> loop)
      : loop_(std::move(loop)), thread_([this] { loop_->Loop(); }) {}
  ~LoopThread() {
    loop_->Stop();
    loop_->Wakeup();
    thread_.join();
  }

 private:
  std::shared_ptr<EventLoop> loop_;
  std::thread thread_;
};

// Notes its calls as letters in a common log: r, w, e and a number of its own.
class Probe : public bsp::EventHandler {
 public:
  Probe(std::vector<std::string>* calls, int number) : calls_(calls), number_(number) {}
  void OnRead() override { Note("r", on_read); }
  void OnWrite() override { Note("w", on_write); }
  void OnError() override { Note("e", on_error); }

  std::function<void()> on_read, on_write, on_error;

 private:
  void Note(const char* what, const std::function<void()>& then) {
    calls_->push_back(what + std::to_string(number_));
    if (then) then();
  }

  std::vector<std::string>* calls_;
  int number_;
};

using Calls = std::vector<std::string>;

// ---- Event loop

// Stop is never lost, wherever it comes, a loop may run again, and Wakeup ends a wait at once, also
// one that has not begun.
TEST(EventLoop, StopAndWakeup) {
  EventLoop loop;
  const auto start = steady_clock::now();
  for (int i = 0; i < 100; ++i) {
    loop.Stop();
    loop.Loop();
    std::thread runner([&] { loop.Loop(); });
    loop.Stop();
    loop.Wakeup();
    runner.join();
  }
  EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(10));  // 100 waits are 100 s

  std::thread runner([&] { loop.Loop(); });
  loop.Stop();  // and nothing else: a second at most
  runner.join();
}

// What one batch has fetched reaches nobody whose registration has gone meanwhile: neither the old
// handler, nor the new one under the same descriptor, nor one whose owner has died.
TEST(EventLoop, StaleEventsAreDropped) {
  EventLoop loop;
  Calls calls;
  Probe first(&calls, 1);
  Probe second(&calls, 2);
  Probe heir(&calls, 3);
  auto owned = std::make_shared<Probe>(&calls, 4);
  auto a = LocalPair();
  auto b = LocalPair();
  auto c = LocalPair();
  std::pair<SocketPtr, SocketPtr> fresh;
  const int old_fd = b.first->GetNativeSocket();
  first.on_read = [&] {
    EXPECT_TRUE(loop.RemoveEvent(b.first));
    b.first->Close();
    fresh = LocalPair();
    ASSERT_EQ(fresh.first->GetNativeSocket(), old_fd);
    EXPECT_TRUE(loop.AddEvent(fresh.first, kIdleMask, &heir));
    owned.reset();
    loop.Stop();
  };
  ASSERT_TRUE(loop.AddEvent(a.first, kIdleMask, &first));
  ASSERT_TRUE(loop.AddEvent(b.first, kIdleMask, &second));
  ASSERT_TRUE(loop.AddEvent(c.first, kIdleMask, owned.get(), owned));
  // The order of arrival is the order of the batch.
  for (const auto* pair : {&a, &b, &c}) pair->second->Send("x", 1);
  loop.Loop();
  EXPECT_EQ(calls, Calls{"r1"});

  heir.on_read = [&] { loop.Stop(); };
  fresh.second->Send("x", 1);
  loop.Loop();
  EXPECT_EQ(calls, (Calls{"r1", "r3"}));
}

// Refusals leave the table as it was. One event: read before write, no write behind a removal, an
// error alone; and each edge once.
TEST(EventLoop, RegistrationAndOrder) {
  EventLoop loop;
  Calls calls;
  Probe probe(&calls, 1);
  Probe second(&calls, 2);
  auto pair = LocalPair();
  const auto closed = std::make_shared<Socket>();
  EXPECT_FALSE(loop.AddEvent(nullptr, kIdleMask, &probe) || loop.RemoveEvent(nullptr));
  EXPECT_FALSE(loop.AddEvent(closed, kIdleMask, &probe) || loop.RemoveEvent(closed));
  EXPECT_FALSE(loop.AddEvent(pair.first, kIdleMask, nullptr));
  EXPECT_FALSE(loop.UpdateEvent(nullptr, kIdleMask) || loop.UpdateEvent(pair.first, kIdleMask));
  EXPECT_TRUE(loop.RemoveEvent(pair.first));  // not registered, and that is fine
  pair.second->Send("x", 1);
  ASSERT_TRUE(loop.AddEvent(pair.first, kAllMask, &probe));
  EXPECT_FALSE(loop.AddEvent(pair.first, kIdleMask, &second));
  probe.on_write = [&] { loop.Stop(); };
  loop.Loop();
  EXPECT_EQ(calls, (Calls{"r1", "w1"}));

  // The unread byte is not reported again, but an unchanged mask given anew reports it.
  probe.on_write = nullptr;
  EXPECT_TRUE(loop.UpdateEvent(pair.first, kAllMask));
  probe.on_read = [&] {
    EXPECT_TRUE(loop.RemoveEvent(pair.first));
    loop.Stop();
  };
  loop.Loop();
  EXPECT_EQ(calls, (Calls{"r1", "w1", "r1"}));

  pair.second->Send("y", 1);
  pair.second->Close();
  probe.on_error = [&] { loop.Stop(); };
  ASSERT_TRUE(loop.AddEvent(pair.first, kAllMask, &probe));
  loop.Loop();
  EXPECT_EQ(calls, (Calls{"r1", "w1", "r1", "e1"}));
}

// A deferred call comes once the events at hand are done, on request again in the next turn, and a
// last time when the loop ends, when it is refused from there on.
TEST(EventLoop, DeferredCalls) {
  EventLoop loop;
  Calls calls;
  std::vector<std::pair<SocketPtr, SocketPtr>> pairs;
  std::deque<Probe> probes;
  auto later = std::make_shared<Probe>(&calls, 9);
  EXPECT_FALSE(loop.Defer(later));
  for (int i = 0; i < 3; ++i) {
    pairs.push_back(LocalPair());
    probes.emplace_back(&calls, i);
    ASSERT_TRUE(loop.AddEvent(pairs.back().first, kIdleMask, &probes.back()));
    pairs.back().second->Send("x", 1);
  }
  probes[0].on_read = [&] { EXPECT_TRUE(loop.Defer(later) && !loop.Defer(nullptr)); };
  int turns = 0;
  later->on_write = [&] {
    EXPECT_EQ(loop.Defer(later), turns < 3);
    if (++turns == 3) loop.Stop();
  };
  loop.Loop();
  EXPECT_EQ(calls, (Calls{"r0", "r1", "r2", "w9", "w9", "w9", "w9"}));
  EXPECT_EQ(later.use_count(), 1);
}

// ---- TCP client

std::string Pattern(size_t length, unsigned seed = 1) {
  std::string text(length, '\0');
  std::minstd_rand random(seed);
  for (char& c : text) c = static_cast<char>(random());
  return text;
}

// Everything that is there to read right now.
std::string Drain(Socket& socket) {
  std::string all;
  std::vector<char> area(1 << 16);
  for (;;) {
    const ssize_t got = recv(socket.GetNativeSocket(), area.data(), area.size(), MSG_DONTWAIT);
    if (got <= 0) return all;
    all.append(area.data(), static_cast<size_t>(got));
  }
}

// Waits for `length` bytes.
std::string ReadExactly(Socket& socket, size_t length) {
  std::string all(length, '\0');
  timeval patience = {20, 0};
  setsockopt(socket.GetNativeSocket(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  socket.SetBlocking(0);
  const ssize_t got = recv(socket.GetNativeSocket(), all.data(), length, MSG_WAITALL);
  socket.SetBlocking(1);
  all.resize(got > 0 ? static_cast<size_t>(got) : 0);
  return all;
}

// A TcpClient with its slots: keeps the bytes and the texts of errors, in order.
struct Station : sigslot::has_slots<> {
  explicit Station(const std::shared_ptr<EventLoop>& loop)
      : client(std::make_shared<TcpClient>(loop)) {
    client->SignalRead.connect(this, &Station::HandleRead);
    client->SignalError.connect(this, &Station::HandleError);
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

// A large Send goes out in chunks, the first from the call itself, with nothing lost or doubled.
TEST(TcpClient, ChunksOfALargeSend) {
  auto pair = LocalPair();
  const int size = 1 << 20;
  ASSERT_TRUE(pair.first->SetOption(SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)));
  const auto client = std::make_shared<TcpClient>(std::make_shared<EventLoop>());
  EXPECT_FALSE(client->Send("x", 1));
  EXPECT_FALSE(client->UpdateSocket(nullptr));
  ASSERT_TRUE(client->UpdateSocket(pair.first));
  EXPECT_FALSE(client->Send(nullptr, 1));
  EXPECT_TRUE(client->Send(nullptr, 0));
  const std::string data = Pattern(300000);
  ASSERT_TRUE(client->Send(data.data(), data.size()));
  EXPECT_EQ(Drain(*pair.second), data.substr(0, kChunk));
  EXPECT_EQ(client->SendBacklog(), data.size() - kChunk);
  ASSERT_TRUE(client->Send("tail", 4));  // waits for its turn
  EXPECT_EQ(Drain(*pair.second), "");
  client->OnWrite();
  EXPECT_EQ(Drain(*pair.second), data.substr(kChunk, kChunk));
  client->OnWrite();
  EXPECT_EQ(Drain(*pair.second), data.substr(2 * kChunk) + "tail");
  EXPECT_EQ(client->SendBacklog(), 0u);
  ASSERT_TRUE(client->Send("now", 3));
  EXPECT_EQ(Drain(*pair.second), "now");
}

// A slow reader gets every byte in order, whatever the sizes of the pieces, from both ways to send
// and with both ways to write.
TEST(TcpClient, FullSocketKeepsTheStream) {
  for (const bool whole : {false, true}) {
    SCOPED_TRACE(whole);
    const auto loop = std::make_shared<EventLoop>();
    auto pair = TcpPair();
    const int size = 100000;
    const int on = 1;
    pair.first->SetOption(IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    pair.first->SetOption(SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
    const auto client = std::make_shared<TcpClient>(loop);
    client->SetSendWhole(whole);
    ASSERT_TRUE(client->UpdateSocket(pair.first));
    const LoopThread thread(loop);
    const std::string data = Pattern(6000000, 7);
    std::minstd_rand random(11);
    for (size_t at = 0; at < data.size();) {
      const size_t length = std::min<size_t>(random() % 250000, data.size() - at);
      ASSERT_TRUE(random() % 2 == 0 ? client->Send(&data[at], length)
                                    : client->SendDeferred(&data[at], length));
      at += length;
    }
    EXPECT_GT(client->SendBacklog(), 0u);
    EXPECT_TRUE(ReadExactly(*pair.second, data.size()) == data);
    EXPECT_EQ(client->SendBacklog(), 0u);
    client->Disconnect();
  }
}

// All that waits in the kernel comes in one delivery, also behind urgent data, which cuts a read
// short.
TEST(TcpClient, OneDeliveryForAllThatWaits) {
  const auto loop = std::make_shared<EventLoop>();
  auto pair = LocalPair();
  const int size = 1 << 20;
  ASSERT_TRUE(pair.second->SetOption(SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)));
  Station station(loop);
  station.on_read = [&] { loop->Stop(); };
  ASSERT_TRUE(station.client->UpdateSocket(pair.first));
  const std::string data = Pattern(250000);
  ASSERT_EQ(pair.second->Send(data.data(), 250000), 250000);
  loop->Loop();
  EXPECT_EQ(station.events, Calls{"read 250000"});
  EXPECT_TRUE(station.bytes == data);

  pair = TcpPair();
  station.client->Disconnect();
  const int fd = pair.second->GetNativeSocket();
  ASSERT_TRUE(send(fd, "abc", 3, 0) == 3 && send(fd, "!", 1, MSG_OOB) == 1);
  ASSERT_EQ(send(fd, "def", 3, 0), 3);
  for (int on_their_way = 1; on_their_way > 0; std::this_thread::yield()) {
    ASSERT_EQ(ioctl(fd, SIOCOUTQ, &on_their_way), 0);
  }
  ASSERT_TRUE(station.client->UpdateSocket(pair.first));
  loop->Loop();
  EXPECT_EQ(station.events.back(), "read 6");
  EXPECT_EQ(station.bytes.substr(data.size()), "abcdef");
}

// Takes pieces of random size by turns into its own memory and through the buffer.
struct Alternating : bsp::ByteSink {
  char* Room(const std::shared_ptr<MemoryBuffer>& buffer, size_t* room) override {
    EXPECT_FALSE(is_slots_turn);
    EXPECT_LE(buffer->size(), limit);
    buffer->ReadString(&all, buffer->size());
    limit = *room = 1 + random() % 50000;
    if (missing == 0 && ++turns % 2 == 0) return nullptr;
    if (missing == 0) memory.resize(missing = 1 + random() % 400000);
    *room = missing;
    return &memory[memory.size() - missing];
  }
  bool Took(size_t count) override {
    all.append(&memory[memory.size() - missing], count);
    missing -= count;
    is_slots_turn = missing == 0;
    return is_slots_turn;
  }

  std::string all, memory;
  size_t missing = 0, limit = 0;
  int turns = 0;
  bool is_slots_turn = false;
  std::minstd_rand random{5};
};

// With a sink the stream keeps its bytes, each read its bounds, and the slot its turn before more
// is read, however the network cuts the stream.
TEST(TcpClient, SinkTakesItsPart) {
  const auto loop = std::make_shared<EventLoop>();
  auto pair = TcpPair();
  Station station(loop);
  const auto sink = std::make_shared<Alternating>();
  station.client->SetSink(sink);
  station.client->SetDeliverLastBytes(true);
  ASSERT_TRUE(station.client->UpdateSocket(pair.first));
  const std::string data = Pattern(6000000, 3);
  station.on_read = [&] {
    sink->is_slots_turn = false;
    sink->all += station.bytes;
    station.bytes.clear();
  };
  station.on_error = [&] { loop->Stop(); };
  std::thread sender([&] {
    std::minstd_rand random(9);
    for (size_t at = 0; at < data.size();) {
      const size_t length = std::min<size_t>(1 + random() % 300000, data.size() - at);
      const int sent = pair.second->Send(&data[at], static_cast<int>(length));
      if (sent <= 0) break;
      at += static_cast<size_t>(sent);
    }
    pair.second.reset();
  });
  loop->Loop();
  sender.join();
  EXPECT_TRUE(sink->all == data);
  EXPECT_GT(sink->turns, 10);
}

// A sender that never pauses cannot keep the loop's thread to itself.
TEST(TcpClient, FloodLeavesTurnsForOthers) {
  const auto loop = std::make_shared<EventLoop>();
  auto flood = TcpPair();
  auto quiet = TcpPair();
  Station flooder(loop);
  Station other(loop);
  ASSERT_TRUE(flooder.client->UpdateSocket(flood.first));
  ASSERT_TRUE(other.client->UpdateSocket(quiet.first));
  flooder.on_read = [&] {
    if (flooder.events.size() == 3) quiet.second->Send("hello", 5);
    flooder.bytes.clear();
  };
  other.on_read = [&] { loop->Stop(); };
  std::atomic<bool> over{false};
  std::thread sender([&] {
    const std::string data(1 << 20, 'f');
    const auto end = steady_clock::now() + std::chrono::seconds(20);
    while (!over && steady_clock::now() < end) flood.second->Send(data.data(), 1 << 20);
    EXPECT_TRUE(over) << "the other had its turn only when the flood was over";
    quiet.second->Send("hello", 5);
  });
  loop->Loop();
  over = true;
  flooder.client->Disconnect();
  sender.join();
  EXPECT_EQ(other.bytes, "hello");
}

// The last bytes before a close or a reset: in the buffer without a word by default, delivered
// first on request.
TEST(TcpClient, LastBytesBeforeTheEnd) {
  for (const int mode : {0, 1, 2, 3}) {
    const bool deliver = (mode & 1) != 0;
    const bool reset = (mode & 2) != 0;
    SCOPED_TRACE(std::string(deliver ? "deliver " : "keep ") + (reset ? "reset" : "close"));
    const auto loop = std::make_shared<EventLoop>();
    auto pair = TcpPair();
    Station station(loop);
    station.client->SetDeliverLastBytes(deliver);
    ASSERT_TRUE(station.client->UpdateSocket(pair.first));
    // A close with unread input is a reset.
    ASSERT_TRUE(!reset || station.client->Send("unread", 6));
    ASSERT_EQ(pair.second->Send(Pattern(100).data(), 100), 100);
    pair.second.reset();
    station.on_error = [&] { loop->Stop(); };
    loop->Loop();
    Calls expected = {reset ? "socket error." : "recv failed."};
    if (deliver) expected.insert(expected.begin(), "read 100");
    EXPECT_EQ(station.events, expected);
    // A reset has closed the socket; behind a plain close a Send is taken, and goes nowhere.
    EXPECT_EQ(station.client->IsConnected(), !reset);
    EXPECT_EQ(station.client->Send("x", 1), !reset);
    station.client->Disconnect();
    EXPECT_EQ(station.client->GetNativeSocket(), -1);
  }
}

// A slot may drop the last reference, and may connect anew, in the middle of the call that runs it.
TEST(TcpClient, SlotsMayDropAndReconnect) {
  for (const bool reset : {false, true}) {
    const auto loop = std::make_shared<EventLoop>();
    auto pair = TcpPair();
    auto next = TcpPair();
    auto third = TcpPair();
    Station dropped(loop);
    Station renewed(loop);
    ASSERT_TRUE(dropped.client->UpdateSocket(pair.first));
    ASSERT_TRUE(renewed.client->UpdateSocket(next.first));
    ASSERT_TRUE(!reset || (dropped.client->Send("u", 1) && renewed.client->Send("u", 1)));
    dropped.on_error = [&] { dropped.client.reset(); };
    renewed.on_error = [&] {
      renewed.client->Disconnect();
      EXPECT_TRUE(renewed.client->UpdateSocket(third.first));
      third.second->Send("again", 5);
    };
    renewed.on_read = [&] { loop->Stop(); };
    const std::weak_ptr<TcpClient> watch = dropped.client;
    pair.second.reset();
    next.second.reset();
    loop->Loop();
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(dropped.events.size(), 1u);
    EXPECT_EQ(renewed.bytes, "again");
  }
}

// What one batch of events queues for a connection leaves in one system call, in the order of the
// calls, and a Disconnect in between takes nothing away.
TEST(TcpClient, DeferredSendsLeaveTogether) {
  const auto loop = std::make_shared<EventLoop>();
  auto out = LocalPair(SOCK_SEQPACKET);  // keeps the bounds of each system call
  auto last = LocalPair(SOCK_SEQPACKET);
  const auto sink = std::make_shared<TcpClient>(loop);
  const auto leaver = std::make_shared<TcpClient>(loop);
  ASSERT_TRUE(sink->UpdateSocket(out.first));
  ASSERT_TRUE(leaver->UpdateSocket(last.first));
  const auto packet = [](const std::pair<SocketPtr, SocketPtr>& pair) {
    std::string text(1 << 18, '\0');
    const int got = pair.second->Recv(text.data(), 1 << 18);
    text.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return text;
  };
  ASSERT_TRUE(sink->SendDeferred("off", 3));  // no loop runs: at once
  EXPECT_EQ(packet(out), "off");

  const std::string large = Pattern(50000);
  Calls calls;
  std::vector<std::pair<SocketPtr, SocketPtr>> pairs;
  std::deque<Probe> probes;
  for (int i = 0; i < 3; ++i) {
    pairs.push_back(LocalPair());
    probes.emplace_back(&calls, i);
    ASSERT_TRUE(loop->AddEvent(pairs.back().first, kIdleMask, &probes.back()));
    pairs.back().second->Send("x", 1);
  }
  probes[0].on_read = [&] {
    EXPECT_TRUE(sink->SendDeferred("a", 1) && sink->Send("b", 1) && leaver->SendDeferred("bye", 3));
  };
  probes[1].on_read = [&] {
    EXPECT_TRUE(sink->SendDeferred("c", 1) && sink->SendDeferred(large.data(), large.size()));
    EXPECT_TRUE(sink->SendDeferred("d", 1));
    leaver->Disconnect();
  };
  probes[2].on_read = [&] {
    EXPECT_TRUE(sink->SendDeferred("e", 1));
    EXPECT_EQ(packet(last), "bye");
    loop->Stop();
  };
  loop->Loop();
  EXPECT_EQ(packet(out), "abc");  // what lies in front of a large piece goes with no copy of it
  EXPECT_TRUE(packet(out) == large);
  EXPECT_EQ(packet(out), "de");
  EXPECT_EQ(packet(out), "");
}

// Senders, a loop and a thread that disconnects and connects anew, at once: no byte ever reaches a
// descriptor that is not the connection's, each connection carries whole records in each sender's
// order, and nothing hangs.
TEST(TcpClient, SendersAgainstDisconnect) {
  constexpr int kSenders = 3;
  constexpr int kRounds = 150;
  struct Record {
    uint32_t sender, number, check;
  };
  Listener listener;
  const auto loop = std::make_shared<EventLoop>();
  Station station(loop);
  std::atomic<bool> over{false};
  std::vector<std::thread> senders;
  const LoopThread thread(loop);
  for (uint32_t s = 0; s < kSenders; ++s) {
    senders.emplace_back([&, s] {
      for (uint32_t n = 0; !over; ++n) {
        const Record record = {s, n, s ^ (n * 2654435761u)};
        if (!station.client->IsConnected()) {
          std::this_thread::yield();
          continue;  // Send would write a log line each time
        }
        station.client->Send(reinterpret_cast<const char*>(&record), sizeof(record));
      }
    });
  }
  size_t records = 0;
  for (int round = 0; round < kRounds; ++round) {
    ASSERT_TRUE(station.client->Connect("127.0.0.1", listener.address.Port()));
    const SocketPtr peer = listener.socket.Accept();
    ASSERT_NE(peer, nullptr);
    ASSERT_EQ(peer->Send("ping", 4), 4);
    std::string stream = ReadExactly(*peer, sizeof(Record) * 20);
    const int fd = station.client->GetNativeSocket();
    station.client->Disconnect();
    auto decoy = LocalPair();  // has the number by now
    EXPECT_EQ(std::min(decoy.first->GetNativeSocket(), decoy.second->GetNativeSocket()), fd);
    stream += Drain(*peer);
    std::this_thread::yield();
    EXPECT_EQ(Drain(*decoy.first) + Drain(*decoy.second), "");
    uint32_t next[kSenders] = {};
    for (size_t at = 0; at + sizeof(Record) <= stream.size(); at += sizeof(Record)) {
      Record record;
      memcpy(&record, &stream[at], sizeof(record));
      ASSERT_LT(record.sender, static_cast<uint32_t>(kSenders));
      ASSERT_EQ(record.check, record.sender ^ (record.number * 2654435761u));
      ASSERT_GE(record.number, next[record.sender]);
      next[record.sender] = record.number + 1;
      ++records;
    }
  }
  over = true;
  for (std::thread& sender : senders) sender.join();
  EXPECT_GE(records, static_cast<size_t>(kRounds) * 20);
}

// ---- TCP server

class Acceptor : public sigslot::has_slots<> {
 public:
  explicit Acceptor(const std::shared_ptr<TcpServer>& server) {
    server->SignalAccept.connect(this, &Acceptor::Handle);
  }
  void Handle(std::shared_ptr<TcpServer>, SocketPtr socket) {
    accepted.push_back(std::move(socket));
    if (on_accept) on_accept();
  }

  std::vector<SocketPtr> accepted;
  std::function<void()> on_accept;
};

SocketPtr ConnectTo(int port) {
  auto socket = std::make_shared<Socket>();
  EXPECT_TRUE(socket->Create(Socket::SOCKET_STREAM));
  EXPECT_TRUE(socket->Connect(SocketAddress("127.0.0.1", port)));
  return socket;
}

// All that wait are accepted in one call, in order; a taken port is refused; a server that nobody
// listens to closes what comes.
TEST(TcpServer, AcceptsAllThatWait) {
  const auto loop = std::make_shared<EventLoop>();
  const auto server = std::make_shared<TcpServer>(loop);
  EXPECT_EQ(server->GetPort(), -1);
  ASSERT_TRUE(server->Listen("127.0.0.1", 0));
  const auto second = std::make_shared<TcpServer>(loop);
  EXPECT_FALSE(second->Listen("127.0.0.1", server->GetPort()));
  std::vector<SocketPtr> peers;
  for (int i = 0; i < 5; ++i) {
    peers.push_back(ConnectTo(server->GetPort()));
    const char letter = static_cast<char>('a' + i);
    ASSERT_EQ(peers.back()->Send(&letter, 1), 1);
  }
  std::string letters;
  {
    Acceptor acceptor(server);
    server->OnRead();
    for (const SocketPtr& socket : acceptor.accepted) letters += ReadExactly(*socket, 1);
  }
  EXPECT_EQ(letters, "abcde");
  const SocketPtr unwanted = ConnectTo(server->GetPort());
  server->OnRead();
  server->OnWrite();
  server->OnError();
  char byte = 0;
  EXPECT_EQ(unwanted->Recv(&byte, 1), 0);
}

// Out of descriptors: who waits is turned away at once in place of hanging, and accepting goes on
// when descriptors come back.
TEST(TcpServer, TurnsAwayWithoutDescriptors) {
  auto child = test::Child::Fork([] {
    const auto loop = std::make_shared<EventLoop>();
    const auto server = std::make_shared<TcpServer>(loop);
    TcpServer::Options options;
    options.backlog = 64;
    options.keep_reserve = true;
    server->SetOptions(options);
    Acceptor acceptor(server);
    if (!server->Listen("127.0.0.1", 0)) return 1;
    std::vector<SocketPtr> peers;
    for (int i = 0; i < 8; ++i) peers.push_back(ConnectTo(server->GetPort()));
    const int next = dup(0);  // the lowest free number
    close(next);
    const rlimit limit = {static_cast<rlim_t>(next + 3), static_cast<rlim_t>(next + 3)};
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return 2;
    server->OnRead();
    if (acceptor.accepted.size() != 3) return 3;
    char byte = 0;
    for (size_t i = 3; i < peers.size(); ++i) {
      if (peers[i]->Recv(&byte, 1) != 0) return 4;
    }
    acceptor.accepted.clear();
    peers.clear();
    peers.push_back(ConnectTo(server->GetPort()));
    server->OnRead();
    return acceptor.accepted.size() == 1 ? 0 : 5;
  });
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_NE(child.output().find("5 connections turned away"), std::string::npos) << child.output();
}

}  // namespace
