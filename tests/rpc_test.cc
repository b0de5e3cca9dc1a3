// The RPC bus: frames, the broker against bare sockets, the client against a played broker, and the
// C binding.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <future>
#include <mutex>
#include <random>
#include <thread>

#include "bsp/net/rpc/rpc_client.h"
#include "bsp/net/rpc/rpc_client_c.h"
#include "bsp/net/rpc/rpc_header.h"
#include "bsp/net/rpc/rpc_server.h"
#include "bsp/util/memory_buffer.h"
#include "tests/support/rpc_peer.h"
#include "tests/support/test_env.h"

namespace {

using bsp::MemoryBuffer;
using bsp::RpcClient;
using bsp::RpcFrameState;
using bsp::RpcServer;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test::RpcBytes;
using test::RpcFrame;
using test::RpcPeer;
using test::RpcRecord;

int NextPort() {
  static int port = 17800;
  return ++port;
}

int64_t ElapsedMs(steady_clock::time_point begin) {
  return std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin).count();
}

// A broker in this process, on a port of its own.
struct Broker {
  explicit Broker(RpcServer::Options options = {}) : server(options), port(NextPort()) {
    EXPECT_EQ(server.Start("127.0.0.1", port), nullptr);
  }
  RpcServer server;
  const int port;
};

std::string ListenBytes(uint32_t seq, const std::string& cmd, int type, int power, int pid) {
  return RpcBytes(RPC_TYPE_LISTEN, seq, cmd, RpcRecord(cmd, type, power), pid);
}

std::string CheckBytes(const std::string& cmd) {
  return RpcBytes(RPC_TYPE_CHECK_POWER, 1, cmd, RpcRecord(cmd, -1, -1));
}

// A round trip that any broker serves; proof that this connection is alive and caught up.
bool IsServed(RpcPeer* peer) { return peer->Ask(CheckBytes("no such command")) == -2; }

// The delimiter decides over every byte that both ends read: each side of each limit.
TEST(RpcFrame, DelimiterAndNames) {
  const auto buffer = MemoryBuffer::Create();
  std::string wrong(103, 'x');
  buffer->WriteBytes(wrong.data(), wrong.size());
  EXPECT_EQ(bsp::IsHadRpcPack(buffer), 0);
  buffer->WriteBytes("x", 1);
  EXPECT_EQ(bsp::IsHadRpcPack(buffer), -1);
  EXPECT_EQ(buffer->size(), 104u);
  EXPECT_EQ(bsp::IsHadRpcPack(nullptr), 0);

  const std::string frame = RpcBytes(RPC_TYPE_MESSAGE, 1, "a", std::string(396, 'p'));
  for (const size_t held : {499, 500, 5000}) {
    const auto in = MemoryBuffer::Create();
    const std::string bytes = (frame + std::string(5000, 'q')).substr(0, held);
    in->WriteBytes(bytes.data(), bytes.size());
    EXPECT_EQ(bsp::IsHadRpcPack(in), held < 500 ? 0 : 500);
    EXPECT_EQ(in->ToString(), bytes);
  }
  for (const int size : {INT32_MIN, -1, 0, 1, 103}) {
    RpcHeader head = {};
    head.magic = RPC_MAGIC;
    head.size = size;
    const auto in = MemoryBuffer::Create();
    in->WriteBytes(reinterpret_cast<char*>(&head), sizeof head);
    EXPECT_EQ(bsp::LookAtRpcFrame(in, &head), RpcFrameState::kBadSize);
    EXPECT_EQ(bsp::IsHadRpcPack(in), size > 0 ? size : 0);
  }

  char cmd[64];
  bsp::SetRpcCmd(cmd, std::string(62, 'n').c_str());
  EXPECT_EQ(bsp::RpcCmdText(cmd), std::string(62, 'n'));
  bsp::SetRpcCmd(cmd, std::string(63, 'n').c_str());
  EXPECT_EQ(bsp::RpcCmdText(cmd), std::string(62, 'n'));
  memset(cmd, 'u', sizeof cmd);
  EXPECT_EQ(bsp::RpcCmdText(cmd).size(), 64u);
}

// What each frame type comes back as, and which fields the broker may touch on the way.
TEST(RpcBroker, RoutesEachTypeByTheTable) {
  NEED_PRIVATE_WORLD();
  Broker broker;
  RpcPeer listener(broker.port);
  RpcPeer caller(broker.port);
  RpcFrame answer;
  EXPECT_EQ(listener.Ask(ListenBytes(7, "req", RPC_TYPE_REQUEST, 3, getpid()), &answer), 0);
  EXPECT_EQ(answer.head.size, 104);
  EXPECT_EQ(answer.head.type, RPC_TYPE_REPLAY);
  EXPECT_EQ(answer.head.seq, 7u);
  EXPECT_EQ(answer.head.pid, getpid());
  EXPECT_EQ(listener.Ask(ListenBytes(8, "req", RPC_TYPE_REQUEST, 9, getpid())),
            0);  // again: no change
  EXPECT_EQ(listener.Ask(ListenBytes(9, "msg", RPC_TYPE_MESSAGE, 2, getpid())), 0);
  EXPECT_EQ(caller.Ask(ListenBytes(1, "req", RPC_TYPE_MESSAGE, 0, 1)), -6);

  ASSERT_EQ(caller.Ask(CheckBytes("req"), &answer), 0);
  EXPECT_EQ(answer.head.size, 176);
  EXPECT_EQ(answer.payload, RpcRecord("req", RPC_TYPE_REQUEST, 3));
  EXPECT_EQ(caller.Ask(CheckBytes("gone"), &answer), -2);
  EXPECT_EQ(answer.head.size, 104);

  RpcFrame request;
  request.head.type = RPC_TYPE_REQUEST;
  request.head.seq = 77;
  request.head.pid = 101;
  request.head.timestamp = 123456789;
  request.payload = "payload";
  bsp::SetRpcCmd(request.head.cmd, "gone");
  EXPECT_EQ(caller.Ask(RpcBytes(request), &answer), -2);
  EXPECT_EQ(answer.head.seq, 77u);

  // An unknown type and a reply for nobody are consumed; what follows is handled.
  RpcFrame stray = request;
  stray.head.type = RPC_TYPE_REPLAY;
  stray.head.cli_hdl = 9999;
  bsp::SetRpcCmd(request.head.cmd, "req");
  ASSERT_TRUE(caller.Send(RpcBytes(55, 1, "req", "") + RpcBytes(stray) + RpcBytes(request)));
  RpcFrame got;
  ASSERT_TRUE(listener.Read(&got));
  EXPECT_EQ(got.head.type, RPC_TYPE_REQUEST);
  EXPECT_GT(got.head.cli_hdl, 0);
  EXPECT_EQ(got.payload, "payload");
  EXPECT_EQ(got.head.timestamp, 123456789);
  RpcFrame reply = got;
  reply.head.type = RPC_TYPE_REPLAY;
  reply.head.err_code = -7;
  reply.payload = std::string(70000, 'r');
  ASSERT_TRUE(listener.Send(RpcBytes(reply)));
  ASSERT_TRUE(caller.Read(&answer));
  EXPECT_EQ(RpcBytes(answer), RpcBytes(reply));

  // The kind in the table wins over the type of the frame, both ways.
  ASSERT_EQ(caller.Ask(RpcBytes(RPC_TYPE_REQUEST, 5, "msg", "m"), &answer), 0);
  EXPECT_EQ(answer.head.size, 104);
  ASSERT_TRUE(listener.Read(&got));
  EXPECT_EQ(got.head.type, RPC_TYPE_MESSAGE);
  ASSERT_TRUE(caller.Send(RpcBytes(RPC_TYPE_MESSAGE, 6, "req", "")));
  ASSERT_TRUE(listener.Read(&got));
  EXPECT_EQ(got.head.type, RPC_TYPE_REQUEST);

  // With its last listener a command goes.
  listener.Close();
  while (caller.Ask(CheckBytes("req")) == 0) {
  }
  EXPECT_EQ(caller.Ask(CheckBytes("msg")), -2);
}

// Every listener but those of the sender's own process gets a message, once, in order of sending.
TEST(RpcBroker, MessagesReachAllButTheSendersProcess) {
  NEED_PRIVATE_WORLD();
  Broker broker;
  std::deque<RpcPeer> peers;
  for (int i = 0; i < 4; ++i) {
    peers.emplace_back(broker.port);
    const int pid = i < 3 ? 100 + i : 100;  // the last is of the first one's process
    ASSERT_EQ(peers[i].Ask(ListenBytes(1, "m", RPC_TYPE_MESSAGE, i, pid)), 0);
  }
  std::string burst;
  for (uint32_t seq = 0; seq < 2000; ++seq) {
    burst += RpcBytes(RPC_TYPE_MESSAGE, seq, "m", std::string(seq % 97, 'b'));
  }
  std::thread sender([&] { EXPECT_TRUE(peers[0].Send(burst)); });
  for (const int i : {1, 2}) {
    RpcFrame got;
    for (uint32_t seq = 0; seq < 2000; ++seq) {
      ASSERT_TRUE(peers[i].Read(&got));
      ASSERT_EQ(got.head.seq, seq);
      ASSERT_EQ(got.payload.size(), seq % 97);
    }
  }
  sender.join();
  // The next frame that these two get is the answer to their own question.
  EXPECT_TRUE(IsServed(&peers[0]));
  EXPECT_TRUE(IsServed(&peers[3]));
}

// However the network cuts the stream, the same answers come back.
TEST(RpcBroker, AnyCutGivesTheSameAnswers) {
  NEED_PRIVATE_WORLD();
  Broker broker;
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const std::string stream = ListenBytes(1, "cut", RPC_TYPE_MESSAGE, 4, 50) + CheckBytes("cut") +
                             RpcBytes(RPC_TYPE_MESSAGE, 2, "cut", std::string(9000, 'z')) +
                             CheckBytes("absent");
  for (int round = 0; round < 20; ++round) {
    RpcPeer peer(broker.port);
    RpcPeer other(broker.port);
    size_t at = 0;
    while (at < stream.size()) {
      // The first round sends byte by byte.
      const size_t count = round == 0 ? 1 : 1 + random() % 3000;
      ASSERT_TRUE(peer.Send(stream.substr(at, count)));
      at += count;
      if (round != 0 && random() % 4 == 0) {
        ASSERT_TRUE(IsServed(&other));
      }
    }
    RpcFrame answer;
    ASSERT_TRUE(peer.Read(&answer));
    ASSERT_EQ(answer.head.err_code, 0);
    ASSERT_TRUE(peer.Read(&answer));
    ASSERT_EQ(answer.payload, RpcRecord("cut", RPC_TYPE_MESSAGE, 4));
    ASSERT_TRUE(peer.Read(&answer));
    ASSERT_EQ(answer.head.err_code, -2);
  }
}

// Broken writers cost themselves the connection at most; nobody else notices.
TEST(RpcBroker, BearsGarbage) {
  NEED_PRIVATE_WORLD();
  RpcServer::Options options;
  options.max_unread_bytes = 4096;
  options.listen_backlog = 128;  // a burst of connects is coming
  Broker broker(options);
  RpcPeer good(broker.port);

  RpcPeer wrong(broker.port);
  ASSERT_TRUE(wrong.Send(std::string(4096, 'w')));
  ASSERT_TRUE(IsServed(&good));
  EXPECT_FALSE(wrong.IsClosedByPeer(50));
  ASSERT_TRUE(wrong.Send("w"));
  EXPECT_TRUE(wrong.IsClosedByPeer());

  for (const int size : {INT32_MIN, -1, 0, 103}) {
    RpcPeer peer(broker.port);
    std::string bytes = RpcBytes(RPC_TYPE_MESSAGE, 1, "x", "");
    memcpy(&bytes[4], &size, sizeof size);
    ASSERT_TRUE(peer.Send(bytes));
    EXPECT_TRUE(peer.IsClosedByPeer()) << size;
  }
  // A record that is not there is not read: refused, and nothing is registered.
  RpcPeer shorter(broker.port);
  const std::string record = RpcRecord("short", RPC_TYPE_MESSAGE, 1);
  for (const size_t length : {size_t{0}, size_t{71}}) {
    EXPECT_EQ(shorter.Ask(RpcBytes(RPC_TYPE_LISTEN, 1, "short", record.substr(0, length))), -1);
    EXPECT_EQ(shorter.Ask(RpcBytes(RPC_TYPE_CHECK_POWER, 1, "", record.substr(0, length))), -1);
  }
  EXPECT_EQ(shorter.Ask(CheckBytes("short")), -2);
  // Names without a terminator end with their field.
  std::string unterminated = RpcRecord("", RPC_TYPE_MESSAGE, 1);
  memset(&unterminated[0], 'u', 64);
  RpcFrame answer;
  EXPECT_EQ(shorter.Ask(RpcBytes(RPC_TYPE_LISTEN, 1, "", unterminated)), 0);
  EXPECT_EQ(shorter.Ask(RpcBytes(RPC_TYPE_CHECK_POWER, 1, "", unterminated), &answer), 0);
  EXPECT_EQ(answer.payload.substr(0, 64), std::string(63, 'u') + '\0');

  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  for (int round = 0; round < 300; ++round) {
    RpcPeer peer(broker.port);
    std::string bytes = ListenBytes(1, "fuzz", 10 + static_cast<int>(random() % 2), 0, 60) +
                        RpcBytes(RPC_TYPE_REQUEST, 2, "fuzz", "p") + CheckBytes("fuzz");
    for (int flips = 0; flips < 8; ++flips) bytes[random() % bytes.size()] = char(random());
    peer.Send(bytes);
    if (round % 3 == 0) peer.Close();  // half way through, as far as the broker can tell
  }
  EXPECT_TRUE(IsServed(&good));
}

// A dead listener must not stand in its successor's way, and a live one must not be thrown out.
TEST(RpcBroker, TakesOverFromTheDeadOnly) {
  NEED_PRIVATE_WORLD();
  Broker broker;
  const pid_t dead = fork();
  if (dead == 0) _exit(0);
  ASSERT_EQ(waitpid(dead, nullptr, 0), dead);

  RpcPeer old(broker.port);
  ASSERT_EQ(old.Ask(ListenBytes(1, "r", RPC_TYPE_REQUEST, 1, dead)), 0);
  ASSERT_EQ(old.Ask(ListenBytes(2, "also", RPC_TYPE_MESSAGE, 1, dead)), 0);
  RpcPeer heir(broker.port);
  EXPECT_EQ(heir.Ask(ListenBytes(1, "r", RPC_TYPE_REQUEST, 8, getpid())), 0);
  EXPECT_TRUE(old.IsClosedByPeer());
  RpcFrame answer;
  ASSERT_EQ(heir.Ask(CheckBytes("r"), &answer), 0);
  EXPECT_EQ(answer.payload, RpcRecord("r", RPC_TYPE_REQUEST, 8));
  EXPECT_EQ(heir.Ask(CheckBytes("also")), -2);  // closed in all its commands

  // Alive: a live process, and pids that must never be signalled, 0 and below.
  for (const int pid : {static_cast<int>(getpid()), 0, -1, -4242}) {
    RpcPeer alive(broker.port);
    RpcPeer late(broker.port);
    const std::string cmd = "alive" + std::to_string(pid);
    ASSERT_EQ(alive.Ask(ListenBytes(1, cmd, RPC_TYPE_REQUEST, 1, pid)), 0);
    EXPECT_EQ(late.Ask(ListenBytes(1, cmd, RPC_TYPE_REQUEST, 1, 1)), -6) << pid;
    EXPECT_TRUE(IsServed(&alive));
  }
}

// Each limit turns away or drops the one who passes it, says so, and leaves the others in peace.
TEST(RpcBroker, LimitsHitOnlyTheOffender) {
  NEED_PRIVATE_WORLD();
  RpcServer::Options options;
  options.max_frame_bytes = 100000;
  options.max_backlog_bytes = 1000000;
  options.max_clients = 4;
  options.max_commands = 2;
  Broker broker(options);
  testing::internal::CaptureStdout();
  {
    RpcPeer good(broker.port);
    RpcPeer big(broker.port);
    ASSERT_EQ(good.Ask(ListenBytes(1, "a", RPC_TYPE_REQUEST, 1, getpid())), 0);
    EXPECT_TRUE(IsServed(&big));
    ASSERT_TRUE(big.Send(RpcBytes(RPC_TYPE_MESSAGE, 1, "a", std::string(100000 - 104, 'f'))));
    RpcFrame got;
    ASSERT_TRUE(good.Read(&got));
    EXPECT_EQ(got.head.size, 100000);
    big.Send(RpcBytes(RPC_TYPE_MESSAGE, 1, "a", std::string(100001 - 104, 'f')).substr(0, 104));
    EXPECT_TRUE(big.IsClosedByPeer());

    EXPECT_EQ(good.Ask(ListenBytes(2, "b", RPC_TYPE_MESSAGE, 1, getpid())), 0);
    EXPECT_EQ(good.Ask(ListenBytes(3, "c", RPC_TYPE_MESSAGE, 1, getpid())), -1);
    EXPECT_EQ(good.Ask(CheckBytes("c")), -2);

    // A reader that never reads, while another one reads everything.
    RpcPeer never(broker.port);
    RpcPeer sender(broker.port);
    ASSERT_EQ(never.Ask(ListenBytes(1, "b", RPC_TYPE_MESSAGE, 1, 1)), 0);
    const std::string body(50000, 'n');
    for (uint32_t i = 0; i < 400; ++i) {
      ASSERT_TRUE(sender.Send(RpcBytes(RPC_TYPE_MESSAGE, i, "b", body)));
      ASSERT_TRUE(good.Read(&got));
      ASSERT_EQ(got.head.seq, i);
    }
    EXPECT_TRUE(never.IsClosedByPeer());

    RpcPeer third(broker.port);
    RpcPeer fourth(broker.port);
    RpcPeer fifth(broker.port);
    EXPECT_TRUE(IsServed(&third) && IsServed(&fourth));
    EXPECT_TRUE(fifth.IsClosedByPeer());
    EXPECT_TRUE(IsServed(&good));
  }
  broker.server.Stop();
  const std::string log = testing::internal::GetCapturedStdout();
  EXPECT_NE(log.find("frame bytes, limit 100000, value 100001"), std::string::npos) << log;
  EXPECT_NE(log.find("commands, limit 2, value 3"), std::string::npos) << log;
  EXPECT_NE(log.find("pid 1: backlog bytes, limit 1000000, value 1"), std::string::npos) << log;
  EXPECT_NE(log.find("clients, limit 4, value 5"), std::string::npos) << log;
}

// Start and Stop in every order, and nothing takes the second that an unwoken loop would.
TEST(RpcBroker, StartsAndStops) {
  NEED_PRIVATE_WORLD();
  RpcServer unused;
  unused.Stop();
  unused.Stop();
  RpcServer::Options options;
  options.reuse_address = true;
  int ticks = 0;
  options.on_tick = [&ticks] { ++ticks; };
  const int port = NextPort();
  RpcServer server(options);
  for (int round = 0; round < 20; ++round) {
    ASSERT_EQ(server.Start("127.0.0.1", port), nullptr);
    EXPECT_NE(server.Start("127.0.0.1", port), nullptr);
    RpcServer second(options);
    const auto error = second.Start("127.0.0.1", port);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->ErrorCode(), -1);
    RpcPeer peer(port);
    EXPECT_TRUE(IsServed(&peer));
    const auto begin = steady_clock::now();
    server.Stop();
    EXPECT_LT(ElapsedMs(begin), 800);
    EXPECT_TRUE(peer.IsClosedByPeer());
  }
  ASSERT_EQ(server.Start("127.0.0.1", port), nullptr);
  std::this_thread::sleep_for(milliseconds(1200));
  server.Stop();
  EXPECT_GE(ticks, 1);
}

// ---- The client against a played broker

// Accepts clients and lets the test answer their frames.
struct PlayedBroker {
  PlayedBroker() : port(NextPort()), listener(RpcPeer::ListenOn(port)) {}
  ~PlayedBroker() { close(listener); }

  std::shared_ptr<RpcClient> Open(RpcClient::Options options = {}) {
    auto client = std::make_shared<RpcClient>();
    client->SetOptions(options);
    EXPECT_EQ(client->Open("127.0.0.1", static_cast<uint16_t>(port)), nullptr);
    return client;
  }

  const int port;
  const int listener;
};

std::string ReplyTo(RpcFrame frame, int err_code, const std::string& payload) {
  frame.head.type = RPC_TYPE_REPLAY;
  frame.head.err_code = err_code;
  frame.payload = payload;
  return RpcBytes(frame);
}

int CodeOf(const std::shared_ptr<MSError>& error) { return error ? error->ErrorCode() : 0; }

// What a client writes, and what it makes of each kind of answer.
TEST(RpcClient, SpeaksAndReadsTheWire) {
  NEED_PRIVATE_WORLD();
  PlayedBroker broker;
  const auto client = broker.Open();
  RpcPeer peer = RpcPeer::Accept(broker.listener);
  RpcFrame got;
  const auto played = [&](const std::function<int()>& call, const auto& answer) {
    auto result = std::async(std::launch::async, call);
    EXPECT_TRUE(peer.Read(&got));
    peer.Send(answer(got));
    return result.get();
  };
  const std::string name63(63, 'n');
  EXPECT_EQ(CodeOf(client->Listen(std::string(64, 'n'), RPC_TYPE_REQUEST, 5)), -1);
  EXPECT_EQ(played([&] { return CodeOf(client->Listen(name63, RPC_TYPE_REQUEST, 5)); },
                   [](RpcFrame& f) { return ReplyTo(f, 0, ""); }),
            0);
  EXPECT_EQ(got.head.type, RPC_TYPE_LISTEN);
  EXPECT_EQ(got.head.seq, 1u);
  EXPECT_EQ(got.head.pid, getpid());
  EXPECT_EQ(got.payload, RpcRecord(std::string(62, 'n'), RPC_TYPE_REQUEST, 5));
  EXPECT_EQ(bsp::RpcCmdText(got.head.cmd), std::string(62, 'n'));

  EXPECT_EQ(client->SendMessage("m", ""), nullptr);
  ASSERT_TRUE(peer.Read(&got));
  EXPECT_EQ(got.head.seq, 2u);
  EXPECT_EQ(got.head.size, 104);

  std::string answer;
  const auto call = [&] { return CodeOf(client->SendRequest("c", "q", answer, 20000)); };
  EXPECT_EQ(played(call, [](RpcFrame& f) { return ReplyTo(f, 0, "12345"); }), 0);
  EXPECT_EQ(got.head.seq, 3u);
  EXPECT_EQ(answer, std::string("12345\0", 6));
  EXPECT_EQ(played(call, [](RpcFrame& f) { return ReplyTo(f, -2, "67890"); }), -2);
  EXPECT_EQ(played(call, [](RpcFrame& f) { return ReplyTo(f, 0, ""); }), 0);
  EXPECT_EQ(answer, std::string("12345\0", 6));  // kept by a failure and by an empty answer
  // Other types and answers for nobody are passed over; of two answers the first counts.
  EXPECT_EQ(played(call,
                   [](RpcFrame& f) {
                     RpcFrame other = f;
                     other.head.seq += 1000;
                     return RpcBytes(77, f.head.seq, "", "x") + ReplyTo(other, 0, "stray") +
                            ReplyTo(f, 0, "first") + ReplyTo(f, -9, "second");
                   }),
            0);
  EXPECT_EQ(answer, std::string("first\0", 6));
  EXPECT_EQ(played(call, [](RpcFrame& f) { return ReplyTo(f, 0, std::string(3000000, 'L')); }), 0);
  EXPECT_EQ(answer.size(), 3000001u);

  // 71 bytes and the appended zero are not a record.
  int type = 5;
  int power = 6;
  const auto check = [&] { return CodeOf(client->CheckCmdPower("c", type, power)); };
  const std::string record = RpcRecord("c", RPC_TYPE_REQUEST, 44);
  EXPECT_EQ(played(check, [&](RpcFrame& f) { return ReplyTo(f, 0, record.substr(0, 71)); }), -1);
  EXPECT_EQ(played(check, [&](RpcFrame& f) { return ReplyTo(f, -2, ""); }), -2);
  EXPECT_EQ(type * 10 + power, 56);
  EXPECT_EQ(played(check, [&](RpcFrame& f) { return ReplyTo(f, 0, record); }), 0);
  EXPECT_EQ(type, RPC_TYPE_REQUEST);
  EXPECT_EQ(power, 44);
  EXPECT_EQ(played([&] { return CodeOf(client->Flush(20000)); },
                   [](RpcFrame& f) { return ReplyTo(f, -2, ""); }),
            0);
}

// A reply that comes too late must neither end a later call nor write anywhere.
TEST(RpcClient, LateRepliesNeverCount) {
  NEED_PRIVATE_WORLD();
  PlayedBroker broker;
  const auto client = broker.Open();
  RpcPeer peer = RpcPeer::Accept(broker.listener);
  // Answers each call with its own seq, around the moment in which the caller gives up.
  std::thread answering([&] {
    RpcFrame got;
    for (unsigned turn = 0; peer.Read(&got); ++turn) {
      std::this_thread::sleep_for(std::chrono::microseconds(900 + turn % 5 * 60));
      if (!peer.Send(ReplyTo(got, 0, got.payload))) return;
    }
  });
  int in_time = 0;
  int late = 0;
  for (int i = 0; i < 1500; ++i) {
    std::string answer = "before";
    const std::string request = std::to_string(i);
    const auto error = client->SendRequest("c", request, answer, 1);
    if (error == nullptr) {
      ++in_time;
      ASSERT_EQ(answer, request + '\0');
    } else {
      ++late;
      ASSERT_EQ(error->ErrorCode(), -3);
      ASSERT_EQ(answer, "before");
    }
    // Catches up, so that lateness does not pile up.
    if (error != nullptr) {
      std::string rest;
      ASSERT_EQ(client->SendRequest("c", request, rest, 20000), nullptr);
      ASSERT_EQ(rest, request + '\0');
    }
  }
  client->Close();
  answering.join();
  EXPECT_GT(in_time, 0);
  EXPECT_GT(late, 0);
}

// Each of many callers gets the answer to its own question, also when they come in reverse order.
TEST(RpcClient, ManyCallersGetTheirOwnAnswers) {
  NEED_PRIVATE_WORLD();
  PlayedBroker broker;
  const auto client = broker.Open();
  RpcPeer peer = RpcPeer::Accept(broker.listener);
  constexpr int kCallers = 64;
  constexpr int kRounds = 20;
  std::thread answering([&] {
    for (int round = 0; round < kRounds; ++round) {
      std::string answers;
      RpcFrame got;
      for (int i = 0; i < kCallers; ++i) {
        ASSERT_TRUE(peer.Read(&got));
        answers.insert(0, ReplyTo(got, 0, got.payload));
      }
      ASSERT_TRUE(peer.Send(answers));
    }
  });
  std::vector<std::thread> callers;
  std::atomic<int> right{0};
  for (int caller = 0; caller < kCallers; ++caller) {
    callers.emplace_back([&, caller] {
      for (int round = 0; round < kRounds; ++round) {
        const std::string question = std::to_string(caller * 1000 + round);
        std::string answer;
        const auto error = client->SendRequest("c", question, answer, 60000);
        if (error == nullptr && answer == question + '\0') ++right;
      }
    });
  }
  for (std::thread& caller : callers) caller.join();
  answering.join();
  EXPECT_EQ(right, kCallers * kRounds);
}

// A sequence number that comes round while its first call still waits belongs to that call.
TEST(RpcClient, WrappedSeqSparesTheLiveWaiter) {
  NEED_PRIVATE_WORLD();
  PlayedBroker broker;
  const auto client = broker.Open();
  RpcPeer peer = RpcPeer::Accept(broker.listener);
  RpcHeader first = {};
  RpcHeader second = {};
  first.seq = second.seq = 1;  // the one that the client's counter gives next, too
  std::string answers[2];
  RpcClient::MsgSemGuard waiting(&first, client.get(), answers[0]);
  {
    RpcClient::MsgSemGuard wrapped(&second, client.get(), answers[1]);
    EXPECT_NE(second.seq, first.seq);
  }
  RpcFrame reply;
  reply.head = first;
  ASSERT_TRUE(peer.Send(ReplyTo(reply, 0, "mine")));
  EXPECT_EQ(waiting.WaitReply(20000), nullptr);
  EXPECT_EQ(answers[0], std::string("mine\0", 5));
  EXPECT_EQ(answers[1], "");
}

struct Slots : public sigslot::has_slots<> {
  void OnMessage(std::shared_ptr<RpcClient> client, RpcHeader*) {
    if (on_message) on_message(client);
  }
  void OnError(std::shared_ptr<RpcClient>, std::shared_ptr<MSError>) {
    const std::lock_guard<std::mutex> lock(mutex);
    ++errors;
    changed.notify_all();
  }
  bool WaitForErrors(int count) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, std::chrono::seconds(20), [&] { return errors >= count; });
  }
  std::function<void(const std::shared_ptr<RpcClient>&)> on_message;
  std::mutex mutex;
  std::condition_variable changed;
  int errors = 0;
};

// A stream that cannot be read is told at each delivery, with the connection left alone.
TEST(RpcClient, UnreadableStreamRaisesTheSignal) {
  NEED_PRIVATE_WORLD();
  PlayedBroker broker;
  for (const bool has_magic : {true, false}) {
    const auto client = broker.Open();
    RpcPeer peer = RpcPeer::Accept(broker.listener);
    Slots slots;
    client->SignalError.connect(&slots, &Slots::OnError);
    std::string bytes(104, '\0');  // a frame of size 0
    const uint32_t magic = has_magic ? RPC_MAGIC : 1;
    memcpy(&bytes[0], &magic, sizeof magic);
    ASSERT_TRUE(peer.Send(bytes));
    EXPECT_TRUE(slots.WaitForErrors(1));
    ASSERT_TRUE(peer.Send("more"));
    EXPECT_TRUE(slots.WaitForErrors(2));
    EXPECT_TRUE(client->IsConnected());
    client->Close();
  }
}

// The states of opening and closing, and that no order of them hangs.
TEST(RpcClient, OpensAndCloses) {
  NEED_PRIVATE_WORLD();
  const auto client = std::make_shared<RpcClient>();
  client->Close();
  std::string answer;
  EXPECT_EQ(CodeOf(client->SendRequest("c", "", answer, 1)), -1);
  const int port = NextPort();
  const auto refused = client->Open("127.0.0.1", static_cast<uint16_t>(port));
  ASSERT_EQ(CodeOf(refused), -4);
  EXPECT_NE(refused->Message().find("127.0.0.1, port: " + std::to_string(port)), std::string::npos);
  EXPECT_EQ(client->Open("127.0.0.1", static_cast<uint16_t>(port)), nullptr);  // "already running"
  EXPECT_FALSE(client->IsConnected());
  EXPECT_EQ(CodeOf(client->SendMessage("c", "")), -1);
  Broker broker;
  client->Close();
  const auto begin = steady_clock::now();
  for (int round = 0; round < 50; ++round) {
    ASSERT_EQ(client->Open("127.0.0.1", static_cast<uint16_t>(broker.port)), nullptr);
    EXPECT_TRUE(client->IsConnected());
    if (round % 2 == 0) {
      ASSERT_EQ(client->Flush(20000), nullptr);
    }
    client->Close();
    client->Close();
    EXPECT_FALSE(client->IsConnected());
  }
  EXPECT_LT(ElapsedMs(begin), 10000);  // a loop left to its time-out would take 50 seconds

  // Closing under waiting callers: they end at their time-outs.
  PlayedBroker silent;
  const auto waiting = silent.Open();
  RpcPeer peer = RpcPeer::Accept(silent.listener);
  auto call = std::async(std::launch::async, [&] {
    std::string nothing;
    return CodeOf(waiting->SendRequest("c", "", nothing, 300));
  });
  RpcFrame got;
  ASSERT_TRUE(peer.Read(&got));
  waiting->Close();
  EXPECT_EQ(call.get(), -3);
}

// A slot may try to close, and may drop the last pointer to its client; so may anyone, under
// traffic.
TEST(RpcClient, EndsFromEverySide) {
  NEED_PRIVATE_WORLD();
  Broker broker;
  for (int round = 0; round < 10; ++round) {
    RpcPeer publisher(broker.port);
    auto client = std::make_shared<RpcClient>();
    std::weak_ptr<RpcClient> watched = client;
    ASSERT_EQ(client->Open("127.0.0.1", static_cast<uint16_t>(broker.port)), nullptr);
    Slots slots;
    std::promise<void> done;
    std::atomic<int> calls{0};
    slots.on_message = [&](const std::shared_ptr<RpcClient>& self) {
      if (calls++ != 0) return;
      self->Close();  // refused
      EXPECT_TRUE(self->IsConnected());
      if (round % 2 == 0) client.reset();  // `self` and the loop's own are left
      done.set_value();
    };
    client->SignalMessage.connect(&slots, &Slots::OnMessage);
    ASSERT_EQ(client->Listen("end", RPC_TYPE_MESSAGE, 0), nullptr);
    std::string burst;
    for (uint32_t i = 0; i < 50; ++i) burst += RpcBytes(RPC_TYPE_MESSAGE, i, "end", "");
    ASSERT_TRUE(publisher.Send(burst));
    done.get_future().get();
    if (round % 2 != 0) client.reset();
    while (publisher.Ask(CheckBytes("end")) == 0) {
    }
    RpcClient().Close();  // joins a thread that could not be joined by itself
    EXPECT_TRUE(watched.expired());
  }
}

// With the option, a lost broker ends the wait and is told; without it the call runs its time.
TEST(RpcClient, LostConnectionEndsCallsWhenAsked) {
  NEED_PRIVATE_WORLD();
  for (const bool is_asked : {true, false}) {
    PlayedBroker broker;
    RpcClient::Options options;
    options.fail_calls_on_disconnect = is_asked;
    const auto client = broker.Open(options);
    RpcPeer peer = RpcPeer::Accept(broker.listener);
    Slots slots;
    client->SignalError.connect(&slots, &Slots::OnError);
    const auto begin = steady_clock::now();
    auto call = std::async(std::launch::async, [&] {
      std::string answer;
      return CodeOf(client->SendRequest("c", "", answer, is_asked ? 20000 : 200));
    });
    RpcFrame got;
    ASSERT_TRUE(peer.Read(&got));
    peer.Close();
    EXPECT_EQ(call.get(), is_asked ? -1 : -3);
    EXPECT_LT(ElapsedMs(begin), 10000);
    if (is_asked) {
      EXPECT_TRUE(slots.WaitForErrors(1));
      EXPECT_FALSE(client->IsConnected());
      EXPECT_EQ(CodeOf(client->Listen("c", RPC_TYPE_MESSAGE, 0)), -1);
      client->Close();
      ASSERT_EQ(client->Open("127.0.0.1", static_cast<uint16_t>(broker.port)), nullptr);
      EXPECT_TRUE(client->IsConnected());
    } else {
      EXPECT_TRUE(client->IsConnected());
    }
    EXPECT_EQ(slots.errors, is_asked ? 1 : 0);
    client->Close();
  }
}

// A module that sends and ends loses nothing: neither by Flush, nor, with the broker's option, by
// an abrupt end behind its last bytes.
TEST(RpcClient, LastMessagesArrive) {
  NEED_PRIVATE_WORLD();
  RpcServer::Options options;
  options.handle_last_frames = true;
  Broker broker(options);
  RpcPeer listener(broker.port);
  ASSERT_EQ(listener.Ask(ListenBytes(1, "last", RPC_TYPE_MESSAGE, 0, 1)), 0);
  uint32_t expected = 0;
  RpcFrame got;
  for (int round = 0; round < 100; ++round) {
    if (round % 2 == 0) {
      const auto client = std::make_shared<RpcClient>();
      ASSERT_EQ(client->Open("127.0.0.1", static_cast<uint16_t>(broker.port)), nullptr);
      for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(client->SendMessage("last", std::string(30000, 'l')), nullptr);
      }
      ASSERT_EQ(client->Flush(20000), nullptr);
    } else {
      RpcPeer abrupt(broker.port);
      for (uint32_t i = 0; i < 10; ++i) {
        abrupt.Send(RpcBytes(RPC_TYPE_MESSAGE, i, "last", std::string(3000, 'l')));
      }
    }
    for (int i = 0; i < 10; ++i, ++expected) ASSERT_TRUE(listener.Read(&got)) << expected;
  }
  EXPECT_EQ(expected, 1000u);
}

// ---- The C binding

int Echo(const char* action, const char* req, int req_len, char* resp, int resp_max) {
  EXPECT_EQ(resp_max, 0xa0000);
  EXPECT_EQ(req[req_len], '\0');
  if (strcmp(req, "action") == 0) return static_cast<int>(strlen(strcpy(resp, action)));
  if (strcmp(req, "empty") == 0) return 0;
  if (strcmp(req, "fail") == 0) return -7;
  if (strcmp(req, "lie") == 0) return resp_max + 1;
  if (strcmp(req, "full") == 0) {
    memset(resp, 'f', static_cast<size_t>(resp_max));
    return resp_max;
  }
  memcpy(resp, req, static_cast<size_t>(req_len));
  return req_len;
}

int Other(const char*, const char*, int, char* resp, int) {
  resp[0] = 'o';
  return 1;
}

// Two handles in one process would be one process to the broker, so the caller's pid is disguised
// by never listening.
struct Handles {
  explicit Handles(int port)
      : listener(rpc_client_c_open("127.0.0.1", port)),
        caller(rpc_client_c_open("localhost", port)) {}
  ~Handles() {
    rpc_client_c_close(listener);
    rpc_client_c_close(caller);
  }
  std::string Call(const char* cmd, const char* req, int resp_size, int* result) {
    std::string resp(64, '#');
    *result = rpc_client_c_send_request(caller, cmd, req, static_cast<int>(strlen(req)), &resp[0],
                                        resp_size, 20000);
    return resp;
  }
  void* const listener;
  void* const caller;
};

// Changed while no thread logs.
struct LogLevel {
  explicit LogLevel(int32_t level) : saved(g_log_level) { g_log_level = level; }
  ~LogLevel() { g_log_level = saved; }
  const int32_t saved;
};

// What a handler's result becomes at the caller, down to the bytes of a small buffer.
TEST(RpcClientC, HandlerResultsReachTheCaller) {
  NEED_PRIVATE_WORLD();
  const LogLevel level(BSP_LEVEL_DEBUG);
  Broker broker;
  Handles bus(broker.port);
  ASSERT_NE(bus.listener, nullptr);
  ASSERT_NE(bus.caller, nullptr);
  ASSERT_EQ(rpc_client_c_listen_v1(bus.listener, "echo", RPC_TYPE_REQUEST, 6, Other, nullptr), 0);
  ASSERT_EQ(rpc_client_c_listen_v1(bus.listener, "echo", RPC_TYPE_REQUEST, 6, Echo, nullptr), 0);
  int result = 0;
  EXPECT_EQ(bus.Call("echo", "12345", 7, &result).substr(0, 8), std::string("12345\0\0#", 8));
  EXPECT_EQ(result, 6);
  EXPECT_EQ(bus.Call("echo", "12345", 6, &result), std::string(64, '#'));
  EXPECT_EQ(result, 6);
  EXPECT_EQ(bus.Call("echo", "empty", 64, &result), std::string(64, '#'));
  EXPECT_EQ(result, 0);
  for (const char* failing : {"fail", "lie"}) {
    EXPECT_EQ(bus.Call("echo", failing, 64, &result), std::string(64, '#'));
    EXPECT_EQ(result, -1);
  }
  EXPECT_EQ(bus.Call("echo", "full", 64, &result), std::string(64, '#'));
  EXPECT_EQ(result, 0xa0001);

  // 63 characters are entered under the 62 that come back in frames.
  const std::string name63(63, 'n');
  ASSERT_EQ(
      rpc_client_c_listen_v1(bus.listener, name63.c_str(), RPC_TYPE_REQUEST, 0, Echo, nullptr), 0);
  EXPECT_EQ(bus.Call(name63.c_str(), "action", 64, &result).substr(0, 62), std::string(62, 'n'));
  EXPECT_EQ(result, 63);
  const std::string name64(64, 'n');
  EXPECT_EQ(
      rpc_client_c_listen_v1(bus.listener, name64.c_str(), RPC_TYPE_REQUEST, 0, Echo, nullptr), -1);
  EXPECT_EQ(rpc_client_c_check_cmd_power(bus.caller, "echo"), 6);
  EXPECT_EQ(rpc_client_c_check_cmd_power(bus.caller, "absent"), -1);
  EXPECT_EQ(rpc_client_c_send_message(bus.caller, "echo", nullptr, 5), 0);
  EXPECT_EQ(rpc_client_c_flush(bus.caller, 20000), 0);
  EXPECT_EQ(rpc_client_c_is_connected(bus.caller), 1);

  testing::internal::CaptureStdout();
  rpc_client_c_dump(bus.listener);
  const std::string log = testing::internal::GetCapturedStdout();
  EXPECT_NE(log.find("rpc client listen 2 cmds"), std::string::npos) << log;
  EXPECT_NE(log.find("register action: echo, func: "), std::string::npos) << log;
}

// Nothing that a C caller can hand in crashes or is sent.
TEST(RpcClientC, RefusesBadArguments) {
  NEED_PRIVATE_WORLD();
  Broker broker;
  char resp[8] = {};
  EXPECT_EQ(rpc_client_c_open(nullptr, broker.port), nullptr);
  EXPECT_EQ(rpc_client_c_open("127.0.0.1", 65536 + broker.port), nullptr);
  EXPECT_EQ(rpc_client_c_open("127.0.0.1", NextPort()), nullptr);  // nobody there
  EXPECT_EQ(rpc_client_c_open_v2("127.0.0.1", broker.port, 64), nullptr);
  rpc_client_c_close(nullptr);
  rpc_client_c_dump(nullptr);
  EXPECT_EQ(rpc_client_c_is_connected(nullptr), 0);
  EXPECT_EQ(rpc_client_c_listen_v1(nullptr, "c", RPC_TYPE_REQUEST, 0, Echo, nullptr), -1);
  EXPECT_EQ(rpc_client_c_check_cmd_power(nullptr, "c"), -1);
  EXPECT_EQ(rpc_client_c_send_request(nullptr, "c", "", 0, resp, 8, 10), -1);
  EXPECT_EQ(rpc_client_c_send_message(nullptr, "c", "", 0), -1);
  EXPECT_EQ(rpc_client_c_flush(nullptr, 10), -1);
  const RpcHeader head = {};
  EXPECT_EQ(rpc_client_c_send_reply(nullptr, &head, "", 0), -1);

  void* const handle =
      rpc_client_c_open_v2("127.0.0.1", broker.port, RPC_OPEN_FAIL_CALLS_ON_DISCONNECT);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(rpc_client_c_listen_v1(handle, nullptr, RPC_TYPE_REQUEST, 0, Echo, nullptr), -1);
  EXPECT_EQ(rpc_client_c_listen_v1(handle, "c", RPC_TYPE_REQUEST, 0, nullptr, nullptr), -1);
  EXPECT_EQ(rpc_client_c_check_cmd_power(handle, nullptr), -1);
  EXPECT_EQ(rpc_client_c_send_request(handle, nullptr, "", 0, resp, 8, 10), -1);
  EXPECT_EQ(rpc_client_c_send_request(handle, "c", "x", -1, resp, 8, 10), -1);
  EXPECT_EQ(rpc_client_c_send_request(handle, "c", nullptr, 1, resp, 8, 10), -1);
  EXPECT_EQ(rpc_client_c_send_request(handle, "c", "x", 1, resp, -8, 10), -1);
  EXPECT_EQ(rpc_client_c_send_message(handle, nullptr, "", 0), -1);
  EXPECT_EQ(rpc_client_c_send_message(handle, "c", "x", -1), 0);  // an empty one
  EXPECT_EQ(rpc_client_c_send_reply(handle, nullptr, "", 0), -1);
  EXPECT_EQ(rpc_client_c_send_reply(handle, &head, "", -1), -1);
  EXPECT_EQ(rpc_client_c_send_request(handle, "absent", nullptr, 0, nullptr, 0, 20000), -1);
  EXPECT_EQ(rpc_client_c_is_connected(handle), 1);
  rpc_client_c_close(handle);
}

}  // namespace
