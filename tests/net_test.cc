// Sockets, event loop, TCP client and server over real loopback connections.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <deque>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bsp/base/socket.h"
#include "bsp/net/event_loop.h"
#include "bsp/net/tcp_client.h"
#include "bsp/net/tcp_server.h"
#include "tests/support/test_env.h"

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

SocketPair LocalPair(int type = SOCK_STREAM) {
  int fds[2] = {-1, -1};
  EXPECT_EQ(socketpair(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds), 0);
  return {std::make_shared<Socket>(fds[0]), std::make_shared<Socket>(fds[1])};
}

// A listener on a free port, and what connects to it.
struct Listener : sigslot::has_slots<> {
  Listener() {
    EXPECT_TRUE(server->Listen("127.0.0.1", 0));
    server->SignalAccept.connect(this, &Listener::Keep);
  }
  void Keep(std::shared_ptr<TcpServer>, SocketPtr socket) { accepted.push_back(socket); }
  SocketPtr Connect() const {
    auto socket = std::make_shared<Socket>();
    EXPECT_TRUE(socket->Create(Socket::SOCKET_STREAM));
    EXPECT_TRUE(socket->Connect(SocketAddress("127.0.0.1", server->GetPort())));
    return socket;
  }

  const std::shared_ptr<EventLoop> loop = std::make_shared<EventLoop>();
  const std::shared_ptr<TcpServer> server = std::make_shared<TcpServer>(loop);
  std::vector<SocketPtr> accepted;
};

SocketPair TcpPair() {
  Listener listener;
  const SocketPtr client = listener.Connect();
  listener.server->OnRead();
  return {client, listener.accepted.at(0)};
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
  const timeval patience = {20, 0};
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

// ---- Sockets

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
}

// Nothing moves without a descriptor, errno never reads as "later", a second Create leaks nothing,
// a descriptor is closed once and dies with an exec, and a peer that is gone raises no signal.
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
  EXPECT_FALSE(socket.Accept() != nullptr || socket.SetBlocking(1));
  ASSERT_TRUE(socket.Create(Socket::SOCKET_DGRAM));
  EXPECT_FALSE(socket.Create(Socket::SOCKET_STREAM));
  EXPECT_EQ(socket.SendTo(&byte, -1, address), -1);
  socket.Close();
  const Socket owner(dup(STDOUT_FILENO));  // has the number by now
  socket.Close();
  EXPECT_NE(fcntl(owner.GetNativeSocket(), F_GETFD), -1);

  const SocketPair pair = TcpPair();
  for (const SocketPtr& end : {pair.first, pair.second}) {
    EXPECT_EQ(fcntl(end->GetNativeSocket(), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(end->GetNativeSocket(), F_GETFL) & O_NONBLOCK, 0);
  }
  pair.second->Close();
  while (pair.first->Send("x", 1) == 1) {
  }
  EXPECT_EQ(Socket::ErrorNo(), EPIPE);
}

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
    if (i > 0) loop.Wakeup();  // without it a second passes
    runner.join();
  }
  EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(20));  // 100 waits are 100 s
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

// Refusals leave the table as it was. One event: read before write, no write behind a removal, an
// error alone; and each edge once.
TEST(EventLoop, RegistrationAndOrder) {
  EventLoop loop;
  Calls calls;
  Probe probe(&calls, 1);
  Probe second(&calls, 2);
  const SocketPair pair = LocalPair();
  const auto closed = std::make_shared<Socket>();
  EXPECT_FALSE(loop.AddEvent(closed, kIdleMask, &probe) || loop.RemoveEvent(closed));
  EXPECT_FALSE(loop.AddEvent(pair.first, kIdleMask, nullptr) || loop.RemoveEvent(nullptr));
  EXPECT_FALSE(loop.UpdateEvent(nullptr, kIdleMask) || loop.UpdateEvent(pair.first, kIdleMask));
  EXPECT_TRUE(loop.RemoveEvent(pair.first));  // not registered, and that is fine
  pair.second->Send("x", 1);
  ASSERT_TRUE(loop.AddEvent(pair.first, kAllMask, &probe));
  EXPECT_FALSE(loop.AddEvent(pair.first, kIdleMask, &second));
  probe.on_write = probe.on_error = [&] { loop.Stop(); };
  loop.Loop();
  EXPECT_EQ(calls, (Calls{"r1", "w1"}));

  // The unread byte is not reported again, but an unchanged mask given anew reports it.
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

// ---- TCP client

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

// A large Send goes out in chunks, the first from the call itself, with nothing lost or doubled.
TEST(TcpClient, ChunksOfALargeSend) {
  const SocketPair pair = LocalPair();
  const int size = 1 << 20;
  ASSERT_TRUE(pair.first->SetOption(SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)));
  const auto client = std::make_shared<TcpClient>(std::make_shared<EventLoop>());
  EXPECT_FALSE(client->Send("x", 1) || client->UpdateSocket(nullptr));
  ASSERT_TRUE(client->UpdateSocket(pair.first) && !client->Send(nullptr, 1));
  const std::string data = Pattern(300000);
  ASSERT_TRUE(client->Send(data.data(), data.size()));
  EXPECT_EQ(Read(pair.second), data.substr(0, kChunk));
  EXPECT_EQ(client->SendBacklog(), data.size() - kChunk);
  ASSERT_TRUE(client->Send("tail", 4));  // waits for its turn
  EXPECT_EQ(Read(pair.second), "");
  client->OnWrite();
  EXPECT_EQ(Read(pair.second), data.substr(kChunk, kChunk));
  client->OnWrite();
  EXPECT_EQ(Read(pair.second), data.substr(2 * kChunk) + "tail");
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
      ASSERT_TRUE(random() % 2 == 0 ? client->Send(&data[at], length)
                                    : client->SendDeferred(&data[at], length));
      at += length;
    }
    EXPECT_GT(client->SendBacklog(), 0u);
    EXPECT_TRUE(Read(pair.second, data.size()) == data);
    EXPECT_EQ(client->SendBacklog(), 0u);
  }
}

// All that waits in the kernel comes in one delivery, also behind urgent data, which cuts a read
// short.
TEST(TcpClient, OneDeliveryForAllThatWaits) {
  const SocketPair pair = TcpPair();
  const int fd = pair.second->GetNativeSocket();
  ASSERT_TRUE(send(fd, "abc", 3, 0) == 3 && send(fd, "!", 1, MSG_OOB) == 1);
  const std::string data = Pattern(250000);
  const int size = 1 << 20;
  ASSERT_TRUE(pair.first->SetOption(SOL_SOCKET, SO_RCVBUF, &size, sizeof(size)));
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

// A sender that never pauses cannot keep the loop's thread to itself.
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
    const auto end = steady_clock::now() + std::chrono::seconds(20);
    while (!over && steady_clock::now() < end) flood.second->Send(data.data(), 1 << 20);
    quiet.second->Send("end", 3);
  });
  loop->Loop();
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
    const std::weak_ptr<TcpClient> watch = dropped.client;
    loop->Loop();
    EXPECT_TRUE(watch.expired());
    const std::string error = reset ? "socket error." : "recv failed.";
    EXPECT_EQ(dropped.events, Calls{error});
    Calls expected = {error, "read 4"};
    if (deliver) expected.insert(expected.begin(), "read 4");
    EXPECT_EQ(renewed.events, expected);
    EXPECT_EQ(renewed.bytes, deliver ? "lastanew" : "anew");
  }
}

// What one batch of events queues for a connection leaves in one system call, in the order of the
// calls, and a Disconnect in between takes nothing away.
TEST(TcpClient, DeferredSendsLeaveTogether) {
  Batch batch;
  const SocketPair out = LocalPair(SOCK_SEQPACKET);  // keeps the bounds of each system call
  const SocketPair last = LocalPair(SOCK_SEQPACKET);
  const auto sink = std::make_shared<TcpClient>(batch.loop);
  const auto leaver = std::make_shared<TcpClient>(batch.loop);
  ASSERT_TRUE(sink->UpdateSocket(out.first) && leaver->UpdateSocket(last.first));
  const auto packet = [](const SocketPair& pair) {
    std::string text(1 << 18, '\0');
    text.resize(static_cast<size_t>(std::max(pair.second->Recv(text.data(), 1 << 18), 0)));
    return text;
  };
  ASSERT_TRUE(sink->SendDeferred("off", 3) && !batch.loop->Defer(sink));  // no loop runs: at once
  EXPECT_EQ(packet(out), "off");
  const std::string large = Pattern(50000);
  // Asks again in each turn, and is refused when the loop has ended.
  const auto again = std::make_shared<Probe>(&batch.calls, 9);
  again->on_write = [&] { batch.loop->Defer(again); };
  batch.probes[0]->on_read = [&] {
    EXPECT_TRUE(batch.loop->Defer(again) && !batch.loop->Defer(nullptr));
    EXPECT_TRUE(sink->SendDeferred("a", 1) && sink->Send("b", 1) && leaver->SendDeferred("bye", 3));
  };
  batch.probes[1]->on_read = [&] {
    EXPECT_TRUE(sink->SendDeferred("c", 1) && sink->SendDeferred(large.data(), large.size()));
    EXPECT_TRUE(sink->SendDeferred("d", 1));
    leaver->Disconnect();
  };
  batch.probes[2]->on_read = [&] {
    EXPECT_TRUE(sink->SendDeferred("e", 1));
    EXPECT_EQ(packet(last), "bye");
    batch.loop->Stop();
  };
  batch.loop->Loop();
  EXPECT_EQ(batch.calls, (Calls{"r0", "r1", "r2", "w9", "w9"}));
  EXPECT_EQ(again.use_count(), 1);
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
    bool IsWhole() const { return sender < kSenders && check == (sender ^ (number * 2654435761u)); }
  };
  Listener listener;
  const auto loop = std::make_shared<EventLoop>();
  const auto client = std::make_shared<TcpClient>(loop);
  std::atomic<bool> over{false};
  std::vector<std::thread> senders;
  const LoopThread thread{loop};
  for (uint32_t s = 0; s < kSenders; ++s) {
    senders.emplace_back([&, s] {
      for (uint32_t n = 0; !over; ++n) {
        const Record record = {s, n, s ^ (n * 2654435761u)};
        if (client->IsConnected()) client->Send(reinterpret_cast<const char*>(&record), 12);
      }
    });
  }
  size_t records = 0;
  for (int round = 0; round < 150; ++round) {
    EXPECT_TRUE(client->Connect("127.0.0.1", listener.server->GetPort()));
    listener.server->OnRead();
    const SocketPtr peer = listener.accepted.at(static_cast<size_t>(round));
    EXPECT_EQ(peer->Send("ping", 4), 4);
    std::string stream = Read(peer, sizeof(Record) * 20);
    const int fd = client->GetNativeSocket();
    client->Disconnect();
    const SocketPair decoy = LocalPair();  // has the number by now
    EXPECT_EQ(std::min(decoy.first->GetNativeSocket(), decoy.second->GetNativeSocket()), fd);
    stream += Read(peer);
    EXPECT_EQ(Read(decoy.first) + Read(decoy.second), "");
    uint32_t next[kSenders] = {};
    for (size_t at = 0; at + sizeof(Record) <= stream.size(); at += sizeof(Record), ++records) {
      Record record;
      memcpy(&record, &stream[at], sizeof(record));
      EXPECT_TRUE(record.IsWhole());
      if (!record.IsWhole()) break;
      EXPECT_GE(record.number, next[record.sender]);
      next[record.sender] = record.number + 1;
    }
    peer->Close();
  }
  over = true;
  for (std::thread& sender : senders) sender.join();
  EXPECT_GE(records, 150u * 20);
}

// ---- TCP server

// All that wait are accepted in one call, in order; a taken port is refused; what no slot keeps is
// closed.
TEST(TcpServer, AcceptsAllThatWait) {
  Listener listener;
  const auto second = std::make_shared<TcpServer>(listener.loop);
  EXPECT_FALSE(second->Listen("127.0.0.1", listener.server->GetPort()));
  EXPECT_EQ(Socket::ErrorNo(), EADDRINUSE);  // the log lines have not changed it
  std::vector<SocketPtr> peers;
  std::string letters;
  for (const char* letter : {"a", "b", "c", "d", "e"}) {
    peers.push_back(listener.Connect());
    ASSERT_EQ(peers.back()->Send(letter, 1), 1);
  }
  listener.server->OnRead();
  for (const SocketPtr& socket : listener.accepted) letters += Read(socket, 1);
  EXPECT_EQ(letters, "abcde");
  listener.disconnect_all();
  const SocketPtr unwanted = listener.Connect();
  listener.server->OnRead();
  char byte = 0;
  EXPECT_EQ(unwanted->Recv(&byte, 1), 0);
}

}  // namespace
